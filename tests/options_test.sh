#!/usr/bin/env bash
# What the host program lists, and what it says to bad options. Usage: options_test.sh BINARY_DIRECTORY

set -euo pipefail
host=$(realpath "$1")/torvasin_host
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

failures=0
expect() {
  [ "$2" = "$3" ] && return
  printf 'FAILED %s\n expected: %s\n but got:  %s\n' "$1" "$2" "$3"
  failures=$((failures + 1))
}

cut=$(printf 'n%.0s' {1..40})
expect 'meters' "system.kernel slow text no release of the kernel $(uname -r)" "$("$host" --list-meters | grep '[.]kernel' | xargs)"
for options in '--version --list-meters' "--name ${cut}" '--affinity 0' '--renice x' \
  '--fast-ms 0' '--slow-ms 3600001' '--log-level' 'another'; do
  # shellcheck disable=SC2086
  expect "$options" '2 1 torvasin_host:' "$("$host" $options 2>out || echo $?) $(wc -l <out) $(cut -d' ' -f1 out)"
done
expect 'no module' '1 1 torvasin_host:' "$("$host" --module none 2>out || echo $?) $(wc -l <out) $(cut -d' ' -f1 out)"

printf '%d failed\n' "$failures" && [ "$failures" -eq 0 ]
