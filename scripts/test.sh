#!/usr/bin/env bash
# Runs every test, unit and end-to-end, through ctest.
#
#   scripts/test.sh            the whole suite under the default, asan and tsan
#                              presets; the Android half against Android's
#                              headers and liblog (android-api); the phone's
#                              SELinux policy against Android 11 to 15's base
#                              policy (android-policy); the unit tests
#                              cross-built for arm64 and armhf and run
#                              under qemu; the station PC's programs built
#                              for Windows and tested under Wine; then a short
#                              run of every fuzz target (this is what CI runs)
#   scripts/test.sh PRESET     one preset only (default, asan, tsan, coverage,
#                              android-api, arm64, armhf, windows)
#   scripts/test.sh android-policy   the policy check alone
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

build_preset() {
  echo "== $1: build"
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" -j2
}

# The cross builds need the ARM libraries and the build machine's make_logo.
prepare_cross() {
  scripts/install-deps.sh cross
  build_preset make-logo
}

# The station PC's programs for Windows and their tests under Wine: the unit
# tests of the wire format and the PC library, then ovta-pc.exe on a COM port
# of the build's Wine prefix against real agents in the sandbox (tests of the
# default build's e2e_tests, told where the windows build is). The Wine server
# that the tests started goes at the end.
run_windows() {
  build_preset windows
  echo "== windows: unit tests under Wine"
  ctest --preset windows
  cmake --preset default >/dev/null
  cmake --build --preset default -j2 --target e2e_tests
  echo "== windows: ovta-pc.exe and ovta-station.exe under Wine against agents in the sandbox"
  local status=0
  OVTA_WINDOWS_BUILD="$PWD/build-windows" ctest --preset default -R '^(OvtaPcOnWine|StationOnWine)\.' || status=$?
  WINEPREFIX="$PWD/build-windows/wine" wineserver -k 2>/dev/null || true
  return "$status"
}

run_preset() {
  if [ "$1" = windows ]; then
    run_windows
    return
  fi
  case "$1" in arm64 | armhf) prepare_cross ;; esac
  build_preset "$1"
  echo "== $1: tests"
  ctest --preset "$1"
}

# arm64 and armhf: the unit tests of one run under qemu while the other builds.
run_cross() {
  prepare_cross
  build_preset arm64
  echo "== arm64: unit tests under qemu-aarch64, beside the armhf build"
  local log status=0 tests
  log=$(mktemp)
  ctest --preset arm64 >"$log" 2>&1 &
  tests=$!
  build_preset armhf
  wait "$tests" || status=$?
  cat "$log"
  rm -f "$log"
  if [ "$status" -ne 0 ]; then
    echo "arm64: unit tests failed" >&2
    exit 1
  fi
  echo "== armhf: unit tests under qemu-arm"
  ctest --preset armhf
}

# The SELinux policy through each release's base policy (no build needed):
# first the check's own test (it must find a fault of each kind), then the
# project's policy.
run_policy() {
  echo "== android-policy: the check finds each kind of fault"
  android/host-check/policy_check_test.py
  echo "== android-policy: android/sepolicy against Android 11 to 15"
  android/host-check/policy_check.py
}

if [ "${1:-}" = android-policy ]; then
  run_policy
  exit 0
fi
if [ $# -gt 0 ]; then
  run_preset "$1"
  exit 0
fi
for preset in default asan tsan; do run_preset "$preset"; done
start=$SECONDS
run_preset android-api
echo "== android-api: $((SECONDS - start)) s"
start=$SECONDS
run_policy
echo "== android-policy: $((SECONDS - start)) s"
start=$SECONDS
run_cross
echo "== arm64 and armhf, ARM libraries included: $((SECONDS - start)) s"
start=$SECONDS
run_windows
echo "== windows, Wine included: $((SECONDS - start)) s"
echo "== fuzz: every target for 20 s, seeded so that a run is repeatable"
scripts/fuzz.sh 20 20261123
