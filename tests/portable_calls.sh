#!/bin/sh
# Fails when the portable build calls what only Linux has (pipe2, syscall, accept4, the pidfd
# functions) or reads /proc/self, which a Mac has none of.
#   portable_calls.sh NM PROGRAM LIBRARY...
set -eu
nm=$1 program=$2
shift 2
linux_only=$("$nm" -u "$@" | grep -E ' (pipe2|syscall|accept4|pidfd_[a-z_]+)$' || true)
if [ -n "$linux_only" ]; then
  echo "the portable build calls Linux-only functions:" "$linux_only"
  exit 1
fi
if grep -aq /proc/self "$program"; then
  echo "the portable program reads /proc/self"
  exit 1
fi
echo "no Linux-only call in $program and its platform libraries"
