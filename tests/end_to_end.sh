#!/usr/bin/env bash
# The built library and host program, as net-snmp's clients and an operator meet them.
# Usage: end_to_end.sh BINARY_DIRECTORY EXAMPLE_CONFIGURATION ODD_MODULE [address | thread]
# The last names a sanitizer that the programs are built with: what depends on time or on the build is left out.

# shellcheck source=tests/lib.sh
. "$(dirname "$0")/lib.sh"
bin=$1 host=$1/torvasin_host
example=$2
odd=$3
sanitizer=${4-}
library=$bin/libtorvasin_snmp.so
version=$("$host" --version | sed -n 's/^module //p')
choose_port

ask() { "$1" -On -m '' -r 1 "${@:2}" 2>&1 || true; }
get() { ask snmpget -v2c -c public -t 0.3 -Oqv "127.0.0.1:$port" ".1.3.6.1.4.1.32473.$1"; }
junk() { for ((n = 0; n < $1; n++)); do printf "%0$((n % 200 + 1))d" "$n" >"/dev/udp/127.0.0.1/$port"; done; }
lines() { sed -E 's/^.{10} ..:..:..\.... [-+][0-9]{4} //; s/^(\w+ [^ ]*):[0-9]+ /\1:LINE /; s/(0\.0\.0\.0):[1-9][0-9]*/\1:PORT/g' "$@"; } # without what varies
serves() { [[ $(get "$1") =~ $2 ]]; }
configure() { printf '[General]\ninclude = %s\nport = %d\n%b' "$example" "$port" "${1-}" >agent.ini; }
tried() { # ARGUMENT...: the status of the host, and what it prints
  local status=0
  timeout 30 "$host" "$@" >said 2>&1 || status=$?
  echo "$status $(xargs -d '\n' <said)"
}

# start_host LOG [OPTION]...
start_host() { start_server "$1" bash -c 'exec "$@" >/dev/null' - "$host" --conf-file "${file:-agent.ini}" "${@:2}" 9<&-; }
# Sets `ended` to the status with which the host ends for a signal, within 30 seconds.
end_host() {
  kill "-$1" "$server"
  timeout 30 tail -s 0.1 --pid="$server" -f /dev/null || kill -KILL "$server"
  ended=0
  wait "$server" || ended=$?
}

if [ -z "$sanitizer" ]; then
  expect symbols 'plugin_entry_0_6 plugin_entry_torvasin_module_version' \
    "$(nm -D --defined-only "$library" | awk '{print $3}' | sort | xargs)"
  expect libraries 'libc.so.6 libinih.so.1 libm.so.6' \
    "$(readelf -d "$library" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | sort | xargs)"
  expect hardening '1 1 1 1' "$(readelf -W -l "$library" | grep -c 'GNU_RELRO') $(readelf -d "$library" |
    grep -c 'BIND_NOW') $(readelf -W -l "$library" | grep -c 'GNU_STACK .* RW ') $(nm -D "$library" |
    grep -c ' __stack_chk_fail')"
fi

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
for _ in {1..8}; do kill -HUP "$server" && sleep 0.3; done &
while kill -0 $! 2>/dev/null; do get 2.1.0; done >seen
expect 'never the first value' "$(get 2.1.0)" "$(grep '^[0-9]' seen | sort -u)"
await 30 serves 9.0 ^7
rm agent.ini
kill -HUP "$server"
await 30 grep -q ': cannot read' log
configure '[ITEM_bad]\ntype = int\n'
kill -HUP "$server"
await 30 grep -q 'as before' log
expect 'serves on' 7 "$(get 9.0)"
end_host TERM
started="notice module snmp $version answers on 127.0.0.1:$port" stopped='notice module snmp stopped' reason='the module did not start, status -1: error missing oid: 13 bad'
expect 'reloads: good, without a file, of a bad file' "0
$started
failure not reloaded: cannot read agent.ini: No such file or directory
$stopped
failure $reason
$started as before the reload, which failed: $reason
$stopped" "$ended
$(lines log | grep -E '^(notice|failure) [a-z]+ |module left' | tail -n 6)"

