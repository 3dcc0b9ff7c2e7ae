#!/usr/bin/env bash
# A build of the library alone must not need the tool's dependency: with
# CLI11 hidden from find_package, configure succeeds with one notice, the
# library and the example are built, and velmoractl is not.
#   check_library_only.sh SOURCE_DIR
set -euo pipefail
src=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake -S "$src" -B "$work/build" -DCMAKE_BUILD_TYPE=Release \
  -DVELMORA_BUILD_TESTS=OFF -DVELMORA_BUILD_BENCH=OFF -DVELMORA_WERROR=ON \
  -DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON >"$work/configure.log" 2>&1 || {
  cat "$work/configure.log" >&2
  echo "configure without CLI11 failed" >&2
  exit 1
}
notice="velmora: CLI11 not found (Debian: libcli11-dev), so velmoractl and its tests are skipped"
count=$(grep -cxF "$notice" "$work/configure.log" || true)
if [ "$count" != 1 ]; then
  cat "$work/configure.log" >&2
  echo "expected the notice once, found it $count times" >&2
  exit 1
fi
cmake --build "$work/build" -j2 >"$work/build.log" 2>&1 || {
  tail -50 "$work/build.log" >&2
  exit 1
}
[ -e "$work/build/src/libvelmora.so.1" ] || { echo "library not built" >&2; exit 1; }
[ -x "$work/build/examples/velmora-example" ] || { echo "example not built" >&2; exit 1; }
if [ -n "$(find "$work/build" -name velmoractl -type f)" ]; then
  echo "velmoractl was built without CLI11" >&2
  exit 1
fi
if cmake --build "$work/build" --target velmoractl >/dev/null 2>&1; then
  echo "the build still knows a velmoractl target" >&2
  exit 1
fi
echo "library-only build without CLI11 passed"
