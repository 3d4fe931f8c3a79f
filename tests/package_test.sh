#!/usr/bin/env bash
# What an installation contains, and whether debian/ agrees with it.
# Usage: package_test.sh BUILD_DIRECTORY

# shellcheck source=tests/lib.sh
. "$(dirname "$0")/lib.sh"

cmake --install "$1" --prefix "$scratch/usr" >log || cat log
version=$(sed -n '1s/.*(\(.*\)).*/\1/p' "$root/debian/changelog")
expect 'one version, and the module is found' "torvasin_host $version module $version" \
  "$(usr/bin/torvasin_host --version | xargs)"
expect 'the example is good' 0 "$(usr/bin/torvasin_config check usr/share/doc/torvasin-snmp/config/snmpmanager.ini >log; echo $?)"
expect 'the port of the service' 1 "$(grep -c '^port = 1161$' "$root/config/snmpmanager.ini")" # which debian/rules replaces

page=usr/share/man/man5/snmpmanager.ini.5
expect 'underscores do not become italics' 1 "$(grep -c 'CAP_NET_BIND_SERVICE' $page)"
expect 'a code block stays as it is' 1 "$(sed -n '/^\.EX/,/^\.EE/p' $page | grep -cE '^ {12}sin sinh sqrt tan tanh$')"
expect 'no Markdown markup' '' "$(grep -lE '\*[A-Z]' usr/share/man/man?/*)"
expect 'manual pages' 3 "$(find usr/share/man -name 'torvasin_host.8' -o -name 'torvasin_config.1' -o -name 'snmpmanager.ini.5' | wc -l)"

cd usr/share/doc/torvasin-snmp
links=0
while IFS=: read -r file link; do
  links=$((links + 1))
  [ -e "$(dirname "$file")/${link#*(}" ] || expect "a link of $file" "${link#*(}" nothing
done < <(grep -roE '\]\([^)#: ]+' --include='*.md' .)
expect 'more than 50 links' 1 "$((links > 50))"
cd "$scratch"

sed "s|=/usr/bin|=$PWD/usr/bin|" "$root/debian/torvasin-snmp.service" >torvasin-snmp.service
expect 'the unit is valid' '' "$(systemd-analyze verify --man=no "$PWD/torvasin-snmp.service" 2>&1)"
expect 'its exposure is low' 0 "$(systemd-analyze security --offline=yes --threshold=30 torvasin-snmp.service >log; echo $?)"
finish
