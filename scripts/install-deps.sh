#!/usr/bin/env bash
# Installs the Debian packages the build needs, when they are missing.
# Runs apt-get as root (or through sudo); otherwise prints what to install.
set -euo pipefail

packages=(cmake g++ make pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          libtomlplusplus-dev libcli11-dev libpam0g-dev tshark scdoc groff-base lintian dpkg-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
elif command -v sudo >/dev/null; then
  sudo apt-get update -qq
  sudo DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
else
  echo "please install: ${missing[*]}" >&2
  exit 1
fi
