# shellcheck shell=bash disable=SC2034
# Sourced by the scripts beside it: strict mode, `root` (the tree, which becomes the working
# directory), `caller` (the working directory until then) and the functions below.

set -euo pipefail
caller=$PWD
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

build_packages=(build-essential cmake ninja-build pkg-config libinih-dev libcli11-dev)

# Installs the Debian packages that are missing, quietly, and asks for nothing.
need_packages() {
  local missing=() package sudo=()
  for package; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  [ "$(id -u)" -eq 0 ] || sudo=(sudo)
  printf 'Installing %s\n' "${missing[*]}"
  "${sudo[@]}" apt-get update -qq
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# Configures a CMake preset once and brings its build up to date.
build_preset() {
  [ -f "build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
  cmake --build "build/$1"
}
