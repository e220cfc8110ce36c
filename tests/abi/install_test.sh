#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds a program against it
# twice: with `pkg-config --cflags --libs cpic` and with find_package(cpic).
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(find "$work/prefix" -name libcpic.so -printf '%h\n' | head -n 1)
export LD_LIBRARY_PATH="$libdir" SNANODE_LOG_DIR="$work/logs"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
cc -std=c99 -Wall -Werror "$source/installed_program.c" -o "$work/with_pkg_config" \
   $(pkg-config --cflags --libs cpic)
"$work/with_pkg_config"

cmake -S "$source/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"
echo "installed library works through pkg-config and find_package"