configure '[Generl]\na = 1\n'
JOURNAL_STREAM=$(stat -c %d:%i log) start_host log --log-level trace
ask snmpget -v1 -c $'x\nforged\e[2J\xfe' "$agent" .1.3.6.1.4.1.32473.4.1.0 >/dev/null
end_host TERM
expect 'a forged line' '0 1' "$(grep -c '^forged' log) $(grep -cF 'community: x\nforged\x1b[2J\xfe\n' log)"
expect 'priorities of the journal' '<3>error <4>warning <5>notice <7>trace' "$(sed 's/ .*//' log | sort -u | xargs)"
start_host log --log-level off --renice 39 --affinity 1
kill -HUP "$server" && sleep 0.1 # and so during the reload
end_host TERM
expect 'nothing to say' '0 ' "$ended $(<log)"
configure '[ITEM_bad]\ntype = int\n'
expect 'a start that fails' "1 failure $reason" "$(tried --conf-file agent.ini | sed "s/ .*failure the/ failure the/")"

configure
file=<(cat agent.ini) start_host log
kill -HUP "$server"
await 30 grep -q 'not reloaded: cannot read .*: Not a regular file' log
end_host TERM
expect 'a pipe, and its reload' 0 "$ended"
mkfifo -m 600 pipe
if [ "$sanitizer" != thread ]; then # which keeps a signal back while a file is opened
  "$host" --conf-file pipe 2>log &
  server=$!
  await 30 grep -Pzq 'Name:\ttorvasin_host\n(.*\n)*SigCgt:.*[4-7c-f]...\n' "/proc/$server/status"
  end_host TERM
  expect 'ended while it reads a pipe' '0 ' "$ended $(<log)"
fi
start_server log bash -c 'exec "$@" 0<&- 2>&-' - "$host" --conf-file agent.ini
expect 'no standard files' '/dev/null /dev/null' "$(readlink "/proc/$server/fd/0" "/proc/$server/fd/2" | xargs)"
end_host TERM

start_server log script -qc "exec $host --conf-file agent.ini" /dev/null
kill -KILL "$server" # and so the terminal is closed
wait "$server" 2>/dev/null || true
free() { ! bound "$port"; }
await 30 free

if [ -z "$sanitizer" ]; then
  exec 9<>pipe
  start_server pipe script -qfc "exec $host --conf-file agent.ini --log-level 1" /dev/null
  junk 3000 # more lines than the terminal and the pipe behind it hold
  expect 'a terminal that stalls' "$(uname -n)" "$(get 4.2.0 | tr -d '"')"
  kill -KILL "$server"
  await 30 free
  for reader in slow stalled gone; do
    start_host pipe --log-level 1
    [ $reader != gone ] || exec 9<&-
    junk 3000 # more lines than the pipe holds
    expect "a reader that is $reader" "$(uname -n)" "$(get 4.2.0 | tr -d '"')"
    if [ $reader = slow ]; then
      cat <&9 >late &
      await 30 grep -qs 'log lines lost because .*: [1-9]' late
      kill $!
    fi
    end_host TERM
    expect "ended, a reader that is $reader" 0 "$ended"
    [ $reader != stalled ] || expect 'no module' 1 "$(timeout 30 "$host" --module none 2>pipe || echo $?)"
  done
fi

name=the_thirty-nine_characters_of_a_name. words=()
ASAN_OPTIONS=detect_leaks=0 NOTIFY_SOCKET=$PWD/systemd tried --module "$odd" --conf-file agent.ini --name $name --affinity 5 --renice 3 --fast-ms 50 >status \
  8<>"/dev/udp/127.0.0.1/$port"
answers="module $name 7 answers on 0.0.0.0:PORT, 0.0.0.0:PORT"
[[ $(ldd "$host") == *libsystemd* ]] || words=(-e odd/systemd)
expect 'the odd module' "$(grep -v "${words[@]}" -e ^$ <<END
warning odd/start:LINE $name 5 3
error odd/fast:LINE call 1
error odd/slow:LINE call 1
warning odd/thread:LINE start 1
notice $answers
warning odd/systemd:LINE READY=1\\nSTATUS=$answers
warning odd/systemd:LINE RELOADING=1
notice module $name stopped
warning odd/thread:LINE start 2
notice $answers
warning odd/systemd:LINE STATUS=module $name stopped
warning odd/systemd:LINE READY=1\\nSTATUS=$answers
warning odd/systemd:LINE STOPPING=1
notice module $name stopped
warning src/host/main:LINE the module left 2 memory blocks and 4 meter callbacks
END
)
0, calls: 20 written, error odd/fast:LINE 12 more lines like: call 20" "$(
  lines said | sed '/ call [^1]$/d; / call ..$/d; / more lines /d')
