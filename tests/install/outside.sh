#!/usr/bin/env bash
# Installs a build, moves the copy elsewhere, and builds and runs programs against the copy alone: one
# in C by pkg-config, one in C++ by CMake's package, and the program sdb.
#
# Usage: outside.sh CMAKE BUILD CC CXX VERSION
set -euo pipefail
cmake=$1 build=$2 cc=$3 cxx=$4 version=$5
source=$(cd "$(dirname "$0")" && pwd)
root=$build/outside
copy=$root/moved
rm -rf "$root"
mkdir -p "$root"
unset LD_LIBRARY_PATH CPATH C_INCLUDE_PATH CPLUS_INCLUDE_PATH LIBRARY_PATH CMAKE_PREFIX_PATH
cd "$root"

fail() {
  echo "outside: $*" >&2
  exit 1
}

# Which libsdb a program would be run with.
loads_the_copy() {
  local found
  found=$(ldd "$1")
  [[ $found == *"libsdb.so.${version%%.*} => $copy/"* ]] || fail "$1 loads: $found"
}

"$cmake" --install "$build" --prefix "$root/first" >/dev/null
mv first "$copy"
libs=$(dirname "$(find "$copy" -name libsdb.so)")
[ -s "$copy/share/man/man3/sdb.3" ] || fail "no manual page"
# The place of the build, of its sources or of the first copy in a file would bind others to it.
! grep -rIlF -e "$build" -e "$root/first" "$copy" || fail "the files above name a place of this machine"

export PKG_CONFIG_LIBDIR=$libs/pkgconfig
[ "$(pkg-config --modversion sdb)" = "$version" ] || fail "pkg-config has another version"
# shellcheck disable=SC2046  # several words are meant
"$cc" -std=c11 -Wall -Wextra -Werror -pedantic "$source/../../examples/embed.c" \
  $(pkg-config --cflags --libs sdb) -o embed
(
  export LD_LIBRARY_PATH=$libs
  loads_the_copy embed
  [ "$(./embed embed.data | sort | tr '\n' ' ')" = \
    "cat is in document 7 cat is in document 9 " ] || fail "embed.c found something else"
)

"$cmake" -S "$source" -B host -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$copy" \
  -DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF -DVERSION="$version" >host.log || fail "$(cat host.log)"
"$cmake" --build host >>host.log || fail "$(cat host.log)"
loads_the_copy host/host
host/host host.data

loads_the_copy "$copy/bin/sdb"
mkdir texts
echo "a warm winter coat" >texts/coat.txt
"$copy/bin/sdb" create tool.data notes
"$copy/bin/sdb" index tool.data notes texts
"$copy/bin/sdb" search tool.data notes winter coat | grep -F "a warm winter coat"
