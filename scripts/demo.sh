#!/usr/bin/env bash
# The main job on an embedded default: builds if needed, then runs the agent
# in USB mode in a phone-like sandbox, with a simulated wfmgr as its peer, and
# plays a whole station's session through the bridge: the PC's commands, then
# wfmgr's file requests. Ctrl-C stops the agent cleanly.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2 --target ovta-amt ovta-pc wfmgr-sim ovta-demo
exec build/ovta-demo "$@"
