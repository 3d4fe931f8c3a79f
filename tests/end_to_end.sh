#!/usr/bin/env bash
# The built library and host program, as net-snmp's clients and an operator meet them.
# Usage: end_to_end.sh BINARY_DIRECTORY EXAMPLE_CONFIGURATION ODD_MODULE

# shellcheck source=tests/lib.sh
. "$(dirname "$0")/lib.sh"
bin=$1
example=$2
odd=$3
library=$bin/libtorvasin_snmp.so
version=$("$bin/torvasin_host" --version | sed -n 's/^module //p')
choose_port

ask() { "$1" -On -m '' -r 1 "${@:2}" 2>&1 || true; }
get() { ask snmpget -v2c -c public -t 0.3 -Oqv "127.0.0.1:$port" ".1.3.6.1.4.1.32473.$1"; }
junk() { for ((n = 0; n < $1; n++)); do printf "%0$((n % 200 + 1))d" "$n" >"/dev/udp/127.0.0.1/$port"; done; }
lines() { sed 's/^....-..-.. ..:..:..\.... //; s/:[0-9][0-9]* /:LINE /' "$@"; } # of a log, without what varies
until_true() { for _ in {1..60}; do "$@" && return; sleep 0.05; done; printf 'never: %s\n' "$*"; exit 1; }
serves() { [[ $(get "$1") =~ $2 ]]; }
configure() { printf '[General]\ninclude = %s\nport = %d\n%b' "$example" "$port" "${1-}" >agent.ini; }

# start_host LOG [OPTION]...
start_host() { start_server "$1" "$bin/torvasin_host" --conf-file agent.ini "${@:2}" 9<&-; }
# Sets `ended` to the status with which the host ends for a signal, and to "late" after 2 seconds.
end_host() {
  local from=${EPOCHREALTIME/./}
  kill "-$1" "$server"
  timeout 5 tail -s 0.1 --pid="$server" -f /dev/null || kill -KILL "$server"
  ended=0
  wait "$server" || ended=$?
  [ $((${EPOCHREALTIME/./} - from)) -le 2000000 ] || ended+=' late'
}

expect symbols 'plugin_entry_0_6 plugin_entry_torvasin_module_version' \
  "$(nm -D --defined-only "$library" | awk '{print $3}' | sort | xargs)"
expect libraries 'libc.so.6 libinih.so.1 libm.so.6' \
  "$(readelf -d "$library" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | sort | xargs)"
expect hardening '1 1 1 1' "$(readelf -W -l "$library" | grep -c 'GNU_RELRO') $(readelf -d "$library" |
  grep -c 'BIND_NOW') $(readelf -W -l "$library" | grep -c 'GNU_STACK .* RW ') $(nm -D "$library" |
  grep -c ' __stack_chk_fail')"

configure
start_host log
kill -INT "$server" # which bash has a child in the background ignore
agent=127.0.0.1:$port
walk=$(ask snmpwalk -v2c -c public "$agent" .1.3 | grep -v 'No more')
expect 'walk in OID order' "$(sed -n 's/^oid = /./p' "$example" | sort -V)" \
  "$(awk '{print $1}' <<<"$walk")"
expect 'bulk walk' "$(awk '{print $1}' <<<"$walk")" \
  "$(ask snmpbulkwalk -v2c -c public "$agent" .1.3 | grep -v 'No more' | awk '{print $1}')"
expect 'live numbers' 4 "$(grep -cE '32473\.(1\.4|2\.[12]|4\.1)\.0 = INTEGER: [1-9]' <<<"$walk")"
expect 'a plain walk' "$(uname -n)" "$(ask snmpwalk -v2c -c public -Oqv "$agent" | sed -n 's/"//g; 2p')"

configure '[ITEM_new]\noid = 1.3.6.1.4.1.32473.9.0\ntype = int:7\n'
kill -HUP "$server"
until_true serves 9.0 ^7
rm agent.ini
end_host HUP
started="notice module snmp $version answers on 127.0.0.1:$port" stopped='notice module snmp stopped' src=src/module/snmp/mainsnmp:LINE
expect 'reloaded, then without a file' "1
$started
warning $src preStopCycle(snmp)
warning $src stopCycle(snmp, 0)
$stopped
warning $src empty meter for 13:'new'
$started
$stopped
failure cannot read agent.ini: No such file or directory
warning $src 1 more lines like: preStopCycle(snmp)
warning $src 1 more lines like: stopCycle(snmp, 0)" "$ended
$(lines log)"

configure
start_host log --log-level trace
ask snmpget -v1 -c $'x\nforged\e[2J\xfe' "$agent" .1.3.6.1.4.1.32473.4.1.0 >/dev/null
configure '[ITEM_new]\ntype = int\n'
end_host HUP
expect 'a start that fails' '1 failure the module did not start, status -1' \
  "$ended $(grep -o 'failure the.*' log)"
