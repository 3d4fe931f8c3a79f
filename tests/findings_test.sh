#!/usr/bin/env bash
# What torvasin_config finds in findings/, where each file says it in comments; the names that it gives;
# what it drafts; and what it and the host make of bad input. In findings/, " | " stands between lines, and escapes are those of printf %b.
#   ; check ARGUMENTS: STATUS FILE...   runs it; the files have findings too, in the order of reading
#   LINE ;! KIND: WORDS                 expects this finding in the line
#   ;= LINE                             expects this line behind the findings, unless --quiet is given
#   ;- LINE                             expects it in a comment of the MIB or of the snmp.yml
# Usage: findings_test.sh BINARY_DIRECTORY

# shellcheck source=tests/lib.sh
. "$(dirname "$0")/lib.sh"
bin=$1

mkdir golden
for file in "$root"/tests/findings/*.ini; do
  sed 's/ | /\n/g' "$file" >"golden/${file##*/}"
  printf '%b\n' "$(sed 's/ ;! .*//' "golden/${file##*/}")" >"${file##*/}"
done
while IFS=: read -r file arguments wanted; do
  read -ra files <<<"$wanted"
  status=0
  # shellcheck disable=SC2086
  "$bin/torvasin_config" ${arguments#; } >out 2>&1 || status=$?
  expect "$arguments" "${files[0]}"$'\n'"$(cd golden && awk -v quiet="${arguments##*--quiet*}" -F ' ;! ' '
    { for (i = 2; i <= NF; i++) print FILENAME ":" FNR ": " $i }
    sub(/^;= /, "") && quiet { print }' "$file" "${files[@]:1}")" "$status"$'\n'"$(<out)"
done < <(cd golden && grep '^; check' -- *.ini)

# Files of one use: lines ~ arguments ~ the status and all that is printed.
while IFS='~' read -r lines arguments wanted; do
  printf '%b' "${lines// | /\\n}" >row.ini
  status=0
  # shellcheck disable=SC2086
  "$bin/torvasin_config" $arguments row.ini >out 2>&1 || status=$?
  expect "$arguments: $lines" "$wanted" "$status $(sed -z 's/  */ /g; s/\n$//; s/\n/ | /g' out)"
done <<'ROWS'
~check~0 row.ini: warning: no items: the agent has nothing to serve | row.ini: 0 errors, 1 warning; listens on 127.0.0.1:161
x~check --quiet none.ini~2 torvasin_config: cannot read 'none.ini': No such file or directory | row.ini:1: error: not a [section], key = value or ; comment: 'x'
[General]\rip = 1.2.3.4\r~check --quiet~0 row.ini: warning: no items: the agent has nothing to serve | row.ini:1: warning: carriage return within the line: end lines with a line feed
[General] | include = row.ini | include = row.ini~check~1 row.ini:2: error: [General] include: more than 16 files inside one another | row.ini:3: error: [General] include: more than 16 files inside one another | row.ini:3: error: [General] include: more than 256 files | row.ini: 3 errors, 0 warnings; listens on 127.0.0.1:161
[ITEM_a] | oid = 1.3.1.0 | type = int | x~mib~1 row.ini:4: error: not a [section], key = value or ; comment: 'x' | torvasin_config: row.ini has 1 error
[ITEM_a] | oid = 1.3.1.0 | type = int | x~prometheus~1 row.ini:4: error: not a [section], key = value or ; comment: 'x' | torvasin_config: row.ini has 1 error
[ITEM_a] | oid = 1.3.1.0 | type = int | [ITEM_b] | oid = 3.7.1.1.1.1.1.1 | type = int~mib~1 -- a is left out: its OID is too short for a MIB. | -- b is left out: its OID begins with 3. | torvasin_config: no item can go into a MIB
[ITEM_a] | oid = 1.40 | type = int~prometheus~1 # a is left out: it has an OID that no request can name. | torvasin_config: no item can go into an snmp.yml
[ITEM_a] | oid = 1.3.1.0 | type = int | computeformula = value*2 | computeformula = value*~check --no-meters~1 row.ini:5: warning: [ITEM_a] computeformula: already given at row.ini:4; the last one counts | row.ini:5: error: [ITEM_a] computeformula: 'value*' is not a valid formula; value*100 is one | ITEM OID TYPE METER METERTYPE FORMULA SERVES NOW | a 1.3.1.0 int - slow - 0 | row.ini: 1 error, 1 warning; listens on 127.0.0.1:161
[ITEM_a] | oid = 1.3.1.0 | type = uint | meter = cpu.load | metertype = fast~check --strict --meters meters.ini~0 ITEM OID TYPE METER METERTYPE FORMULA SERVES NOW | a 1.3.1.0 uint cpu.load fast - 0 | note: [ITEM_a]: meter 'cpu.load' is no counter, so int suits it better than uint | row.ini: 0 errors, 0 warnings; listens on 127.0.0.1:161
ROWS

# The names of the minimal host, as they lie beside it, in an older file that includes its own and with a list that has a
# warning. To renew one: cd examples/host; touch as here;
# torvasin_config mib --name MINIMAL-HOST-MIB --meters meters.ini snmpmanager.ini >MINIMAL-HOST-MIB.txt
mkdir older
cp "$root"/examples/host/*.ini .
echo 'type = text' >>meters.ini
printf '[General]\ninclude = snmpmanager.ini\ninclude = older/empty.ini\n' >older/snmpmanager.ini
touch -d '2026-01-02 03:04:05Z' snmpmanager.ini
touch -d '2026-01-01 03:04:05Z' older/snmpmanager.ini older/empty.ini
for row in 'mib --name MINIMAL-HOST-MIB=MINIMAL-HOST-MIB.txt' 'mib=MINIMAL-HOST-MIB.txt' 'prometheus --name minimal_host=snmp.yml'; do
  # shellcheck disable=SC2086
  TZ=XYZ-5:30 "$bin/torvasin_config" ${row%=*} --meters meters.ini "$PWD/older/snmpmanager.ini" >out 2>err
  [ "${row%=*}" != mib ] || sed -i 's/TORVASIN-MIB/MINIMAL-HOST-MIB/; s/^torvasin /minimalHost /; s/{ torvasin /{ minimalHost /' out
  expect "${row%=*}" '' "$(diff out "$root/examples/host/${row#*=}")"
done
expect 'unknown meters, an older exporter' '0 1' "$("$bin/torvasin_config" mib --no-meters snmpmanager.ini | grep -c '"A gauge') $(
  "$bin/torvasin_config" prometheus --exporter 0.24 --no-meters snmpmanager.ini | grep -c 'auths\|scale')"

# What is drafted for this machine, and for a host whose list has meters of all kinds.
printf '%b' '[b.x/y]\ntype = float\n[a.1]\ntype = int\nspeed = slow\n[b.x_y]\ntype = uint\ncounts = yes\n[A]\ntype = text\n' \
  '[b.n]\ntype = float\ncounts = yes\ndescription = \xff"\rz\n' "[$(printf 'm%.0s' {1..190})]\ntype = int\n[c #\x1b d]\ntype = uint\n" >meters.ini
"$bin/torvasin_config" draft --oid 1.3.6.1.4.1.9 >draft.ini
expect 'own draft' '0 20 4 0 errors, 0 warnings' "$("$bin/torvasin_config" check --strict draft.ini >out; echo $?) $(grep -c ' 1\.3\.6\.1\.4\.1\.9\.[1-6]\.[0-9]*\.0 ' out) $("$bin/torvasin_config" prometheus draft.ini | grep -c 'scale: 0.01$') $(sed -n 's/.*ini: //; s/;.*//; $p' out)"
"$bin/torvasin_config" draft --oid .1.3.6.1.4.1.9. --meters meters.ini >draft.ini 2>err
expect draft "; Drafted by torvasin_config. Delete the items that you do not need. ; snmpmanager.ini(5) explains the keys. \
; Left out: meter '$(printf 'm%.0s' {1..40})', whose name no configuration can contain. ; ---- b ---- ; b.x/y ; b.x_y ; "$'\xff'"\" z ; ---- a ---- ; a.1 ; ---- A ---- ; A ; ---- c ---- ; c #"$'\x1b'" d" \
  "$(grep -a '^;' draft.ini | paste -sd' ' | sed 's/  *$//')"
"$bin/torvasin_config" check --strict --meters meters.ini draft.ini | sed -E '/^meters/d; s/  +/ /g' >out
expect 'draft of a list' 'ITEM OID TYPE METER METERTYPE FORMULA SERVES NOW
b_x_y 1.3.6.1.4.1.9.1.1.0 int b.x/y fast value*100 0
b_x_y2 1.3.6.1.4.1.9.1.2.0 uint b.x_y fast - 0
b_n 1.3.6.1.4.1.9.1.3.0 uint b.n fast - 0
a_1 1.3.6.1.4.1.9.2.1.0 int a.1 slow - 0
A 1.3.6.1.4.1.9.3.1.0 string A fast - -
c____d 1.3.6.1.4.1.9.4.1.0 uint c #\x1b d fast - 0
draft.ini: 0 errors, 0 warnings; listens on 127.0.0.1:1161' "$(<out)"

# What the meters of this machine give now, and the first values when they are listed by a file.
printf '[ITEM_%s]\noid = 1.3.6.%d\nmeter = %s\ntype = %s\ncomputeformula = %s\nmetertype = %s\n' \
  cpus 1 system.cpus int 'value*2.5' slow load 2 system.load1 int '2^32' fast rx 3 network.rx_octets uint '-value' fast \
  >now.ini
"$bin/torvasin_host" --list-meters=ini >own.ini
for options in '' '--meters own.ini'; do
  # shellcheck disable=SC2086
  "$bin/torvasin_config" check $options now.ini | sed -nE 's/^(cpus|load|rx) .* //p; s/^now.ini: (.*);.*/\1/p'
done >out
expect 'serves now' "$((5 * $(getconf _NPROCESSORS_ONLN) / 2)) 2147483647 0 0 errors, 0 warnings 0 2147483647 0 0 errors, 0 warnings" "$(xargs <out)"

# Texts of 140 octets: ten of them fit no response, nine do. With a number first, the first ten fit, the next do not.
printf '[ITEM_number]\noid = 1.3.0\ntype = int\n' >texts.ini
for i in {1..10}; do printf '[ITEM_%d]\noid = 1.3.%d\ntype = string:%0140d\n' "$i" "$i" 0 >>texts.ini; done
expect 'one response' '0 note: the 10 items from [ITEM_1] on do not fit into one response' \
  "$("$bin/torvasin_config" check --strict texts.ini >out; echo $?) $(grep 'one response' out)"

printf '[General]\n%s' "$(printf 'include = /dev/null%.0s\n' {1..256})" >files.ini
expect "the file and 255 others" 'files.ini:257: error: [General] include: more than 256 files' "$("$bin/torvasin_config" check --quiet files.ini)"

# Bad input: a file, the status of check and that of the others, which say why at last.
head -c 50000 /dev/urandom >binary.ini
seq 100000 >more.ini
(echo '[General]' && echo 'include = more.ini' && cat more.ini) >lines.ini
truncate -s 3G zeros.ini
printf '[General]\ninclude = zeros.ini\n' >include.ini
(ulimit -Sv 2000000 && "$bin/torvasin_config" --help) >out 2>err || echo failed >>err
[ -s err ] || ulimit -Sv 2000000 # a sanitizer needs more, and ends or says so
for row in 'binary.ini 1' 'lines.ini 1' 'zeros.ini 1' 'include.ini 1' '. 2' '/dev/null 2' '/proc/self/mem 2'; do
  read -r file wanted <<<"$row"
  for command in check mib prometheus; do
    status=0
    "$bin/torvasin_config" "$command" "$file" >out 2>err || status=$?
    [ "$wanted $command" = '1 check' ] && reason='' || reason=torvasin_config
    expect "$command $file" "$wanted $reason" "$status $(tail -n 1 err | cut -d: -f1)"
  done
done
ulimit -Sv unlimited
bad() { # STATUS PROGRAM ARGUMENTS...: each is refused in one line
  for arguments in "${@:3}"; do
    # shellcheck disable=SC2086
    expect "$2 $arguments" "$1 1 $2:" "$("$bin/$2" $arguments 2>err || echo $?) $(wc -l <err) $(cut -d' ' -f1 err)"
  done
}
bad 2 torvasin_config '' check 'mib items.ini values.ini' 'check --meters none.ini items.ini' \
  'check --meters meters.ini --no-meters items.ini' 'mib --name x items.ini' 'mib --name A- items.ini' 'mib --name a-b items.ini' 'prometheus --exporter 1 items.ini' \
  'prometheus --name 1a items.ini' draft 'draft --oid 1.3.6.1.4.1.NUMBER' 'draft --oid 1.40.1' \
  'draft --oid 1.3.1.1.1.1.1.1.1.1.1.1.1.1.1.1.1'
bad 2 torvasin_host '--version --list-meters' "--name $(printf 'x%.0s' {1..40})" '--affinity 0' '--renice x' '--fast-ms 0' \
  '--slow-ms 3600001' --log-level another
bad 1 torvasin_host '--module none'
expect version "$("$bin/torvasin_host" --version | sed -n 's/module/torvasin_config/p')" "$("$bin/torvasin_config" --version)"
{ "$bin/torvasin_config" --help && "$bin/torvasin_config" check --help && "$bin/torvasin_host" --help; } >out
expect help '3 0' "$(grep -c '^Usage' out) $(grep -c '[{}]\|Excludes\|REQUIRED' out)"
expect 'a full device' '1 1' "$("$bin/torvasin_config" mib items.ini 2>err >/dev/full || echo $?) $(wc -l <err)"

# A MIB of items anywhere: what smilint says, and the names that the items are walked by.
cat >SNMPv2-SMI <<'SMI' # what smilint needs of it; Debian has none
SNMPv2-SMI DEFINITIONS ::= BEGIN
enterprises OBJECT IDENTIFIER ::= { iso 3 6 1 4 1 }
MODULE-IDENTITY MACRO ::= BEGIN END OBJECT-IDENTITY MACRO ::= BEGIN END OBJECT-TYPE MACRO ::= BEGIN END
Integer32 ::= INTEGER (-2147483648..2147483647)
Counter32 ::= [APPLICATION 1] IMPLICIT INTEGER (0..4294967295)
END
SMI
"$bin/torvasin_config" mib --name SITE-MIB items.ini >site.txt
expect smilint '' "$(SMIPATH=. smilint -l 3 ./site.txt 2>&1)"
expect 'left out' "$(sed -n 's/^;- //p' golden/items.ini)" "$(
  { cat site.txt && "$bin/torvasin_config" prometheus items.ini; } | sed -nE 's/^(#|--) (.* left out)/\2/p' | sort -u)"
# shellcheck disable=SC2046
expect names 'sysName.0 iso.3.6.1.4.1.5 item5 current2.0 aB aB3 site2 x.0 up2.0 lod.0 lo.0 site n80' "$(
  snmptranslate -M . -m SITE-MIB $(sed -n 's/^oid = \(1.3.6.1.[24].*\)/.\1/p' items.ini | sort -Vu) 2>&1 | cut -d: -f3 | xargs)"

finish
