#!/bin/sh
# Runs a command in a network namespace of its own with only loopback up, so the fixed port and
# whatever else a test listens on never meet another run, a developer's service or a parallel test.
# Without root, a user namespace that maps the caller to root makes the same possible.
set -eu
if [ "${1:-}" = --inside ]; then
  shift
  ip link set lo up
  exec "$@"
fi
if [ "$(id -u)" -eq 0 ]; then
  exec unshare --net "$0" --inside "$@"
fi
exec unshare --net --map-root-user "$0" --inside "$@"
