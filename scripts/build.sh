#!/usr/bin/env bash
# Configures and builds one configuration of CMakePresets.json (dev unless named): dev, portable,
# libcxx, asan, tsan, release or bench.
#   scripts/build.sh [preset]
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
preset="${1:-dev}"
cd "$root"
cmake --preset "$preset"
cmake --build --preset "$preset"
