#!/usr/bin/env bash
# The queues in C and Python run as README says, answer as README shows, keep counting, and end when a signal asks.
# Usage: examples_test.sh [BUILD_DIRECTORY]. Installs the build first; without one, uses what the system has installed.

# shellcheck source=tests/lib.sh
. "$(dirname "$0")/lib.sh"

if [ $# -gt 0 ]; then
  cmake --install "$1" --prefix "$scratch/usr" >log && mv usr moved # an installation may be moved
  PKG_CONFIG_PATH=$(dirname "$PWD"/moved/lib*/pkgconfig/torvasin-agent.pc)
  export PKG_CONFIG_PATH LD_LIBRARY_PATH=${PKG_CONFIG_PATH%/*} PATH=$PWD/moved/bin:$PATH
fi
examples=$(pkg-config --variable=exampledir torvasin-agent)
cp -r "$examples" queue && cd queue
choose_port
sed -i "s/^port = .*/port = $port/" queue.ini
shown=$(sed -n "/^\$ snmpget/ { s/^..//; s/1161/$port/p; n; s/[0-9]*$//p; }" "$examples/../../README.md")
counts() { snmpget -v2c -c public -Oqv "127.0.0.1:$port" .1.3.6.1.4.1.32473.10.2.0 | grep -q '^[1-9]'; }
for run in INT:run TERM:run-python; do
  expect "README has ${run#*:}" 1 "$(grep -c "\`make ${run#*:}\`" "$examples/../../README.md")"
  start_server log make CFLAGS='-std=c11 -Wall -Wextra -Wpedantic -Werror' "${run#*:}"
  expect "$run: first answer" "${shown#*$'\n'}" "$(eval "${shown%%$'\n'*}" | sed 's/[0-9]*$//')"
  await 30 counts
  kill -"${run%:*}" "$(cat "/proc/$server/task/$server/children")"
  ended=0
  wait "$server" || ended=$?
  expect "$run: ended" 0 $ended
done
expect 'the list of meters fits' 'queue.ini: 0 errors, 0 warnings' "$(make -s check | sed -n '$s/;.*//p')"
expect 'with CMake' 0 "$(cmake -S . -B cmake -D CMAKE_PREFIX_PATH="$scratch/moved" >log && cmake --build cmake >log && cmake/job_queue meters.ini; echo $?)"
finish
