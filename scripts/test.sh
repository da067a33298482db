#!/usr/bin/env bash
# Builds and tests every configuration, each a workflow of CMakePresets.json: dev (every test,
# every label: unit, integration, end-to-end), then the unit and integration tiers in portable
# (what a Mac builds), libcxx (Clang and libc++, as on a Mac), asan (AddressSanitizer and
# UndefinedBehaviorSanitizer) and tsan (ThreadSanitizer, integration tier). Installs what is
# missing first.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

scripts/setup.sh

# The tests choose their own surface and displays; a developer's desktop session must not leak in.
unset DISPLAY WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS

for workflow in dev portable libcxx asan tsan; do
  echo "== $workflow"
  started=$SECONDS
  nice cmake --workflow --preset "$workflow"
  echo "== $workflow: $((SECONDS - started)) s"
done
