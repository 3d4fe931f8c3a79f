# shellcheck shell=bash
# Sourced by the shell tests: what the scripts share, a scratch directory to work in, which ends with the test, `expect`
# and `finish`.

# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/../scripts/lib.sh"
scratch=$(mktemp -d)
trap 'stop_servers; rm -rf "$scratch"' EXIT
cd "$scratch"

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
