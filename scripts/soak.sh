#!/usr/bin/env bash
# The soak: mixed traffic from the PC and wfmgr through the agent for MINUTES
# (default 10), then checks that no answer was lost, that the agent's
# descriptors and resident memory did not grow, and that it stops cleanly.
#
#   scripts/soak.sh [MINUTES] [PRESET]    PRESET: default (the default), asan, tsan
#
# The run prints its seed; OVTA_SOAK_SEED=N replays the same mix.
set -euo pipefail
cd "$(dirname "$0")/.."
minutes="${1:-10}"
preset="${2:-default}"
scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j2 --target soak_tests
build_dir=build
[ "$preset" = default ] || build_dir="build-$preset"
OVTA_SOAK_MINUTES="$minutes" "$build_dir/tests/soak_tests"
