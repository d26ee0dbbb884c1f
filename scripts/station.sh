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
#
#   scripts/station.sh --day [PHONES_PER_SLOT] [FIXTURE OPTIONS...]
#
# --day: a day of the line. Eight slots on their own cycles run
# pc/plans/day.toml until each has had PHONES_PER_SLOT phones (40: 320
# phones), each phone taken off as soon as it holds its verdict. A seeded
# share of the phones comes with a fault (ovta-fixture --fault): 4 % an RF
# table of other bytes, 4 % no memory card, 3 % a wfmgr that refuses the
# station's program; slot 3 loses its card on a further 30 % (a worn
# connector). Then the report over the day's results database (the terminal
# table), and its page, build/station-day/report.html. The fixture's
# phones.log names every fault it planted.
set -euo pipefail
cd "$(dirname "$0")/.."
phones=4
if [[ $# -gt 0 && $1 =~ ^[0-9]+$ ]]; then
  phones=$1
  shift
fi
loop=()
fixture=()
if [[ $# -gt 0 && $1 == --day ]]; then
  shift
  per_slot=40
  if [[ $# -gt 0 && $1 =~ ^[0-9]+$ ]]; then
    per_slot=$1
    shift
  fi
  scripts/install-deps.sh
  cmake --preset default >/dev/null
  cmake --build --preset default -j2 --target ovta-amt wfmgr-sim ovta-station ovta-fixture
  day=build/station-day
  rm -rf "$day"
  mkdir -p "$day"
  for ((k = 1; k <= per_slot; ++k)); do
    for slot in 1 2 3 4 5 6 7 8; do printf '%d SN-%d-%04d\n' "$slot" "$slot" "$k"; done
  done >"$day/boards.txt"
  status=0
  build/ovta-fixture --phones 8 --dir "$day/fixture" --swap-on-verdict --swap-every 60 --swap-gap 0.2 \
    --phones-per-slot "$per_slot" --seed 20 --fault rf:4 --fault card:4 --fault wfmgr:3 --fault card:30@3 \
    --station-handshake "$@" -- \
    build/ovta-station pc/plans/day.toml --loop --plain --boards "$day/boards.txt" --records "$day/records" \
    >"$day/station.log" || status=$?
  echo "ovta-station ended with status $status; its lines in $day/station.log"
  build/ovta-station report --database "$day/records/results.db" --html "$day/report.html"
  echo "the planted faults: grep fault $day/fixture/phones.log"
  exit 0
fi
if [[ $# -gt 0 && $1 == --loop ]]; then
  shift
  loop=(--loop)
  fixture=(--dir build/station-fixture --swap-every 40)
  fixture+=("$@")
elif [[ $# -gt 0 ]]; then
  echo "usage: scripts/station.sh [PHONES] [--loop [FIXTURE OPTIONS...]] | --day [PHONES_PER_SLOT] [FIXTURE OPTIONS...]" >&2
  exit 2
fi
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2 --target ovta-amt wfmgr-sim ovta-station ovta-fixture
rm -rf build/station-fixture
exec build/ovta-fixture --phones "$phones" --table-bytes 262144 "${fixture[@]}" -- \
  build/ovta-station pc/plans/fixture.toml --records build/station-records "${loop[@]}"
