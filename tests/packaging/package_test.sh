#!/usr/bin/env bash
# Builds the Debian packages of a build tree, checks them with lintian (no
# error allowed), extracts them into a scratch root, and builds and runs a
# CPI-C program against the extracted headers, pkg-config file and library.
#   package_test.sh BUILD_DIR PROGRAM_SOURCE
# Exits 77 (skipped) without dpkg-deb.
set -euo pipefail
build=$1 program=$2
command -v dpkg-deb >/dev/null || { echo "dpkg-deb not installed: skipped"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

(cd "$build" && cpack -G DEB -B "$work/debs" >"$work/cpack.log" 2>&1) ||
  { cat "$work/cpack.log"; exit 1; }
debs=("$work"/debs/*.deb)
[ ${#debs[@]} -eq 3 ] || { echo "expected 3 packages, got: ${debs[*]##*/}"; exit 1; }
for deb in "${debs[@]}"; do
  printf '%s %s bytes\n' "${deb##*/}" "$(stat -c %s "$deb")"
  dpkg-deb -x "$deb" "$work/root"
done

field() { dpkg-deb -f "$work"/debs/"$1"_*.deb "$2"; }
runtime=$(basename "$work"/debs/libcpic[0-9]*_*.deb | cut -d_ -f1)
version=$(field "$runtime" Version)
for package in libcpic-dev snanode; do
  field "$package" Depends | grep -q "$runtime (= $version)" ||
    { echo "$package does not depend on $runtime (= $version)"; exit 1; }
done
field "$runtime" Depends | grep -q libstdc++6 || { echo "$runtime: no shared-library Depends"; exit 1; }

if command -v lintian >/dev/null; then
  # Errors fail the test; warnings are printed for the record.
  lintian --tag-display-limit 0 "${debs[@]}" | tee "$work/lintian.log" || true
  ! grep -q '^E:' "$work/lintian.log" || { echo "lintian reports errors"; exit 1; }
else
  echo "lintian not installed: packages not checked with it"
fi

# A program built against the extracted files alone (the pkg-config file
# finds its prefix from where it lies) and run on the extracted library.
pc=$(find "$work/root" -name cpic.pc)
libdir=$(dirname "$(dirname "$pc")")
export PKG_CONFIG_PATH=${pc%/*} PKG_CONFIG_LIBDIR=${pc%/*}
cc -std=c99 -Wall -Werror "$program" -o "$work/program" $(pkg-config --cflags --libs cpic)
LD_LIBRARY_PATH=$libdir ldd "$work/program" | grep -q "$libdir/libcpic.so.[0-9]" ||
  { echo "the program does not load the extracted libcpic"; exit 1; }
LD_LIBRARY_PATH=$libdir SNANODE_LOG_DIR=$work/logs SNANODE_DAEMON=off "$work/program"
echo "the packages install, and a program builds and runs against them"
