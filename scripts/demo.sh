#!/usr/bin/env bash
# Builds the project and runs a real conversation between two processes: the
# ping client (aping) allocates to the TP APINGD, and the node daemon starts
# the ping server (apingd) to take it.  Everything lives in a temporary
# directory: the node configuration, the daemon's socket, its logs.
#
#   scripts/demo.sh [SIZE [COUNT [ITERATIONS]]]   record size, records per iteration, iterations
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target snanoded aping apingd

work=$(mktemp -d)
daemon=
stop() {
  if [ -n "$daemon" ]; then
    kill "$daemon" 2>/dev/null || true
    wait "$daemon" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap stop EXIT

cat >"$work/snanode.toml" <<EOF
[node]
socket_path = "$work/snanoded.sock"
daemon = "required"        # the programs use the daemon, never a node of their own

[log]
dir = "$work"

[[tp]]                     # started by the daemon when an allocation names APINGD
tp_name = "APINGD"
program = "$PWD/build/samples/apingd"
arguments = ["-n", "1"]    # serve one conversation, then exit
user = "$(id -un)"         # the account it runs as
EOF
export SNANODE_CONFIG="$work/snanode.toml"

build/node/daemon/snanoded --foreground 2>/dev/null &
daemon=$!
for _ in $(seq 50); do
  [ -S "$work/snanoded.sock" ] && break
  sleep 0.1
done

build/samples/aping -p LOCAL -s "${1:-100}" -c "${2:-1}" -i "${3:-5}"

echo
echo "The daemon's log ($work/snanoded.log):"
sed 's/^/  /' "$work/snanoded.log"
