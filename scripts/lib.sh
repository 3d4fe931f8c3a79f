# shellcheck shell=bash disable=SC2034
# Sourced by the scripts beside it. Sets strict mode, changes to the top of the tree (`root`), keeps
# the former working directory in `caller`, and defines the functions below.

set -euo pipefail
caller=$PWD
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
PATH=$PATH:$root/build/unpacked/usr/bin

build_packages=(cmake g++ libcli11-dev libfmt-dev libinih-dev ninja-build)
clang_packages=(clang-19 libclang-rt-19-dev llvm-19) # for the sanitizers and the fuzz targets

# Runs a command as root.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Runs a command that downloads, and tries up to three times. Shows its output only if it fails.
thrice() {
  local try output
  for try in 1 2 3; do
    ! output=$("$@" 2>&1) || return 0
    [ $try -eq 3 ] || sleep $((5 * try))
  done
  printf '%s\n' "$output" >&2
  return 1
}

# Installs those of the named Debian packages that are missing, without questions.
need_packages() {
  local missing=() package
  for package; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  printf 'Installing %s\n' "${missing[*]}"
  thrice as_root apt-get update
  thrice as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends "${missing[@]}"
}

# need_unpacked PACKAGE: makes the program of this name available. Unpacks the Debian package but
# does not install it, because an installation would start its service.
need_unpacked() {
  local directory
  ! command -v "$1" >/dev/null || return 0
  printf 'Unpacking %s\n' "$1"
  mkdir -p build/unpacked
  directory=$(mktemp -d -p build)
  (
    cd "$directory"
    apt-get download "$1" >/dev/null 2>&1 ||
      { thrice as_root apt-get update && thrice apt-get download "$1"; }
    dpkg-deb -x ./*.deb ../unpacked
  )
  rm -r "$directory"
}

# Configures a CMake preset once and brings its build up to date. Shows progress in one line of a
# terminal; elsewhere prints only which build begins.
build_preset() {
  [ -f "build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
  if [ -t 1 ]; then
    cmake --build "build/$1"
  else
    printf 'Building build/%s\n' "$1"
    cmake --build "build/$1" -- --quiet | sed -E '/^(-- |ninja: no work to do)/d'
  fi
}

# await SECONDS COMMAND...: repeats a command until it succeeds; fails after SECONDS.
await() {
  local end=$((SECONDS + $1))
  until "${@:2}"; do
    [ $SECONDS -lt $end ] || { printf 'Not within %d seconds: %s\n' "$1" "${*:2}" && return 1; }
    sleep 0.1
  done
}

# sources PATTERN...: prints the files of the tree, except builds, whose names match a pattern.
sources() {
  local patterns=() name
  for name; do patterns+=(-o -name "$name"); done
  find . \( -path ./build -o -path ./.git \) -prune -o -type f \( "${patterns[@]:1}" \) -print
}

# ---- Servers on loopback ------------------------------------------------------------------------
#
# A script that starts servers sets `trap stop_servers EXIT`, and removes their logs after that.

bound() { # PORT: whether a UDP socket of this machine is bound to it
  grep -q "$(printf ':%04X ' "$1")" /proc/net/udp
}

# Sets `port` to a free UDP port. Scripts that run at the same time choose different ones.
choose_port() {
  port=$((20000 + $$ % 10000))
  while bound "$port"; do port=$((20000 + RANDOM % 10000)); done
}

# start_server LOG COMMAND...: runs a server that binds `port`, and waits until it has. Sets
# `server` to its process. If the server ends first or takes 30 seconds, shows its log and fails.
start_server() {
  local log=$1 try
  "${@:2}" >"$log" 2>&1 &
  server=$!
  for try in {1..300}; do
    kill -0 "$server" 2>/dev/null || break
    ! bound "$port" || return 0
    sleep 0.1
  done
  printf '%s does not listen on port %d, after %d checks:\n' "$2" "$port" "$try" >&2
  tail -n 5 "$log" >&2
  return 1
}

# Ends everything that the script has started and that still runs.
stop_servers() {
  local left
  left=$(jobs -p)
  # shellcheck disable=SC2086
  [ -z "$left" ] || kill $left 2>/dev/null || true
  wait
}
