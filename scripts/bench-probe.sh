#!/usr/bin/env bash
# Builds the benchmarks in Release (build-bench/) and prints what a health probe and a port
# check cost on this machine. Figures only: nothing here fails on timing.
#   scripts/bench-probe.sh
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-bench"
cd "$root"
cmake --preset bench
cmake --build --preset bench --target probe_bench
QT_QPA_PLATFORM="${QT_QPA_PLATFORM:-offscreen}" "$build/bin/probe_bench"
