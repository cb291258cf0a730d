#!/usr/bin/env bash
# Installs what the project needs from Debian's package archive (idempotent).
set -euo pipefail
packages=(g++ make cmake pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          libopenimageio-dev libcli11-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq || true
  "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
fi
