# shellcheck shell=bash
# Sourced by the shell tests: what the scripts share, a scratch directory to work in, which ends with the test, `expect`
# and `finish`. No setting of the user or the machine reaches the programs that a test runs.

# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/../scripts/lib.sh"
scratch=$(mktemp -d)
trap 'stop_servers; rm -rf "$scratch"' EXIT
cd "$scratch"
mkdir -p .snmp/cert_indexes # net-snmp tells of each directory that it makes
export HOME=$scratch SNMP_PERSISTENT_DIR=$scratch/.snmp SNMPCONFPATH=$scratch MIBDIRS='' MIBS='' LC_ALL=C TZ=UTC

failures=0
expect() { # TITLE EXPECTED GOT
  [ "$2" = "$3" ] && return
  printf 'FAILED %s\n expected: %s\n but got:  %s\n' "$1" "$2" "$3"
  failures=$((failures + 1))
}
finish() {
  printf '%d failed\n' "$failures"
  [ "$failures" -eq 0 ]
}
