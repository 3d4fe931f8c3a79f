#!/usr/bin/env bash
# What torvasin_config finds in files and says that they serve, its MIB, and what it and the host make
# of bad input.
# Usage: findings_test.sh BINARY_DIRECTORY

# shellcheck source=tests/lib.sh
. "$(dirname "$0")/lib.sh"
bin=$1

# find TITLE FINDINGS TEXT: a file of that text, and what is found: its line, in x.ini unless said
# otherwise, and the first letter of its kind.
find() {
  local status=0
  printf '%b' "$3" >x.ini
  "$bin/torvasin_config" check x.ini >out 2>&1 || status=$?
  expect "$1" "$2 status $([[ $2 = *[ew]* ]] && echo 1 || echo 0)" \
    "$(sed -nE 's/^(x.ini:|([a-z]+.ini:))([0-9]+:)? ?([ewn])[a-z]+: .*/\2\3\4/p' out | tr -d : | xargs) status $status"
}

# The message in brackets behind each finding stands in the log of a host that does not start with
# the same file.
logged() {
  cat out >>refused
  timeout 10 "$bin/torvasin_host" --conf-file x.ini 2>log || true
  while read -r message; do expect "$message" 1 "$(grep -cF -- "$message" log)"; done < <(
    sed -nE 's/^.*[^ (]( \(|\? \()(.*)\)$/\2/p' out)
}

o='oid = 1.3.6.1.4.1.32473.' u='type = uint' m='meter = system.load1\nmetertype = fast'
s="meter = system.kernel\ntype = string" x=$(printf 'x%.0s' {1..140})
a="[ITEM_a]\n${o}1\n"
printf '[General]\nport = x\n' >more.ini
printf '[General]\ninclude = loop.ini\n' >loop.ini
formula() { printf '%s' "[ITEM_$1]\n${o}$1\n$m\n$u\ncomputeformula = $2\n"; }
texts() { for i in $(seq "$1"); do printf '%s' "[ITEM_t$i]\n${o}$i\ntype = string:$x\n"; done; }

find 'no fault' '' "\xEF\xBB\xBF[General]\nip = 192.0.2.1\nport: 1\n$a$m\ntype = int:-5 ; n\n  ; n\ncomputeformula = pow(value,2)\n"
find 'the address' 'w 2w 3w 4w 4w 5w 6n 7n 8w' "[General]\nip = local\nip = 010.0.0.1\nip = 127.0.0.1 # here
ip = 127.1\nip = 0.0.0.0\nport = 0\nport = 31161x\n"
find 'refused keys and lines' '1e 2e 6e 7e 8e 9e 10e 11e 12n 12e 12w 13e' "a = b\n[Generl]\na = 1\nb = 1\n[General]\nprot = 1
port = 70000\ninclude = none.ini\ninclude = .\nno line\n[a\n[ITEM_a]\ncolor = red\n"
logged
find 'refused values' '1e 4e 5w 5e 6e 7e 8e' "[ITEM_a]\n$s\ntype = int:\n  $u\ncomputeformula = value*
[ITEM_b]\noid = 1..3\n$m\n$u\n"
logged
find 'a section again, and files' '6w more.ini2e 9e loop.ini2e 11w' "$a$m\n$u\n[ITEM_a]\n[General]\ninclude = more.ini
include = .\ninclude = loop.ini\n[General]\n"
find 'what is cut' '1w 1e 2w 9w 9w' "[General] ; $x${x:0:59}\n[ITEM_$x]\n${o}2\n$s\n$a$u\nmeter = ${x:12}\n"
find 'numbers' '5w 10w 15w 20w 25w 25w' "$a$m\n$u:-1\n[ITEM_b]\n${o}2\n$m\n$u:4294967296\n[ITEM_c]\n${o}3\n$m
type = int:2147483648\n[ITEM_d]\n${o}4\n$m\ntype = int:5x\n[ITEM_e]\n${o}5\n$m\n$u:5 #\n"
find 'types and meters' '1w 7w 9w 14w 20w 21n' "$a$m\n[ITEM_b]\n${o}2\nmeter = system.laod1\n$u\nmetertype = fats
[ITEM_c]\n${o}3\n$m\nmetertype = slow\n$u\n[ITEM_d]\n${o}4\n$m\ntype = string\n[ITEM_e]\n${o}5\n$u\n"
cat out >>refused
find 'formulas' '5w 11w 17w 23n 29n 35n' "$a$s\ncomputeformula = value\n$(formula 2 '0,5')$(formula 3 'pow((1,5),2)'
  )$(formula 4 -1)$(formula 5 '0/0')[ITEM_f]\n${o}6\n${m/system.load1/network.rx_octets}\n$u\ncomputeformula = value\n"
