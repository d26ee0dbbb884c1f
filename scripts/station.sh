#!/usr/bin/env bash
# The station's demonstration: ovta-station runs pc/plans/fixture.toml on a
# fixture of phones at once (4 by default; the first argument says how many,
# up to 8, the plan's board numbers), each phone laid out in the sandbox with
# its own agent, wfmgr-sim and network. On a terminal the live table shows
# every slot; the records go to build/station-records/. Ctrl-C stops every
# slot and still writes them. Exit status that of ovta-station: 0 every phone
# passed, 1 any failed.
#
#   scripts/station.sh [PHONES] [--loop] [FIXTURE OPTIONS...]
#
# --loop: a shift. Each slot runs its own cycle (ovta-station --loop) while
# the fixture takes each slot's phone off and puts a fresh one on, every 40
# seconds by default, the slots staggered. The options behind it go to
# ovta-fixture (tools/ovta_fixture.cpp), e.g. --swap-every 20,30 --swap-gap 2
# --pull-on 3:137. The fixture's folder is build/station-fixture/ (cleared at
# the start): every phone's stores stay in slot-N/phone-K/amt/, and
# phones.log says when each phone came and went. A swap by hand:
#   echo 2 > build/station-fixture/swap; kill -USR1 $(pidof ovta-fixture)
set -euo pipefail
cd "$(dirname "$0")/.."
phones=4
if [[ $# -gt 0 && $1 =~ ^[0-9]+$ ]]; then
  phones=$1
  shift
fi
loop=()
fixture=()
if [[ $# -gt 0 && $1 == --loop ]]; then
  shift
  loop=(--loop)
  fixture=(--dir build/station-fixture --swap-every 40)
  fixture+=("$@")
elif [[ $# -gt 0 ]]; then
  echo "usage: scripts/station.sh [PHONES] [--loop [FIXTURE OPTIONS...]]" >&2
  exit 2
fi
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2 --target ovta-amt wfmgr-sim ovta-station ovta-fixture
rm -rf build/station-fixture
exec build/ovta-fixture --phones "$phones" --table-bytes 262144 "${fixture[@]}" -- \
  build/ovta-station pc/plans/fixture.toml --records build/station-records "${loop[@]}"
