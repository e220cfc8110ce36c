#!/usr/bin/env bash
# systemd-analyze accepts the service unit, run with the built daemon (an
# unknown key or a bad value is only a warning to it, so any output fails).
#   unit_test.sh UNIT SNANODED
# Exits 77 (skipped) without systemd-analyze.
set -euo pipefail
unit=$1 daemon=$2
command -v systemd-analyze >/dev/null || { echo "systemd-analyze not installed: skipped"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed "s#^ExecStart=/usr/bin/snanoded#ExecStart=$daemon#" "$unit" >"$work/snanoded.service"
grep -q "^ExecStart=$daemon" "$work/snanoded.service"
output=$(systemd-analyze verify --man=no "$work/snanoded.service" 2>&1) ||
  { echo "$output"; exit 1; }
[ -z "$output" ] || { echo "$output"; exit 1; }