expect 'a forged line' '0 1' "$(grep -c '^forged' log) $(grep -cF 'community: x\nforged\x1b[2J\xfe\n' log)"

configure
mkfifo -m 600 pipe
exec 9<>pipe
for reader in slow stalled gone; do
  start_host pipe --log-level 1
  [ $reader != gone ] || exec 9<&-
  junk 6000 # more lines than the pipe and the queue hold
  expect "a reader that is $reader" "$(uname -n)" "$(get 4.2.0 | tr -d '"')"
  if [ $reader = slow ]; then
    cat <&9 >late &
    until_true grep -qs '[0-9] lines of the log are lost' late
    kill $!
  fi
  end_host TERM
  expect "ended, a reader that is $reader" 0 "$ended"
  [ $reader != stalled ] || expect 'no module' 1 "$(timeout 3 "$bin/torvasin_host" --module none 2>pipe || echo $?)"
done

# Each call of the odd module's callbacks is a line of one place. A busy machine makes too few calls, so it gets three tries.
name=the_thirty-nine_characters_of_a_name.
for _ in 1 2 3; do
  timeout -s INT --preserve-status 2.65 "$bin/torvasin_host" --module "$odd" --conf-file agent.ini --name $name --affinity 5 \
    --renice 3 --fast-ms 50 --slow-ms 800 2>log 8<>"/dev/udp/127.0.0.1/$port" || printf 'exit %d\n' $?
  more=$(lines log | sed -n 's/.*LINE \([0-9]*\) more lines like: call 20$/\1/p')
  ((more < 28 || more > 35)) || break
done
expect 'the odd module' "warning odd/start:LINE $name 5 3
error odd/fast:LINE call 1
error odd/slow:LINE call 1
notice module $name 7 answers on 0.0.0.0:PORT, 0.0.0.0:PORT
notice module $name stopped
warning src/host/main:LINE the module left 1 memory blocks and 2 meter callbacks
error odd/fast:LINE $more more lines like: call 20" "$(
  lines log | sed 's/\(0\.0\.0\.0\):[1-9][0-9]*/\1:PORT/g; /error odd.* call [^1]$/d; /error odd[^ ]* call ..$/d')"
expect 'calls of 2.6 seconds, those of fast meters written' '1 4 20' \
  "$((more >= 28 && more <= 35)) $(grep -c ' odd/slow:7 ' log) $(grep -c ' odd/fast:7 call' log)"
expect 'no thread to answer' '1 failure the module started no thread to answer with' \
  "$(timeout 5 "$bin/torvasin_host" --module "$odd" --conf-file agent.ini --name lazy 2>log || echo $?) $(lines log | grep failure)"
TZ=XYZ-5:30 "$bin/torvasin_host" --list-meters | tr -s ' ' >meters
expect 'meters' "network.rx_kib fast uint yes KiB received from the network, modulo 2^32
system.cpus slow int no processors on line $(getconf _NPROCESSORS_ONLN)
system.description slow text no system, name, kernel and machine, as uname -snrvm $(uname -snrvm)
system.utc_offset_seconds slow int no local time minus UTC, seconds 19800" "$(
  grep -E '^(network.rx_k|system.(cpus|desc|utc))' meters | sed '/rx_kib/s/ [0-9]*$//')"
free=$(sed -n 's/.*root_available.* //p' meters) df=$(df -m --output=avail / | tail -n 1)
expect 'MiB free' 1 "$((free > df - 200 && free < df + 200))"

touch locked
chmod 0 locked
powerless=()
[ "$(id -u)" -ne 0 ] || powerless=(setpriv --bounding-set '-dac_override,-dac_read_search,-sys_nice')
for row in 'none:No such file or directory' '.:Is a directory' '/dev/null:Not a file' 'locked:Permission denied'; do
  expect "refused: $row" "2 1 failure cannot read ${row/:/: }" "$(
    "${powerless[@]}" "$bin/torvasin_host" --conf-file "${row%:*}" 2>second || echo $?) $(wc -l <second) $(
    grep -o 'failure.*' second)"
done
expect 'renice refused, ended by INT' '0 failure cannot change the nice value by -5: Operation not permitted' "$(
  "${powerless[@]}" timeout -s INT --preserve-status 0.3 "$bin/torvasin_host" --conf-file agent.ini --renice -5 2>log
  echo $?) $(grep -o 'failure.*' log)"
expect 'a full device' 1 "$("$bin/torvasin_host" --list-meters 2>/dev/null >/dev/full || echo $?)"

finish
