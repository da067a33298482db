#!/usr/bin/env bash
# Builds the benchmarks in Release (build-bench/) and prints what a health probe and a port
# check cost on this machine. Figures only: nothing here fails on timing.
#   scripts/bench-probe.sh [extra cmake arguments...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-bench"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DLM_BENCH=ON "$@"
cmake --build "$build" --target probe_bench
QT_QPA_PLATFORM="${QT_QPA_PLATFORM:-offscreen}" "$build/bin/probe_bench"
