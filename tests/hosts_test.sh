#!/usr/bin/env bash
# The minimal host serves its meters. The probe finds nothing in both hosts of the tree, and names the fault of each host
# that has one: minimal hosts with one line changed, built from an installation.
# Usage: hosts_test.sh MINIMAL_HOST MODULE PROBE TORVASIN_HOST [BUILD_DIRECTORY]

# shellcheck source=tests/lib.sh
. "$(dirname "$0")/lib.sh"

choose_port
printf '[General]\nport = %d\n[ITEM_fast]\noid = 1.3.1.0\nmeter = host.seconds\nmetertype = fast\ntype = uint
[ITEM_slow]\noid = 1.3.2.0\nmeter = host.program\ntype = string\n[ITEM_none]\noid = 1.3.3.0\ntype = string:kept\n' \
  "$port" >agent.ini
start_server log "$1" "$2" agent.ini
for _ in {1..50}; do
  got=$(snmpget -v2c -c public -t 0.1 -r 0 -Oqv -m '' "127.0.0.1:$port" .1.3.{1,2,3}.0 2>/dev/null | xargs) || true
  [[ $got != [1-9]*" $1 kept" ]] || break
  sleep 0.1
done
expect served "$1 kept" "${got#* }"
kill -TERM "$server"
wait "$server"
expect ended 'Cycle(snmp) Cycle(snmp, 0)' "$(grep -o 'Cycle(.*' log | xargs)"

probe() { # NAME COMMAND...: runs a host; some with a standard error that is full, and is read after five seconds
  local full=0 late=0
  [[ $1 != good* && $1 != waits* ]] || full=65536 late=5
  { head -c $full /dev/zero && exec timeout --preserve-status 3 "${@:2}"; } 2>&1 | { sleep $late && tr -d '\0'; } >"$1.log"
}
broken() { # NAME SED_EXPRESSION WORDS_OF_THE_FAULT
  sed "$2" minimal_host.c >"$1.c"
  expect "$1: changes a line" 1 "$(diff "$1.c" minimal_host.c | grep -c '^[0-9]')"
  make -s "$1" CFLAGS=-w
  probe "$1" "./$1" "$probe" agent.ini &
  hosts+=("$1" "$3")
}
probe=$3 hosts=()
probe good.minimal "$1" "$probe" agent.ini &
probe good.torvasin "$4" --module "$probe" --conf-file agent.ini &
if [ $# -gt 4 ]; then
  cmake --install "$5" --prefix "$scratch/usr" >log && mv usr moved # which an installation may be
  PKG_CONFIG_PATH=$(dirname moved/lib*/pkgconfig/*) && export PKG_CONFIG_PATH
  cp "$(pkg-config --variable=exampledir torvasin-snmp)"/{Makefile,CMakeLists.txt,minimal_host.c} .
  cmake -S . -B cmake -D CMAKE_PREFIX_PATH="$PWD/moved" >log
  cmake --build cmake >log
  probe good.cmake cmake/minimal_host "$probe" agent.ini &
  broken keeps_the_pointer 's/= keep(text)/= text/' 'has its text until it is set again or freed'
  broken frees_what_it_holds '/^void torvasin_valueInitS/a if (value->type == 3) free((char*)value->payload.text);' \
    'crashed in torvasin_valueInitS'
  broken frees_a_borrowed_text 's/owned != 0/text != NULL/' 'crashed in torvasin_valueInitTakeS(value, borrowed, 0)'
  broken grows_no_null 's/return realloc(/return memory == NULL ? NULL : realloc(/' 'torvasin_realloc gives memory'
  broken any_type_is_a_text 's/ || value->type != TORVASIN_TEXT//' 'torvasin_keyValueListGetS returns 0 for every text'
  broken found_is_1 's/? 0 : -1/? 1 : 0/' 'torvasin_keyValueListGet gives a value'
  broken hands_itself_back 's/list, to->user/list, (void*)to/' 'gets the user that was registered'
  broken removes_nothing 's/if (registration != NULL).*/(void)registration;/' 'registers a callback'
  broken leaves_the_thread '/entry->preStopCycle/d' 'the order is startCycle, startThread, preStopCycle, stopCycle'
  broken moves_the_context 's/preStopCycle(&context/preStopCycle(\&(torvasin_plugin_context){0}/' 'the context of startCycle'
  broken writes_past_its_line 's/vsnprintf(text, sizeof text,/vsprintf(text,/' 'crashed in torvasin_log'
  broken waits_for_its_reader 's/output.revents == POLLOUT/1/' 'does not wait'
fi
wait 2>/dev/null
for log in good.*.log; do
  expect "$log" '0 faults; ' "$(grep -aoE '[0-9]+ faults; |FAULT.*|Sanitizer.*' "$log" | sort -u)"
done
for ((i = 0; i < ${#hosts[@]}; i += 2)); do
  faults=$(grep -a '^probe: FAULT' "${hosts[i]}.log") || true
  [[ $faults == *"${hosts[i + 1]}"* ]] || expect "${hosts[i]}" "${hosts[i + 1]}" "$faults"
done
finish
