#!/usr/bin/env bash
# The station's demonstration: ovta-station runs pc/plans/fixture.toml on a
# fixture of phones at once (4 by default; the first argument says how many,
# up to 8, the plan's board numbers), each phone laid out in the sandbox with
# its own agent, wfmgr-sim and network. On a terminal the live table shows
# every slot; the records go to build/station-records/ (slot-N.json per
# phone, junit.xml for the run). Ctrl-C stops every slot and still writes
# them. Exit status that of ovta-station: 0 every phone passed, 1 any failed.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2 --target ovta-amt wfmgr-sim ovta-station ovta-fixture
exec build/ovta-fixture --phones "${1:-4}" --table-bytes 262144 -- \
  build/ovta-station pc/plans/fixture.toml --records build/station-records
