#!/usr/bin/env bash
# What torvasin_config finds in findings/, where each file says it in comments; the names that it gives; and what it and the
# host make of bad input. In findings/, " | " stands between lines, and escapes are those of printf %b.
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

# The minimal host's names, as they lie beside it. To renew one: cd examples/host; touch as here;
# torvasin_config mib --name MINIMAL-HOST-MIB --meters meters.ini snmpmanager.ini >MINIMAL-HOST-MIB.txt
cp "$root"/examples/host/*.ini .
touch -d '2026-01-02 03:04:05Z' snmpmanager.ini
for row in 'mib --name MINIMAL-HOST-MIB=MINIMAL-HOST-MIB.txt' 'prometheus --name minimal_host=snmp.yml'; do
  # shellcheck disable=SC2086
  expect "${row%=*}" '' "$("$bin/torvasin_config" ${row%=*} --meters meters.ini snmpmanager.ini | diff - "$root/examples/host/${row#*=}")"
done

# What the meters of this machine give now, and the first values when they are listed by a file.
printf '[ITEM_%s]\noid = 1.3.6.%d\nmeter = %s\ntype = %s\ncomputeformula = %s\nmetertype = %s\n' \
  cpus 1 system.cpus uint 'value*2.5' slow load 2 system.load1 int '2^32' fast time 3 system.uptime_seconds uint '-value' fast \
  >now.ini
"$bin/torvasin_host" --list-meters=ini >own.ini
for options in '' '--meters own.ini'; do
  # shellcheck disable=SC2086
  "$bin/torvasin_config" check $options now.ini | sed -nE 's/^(cpus|load|time) .* //p; /warnings/p'
done >out
expect 'serves now' "$((5 * $(getconf _NPROCESSORS_ONLN) / 2)) 2147483647 0 0 errors, 0 warnings, 0 notes 0 2147483647 0 0 errors, 0 warnings, 0 notes" "$(xargs <out)"

# Texts of 140 octets: ten of them fit no response, nine do. With a number first, the first ten fit, the next do not.
printf '[ITEM_number]\noid = 1.3.0\ntype = int\n' >texts.ini
for i in {1..10}; do printf '[ITEM_%d]\noid = 1.3.%d\ntype = string:%0140d\n' "$i" "$i" 0 >>texts.ini; done
"$bin/torvasin_config" check --quiet texts.ini >out
expect neighbours "texts.ini:4: note: item '1': no response has room for it and its next 9 neighbours: shorten the texts, or ask for fewer at once" "$(<out)"

# Files inside one another: the seventeenth is not read.
for i in {1..17}; do printf '[General]\ninclude = %d.inc\n' "$((i + 1))" >"$i.inc"; done
"$bin/torvasin_config" check --quiet 1.inc >out || true
expect includes '16.inc:2: error: [General] include = 17.inc is refused: more than 16 files inside one another or 256 in all' "$(head -n 1 out)"

# Bad input: a file, the status of check and that of the others, which say why in one line.
head -c 50000 /dev/urandom >binary.ini
seq 100000 >lines.ini
truncate -s 3G zeros.ini
printf '[General]\ninclude = zeros.ini\n' >include.ini
(ulimit -Sv 2000000 && "$bin/torvasin_config" --help) >out 2>err || echo failed >>err
[ -s err ] || ulimit -Sv 2000000 # a sanitizer needs more, and ends or says so
for row in 'binary.ini 1 1 1' 'lines.ini 1 1 1' 'zeros.ini 1 1 1' 'include.ini 1 1 1' 'none.ini 2 2 1' '. 2 2 1' '/dev/null 2 2 1' '/proc/self/mem 2 2 1'; do
  said="${row%% *}"
  for command in check mib prometheus; do
    status=0
    "$bin/torvasin_config" "$command" "${row%% *}" >out 2>err || status=$?
    said+=" $status $(wc -l <err)"
  done
  read -r file check others lines <<<"$row"
  expect "$file" "$file $check $((check / 2)) $others $lines $others $lines" "$said"
done
ulimit -Sv unlimited
bad() { # STATUS PROGRAM ARGUMENTS...: each is refused in one line
  for arguments in "${@:3}"; do
    # shellcheck disable=SC2086
    expect "$2 $arguments" "$1 1 $2:" "$("$bin/$2" $arguments 2>err || echo $?) $(wc -l <err) $(cut -d' ' -f1 err)"
  done
}
bad 2 torvasin_config '' check 'check items.ini values.ini' 'check --meters none.ini items.ini' \
  'check --meters meters.ini --no-meters items.ini' 'mib --name x items.ini' 'prometheus --exporter 1 items.ini' \
  'prometheus --name 1a items.ini'
bad 2 torvasin_host '--version --list-meters' "--name $(printf 'x%.0s' {1..40})" '--affinity 0' '--renice x' '--fast-ms 0' \
  '--slow-ms 3600001' --log-level another
bad 1 torvasin_host '--module none'
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
expect names 'sysName.0 iso.3.6.1.4.1.5 item5 current2.0 aB aB3 site2 x.0 site n80' "$(
  snmptranslate -M . -m SITE-MIB $(sed -n 's/^oid = \(1.3.6.1.[24].*\)/.\1/p' items.ini | sort -Vu) 2>&1 | cut -d: -f3 | xargs)"

finish
