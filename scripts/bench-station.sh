#!/usr/bin/env bash
# The station benchmark, run by scripts/bench.sh: the same plan on a fixture
# of 1 and of 8 phones (tools/ovta_fixture.cpp), three runs each, each on
# fresh phones; the median wall time of ovta-station's run, and its own
# processor time. Then the results database's cost to a slot: the same plan
# on 8 phones with the database (records/results.db, every step its own
# synced commit) and with --database off, runs alternating. Expects the
# programs in $1 (a build directory); a second argument "results" runs the
# latter alone. Prints table rows in the format of bench.sh's table.
set -euo pipefail
bin=$1
cd "$(dirname "$0")/.."
records=$(mktemp -d)
trap 'rm -rf "$records"' EXIT

# Prints "WALL CPU" (medians) of three runs of PLAN on N phones.
measure() {
  local plan=$1 phones=$2 walls=() cpus=()
  for run in 1 2 3; do
    line=$("$bin/ovta-fixture" --phones "$phones" --table-bytes 262144 --time -- \
             "$bin/ovta-station" "$plan" --records "$records" --plain 2>&1 >/dev/null | grep '^run 1:')
    walls+=("$(echo "$line" | sed -E 's/^run 1: ([0-9.]+) s.*/\1/')")
    cpus+=("$(echo "$line" | sed -E 's/.*cpu ([0-9.]+) s$/\1/')")
  done
  echo "$(printf '%s\n' "${walls[@]}" | sort -n | sed -n 2p) $(printf '%s\n' "${cpus[@]}" | sort -n | sed -n 2p)"
}

row() {
  local what=$1 plan=$2 goal=$3
  read -r wall1 cpu1 < <(measure "$plan" 1)
  read -r wall8 cpu8 < <(measure "$plan" 8)
  echo "  $what: 1 phone ${wall1} s, 8 phones ${wall8} s" >&2
  awk -v w1="$wall1" -v w8="$wall8" -v what="$what" -v goal="$goal" \
    'BEGIN { printf "| %s, median of 3 | %.2f s on 8 phones | %.2f s on 1 phone | %.2f | %s |\n", what, w8, w1, w8 / w1, goal }'
  awk -v c1="$cpu1" -v c8="$cpu8" -v what="$what" \
    'BEGIN { printf "| ovta-station processor time per phone, %s | %.0f ms on 8 phones | %.0f ms on 1 phone | %.2f |  |\n", what, c8 * 1000 / 8, c1 * 1000, (c8 / 8) / c1 }'
}

# The mean time of a phone's plan, as the records of one run in folder $1 say.
slot_seconds() {
  python3 - "$1" <<'PY'
import glob, json, sys
s = [json.load(open(f))["seconds"] for f in glob.glob(sys.argv[1] + "/*/slot-*.json")]
print(sum(s) / len(s))
PY
}

# Median over 5 alternating runs of the mean slot time, with and without the
# database, on 8 phones.
results_row() {
  local plan=$1 with=() without=()
  for run in 1 2 3 4 5; do
    for db in on off; do
      local dir
      dir=$(mktemp -d "$records/$db-XXXX")
      local args=()
      [ "$db" = off ] && args=(--database off)
      "$bin/ovta-fixture" --phones 8 --table-bytes 262144 -- \
        "$bin/ovta-station" "$plan" --records "$dir" --plain "${args[@]}" >/dev/null 2>&1 || true
      if [ "$db" = on ]; then with+=("$(slot_seconds "$dir")"); else without+=("$(slot_seconds "$dir")"); fi
    done
  done
  local w o
  w=$(printf '%s\n' "${with[@]}" | sort -n | sed -n 3p)
  o=$(printf '%s\n' "${without[@]}" | sort -n | sed -n 3p)
  echo "  results database: a slot's plan ${w} s with it, ${o} s without (${with[*]} / ${without[*]})" >&2
  awk -v w="$w" -v o="$o" \
    'BEGIN { printf "| a slot with the results database (SQLite, synced commits) against without, 8 phones, median of 5 | %.3f s | %.3f s | %.3f | <= 1.05 |\n", w, o, w / o }'
}

if [ "${2:-}" != results ]; then
  echo "station: the demonstration's plan and the RF-heavy plan on 1 and 8 phones" >&2
  row "station plan pc/plans/fixture.toml" pc/plans/fixture.toml "<= 1.3"
  row "RF-heavy plan pc/plans/bench.toml" pc/plans/bench.toml ""
fi
echo "station: a slot's time with and without the results database" >&2
results_row pc/plans/fixture.toml
