#!/usr/bin/env bash
# Sets up the machine, then builds and runs every test: the plain build, the ASan+UBSan build and
# the TSan build, then the armhf cross build under qemu-arm.
# Usage: scripts/test.sh [plain|asan|tsan|arm ...] (default: all four).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"

variants=("$@")
[ ${#variants[@]} -gt 0 ] || variants=(plain asan tsan arm)
jobs=$(nproc)

for v in "${variants[@]}"; do
  case "$v" in
    plain) opts=(-DCMAKE_BUILD_TYPE=RelWithDebInfo); exclude="";;
    # Cases that crash or abort on purpose (allocator traps) are kept out of sanitizer builds.
    asan)  opts=(-DCMAKE_BUILD_TYPE=Debug -DVEMO_SANITIZE=address); exclude="faulting";;
    tsan)  opts=(-DCMAKE_BUILD_TYPE=Debug -DVEMO_SANITIZE=thread); exclude="faulting";;
    # The armhf cross build, whole suite under qemu-arm.
    arm)   "$root/scripts/test_arm.sh"; continue;;
    *) echo "unknown variant $v" >&2; exit 2;;
  esac
  dir="$root/build/$v"
  echo "=== $v build"
  "$root/scripts/build.sh" "$dir" "${opts[@]}" -DVEMO_BUILD_BENCH=OFF
  echo "=== $v tests"
  # A test that fails is run again, up to three tries in all: the timing bounds of the load and
  # end-to-end tests can be missed on a machine busy with other work, while a real fault fails
  # every try.
  args=(--test-dir "$dir" --output-on-failure -j "$jobs" --repeat until-pass:3)
  [ -z "$exclude" ] || args+=(-LE "$exclude")
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest "${args[@]}"
done
