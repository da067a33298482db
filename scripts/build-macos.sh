#!/usr/bin/env bash
# Builds "Lanternmoor Pro.app" on a Mac (macOS 13 or later, Xcode's command-line tools, Qt 6
# from its online installer or Homebrew, CMake, Ninja, and a Node.js 22.13 or newer on PATH to
# strip the service's types) and puts Qt inside it with macdeployqt, so the bundle runs on a Mac
# without Qt. It does not run on Linux.
#   scripts/build-macos.sh [path to Qt, e.g. ~/Qt/6.5.3/macos or $(brew --prefix qt)]
set -euo pipefail

[[ $(uname -s) == Darwin ]] || { echo "build-macos: this builds the macOS app bundle and runs only on a Mac" >&2; exit 1; }
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
qt="${1:-$(brew --prefix qt 2>/dev/null || true)}"
[[ -x $qt/bin/macdeployqt ]] || { echo "build-macos: no macdeployqt under '$qt'; pass the Qt folder" >&2; exit 1; }

build="$root/build-macos"
cd "$root"
cmake --preset macos -DCMAKE_PREFIX_PATH="$qt" -DLM_NODE="$(command -v node)"
cmake --build --preset macos
bundle="$build/bin/Lanternmoor Pro.app"
"$qt/bin/macdeployqt" "$bundle" -always-overwrite
echo "build-macos: $bundle"
