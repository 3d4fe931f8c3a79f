#!/usr/bin/env bash
# The Debian package of a built tree: what is in it, and what Debian's own tools say to it.
# Usage: package_test.sh BUILD_DIRECTORY

set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
status=0
fail() { printf 'FAILED %s\n' "$*"; status=1; }

cpack --config "$1/CPackConfig.cmake" -B "$scratch" >"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }
deb=$(echo "$scratch"/torvasin-snmp_*.deb)
dpkg-deb -x "$deb" "$scratch/root"
cd "$scratch/root"

[ "$(dpkg-deb -I "$deb" conffiles)" = /etc/torvasin/snmpmanager.ini ] || fail conffiles
grep -q '^ip = 127.0.0.1$' etc/torvasin/snmpmanager.ini || fail address
grep -q '^port = 161$' etc/torvasin/snmpmanager.ini || fail port
for file in bin/torvasin_host bin/torvasin_config include/torvasin.h lib/torvasin/libtorvasin_snmp.so \
  share/man/man{8/torvasin_host.8,1/torvasin_config.1,5/snmpmanager.ini.5}.gz; do
  [ -f "usr/$file" ] || fail "no $file"
done
usr/bin/torvasin_host --version || fail 'the module is not found'
usr/bin/torvasin_config check etc/torvasin/snmpmanager.ini || fail 'its own configuration'
snmptranslate -M usr/share/doc/torvasin-snmp/examples -m TORVASIN-EXAMPLE-MIB -On TORVASIN-EXAMPLE-MIB::uptime.0

cd usr/share/doc/torvasin-snmp/docs
while IFS='(' read -r _ target; do
  [ -e "$target" ] || fail "a link to $target"
done < <(grep -ohE '\]\([^)#: ]+' -- *.md)
! grep -nE '(^|[^[:alnum:]/])((scripts|tests|bench|fuzz|cmake|config)/|src/[a-z/_]*\.)' -- *.md || fail 'a path of the sources'
cd "$scratch/root"

! lintian --fail-on error "$deb" | grep '^E:' || fail lintian
sed "s|=/usr/bin|=$PWD/usr/bin|" lib/systemd/system/torvasin-snmp.service >torvasin-snmp.service
[ -z "$(systemd-analyze verify --man=no "$PWD/torvasin-snmp.service" 2>&1 | tee /dev/stderr)" ] || fail unit
systemd-analyze security --offline=yes --threshold=30 torvasin-snmp.service | tail -n 1 || fail exposed
exit $status
