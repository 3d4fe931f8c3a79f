#!/usr/bin/env bash
# The probe finds nothing in the tree's two hosts, and names the fault of each host that has one: minimal hosts with one
# line changed. Usage: probe_test.sh PROBE TORVASIN_HOST MINIMAL_HOST [SOURCE_DIRECTORY]

# shellcheck source=tests/lib.sh
. "$(dirname "$0")/lib.sh"

probe() { # NAME COMMAND...: runs a host; some with a standard error that is full, and is read after five seconds
  local full=0 late=0
  [[ $1 != minimal && $1 != torvasin && $1 != waits* ]] || full=65536 late=5
  { head -c $full /dev/zero && exec timeout --preserve-status 3 "${@:2}"; } 2>&1 | { sleep $late && tr -d '\0'; } >"$1.log"
}
printf '[ITEM_%s]\nmetertype = %s\nmeter = %s\n' 1 fast host.seconds 2 slow host.program 3 fast system.load1 >agent.ini

hosts=()
broken() { # NAME SED_EXPRESSION WORDS_OF_THE_FAULT
  sed "$2" "$source/examples/host/minimal_host.c" >"$1.c"
  expect "$1: changes a line" 1 "$(diff "$1.c" "$source/examples/host/minimal_host.c" | grep -c '^[0-9]')"
  "${CC:-cc}" -w -I "$source/src/module" -rdynamic "$1.c" -o "$1"
  probe "$1" "./$1" "$probe" agent.ini &
  hosts+=("$1" "$3")
}
source=${4-} probe=$1
if [ -n "$source" ]; then
  broken keeps_the_pointer 's/= keep(text)/= text/' 'has its text until it is set again or freed'
  broken frees_what_a_record_holds '/^void torvasin_valueInitS/a if (value->type == 3) free((char*)value->payload.text);' \
    'crashed in torvasin_valueInitS'
  broken frees_a_borrowed_text 's/owned != 0/text != NULL/' 'in torvasin_valueInitTakeS(value, borrowed, 0)'
  broken grows_no_null 's/return realloc(/return memory == NULL ? NULL : realloc(/' 'torvasin_realloc gives memory'
  broken any_type_is_a_text 's/ || value->type != TORVASIN_TEXT//' 'torvasin_keyValueListGetS returns 0 for a text only'
  broken found_is_1 's/? 0 : -1/? 1 : 0/' 'torvasin_keyValueListGet gives a value'
  broken hands_itself_back 's/list, to->user/list, (void*)to/' 'gets the user that was registered'
  broken removes_nothing 's/if (registration != NULL).*/(void)registration;/' 'registers a callback'
  broken leaves_the_thread '/entry->preStopCycle/d' 'the order is startCycle, startThread, preStopCycle, stopCycle'
  broken moves_the_context 's/preStopCycle(&context/preStopCycle(\&(torvasin_plugin_context){0}/' 'gets the context of startCycle'
  broken writes_past_its_line 's/vsnprintf(text, sizeof text,/vsprintf(text,/' 'crashed in torvasin_log'
  broken waits_for_its_reader 's/output.revents == POLLOUT/1/' 'does not wait'
fi
probe minimal "$3" "$1" agent.ini &
probe torvasin "$2" --module "$1" --conf-file agent.ini
wait
for host in minimal torvasin; do
  expect $host '0 faults; ' "$(grep -aoE '[0-9]+ faults; |FAULT.*|Sanitizer.*' $host.log | sort -u)"
done
for ((i = 0; i < ${#hosts[@]}; i += 2)); do
  grep -aq "FAULT: .*${hosts[i + 1]}" "${hosts[i]}.log" || expect "${hosts[i]}" "${hosts[i + 1]}" "$(grep -a FAULT "${hosts[i]}.log")"
done
finish
