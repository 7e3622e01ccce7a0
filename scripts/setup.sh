#!/usr/bin/env bash
# Installs what building and testing vemo needs on Debian 12, skipping what is already there.
set -euo pipefail

packages=(build-essential cmake pkg-config libcjson-dev libgtest-dev libgmock-dev libbenchmark-dev
          valgrind python3)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "setup: installing ${missing[*]}"
# A broken index somewhere must not stop us: the packages we need may still be reachable.
$SUDO apt-get update || echo "setup: apt-get update reported errors; carrying on"
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
