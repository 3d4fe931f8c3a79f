# shellcheck shell=bash disable=SC2034
# Sourced by the scripts beside it: strict mode, `root` (the tree, which becomes the working
# directory), `caller` (the working directory until then) and the functions below.

set -euo pipefail
caller=$PWD
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

build_packages=(cmake g++ libcli11-dev libinih-dev libspdlog-dev ninja-build)

# Runs a command with the privileges of root.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs the Debian packages that are missing, quietly, and asks for nothing.
need_packages() {
  local missing=() package
  for package; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  printf 'Installing %s\n' "${missing[*]}"
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# Configures a CMake preset once and brings its build up to date.
build_preset() {
  [ -f "build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
  cmake --build "build/$1"
}

# sources NAME...: the files of the tree, but for builds, whose names match one of the patterns.
sources() {
  local patterns=() name
  for name; do patterns+=(-o -name "$name"); done
  find . \( -path ./build -o -path ./.git \) -prune -o -type f \( "${patterns[@]:1}" \) -print
}

# ---- Servers on loopback ------------------------------------------------------------------------
#
# A script that starts some has `trap stop_servers EXIT`, and `rm -rf` of their logs behind it.

servers=() # the processes to end

bound() { # PORT: whether a UDP socket of this machine has it
  grep -q "$(printf ':%04X ' "$1")" /proc/net/udp
}

# Sets `port` to a UDP port that nobody has.
choose_port() {
  port=$((20000 + RANDOM % 10000))
  ! bound "$port" || choose_port
}

# start_server LOG COMMAND...: runs a server that is to bind `port`, and waits until it does. Sets
# `server` to its process. When it ends instead, or takes 30 seconds, shows its log and fails.
start_server() {
  local log=$1 try
  "${@:2}" >"$log" 2>&1 &
  server=$!
  servers+=("$server")
  for try in {1..300}; do
    kill -0 "$server" 2>/dev/null || break
    ! bound "$port" || return 0
    sleep 0.1
  done
  printf '%s does not serve on port %d, seen %d times:\n' "$2" "$port" "$try" >&2
  tail -n 5 "$log" >&2
  return 1
}

# Ends what start_server started.
stop_servers() {
  [ ${#servers[@]} -eq 0 ] || kill "${servers[@]}" 2>/dev/null || true
  wait
  servers=()
}
