#!/usr/bin/env bash
# Builds and runs a consumer project against an installed library twice:
# through the CMake package and through pkg-config. Then checks the
# library's SONAME and that it exports nothing but its own interface.
#   check_consumer.sh BUILD_DIR SOURCE_DIR   install BUILD_DIR into a
#                                            temporary prefix first
#   check_consumer.sh --installed SOURCE_DIR use the library installed in
#                                            the system (/usr, packages)
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if [ "$1" = --installed ]; then
  src=$2
  prefix_args=()
  libdir=$(pkg-config --variable=libdir velmora)
  pcfile=$libdir/pkgconfig/velmora.pc
else
  build=$1
  src=$2
  cmake --install "$build" --prefix "$work/prefix" >/dev/null
  prefix_args=(-DCMAKE_PREFIX_PATH="$work/prefix")
  libdir=$(dirname "$(find "$work/prefix" -name 'libvelmora.so.1' -print -quit)")
  pcfile=$libdir/pkgconfig/velmora.pc
  export PKG_CONFIG_PATH="$libdir/pkgconfig"
  export LD_LIBRARY_PATH="$libdir"
fi

# CMake package.
cmake -S "$src/tests/consumer/project" -B "$work/cmake-build" "${prefix_args[@]}" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer"

# pkg-config.
[ "$(pkg-config --modversion velmora)" = "$(sed -n 's/^Version: //p' "$pcfile")" ]
# shellcheck disable=SC2046
g++ -std=c++17 -Wall -Wextra -Werror "$src/tests/consumer/project/main.cpp" -o "$work/pc-consumer" \
  $(pkg-config --cflags --libs velmora)
"$work/pc-consumer"

# The library carries its SONAME and exports only its interface: names in
# the velmora namespace (and its classes' type information and virtual
# tables), each with the version VELMORA_1; a coverage build also shares
# gcov's runtime (__gcov_*).
readelf -d "$libdir/libvelmora.so.1" | grep -q 'SONAME.*libvelmora.so.1'
foreign=$(nm -D --defined-only --with-symbol-versions "$libdir/libvelmora.so.1" |
  awk '$3 != "VELMORA_1" && $3 !~ /^_Z(N|NK|TIN|TSN|TVN)7velmora.*@@VELMORA_1$/ &&
       !(ENVIRON["VELMORA_COVERAGE_BUILD"] == "1" && $3 ~ /^__gcov_.*@@VELMORA_1$/)')
if [ -n "$foreign" ]; then
  echo "symbols outside the library's interface are exported:" >&2
  echo "$foreign" >&2
  exit 1
fi
echo "consumer checks passed"
