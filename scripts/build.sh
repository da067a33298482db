#!/usr/bin/env bash
# Configures (Ninja, Debug unless a build type is given) and builds.
#   scripts/build.sh [build-dir] [extra cmake arguments...]
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build_dir="${1:-build}"
(($# > 0)) && shift
[[ $build_dir == /* ]] || build_dir="$root/$build_dir"

args=("$@")
has_build_type=false
for a in "${args[@]}"; do
  [[ $a == -DCMAKE_BUILD_TYPE=* ]] && has_build_type=true
done
$has_build_type || args=(-DCMAKE_BUILD_TYPE=Debug "${args[@]}")

cmake -S "$root" -B "$build_dir" -G Ninja "${args[@]}"
cmake --build "$build_dir"