$(cut -d' ' -f1 status), calls: $(grep -c ' odd/fast:7 call' said) written, $(lines said | grep 'more.* call 20')"
ASAN_OPTIONS=detect_leaks=0 NOTIFY_SOCKET=$PWD/lazy tried --module "$odd" --conf-file agent.ini --name lazy >status
reason='the module started no thread to answer with'
expect 'no thread to answer' "1 failure $reason" "$(cut -d' ' -f1 status) $(lines said | grep "^failure")"
[ ${#words[@]} -gt 0 ] || expect 'systemd hears why' 1 "$(grep -c " odd/systemd:8 STATUS=$reason" said)"

TZ=XYZ-5:30 "$host" --list-meters | tr -s ' ' >meters
expect 'meters' "network.rx_kib fast uint yes KiB received from the network, modulo 2^32
system.cpus slow int no processors on line $(getconf _NPROCESSORS_ONLN)
system.description slow text no system, name, kernel and machine, as uname -snrvm $(uname -snrvm)
system.kernel slow text no release of the kernel $(uname -r)
system.local_time fast text no local time, ISO 8601, to the second TIME
system.utc_offset_seconds slow int no local time minus UTC, seconds 19800" "$(
  grep -E '^(network.rx_k|system.(cpus|desc|kern|local|utc))' meters |
    sed -E '/rx_kib/s/ [0-9]*$//; s/[0-9]{4}-[0-9]{2}-[0-9]{2}T([0-9]{2}:){2}[0-9]{2}\+0530$/TIME/')"
near() { [ $(($1 - $2)) -lt "$3" ] && [ $(($2 - $1)) -lt "$3" ]; }
expect 'MiB free' 0 "$(near "$(sed -n 's/.*root_available.* //p' meters)" "$(df -m --output=avail / | tail -n 1)" 200; echo $?)"
expect processes 0 "$(near "$(sed -n 's/.*processes.* //p' meters)" "$(printf '%s\n' /proc/[0-9]* | wc -l)" 30; echo $?)"
expect 'meters that count' 4 "$("$host" --list-meters=ini | grep -c '^counts = yes$')"

touch locked
chmod 0 locked
powerless=()
[ "$(id -u)" -ne 0 ] || powerless=(setpriv --bounding-set '-dac_override,-dac_read_search,-sys_nice')
for row in 'none:No such file or directory' '.:Is a directory' '/dev/null:Not a file' 'locked:Permission denied'; do
  expect "refused: $row" "2 1 failure cannot read ${row/:/: }" "$(
    "${powerless[@]}" "$host" --conf-file "${row%:*}" 2>second || echo $?) $(wc -l <second) $(
    grep -o 'failure.*' second)"
done
start_server log "${powerless[@]}" "$host" --conf-file agent.ini --renice -5
kill -INT "$server"
end_host TERM
expect 'renice refused' '0 failure cannot change the nice value by -5: Operation not permitted' "$ended $(grep -o 'failure.*' log)"
expect 'a full device' 1 "$("$host" --list-meters 2>/dev/null >/dev/full || echo $?)"
expect 'an empty argument' '2 torvasin_host: an argument is empty' "$(tried --conf-file '')"
expect 'a level by its number' 0 "$(tried --log-level 5 --version | cut -c1)"
expect help '0 snmpmanager.ini snmp 1000 10000' \
  "$(tried --help | cut -c1) $(sed -n 's/.*default: \([^ ]*\))$/\1/p' said | xargs)"
expect 'no module, a library' 1 "$(tried --module "$(ldd "$host" | awk '/libfmt/ { print $3 }')" | grep -c '^1 .*lacks the symbol plugin_entry_0_6')"
cd "$bin"
expect 'a bare name' "module $version" "$(./torvasin_host --module libtorvasin_snmp.so --version | tail -n 1)"

finish
