#!/usr/bin/env bash
# What --check finds in configurations, and what the program says to bad options.
# Usage: check_test.sh BINARY_DIRECTORY EXAMPLE_CONFIGURATION

set -euo pipefail
host=$(realpath "$1")/torvasin_host
example=$(realpath "$2")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

failures=0
expect() {
  [ "$2" = "$3" ] && return
  printf 'FAILED %s\n expected: %s\n but got:  %s\n' "$1" "$2" "$3"
  failures=$((failures + 1))
}

# check TITLE TEXT [FINDINGS]: a file of that text, all the errors and problems found in it.
check() {
  local status=0 found
  printf '%b' "$2" >x.ini
  "$host" --check x.ini >out 2>&1 || status=$?
  found=$(sed -n 's/^error: ini_handler_cb(snmp, /error: /; /^\(error\|problem\|torvasin\)/p' out)
  expect "$1" "$(printf '%b' "${3-}") status $(($# > 2))" "$found status $status"
}

a='[ITEM_a]\noid = 1.3.1.0\ntype = uint\n' load='meter = system.load1\nmetertype = fast\n'
cut=ITEM_$(printf 'n%.0s' {1..44})
printf '[ITEM_a]\n;%0198d;\n' 0 >more.ini
check 'an address of another machine' "[General]\nip = 192.0.2.1\nport = 1\n$a$load"
check 'keys refused' "[General]\nport = 70000\n$a${load}computeformula = value*\n" \
  "error: General, port, 70000 not valid port too big)
error: ITEM_a, computeformula, value*, 1) error parsing formula near 6"
check 'no OID' "$a${load}oid = 1..3\n" \
  "error: ITEM_a, oid, 1..3) error parsing oid\nerror: error missing oid: 0 a\nerror: the module does not start"
check 'no such meter' "${a}meter = load\n" "problem: item 'a': this host publishes no meter 'load'"
check 'other speed' "${a}meter = system.load1\n" \
  "problem: item 'a': meter 'system.load1' is fast, so that metertype slow never gets it"
check 'other types' "${a}meter = system.kernel\n[ITEM_b]\noid = 1.4\ntype = string:a, oid, 1\n$load" \
  "problem: item 'a': type 'uint' takes no text, which meter 'system.kernel' is
problem: item 'b': type 'string:a, oid, 1' takes no float, which meter 'system.load1' is"
check 'one OID twice' "$a${load}[ITEM_b]\noid = .1.3.01.0\ntype = int\n$load" \
  "problem: item 'b': it has the OID of item 'a', which a GET answers instead"
check 'no type' "[ITEM_a]\noid = 1.3\n$load" "problem: item 'a': it has no type and answers NULL"
check 'OIDs out of reach' "$a${load}oid = 2.40.1\n[ITEM_b]\noid = 2.39\ntype = int\n" \
  "problem: item 'a': no request can name OID 2.40.1"
check 'agent out of reach' '[General]\nip = localhost\nport = 0\n' \
  "problem: ip 'localhost' is no IPv4 address: nobody can ask the agent
problem: port 0: the system picks another port at every start"
check 'cut' "[${cut}m]\noid = 1.3\ntype = uint\n${load}[General]\ninclude = more.ini\n${a}" \
  "problem: x.ini:1: a section name of 50 characters: it is read as '$cut'
problem: more.ini:2: a line of 200 characters: it is read up to 199, the rest as a line of its own"

expect 'the example' '0 errors, 0 problems' "$("$host" --conf-file "$example" --check | tail -n 1)"
expect 'meters' "system.kernel slow text no release of the kernel $(uname -r)" "$("$host" --list-meters | grep [.]kernel | xargs)"
for options in '--check=x --list-meters' "--name ${cut}" '--affinity 0' '--renice x' \
  '--fast-ms 0' '--slow-ms 3600001' '--log-level' 'another'; do
  # shellcheck disable=SC2086
  expect "$options" '2 1 torvasin_host:' "$("$host" $options 2>out || echo $?) $(wc -l <out) $(cut -d' ' -f1 out)"
done
expect 'no file' "torvasin_host: cannot read 'none': No such file or directory 1 torvasin_host: an argument is empty 2" \
  "$(for file in none ''; do "$host" --check "$file" 2>&1 || echo $?; done | xargs -d '\n')"
expect 'no module' '1 1 torvasin_host:' "$("$host" --module none 2>out || echo $?) $(wc -l <out) $(cut -d' ' -f1 out)"

printf '%d failed\n' "$failures" && [ "$failures" -eq 0 ]
