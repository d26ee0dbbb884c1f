#!/usr/bin/env bash
# Builds with the given preset (default: default) and runs every test, unit
# and end-to-end, through ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}
scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j2
ctest --preset "$preset"
