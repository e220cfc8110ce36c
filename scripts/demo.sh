#!/usr/bin/env bash
# Builds the project and runs a real two-TP conversation on the embedded node:
# the ping client and the ping server as two threads of one process, talking
# through libcpic and the node's conversation engine.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target demo_embedded
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Everything the node writes (logs, trace) stays in the temporary directory.
SNANODE_LOG_DIR="$work" ./build/samples/demo_embedded "$@"
