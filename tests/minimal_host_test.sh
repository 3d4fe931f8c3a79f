#!/usr/bin/env bash
# The host of docs/integrating.md: its meters and a default are served, and it ends in order. Usage: minimal_host_test.sh HOST LIBRARY

# shellcheck source=tests/lib.sh
. "$(dirname "$0")/lib.sh"

choose_port
printf '[General]\nport = %d\n[ITEM_fast]\noid = 1.3.1.0\nmeter = host.seconds\nmetertype = fast\ntype = uint
[ITEM_slow]\noid = 1.3.2.0\nmeter = host.program\ntype = string\n[ITEM_none]\noid = 1.3.3.0\ntype = string:kept\n' \
  "$port" >agent.ini
start_server log "$@" agent.ini
for _ in {1..50}; do
  got=$(snmpget -v2c -c public -t 0.1 -r 0 -Oqv -m '' "127.0.0.1:$port" .1.3.{1,2,3}.0 2>/dev/null | xargs) || true
  [[ $got != [1-9]*" $1 kept" ]] || break
  sleep 0.1
done
expect served "$1 kept" "${got#* }"
kill -TERM "$server"
wait "$server"
expect ended 'Cycle(snmp) Cycle(snmp, 0)' "$(grep -o 'Cycle(.*' log | xargs)"
finish
