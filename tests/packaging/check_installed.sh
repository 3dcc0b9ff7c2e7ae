#!/usr/bin/env bash
# Runs inside a fresh Debian system as root: installs the built packages
# with apt, uses them the way a developer and an administrator would, then
# purges them and checks that nothing of theirs is left.
#   check_installed.sh DEBDIR SOURCE_DIR
set -euo pipefail
debs=$(realpath "$1")
src=$(realpath "$2")
export DEBIAN_FRONTEND=noninteractive

ours=$(for deb in "$debs"/*.deb; do dpkg-deb -f "$deb" Package; done | sort -u)
echo "check-installed: installing $(echo $ours)"
apt-get install -y -qq "$debs"/*.deb >/dev/null

# A consumer project builds against /usr, through the CMake package and
# through pkg-config, and runs.
"$src/tests/consumer/check_consumer.sh" --installed "$src"

# The tool runs from /usr/bin with the library from the system's libdir.
route=$(velmoractl route smtp_enabled)
if [ "$route" != "smtp_enabled address=smtp/smtp_enabled tree=smtp" ]; then
  echo "check-installed: velmoractl route smtp_enabled printed: $route" >&2
  exit 1
fi
# (/lib is /usr/lib on a merged-/usr system.)
ldd /usr/bin/velmoractl | grep -Eq "libvelmora.so.1 => (/usr)?/lib/$(gcc -print-multiarch)/libvelmora.so.1 "

# The manual page renders without a single warning.
page=$(man -w velmoractl)
warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
if [ -n "$warnings" ]; then
  echo "check-installed: man -l $page warns: $warnings" >&2
  exit 1
fi
MANWIDTH=80 man -l "$page" | grep -q 'velmoractl pop3 NAME start-all'
echo "check-installed: velmoractl and its manual page ($page) work"

# The API reference and the bash completion are in place.
test -f /usr/share/doc/libvelmora-dev/html/index.html
test -f /usr/share/bash-completion/completions/velmoractl

# Purge, then look for anything left: package state, files the packages
# listed, any path with our name, the dynamic linker's cache.
files=$(dpkg -L $ours | sort -u)
apt-get purge -y -qq $ours >/dev/null
left=$(dpkg -l $ours 2>/dev/null | awk '/^[a-z][a-zA-Z] / { print $1, $2 }' | grep -v '^un ' || true)
if [ -n "$left" ]; then
  echo "check-installed: dpkg still knows after the purge: $left" >&2
  exit 1
fi
for f in $files; do
  if [ -e "$f" ] && [ ! -d "$f" ]; then
    echo "check-installed: $f is still there after the purge" >&2
    exit 1
  fi
done
stray=$(find / -xdev \( -path "$debs" -o -path "$src" -o -path /proc -o -path /tmp \) -prune \
  -o -iname '*velmora*' -print)
if [ -n "$stray" ]; then
  echo "check-installed: left behind after the purge:" >&2
  echo "$stray" >&2
  exit 1
fi
if ldconfig -p | grep -q velmora; then
  echo "check-installed: the linker cache still names libvelmora" >&2
  exit 1
fi
echo "check-installed: purged without a trace"
