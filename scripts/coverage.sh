#!/usr/bin/env bash
# Builds with coverage instrumentation (gcov, in build-coverage/), runs the
# whole suite (unit and end-to-end: the agent run in its sandbox adds its
# counts too), and prints line and branch coverage per folder of the agent.
# The per-file figures are left in build-coverage/coverage.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset coverage >/dev/null
cmake --build --preset coverage -j2
find build-coverage -name '*.gcda' -delete
ctest --preset coverage

folders=(process channel protocol services usb screen platform)
filters=()
for f in "${folders[@]}"; do filters+=(--filter "$f/"); done
# Branches that only an exception or the compiler's own checks could take
# are left out: the agent throws none.
# screen/logo/ is the build-time generator of the picture, not the agent.
gcovr --root . --object-directory build-coverage "${filters[@]}" --exclude 'screen/logo/' \
      --exclude-throw-branches --exclude-unreachable-branches \
      --txt build-coverage/coverage.txt --json-summary build-coverage/coverage.json
python3 - build-coverage/coverage.json "${folders[@]}" <<'PY'
import json, sys
summary = json.load(open(sys.argv[1]))
rows = {f: [0, 0, 0, 0] for f in sys.argv[2:]}
for entry in summary["files"]:
    folder = entry["filename"].split("/")[0]
    if folder in rows:
        r = rows[folder]
        r[0] += entry["line_covered"]; r[1] += entry["line_total"]
        r[2] += entry["branch_covered"]; r[3] += entry["branch_total"]
pct = lambda a, b: f"{100.0 * a / b:5.1f} %" if b else "    -  "
print(f"{'folder':<10} {'lines':>18} {'branches':>18}")
for folder, (lc, lt, bc, bt) in rows.items():
    print(f"{folder + '/':<10} {pct(lc, lt)} {lc:>5}/{lt:<5} {pct(bc, bt)} {bc:>5}/{bt:<5}")
PY
