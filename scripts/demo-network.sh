#!/usr/bin/env bash
# Two nodes on one machine, joined by an Enterprise Extender link: node A on
# 127.0.0.2 and node B on 127.0.0.3 (UDP ports 12000-12004 on each).  A's
# aping pings B's apingd, and A's afcopy sends a file (100 MB by default) to
# B's afcopyd, which is compared with the original.  Prints the figures, each
# daemon's log lines about the link and sessions, and where the captures
# are; exits 0 only when everything worked.
#
#   scripts/demo-network.sh [MEGABYTES]
#   SNANODE_IMPAIR="loss=0.05,dup=0.01,reorder=0.01" scripts/demo-network.sh   (a poor network)
#   DEMO_KEEP=1 keeps the directory; DEMO_NO_BUILD=1 uses build/ as it is.
set -euo pipefail
cd "$(dirname "$0")/.."
megabytes=${1:-100}
if [ -z "${DEMO_NO_BUILD:-}" ]; then
  cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build -j "$(nproc)" --target snanoded aping apingd afcopy afcopyd >/dev/null
fi

work=$(mktemp -d)
pids=()
stop() {
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  if [ -n "${DEMO_KEEP:-}" ]; then echo "files kept in $work"; else rm -rf "$work"; fi
}
trap stop EXIT

# node NAME ADDRESS PARTNER_ADDRESS PARTNER_NAME: a node's configuration.
node() {
  local dir="$work/$1"
  mkdir -p "$dir/files"
  cat >"$dir/snanode.toml" <<EOF
[node]
socket_path = "$dir/node.sock"
daemon = "required"

[log]
dir = "$dir"

[network]
enabled = true
cp_name = "APPN.CP$1"
local_address = "$2"
capture = "$dir/ee.pcap"

[[link]]
partner = "$3"
cp_name = "APPN.CP$4"
liveness_seconds = 5

[[local_lu]]
alias = "LU$1"
lu_name = "APPN.LU$1"
default = true

[[partner_lu]]
alias = "LU$4"
lu_name = "APPN.LU$4"
owning_cp = "APPN.CP$4"
trust_already_verified = true

[[tp]]
tp_name = "APINGD"
program = "$PWD/build/samples/apingd"
arguments = ["-n", "1"]
user = "$(id -un)"

[[tp]]
tp_name = "AFCOPYD"
program = "$PWD/build/samples/afcopyd"
arguments = ["-n", "1", "-r", "$dir/files"]
user = "$(id -un)"
EOF
  SNANODE_LOG_DIR="$dir" build/node/daemon/snanoded --foreground --config "$dir/snanode.toml" \
    >"$dir/snanoded.out" 2>&1 &
  pids+=($!)
}

node A 127.0.0.2 127.0.0.3 B
node B 127.0.0.3 127.0.0.2 A
for _ in $(seq 50); do
  [ -S "$work/A/node.sock" ] && [ -S "$work/B/node.sock" ] && break
  sleep 0.1
done
# The link comes up in a round trip or two; aping finds it up.
for _ in $(seq 50); do
  grep -q "is up" "$work/A/snanoded.log" 2>/dev/null && break
  sleep 0.1
done

ok=1
export SNANODE_CONFIG="$work/A/snanode.toml"
echo "aping from node A (127.0.0.2) to APINGD on node B (127.0.0.3):"
build/samples/aping -p LUB -s 1000 -c 10 -i 20 || ok=0

echo
echo "afcopy of $megabytes MB from node A to AFCOPYD on node B:"
head -c "$((megabytes * 1024 * 1024))" /dev/urandom >"$work/A/files/data"
start=$(date +%s.%N)
build/samples/afcopy -p LUB "$work/A/files/data" copy || ok=0
end=$(date +%s.%N)
if cmp "$work/A/files/data" "$work/B/files/copy"; then
  awk -v s="$start" -v e="$end" -v m="$megabytes" \
    'BEGIN { printf "the copy is byte-identical: %d MB in %.2f s, %.1f MB/s\n", m, e - s, m / (e - s) }'
else
  echo "the copy differs from the original"
  ok=0
fi

for name in A B; do
  echo
  echo "Node $name's log about the network ($work/$name/snanoded.log):"
  grep -E "network|session|link|RTP" "$work/$name/snanoded.log" | sed 's/^/  /' || true
done
echo
echo "Captures (every datagram, tshark reads them with no option):"
echo "  $work/A/ee.pcap"
echo "  $work/B/ee.pcap"
if [ -z "${DEMO_KEEP:-}" ]; then echo "  (removed at exit; DEMO_KEEP=1 keeps them)"; fi

if [ "$ok" = 1 ]; then echo "everything worked"; else echo "something failed"; fi
[ "$ok" = 1 ]
