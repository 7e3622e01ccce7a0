#!/usr/bin/env bash
# Builds the 32-bit ARM (armhf) tree with the cross compilers and runs the whole test suite on it
# under the user-mode emulator qemu-arm, so that the device's 32-bit behaviour (pointer and
# header sizes, 32-bit ticks and ids, the thread field of the log line) is tested, not assumed.
# Usage: scripts/test_arm.sh [ctest arguments...], e.g. scripts/test_arm.sh -R '^Mw'.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup_arm.sh"

dir="$root/build/arm"
echo "=== armhf build"
"$root/scripts/build.sh" "$dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEMO_BUILD_BENCH=OFF

# valgrind is the host's and cannot run armhf programs.
exclude='^demo\.valgrind$'
# Tests that execute another armhf program (the daemon, the demos) need the kernel to hand
# armhf executables to qemu-arm (binfmt_misc). Where that cannot be registered (a container
# without the privilege), those tests are left out and said so, not failed.
if [ "$(head -n1 /proc/sys/fs/binfmt_misc/qemu-arm 2>/dev/null)" != enabled ]; then
  echo "test_arm: qemu-arm is not registered with binfmt_misc; skipping the tests that" \
       "execute other armhf programs (cloudd.Process.*, RealDaemon.*, MwDemo.*, cli.*, demo.run)" >&2
  exclude+='|^cloudd\.Process\.|^RealDaemon\.|^MwDemo\.|^cli\.|^demo\.run$'
fi

echo "=== armhf tests under qemu-arm"
# As in scripts/test.sh, a failing test gets up to three tries (emulated timing is loose).
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" --repeat until-pass:3 -E "$exclude" "$@"
