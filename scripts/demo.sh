#!/usr/bin/env bash
# The main job on an embedded default: builds if needed, then runs the agent
# in USB mode in a phone-like sandbox, with a simulated wfmgr as its peer, and
# sends one command from the PC side through the bridge. Ctrl-C stops it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2 --target ovta-amt ovta-pc wfmgr-sim ovta-demo
exec build/ovta-demo "$@"
