#!/bin/bash
# Builds what the Windows program needs of ICU: its common library, static, and the converters' data file.
# The distribution has no build of ICU for Windows, but it has the source package, and that is what this uses.
#
#   scripts/build-icu.sh          build, unless the cache has it already
#   scripts/build-icu.sh --path   only print the folder in the cache where the result is or would be
#
# The result, in ${RL_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/rlupgrader}/icu-<version>-<key>:
#   lib/libicuuc.a   include/unicode/*.h   data/icudt38l.dat   LICENSE
set -euo pipefail

version=72.1
major=${version%%.*}
cxx=x86_64-w64-mingw32-g++-posix
ar=x86_64-w64-mingw32-ar
flags=(-std=c++17 -O2 -ffunction-sections -fdata-sections -w -DNDEBUG
       -DU_COMMON_IMPLEMENTATION -DU_STATIC_IMPLEMENTATION)
recipe=2    # to be raised with every change below that alters the result

fail() { echo "build-icu: $*" >&2; exit 1; }

cache=${RL_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/rlupgrader}
compiler=$($cxx -dumpfullversion 2>/dev/null) || compiler=none
key=$(echo "$recipe $compiler ${flags[*]}" | sha256sum | cut -c1-12)
result=$cache/icu-$version-$key

if [ "${1:-}" = --path ]; then echo "$result"; exit 0; fi
[ $# -eq 0 ] || fail "unknown argument '$1'; see the head of the script"
[ "$compiler" != none ] || fail "$cxx is not installed; run scripts/setup.sh"
PATH=$PATH:/usr/sbin    # home of icupkg, not on every user's path
command -v icupkg >/dev/null || fail "icupkg is not installed; run scripts/setup.sh"

mkdir -p "$cache"
exec 9>"$cache/icu.lock"
flock 9    # a second run waits for the first, and then finds the result
[ ! -d "$result" ] || exit 0

work=$(mktemp -d "$cache/icu-work.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

# Source packages need deb-src entries, which few machines have. They are made from the machine's own entries, in
# a configuration that only this script sees; nothing under /etc is changed and no right to write there is needed.
mkdir -p apt/lists/partial apt/archives/partial apt/sources.d source
# In the machine's own order, which says whom to ask first when two have the same version.
entries() {
  # shellcheck disable=SC2016  # apt-get fills these in
  apt-get indextargets --format 'deb-src $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' "$@" |
    awk '!seen[$0]++'
}
entries 'Origin: Debian' >apt/sources.list
# Without lists on the machine apt does not know whose the entries are; then all are asked.
[ -s apt/sources.list ] || entries >apt/sources.list
[ -s apt/sources.list ] || fail "apt knows no package source on this machine"
cat >apt/apt.conf <<END
Dir::Etc::sourcelist "$work/apt/sources.list";
Dir::Etc::sourceparts "$work/apt/sources.d";
Dir::State::lists "$work/apt/lists";
Dir::Cache "$work/apt";
APT::Sandbox::User "";
Acquire::Languages "none";
END
log=$work/log
apt_get() { APT_CONFIG=$work/apt/apt.conf apt-get -qq "$@"; }

echo "ICU: getting the sources of $version"
apt_get update >"$log" 2>&1 || echo "ICU: apt-get update had errors, going on with what it got" >&2
found=$(apt_get -o APT::Get::Only-Source=true --print-uris source icu 2>>"$log" | grep -o 'icu_[^ ]*\.dsc' | head -1) ||
  { cat "$log" >&2; fail "no source package 'icu' can be had"; }
case $found in
  icu_$version-*) ;;
  *) fail "the distribution's ICU is ${found}, but $version is needed" ;;
esac
(cd source && apt_get -o APT::Get::Only-Source=true source icu) >>"$log" 2>&1 ||
  { cat "$log" >&2; fail "the source package 'icu' cannot be fetched or unpacked"; }
sources=("$work"/source/icu-*/source)
source=${sources[0]}

echo "ICU: compiling the common library for Windows"
mkdir -p out/lib out/include out/data objects
printf '%s\0' "$source"/common/*.cpp "$source"/stubdata/stubdata.cpp >files
(cd objects && xargs -0 -n 1 -P "$(nproc)" "$cxx" "${flags[@]}" -I"$source/common" -c) <files >>"$log" 2>&1 ||
  { tail -40 "$log" >&2; fail "ICU does not compile"; }
"$ar" crs out/lib/libicuuc.a objects/*.o
cp -r "$source/common/unicode" out/include/
cp "$source/../LICENSE" out/

echo "ICU: reducing the data to the converters"
mkdir -p data
full=$source/data/in/icudt${major}l.dat
icupkg -l "$full" | grep -v -e '\.cnv$' -e '^cnvalias\.icu$' >data/remove.txt
# The tool puts the base name of its output into each entry, so the file gets its final name only afterwards.
icupkg -r data/remove.txt "$full" "data/icudt${major}l.dat"
[ "$(stat -c %s "data/icudt${major}l.dat")" -lt 8000000 ] || fail "the data file was not reduced"
cp "data/icudt${major}l.dat" out/data/icudt38l.dat

mv -T out "$result"
echo "ICU: done, in $result"
