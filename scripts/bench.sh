#!/usr/bin/env bash
# Measures the agent's byte paths against the line itself and prints a table
# of ratios, each taken side by side in the same run (a few minutes):
# forwarded round trips against socat and a raw echo on the same kind of
# pseudo-terminal, bulk forwarding, a local command, RF table reads, idle
# wake-ups and a long run. Builds what it needs in build-bench/ (optimised,
# no tests) and installs what is missing, socat among it (as root, on Debian
# bookworm, like the other scripts). Everything but the table goes to standard error.
# Extra arguments go to ovta-line-bench (--quick: a tenth of everything;
# --only FAMILY: one family). Then the station: the same plan on 1 and on 8
# phones (scripts/bench-station.sh; --only station runs it alone). Then the
# results database (ovta-results-bench: rows per second into SQLite and into
# a PostgreSQL server it starts, the report over 100 000 phones; --only
# results runs it alone, with the station's slot time with and without the
# database). Figures are worth most on a quiet machine.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh >&2
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOVTA_BUILD_TESTS=OFF >/dev/null
nice cmake --build build-bench -j2 --target ovta-line-bench ovta-amt ovta-bench-tcp-echo ovta-bench-pty-echo \
  ovta-station ovta-fixture wfmgr-sim ovta-results-bench >&2
only=
prev=
for a in "$@"; do [ "$prev" = --only ] && only=$a; prev=$a; done
if [ "$only" != station ] && [ "$only" != results ]; then build-bench/bench/line/ovta-line-bench "$@"; fi
if [ -z "$only" ] || [ "$only" = station ]; then scripts/bench-station.sh build-bench; fi
if [ -z "$only" ] || [ "$only" = results ]; then build-bench/bench/results/ovta-results-bench; fi
if [ "$only" = results ]; then scripts/bench-station.sh build-bench results; fi
