#!/usr/bin/env bash
# Builds the Debian package in Release: build-release/lanternmoor-pro_<version>_amd64.deb, with
# the program stripped and its library dependencies found by dpkg-shlibdeps.
#   scripts/package-deb.sh
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh"
"$root/scripts/build.sh" release
cd "$root/build-release"
cpack -G DEB
ls -l "$root"/build-release/lanternmoor-pro_*.deb
