#!/bin/sh
# Runs a program of the windows build under Wine: the emulator of that build
# (ctest, and gtest_discover_tests while building):
#   wine-run.sh PREFIX PROGRAM.exe ARGS...
# The prefix lives in the build tree. The first run creates the prefix with its output on
# /dev/null; every run makes sure that a persistent wineserver of the prefix
# runs, started here with no terminal and no pipe of ours, so that no Wine
# helper process holds ctest's pipes open after a program ends.
set -eu
export WINEPREFIX="$1"
shift
export WINEDEBUG=-all
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
mkdir -p "$WINEPREFIX"
(
  flock 9
  if ! wineserver -k0 2>/dev/null; then
    setsid wineserver -f -p </dev/null >/dev/null 2>&1 9>&- &
    sleep 0.2
  fi
  if [ ! -f "$WINEPREFIX/.ovta-warm" ]; then
    setsid wineboot -i </dev/null >/dev/null 2>&1 9>&-
    touch "$WINEPREFIX/.ovta-warm"
  fi
) 9>"$WINEPREFIX.lock"
exec wine "$@"
