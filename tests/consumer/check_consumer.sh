#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds and runs a
# consumer project against it twice: through the CMake package and through
# pkg-config.
#   check_consumer.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
src=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null

# CMake package.
cmake -S "$src/tests/consumer/project" -B "$work/cmake-build" \
  -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer"

# pkg-config.
libdir=$(dirname "$(find "$work/prefix" -name 'libvelmora.so.1' -print -quit)")
export PKG_CONFIG_PATH="$libdir/pkgconfig"
[ "$(pkg-config --modversion velmora)" = "$(sed -n 's/^Version: //p' "$libdir/pkgconfig/velmora.pc")" ]
# shellcheck disable=SC2046
g++ -std=c++17 -Wall -Wextra -Werror "$src/tests/consumer/project/main.cpp" -o "$work/pc-consumer" \
  $(pkg-config --cflags --libs velmora)
LD_LIBRARY_PATH="$libdir" "$work/pc-consumer"

# The library exports only its interface and carries its SONAME.
readelf -d "$libdir/libvelmora.so.1" | grep -q 'SONAME.*libvelmora.so.1'
if nm -D --defined-only "$libdir/libvelmora.so.1" | grep -q ' OLIBC'; then
  echo "platform symbols leak from the library" >&2
  exit 1
fi
echo "consumer checks passed"
