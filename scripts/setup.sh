#!/bin/bash
# Makes a Debian 12 machine ready to build, test and run: installs the packages that are missing, as root or with
# sudo, and builds ICU for Windows into the cache. Costs nothing when all is there. Asks no questions.
set -euo pipefail

packages=(
  # Building
  cmake ninja-build make git python3
  g++-mingw-w64-x86-64-posix                # the compiler of the product
  g++                                       # the C++ library for the native builds
  clang-14 libclang-rt-14-dev llvm-14        # the compiler of the native builds: sanitizers, fuzzing
  clang-format-14 clang-tidy-14             # the rules for our sources
  googletest                                # as source, built for both worlds
  libicu-dev                                # ICU of the native builds
  icu-devtools dpkg-dev                     # icupkg and apt-get source, to build ICU for Windows
  spin                                      # checks the model of the lock protocol
  # Running
  wine64 wine                               # runs the product and its tests
  xvfb xdotool imagemagick fonts-noto-cjk   # a display for message boxes: to answer and to photograph them
  # Sample tools image
  wixl msitools                             # Windows Installer packages
  nsis                                      # an installer that is not a Windows Installer package
  xorriso genisoimage                       # images, as two different programs write them
  libarchive-tools p7zip-full               # images, read by others than us
)

say() { echo "setup: $*"; }
fail() { echo "setup: $*" >&2; exit 1; }

missing_packages() {
  local installed
  installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "${packages[@]}" 2>/dev/null |
    sed -n 's/^installed //p') || true
  printf '%s\n' "${packages[@]}" | grep -vxF -e "$installed" || true
}

# Sets `as_root` to what must stand before a command for root.
become_root() {
  as_root=()
  [ "$(id -u)" -ne 0 ] || return 0
  command -v sudo >/dev/null ||
    fail "packages are missing, and installing them needs root or sudo: ${missing[*]}"
  as_root=(sudo)
  [ -t 0 ] || as_root=(sudo -n)    # without a terminal nobody could type a password
  "${as_root[@]}" true || fail "packages are missing, and sudo does not let you install them: ${missing[*]}"
}

apt_get() {
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300 "$@" </dev/null
}

# Each package by itself, so that the message names the one to blame.
check_available() {
  local package unavailable=()
  for package in "${missing[@]}"; do
    [[ $(apt-cache policy "$package") == "$package:"*Candidate:\ [^\(]* ]] || unavailable+=("$package")
  done
  [ ${#unavailable[@]} -eq 0 ] ||
    fail "not to be had from this machine's package sources${update_failed}: ${unavailable[*]}"
}

install_packages() {
  become_root
  say "installing ${#missing[@]} packages: ${missing[*]}"
  update_failed=
  if ! apt_get update -o APT::Update::Error-Mode=any; then
    say "apt-get update failed (see above); going on with what is known" >&2
    update_failed=" (and apt-get update failed, see above)"
  fi
  check_available
  local log
  log=$(mktemp)
  if ! apt_get install -y --no-install-recommends "${missing[@]}" >"$log" 2>&1; then
    cat "$log" >&2
    rm "$log"
    mapfile -t missing < <(missing_packages)
    fail "apt-get could not install (its messages are above): ${missing[*]}"
  fi
  rm "$log"
}

command -v dpkg-query >/dev/null || fail "this is not a Debian machine"
[ "$(dpkg --print-architecture)" = amd64 ] || fail "an amd64 machine is needed, for Wine runs 64-bit programs here"
mapfile -t missing < <(missing_packages)
[ ${#missing[@]} -eq 0 ] || install_packages
"$(dirname "$0")/build-icu.sh"
