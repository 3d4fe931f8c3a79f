#!/usr/bin/env bash
# The minimal host serves its meters. The probe finds no fault in correct hosts, quotes torvasin.h word for word, and
# names the duty that each broken host breaks. Those are threaded_host.c with a -DKIND, and the minimal host of an
# installation with one line changed.
# Usage: hosts_test.sh DIRECTORY_OF_HOSTS MODULE PROBE TORVASIN_HOST [BUILD_DIRECTORY]

# shellcheck source=tests/lib.sh
. "$(dirname "$0")/lib.sh"

probe() { # NAME COMMAND...: runs a host; for some, standard error is full and nobody reads it for five seconds
  local full=0 late=0
  [[ $1 != *minimal && $1 != waits* ]] || full=65536 late=5
  { head -c $full /dev/zero && TORVASIN_PROBE_EXIT=1 timeout --preserve-status "${limit:-4}" "${@:2}" ||
    echo $? >"$1.status"; } 2>&1 | { sleep $late && tr -d '\0'; } >"$1.log"
}
changed() { # NAME:DUTY SED_EXPRESSION
  sed "$2" minimal_host.c >"${1%:*}.c"
  expect "$1 changes a line" 1 "$(diff "${1%:*}.c" minimal_host.c | grep -c '^[0-9]')"
  make -s "${1%:*}" CFLAGS=-w && probe "${1%:*}" "./${1%:*}" "$probe" agent.ini &
}
good=$1 probe=$3 tree=$root broken=()
choose_port
printf '[General]\nport = %d\n[ITEM_fast]\noid = 1.3.1.0\nmeter = host.seconds\nmetertype = fast\ntype = uint
[ITEM_slow]\noid = 1.3.2.0\nmeter = host.program\ntype = string\n[ITEM_none]\noid = 1.3.3.0\ntype = string:kept\n' \
  "$port" >agent.ini
printf '[General]\ninclude = agent.ini\n%s' "$(printf '[ITEM_%d]\nmeter = host.seconds\nmetertype = fast\n' {1..300})" >many.ini
[ $# -eq 4 ] || broken=(
  once:fast fifty_slow:slow log_takes_the_lock:log_lock malloc_takes_the_lock:lock removes_callback:others no_wait:idle
  log_takes_50_ms:waits misaligned:aligned one_block_for_two:blocks realloc_forgets:content refusal_spoils:refusal
  text_gets_lost:moves text_in_64:returns int_is_uint:records borrowed_is_written:borrowed shared_buffer:threads
  key_in_32:returns empty_key:returns any_case:keys number_of_any:get_number numbers_grow:unchanged null_text:texts
  null_list:list removes_nothing:after place_lost:anew removal_calls:calls removal_of_null:returns long_name:name
  private_data_null:context two_at_once:single no_stop:stopped)
for kind in "${broken[@]%:*}"; do
  cc -std=c11 -O1 -w -rdynamic -pthread -I "$tree/src/module" -DKIND="$kind" -o "$kind" "$tree/tests/threaded_host.c" -ldl
  limit=15 probe "$kind" "./$kind" "$probe" agent.ini &
done
for kind in plain nine_instances small_arena own_engines slow_log; do
  limit=15 probe "good.$kind" "$good/${kind}_host" "$probe" many.ini &
done
probe good.minimal "$good/minimal_host" "$probe" agent.ini &
probe good.torvasin "$4" --module "$probe" --conf-file agent.ini --fast-ms 20 &
if [ $# -gt 4 ]; then
  cmake --install "$5" --prefix "$scratch/usr" >log && mv usr moved # an installation may be moved
  PKG_CONFIG_PATH=$(dirname moved/lib*/pkgconfig/torvasin-snmp.pc) && export PKG_CONFIG_PATH
  cp "$(pkg-config --variable=exampledir torvasin-snmp)"/{Makefile,CMakeLists.txt,minimal_host.c} .
  cmake -S . -B cmake -D CMAKE_PREFIX_PATH="$PWD/moved" >log && cmake --build cmake >log
  probe good.cmake.minimal cmake/minimal_host "$probe" agent.ini &
  while read -r name edit; do changed "$name" "$edit" && broken+=("$name"); done <<'EDITS'
waits_for_its_reader:waits s/output.revents == POLLOUT/1/
keeps_the_pointer:copies s/= keep(text)/= text/
grows_no_null:grows s/return realloc(/return memory == NULL ? NULL : realloc(/
any_type_is_a_text:get_text s/ || value->type != TORVASIN_TEXT//
found_is_1:get s/? 0 : -1/? 1 : 0/
hands_itself_back:user s/list, to->user/list, (void*)to/
leaves_the_thread:order /entry->preStopCycle/d
moves_the_context:address s/preStopCycle(&context/preStopCycle(\&(torvasin_plugin_context){0}/
EDITS
fi
start_server log "$good/minimal_host" "$2" agent.ini
serves() {
  [[ $(snmpget -v2c -c public -t 0.1 -r 0 -Oqv -m '' "127.0.0.1:$port" .1.3.{1,2,3}.0 2>/dev/null | xargs) == [1-9]*" $good/minimal_host kept" ]]
}
await 30 serves
kill -TERM "$server" && wait "$server"
expect ended 'Cycle(snmp) Cycle(snmp, 0)' "$(grep -o 'Cycle(.*' log | xargs)"
wait 2>/dev/null

header=$(sed 's,//,,' "$tree/src/module/torvasin.h" | tr -s ' \n' ' ')
grep -oP '^probe: \w.* \w+: "\K.*(?="$)' good.plain.log | sort -u >words
mapfile -t words <words && expect 'distinct words of duties' 33 "${#words[@]}"
for one in "${words[@]}"; do [[ $header == *"$one"* ]] || expect 'words of torvasin.h' "$one" ''; done
for log in good.*.log; do
  expect "$log" ' 0 broken; ' "$(grep -aoE ' [0-9]+ broken[:;] |FAULT.*|Sanitizer.*' "$log" | sort -u)"
  expect "$log: status" '' "$(cat "${log%.log}.status" 2>/dev/null)"
done
expect 'lists of the minimal host' 1 "$(grep -ac '^probe: .* and 1 slow lists with 2 of 2 meters$' good.minimal.log)"
expect 'many items, some included' '302 of 302 meters' "$(grep -aoEm1 '[0-9]+ of 302 meters$' good.plain.log | head -1)"
expect 'not tried on one thread' 'lock, threads, refusal, slow, others, idle, anew' \
  "$(grep -a '^probe.*duties kept' good.minimal.log | grep -oE '[a-z_]+(, [a-z_]+)+$')"
for host in "${broken[@]}"; do
  expect "$host" "${host#*:}" "$(grep -aoP "^probe: FAULT: \K${host#*:}(?=: \".*\", but )" "${host%:*}.log")"
  [ -s "${host%:*}.status" ] || expect "$host: status" 1 0
done
[ $# -eq 4 ] || expect 'in the log of the host' 1 "$(grep -ac '^log 4 .* probe: FAULT: aligned: ' misaligned.log)"
finish
