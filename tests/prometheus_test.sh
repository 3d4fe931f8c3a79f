#!/usr/bin/env bash
# The example, scraped and walked by name with what the build has made from it.
# Usage: prometheus_test.sh BUILD_DIRECTORY EXAMPLE_CONFIGURATION

set -euo pipefail
scratch=$(mktemp -d) pids=()
stop() {
  [ ${#pids[@]} -eq 0 ] || kill "${pids[@]}" 2>/dev/null || true
  wait
  pids=()
}
trap 'stop; rm -rf "$scratch"' EXIT

# Sets `port` to that of an agent and writes what the exporter makes of it to `metrics`.
scrape() {
  port=$((20000 + RANDOM % 10000))
  printf '[General]\ninclude = %s\nport = %d\n' "$2" "$port" >"$scratch/agent.ini"
  "$1/bin/torvasin_host" --conf-file "$scratch/agent.ini" >"$scratch/agent.log" 2>&1 & pids+=($!)
  prometheus-snmp-exporter --config.file="$1/examples/snmp.yml" \
    --web.listen-address="127.0.0.1:$((port + 10000))" >"$scratch/exporter.log" 2>&1 & pids+=($!)
  for _ in {1..50}; do
    curl -sf -m 5 -o "$scratch/metrics" \
      "http://127.0.0.1:$((port + 10000))/snmp?module=torvasin&target=127.0.0.1:$port" &&
      grep -q "^hostname{hostname=\"$(uname -n)\"} 1" "$scratch/metrics" && return
    { kill -0 "${pids[0]}" && kill -0 "${pids[1]}"; } 2>/dev/null || break # a port was taken
    sleep 0.1
  done
  stop
  return 1
}
scrape "$@" || scrape "$@" || scrape "$@" || { cat "$scratch"/*.log; exit 1; }
names=$(snmpwalk -v2c -c public -M "$1/examples" -m TORVASIN-EXAMPLE-MIB -OsQ "127.0.0.1:$port" \
  .1 2>/dev/null | sed -n 's/^\([A-Za-z]*[0-9]*\)\.0 = .*/\1/p' | sort -u | xargs)
scraped=$(sed -n 's/^# HELP \([^ ]*\).*/\1/p' "$scratch/metrics" | grep -v '^snmp_' | sort | xargs)
[ "$(wc -w <<<"$names") $names" = "$(grep -c '^\[ITEM_' "$2") $scraped" ]
grep -Eq '^uptime [1-9]' "$scratch/metrics"
[ "$(grep -c '^# TYPE .* counter$' "$scratch/metrics")" = 2 ]
