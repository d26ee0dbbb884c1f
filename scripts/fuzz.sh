#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UBSan, in
# build-fuzz/) and runs each one for SECONDS (default 60), starting from its
# seed corpus in tests/fuzz/corpus/<what>/. Fails on any crash, leak or
# sanitizer report; the input that caused it is kept in build-fuzz/artifacts/.
#
#   scripts/fuzz.sh [SECONDS] [SEED] [TARGET...]
#
# Without SEED every run explores anew. With SEED, libFuzzer mutates in the
# same order each time, so a short run is a repeatable check (the test command
# uses one) and a longer run with the same SEED covers every shorter one.
# TARGETs (fuzz_config, ...) limit the run to those; SEED "-" means none.
# With FUZZ_RUNS=N in the environment each target runs N inputs instead of
# SECONDS (the long runs). Each target keeps its own scratch corpus and log in
# build-fuzz/run/, so runs of different targets may go on at the same time.
#
# The targets run in a sandbox whose root is read-only (only a fresh /tmp and
# the run's own directories are writable): a fuzzed message may point the
# agent's file service at any path of the machine.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
seed_arg=()
[ $# -ge 2 ] && [ "$2" != - ] && seed_arg=(-seed="$2")
shift $(($# < 2 ? $# : 2))
only=("$@")
limit_arg=(-max_total_time="$seconds")
[ -n "${FUZZ_RUNS:-}" ] && limit_arg=(-runs="$FUZZ_RUNS")
scripts/install-deps.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j2

# New inputs go to a scratch corpus: the seeds in the repository stay as they are.
work=$PWD/build-fuzz/run
mkdir -p "$work" build-fuzz/artifacts
# The checkout is bound again after the fresh /tmp, which would hide one that
# lies below /tmp.
sandbox=(bwrap --die-with-parent --unshare-all --ro-bind / / --dev /dev --proc /proc --tmpfs /tmp
         --ro-bind "$PWD" "$PWD" --bind "$work" "$work" --bind "$PWD/build-fuzz/artifacts" "$PWD/build-fuzz/artifacts" --chdir "$PWD")
failed=()
for target in build-fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  if [ ${#only[@]} -gt 0 ] && [[ " ${only[*]} " != *" $name "* ]]; then continue; fi
  seeds=tests/fuzz/corpus/${name#fuzz_}
  rm -rf "${work:?}/$name"
  mkdir -p "$work/$name" "$seeds"
  # The agent's own log goes to stderr; -close_fd_mask=2 silences it while
  # libFuzzer and the sanitizers still report on their own copy of stderr.
  # A wfmgr stream out of step ends the agent by SIGTERM to itself, which the
  # stream targets ignore: libFuzzer must not take it for a stop.
  # The shell around the target adds its processor time to the log ("cpu
  # seconds"): on a shared machine the rate per wall second says as much about
  # the other users as about the target.
  if "${sandbox[@]}" bash -c 'start=$SECONDS; "$@"; rc=$?
       echo "wall seconds: $((SECONDS - start)); processor time (user, system) of the shell, then of the target:"
       times; exit $rc' _ \
       "$target" "${seed_arg[@]}" "${limit_arg[@]}" -max_len=65536 -close_fd_mask=2 -handle_term=0 \
       -print_final_stats=1 -artifact_prefix="$PWD/build-fuzz/artifacts/$name-" "$work/$name" "$seeds" \
       >"$work/$name.log" 2>&1; then
    runs=$(grep -m1 -o 'stat::number_of_executed_units: *[0-9]*' "$work/$name.log" | grep -o '[0-9]*$' || true)
    rate=$(grep -m1 -o 'stat::average_exec_per_sec: *[0-9]*' "$work/$name.log" | grep -o '[0-9]*$' || true)
    wall=$(grep -m1 -o '^wall seconds: [0-9]*' "$work/$name.log" | grep -o '[0-9]*$' || true)
    cpu=$(grep -m1 -A2 '^wall seconds' "$work/$name.log" | tail -n 1 || true)
    printf '%-24s ok   %s runs in %s s, %s a second; processor time (user, system) %s\n' \
      "$name" "${runs:-?}" "${wall:-?}" "${rate:-?}" "${cpu:-?}"
  else
    printf '%-24s FAILED\n' "$name"
    tail -n 60 "$work/$name.log"
    failed+=("$name")
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzing found problems in: ${failed[*]} (inputs in build-fuzz/artifacts/)"
  exit 1
fi
