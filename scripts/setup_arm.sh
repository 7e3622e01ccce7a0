#!/usr/bin/env bash
# Installs what the 32-bit ARM (armhf) cross build, its test run under qemu-arm and the Debian
# packages need on Debian 12, skipping what is already there: the cross compilers, cJSON and
# GoogleTest for armhf from Debian's multiarch archive, the armhf C and C++ runtimes, the
# user-mode emulator and lintian, which checks the packages. The host's own build tools come
# from setup.sh.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

# armhf packages come from the same archive as the host's, as a foreign architecture.
added_arch=0
if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  echo "setup_arm: adding the armhf architecture"
  $SUDO dpkg --add-architecture armhf
  added_arch=1
fi

packages=(gcc-arm-linux-gnueabihf g++-arm-linux-gnueabihf qemu-user qemu-user-binfmt binfmt-support
          libc6:armhf libstdc++6:armhf libcjson1:armhf libcjson-dev:armhf
          libgtest-dev:armhf libgmock-dev:armhf lintian)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ] || [ $added_arch -eq 1 ]; then
  echo "setup_arm: installing ${missing[*]}"
  # A broken index somewhere must not stop us: the packages we need may still be reachable.
  $SUDO apt-get update || echo "setup_arm: apt-get update reported errors; carrying on"
  if [ ${#missing[@]} -gt 0 ]; then
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
  fi
fi

# A test that executes another armhf program (the daemon, a demo) needs the kernel to hand armhf
# executables to qemu-arm. Without a service manager nothing registers it at boot, so do it here;
# update-binfmts mounts binfmt_misc when needed. A sandbox that forbids it only loses those tests
# (scripts/test_arm.sh leaves them out then).
if [ "$(head -n1 /proc/sys/fs/binfmt_misc/qemu-arm 2>/dev/null)" != enabled ]; then
  $SUDO update-binfmts --enable qemu-arm >/dev/null 2>&1 ||
    echo "setup_arm: could not register qemu-arm with binfmt_misc" >&2
fi
