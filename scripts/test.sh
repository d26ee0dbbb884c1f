#!/usr/bin/env bash
# Runs every test, unit and end-to-end, through ctest.
#
#   scripts/test.sh            the whole suite under the default, asan and tsan
#                              presets, then a short run of every fuzz target
#                              (this is what CI runs)
#   scripts/test.sh PRESET     the suite under one preset only (default, asan,
#                              tsan, coverage)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

run_preset() {
  echo "== $1: build"
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" -j2
  echo "== $1: tests"
  ctest --preset "$1"
}

if [ $# -gt 0 ]; then
  run_preset "$1"
  exit 0
fi
for preset in default asan tsan; do run_preset "$preset"; done
echo "== fuzz: every target for 20 s, seeded so that a run is repeatable"
scripts/fuzz.sh 20 20261123
