#!/usr/bin/env bash
# The example, scraped by Prometheus' exporter and walked by name with what the build has made from it.
# Usage: prometheus_test.sh BUILD_DIRECTORY EXAMPLE_CONFIGURATION

# shellcheck source=tests/lib.sh
. "$(dirname "$0")/lib.sh"

command -v prometheus-snmp-exporter >/dev/null || { echo 'no prometheus-snmp-exporter: scripts/test unpacks it' && exit 1; }
form=$1/examples/snmp.yml
[ "$(prometheus-snmp-exporter --version 2>&1 | sed -n 's/.*version 0\.\([0-9]*\).*/\1/p')" -ge 25 ] || form=$1/examples/snmp-0.21.yml
choose_port
printf '[General]\ninclude = %s\nport = %d\n' "$2" "$port" >agent.ini
start_server log "$1/bin/torvasin_host" --conf-file agent.ini
# A TCP port may be taken that is no UDP port, so several are tried.
for exporter in "127.0.0.1:$((port + 10000))" "127.0.0.1:$((port + 10001))"; do
  prometheus-snmp-exporter --config.file="$form" --web.listen-address="$exporter" >exporter.log 2>&1 &
  for _ in {1..50}; do
    curl -sf -m 5 -o metrics "http://$exporter/snmp?module=torvasin&target=127.0.0.1:$port" &&
      grep -q "^hostname{hostname=\"$(uname -n)\"} 1" metrics && break 2
    kill -0 $! 2>/dev/null || break
    sleep 0.1
  done
done
names=$(snmpwalk -v2c -c public -M "$1/examples" -m TORVASIN-EXAMPLE-MIB -OsQ "127.0.0.1:$port" \
  .1 2>/dev/null | sed -n 's/^\([A-Za-z]*[0-9]*\)\.0 = .*/\1/p' | sort -u | xargs)
expect 'an item for each name' "$(grep -c '^\[ITEM_' "$2")" "$(wc -w <<<"$names")"
expect 'a metric for each name' "$names" \
  "$(sed -n 's/^# HELP \([^ ]*\).*/\1/p' metrics | grep -v '^snmp_' | sort | xargs)"
expect 'a value' 1 "$(grep -Ec '^uptime [1-9]' metrics)"
expect 'counters' 2 "$(grep -c '^# TYPE .* counter$' metrics)"
finish
