#!/usr/bin/env bash
# The Debian package of a built tree, unpacked and used from there. Usage: package_test.sh BUILD_DIRECTORY

set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cpack --config "$1/CPackConfig.cmake" -B "$scratch" >"$scratch/log" || { cat "$scratch/log"; exit 1; }
dpkg-deb -x "$scratch"/*.deb "$scratch/root"
cd "$scratch/root"
example=$(find usr/share/doc -name snmpmanager.ini)
usr/bin/torvasin_host --version
usr/bin/torvasin_host --conf-file "$example" --check | grep '^0 errors, 0 problems'
snmptranslate -M "$(dirname "$example")" -m TORVASIN-EXAMPLE-MIB -On TORVASIN-EXAMPLE-MIB::uptime.0
