#!/usr/bin/env bash
# The host of docs/integrating.md: its meters and a default are served, and it ends in order. Usage: minimal_host_test.sh HOST LIBRARY

set -euo pipefail
scratch=$(mktemp -d)
for _ in {1..20}; do
  port=$((20000 + RANDOM % 20000))
  printf '[General]\nport = %d\n[ITEM_fast]\noid = 1.3.1.0\nmeter = host.seconds\nmetertype = fast\ntype = uint
[ITEM_slow]\noid = 1.3.2.0\nmeter = host.program\ntype = string\n[ITEM_none]\noid = 1.3.3.0\ntype = string:kept\n' \
    "$port" >"$scratch/agent.ini"
  "$@" "$scratch/agent.ini" 2>"$scratch/log" & host=$!
  trap 'kill "$host" 2>/dev/null || true; cat "$scratch/log"; rm -rf "$scratch"' EXIT
  for _ in {1..50}; do
    got=$(snmpget -v2c -c public -t 0.1 -r 0 -Oqv -m '' "127.0.0.1:$port" .1.3.{1,2,3}.0 2>/dev/null | xargs) || true
    [[ $got != [1-9]*" $1 kept" ]] || break 2
    kill -0 "$host" 2>/dev/null || break # the port was taken
    sleep 0.1
  done
done
kill -TERM "$host"
wait "$host"
[[ $got == [1-9]*" $1 kept" && $(grep -o 'Cycle(.*' "$scratch/log" | xargs) == 'Cycle(snmp) Cycle(snmp, 0)' ]]