find 'OIDs' '8w 13w 18w' "$(formula 1 1)${a/a/b}$m\n$u\n[ITEM_c]\noid = 2.40.1\n$m\n$u\n[ITEM_d]\noid = 1\n$m\n$u\n"
find 'no OID' '1e 1w 4e 7e 10w' "[ITEM_a]\n$m\n[ITEM_b]\n$s\n[ITEM_c]\n$s\ncomputeformula = 1\n"
logged
find 'ten long texts' "1n 4n $(seq -f %gn 4 3 31 | xargs)" "[ITEM_a]\n${o}0\n$u\n$(texts 10)"
find 'nine of them' "$(seq -f %gn 1 3 25 | xargs)" "$(texts 9)"

expect 'words that may be meant' "'General' 'port' 'uint' 'system.load1' 'fast'" \
  "$(sed -n "s/.*did you mean \('[^']*'\)?.*/\1/p" refused | xargs -d '\n')"
printf '%b' "[ITEM_a]\n${o}1\n$u:7\n[ITEM_b]\n${o}2\n$m\ntype = int:-5\n[ITEM_c]\n${o}3\nmeter = system.cpus
$u\ncomputeformula = value*2.5\n[ITEM_d]\n${o}4\n$s:x\n[ITEM_e\x1b]\n${o}5\n" >x.ini
"$bin/torvasin_config" check x.ini >out || true
expect 'serves now' "7 $((5 * $(getconf _NPROCESSORS_ONLN) / 2)) $(uname -r) NULL" \
  "$(sed -nE 's/^([acd]|e\\x1b) .* //p' out | xargs)"
expect 'a float now' 1 "$(grep -cE '^b .* [0-9]+$' out)"

# Bad input: a file, the status of check and that of the others, which say why in one line.
head -c 50000 /dev/urandom >binary.ini
seq 100000 >lines.ini
printf '[ITEM_\x01\xff"]\nmeter = "\\\noid = 1.3.6.1.4.1.32473.1\ntype = int\n' >octets.ini
for row in 'binary.ini 1 1 1' 'lines.ini 1 1 1' 'octets.ini 1 0 0' 'none.ini 2 2 1' '. 2 2 1' '/dev/null 2 2 1'; do
  said="${row%% *}"
  for command in check mib prometheus; do
    status=0
    "$bin/torvasin_config" "$command" "${row%% *}" >out 2>err || status=$?
    said+=" $status $(wc -l <err)"
  done
  read -r file check others lines <<<"$row"
  expect "$file" "$file $check $((check / 2)) $others $lines $others $lines" "$said"
done
while read -r status program arguments; do
  # shellcheck disable=SC2086
  expect "$program $arguments" "$status 1 $program:" \
    "$("$bin/$program" $arguments 2>said || echo $?) $(wc -l <said) $(cut -d' ' -f1 said)"
done <<ROWS
2 torvasin_config
2 torvasin_config check
2 torvasin_config check x.ini y.ini
2 torvasin_config mib --name x x.ini
2 torvasin_host --version --list-meters
2 torvasin_host --name ${x:0:40}
2 torvasin_host --affinity 0
2 torvasin_host --renice x
2 torvasin_host --fast-ms 0
2 torvasin_host --slow-ms 3600001
2 torvasin_host --log-level
2 torvasin_host another
1 torvasin_host --module none
ROWS
expect 'meters' "system.kernel slow text no release of the kernel $(uname -r)" \
  "$("$bin/torvasin_host" --list-meters | grep '[.]kernel' | xargs)"
expect 'a full device' '1 1' "$("$bin/torvasin_config" mib x.ini 2>said >/dev/full || echo $?) $(wc -l <said)"

# A MIB of items anywhere: OID and the name that it is walked by.
cat >SNMPv2-SMI <<'SMI' # what smilint needs of it; Debian has none
SNMPv2-SMI DEFINITIONS ::= BEGIN
enterprises OBJECT IDENTIFIER ::= { iso 3 6 1 4 1 }
MODULE-IDENTITY MACRO ::= BEGIN END
OBJECT-IDENTITY MACRO ::= BEGIN END
OBJECT-TYPE MACRO ::= BEGIN END
Integer32 ::= INTEGER (-2147483648..2147483647)
Counter32 ::= [APPLICATION 1] IMPLICIT INTEGER (0..4294967295)
END
SMI
while read -r oid item name; do
  printf '[ITEM_%s]\ntype = int\noid = 1.3.6.1.%s\nmeter = --"\\\xff\xc3\xa9\n' "$item" "$oid" >>items.ini
  walked+="SITE-MIB::$name "
  asked+=".1.3.6.1.$oid "
done <<'ITEMS'
2.1.1.5.0 sys_Name sysName.0
4.1.5 item item
4.1.5.0 5 item5
4.1.5.1.0 current current2.0
4.1.7.1.0.0 a_B aB
4.1.7.2.3 ab ab2
4.1.7.3.0 site site2
4.1.7.3.1.0 x x.0
4.1.8 n8 n8
4.1.8.0 n80 n80
ITEMS
"$bin/torvasin_config" mib --name SITE-MIB items.ini >site.txt
expect smilint '' "$(SMIPATH=. smilint -l 3 ./site.txt 2>&1)"
# shellcheck disable=SC2086
expect 'names' "${walked% }" "$(snmptranslate -M . -m SITE-MIB $asked 2>&1 | xargs)"

finish
