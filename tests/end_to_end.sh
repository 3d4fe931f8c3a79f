#!/usr/bin/env bash
# The built library and host program, asked by net-snmp's clients.
# Usage: end_to_end.sh BINARY_DIRECTORY EXAMPLE_CONFIGURATION

set -euo pipefail
bin=$1
example=$2
scratch=$(mktemp -d)
host=
trap '[ -z "$host" ] || kill "$host" 2>/dev/null || true; wait; rm -rf "$scratch"' EXIT

failures=0
expect() {
  [ "$2" = "$3" ] && return
  printf 'FAILED %s\n expected: %s\n but got:  %s\n' "$1" "$2" "$3"
  failures=$((failures + 1))
}

library=$bin/libtorvasin_snmp.so
expect symbols 'plugin_entry_0_6 plugin_entry_torvasin_module_version' \
  "$(nm -D --defined-only "$library" | awk '{print $3}' | sort | xargs)"
expect libraries 'libc.so.6 libinih.so.1 libm.so.6' \
  "$(readelf -d "$library" | sed -n 's/.*NEEDED.*\[\(lib.*\)\]/\1/p' | sort | xargs)" # besides ld-linux, for thread_local
expect hardening '1 1 1 1' "$(readelf -W -l "$library" | grep -c 'GNU_RELRO') $(readelf -d "$library" |
  grep -c 'BIND_NOW') $(readelf -W -l "$library" | grep -c 'GNU_STACK .* RW ') $(nm -D "$library" |
  grep -c ' __stack_chk_fail')"

# The example on a port that is free: the later key wins.
start_host() {
  for _ in $(seq 20); do
    port=$((20000 + RANDOM % 20000))
    printf '[General]\ninclude = %s\nport = %d\n' "$example" "$port" >"$scratch/agent.ini"
    "$bin/torvasin_host" --conf-file "$scratch/agent.ini" 2>"$scratch/log" &
    host=$!
    for _ in $(seq 50); do
      snmpget -v2c -c public -t 0.1 -r 0 "127.0.0.1:$port" .1.3.6.1.4.1.32473.4.1.0 >/dev/null 2>&1 && return
      kill -0 "$host" 2>/dev/null || break
    done
  done
  cat "$scratch/log"
  exit 1
}
start_host
sleep 0.3 # the slow meters' first round
ask() { "$1" -On -m '' -r 1 "${@:2}" 2>&1 || true; }
agent=127.0.0.1:$port

walk=$(ask snmpwalk -v2c -c public "$agent" .1.3.6.1.4.1.32473 | grep -v 'No more')
expect 'walk in OID order' "$(sed -n 's/^oid = /./p' "$example" | sort -V)" \
  "$(awk '{print $1}' <<<"$walk")"
expect 'bulk walk' "$(awk '{print $1}' <<<"$walk")" \
  "$(ask snmpbulkwalk -v2c -c public "$agent" .1.3.6.1.4.1.32473 | grep -v 'No more' | awk '{print $1}')"
expect 'live numbers' 7 "$(grep -cE '32473\.(1\.[1-4]|2\.[12]|4\.1)\.0 = Counter32: [1-9]' <<<"$walk")"
expect 'v1, any community' "$(uname -n)" \
  "$(ask snmpget -v1 -c anything -Oqv "$agent" .1.3.6.1.4.1.32473.4.2.0 | tr -d '"')"
expect 'v2c, wrong community' 1 \
  "$(ask snmpget -v2c -c private "$agent" .1.3.6.1.4.1.32473.4.2.0 | grep -c 'Reason: noAccess')"
expect 'v2c, unknown OID' '.1.3.6.1.4.1.32473.9.0 = No Such Object available on this agent at this OID' \
  "$(ask snmpget -v2c -c public "$agent" .1.3.6.1.4.1.32473.9.0)"
expect 'v1, unknown OID' 1 "$(ask snmpget -v1 -c x "$agent" .1.3.6.1.4.1.32473.4.1.0 .1.3.6.1.4.1.32473.9.0 |
  grep -c 'Failed object: .1.3.6.1.4.1.32473.9.0')"

expect 'port in use' "1 error bind(127.0.0.1:$port) socker: 98 Address already in use" \
  "$("$bin/torvasin_host" --conf-file "$scratch/agent.ini" 2>"$scratch/second" || echo $?) $(
    grep -o 'error bind.*' "$scratch/second")"
status=0
kill -TERM "$host"
wait "$host" || status=$?
host=
expect 'ended by a signal' '0 preStopCycle(snmp) stopCycle(snmp, 0)' \
  "$status $(sed 's/.*:[0-9]* //' "$scratch/log" | xargs)"

printf '%d failed\n' "$failures" && [ "$failures" -eq 0 ]
