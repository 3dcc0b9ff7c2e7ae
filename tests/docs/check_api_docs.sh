#!/usr/bin/env bash
# check_api_docs.sh DOXYGEN DOXYFILE SOURCE_DIR
# Runs doxygen with the project's configuration twice, into two scratch
# directories. Fails when doxygen fails or writes anything to stderr (every
# warning, an undocumented public name above all), when the main page is
# missing, when the output names the source directory, or when the two runs
# differ.
set -euo pipefail
doxygen=$1
doxyfile=$2
src=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() {
  echo "api_docs_test: $*" >&2
  exit 1
}

run() {
  local out=$scratch/$1
  # A later assignment wins, so only the output directory changes.
  if ! { cat "$doxyfile"; echo "OUTPUT_DIRECTORY = $out"; } |
      "$doxygen" - >"$scratch/$1.log" 2>"$scratch/$1.err"; then
    cat "$scratch/$1.err" >&2
    fail "doxygen failed (run $1)"
  fi
  if [ -s "$scratch/$1.err" ]; then
    cat "$scratch/$1.err" >&2
    fail "doxygen warned (run $1)"
  fi
  [ -s "$out/html/index.html" ] || fail "no html/index.html (run $1)"
}

run a
run b
if grep -rlF -- "$src" "$scratch/a/html" >&2; then
  fail "the pages above name the source directory $src"
fi
diff -r "$scratch/a/html" "$scratch/b/html" >&2 || fail "two runs gave different pages"
echo "api_docs_test: $(find "$scratch/a/html" -type f | wc -l) files, no warnings, reproducible"
