#!/usr/bin/env bash
# The Debian package of a built tree, unpacked and run from there. Usage: package_test.sh BUILD_DIRECTORY

set -euo pipefail
scratch=$(mktemp -d) host=
trap '[ -z "$host" ] || kill "$host" 2>/dev/null || true; wait; rm -rf "$scratch"' EXIT

cpack --config "$1/CPackConfig.cmake" -B "$scratch" >"$scratch/log" || { cat "$scratch/log"; exit 1; }
package=("$scratch"/*.deb)
dpkg-deb -f "${package[0]}" Package Version Depends
dpkg-deb -x "${package[0]}" "$scratch/root"
cd "$scratch/root"
find . -type f | sort
usr/bin/torvasin_host --version
example=$(find usr/share/doc -name snmpmanager.ini)
for _ in {1..5}; do
  port=$((20000 + RANDOM % 10000))
  printf '[General]\ninclude = %s\nport = %d\n' "$example" "$port" >agent.ini
  usr/bin/torvasin_host --conf-file agent.ini &
  host=$!
  snmpget -v2c -c public -M "$(dirname "$example")" -m TORVASIN-EXAMPLE-MIB -t 0.2 -r 10 \
    "127.0.0.1:$port" uptime.0 2>/dev/null | grep 'uptime.0 = Counter32: [1-9].* seconds' && exit 0
  kill "$host" 2>/dev/null || true
  wait
done
exit 1
