#!/usr/bin/env bash
# check_library.sh SHARED STATIC [--size]: what a small device image asks of libvemo.
#  - the shared library loads nothing but the C library (and its loader) and cJSON: no C++
#    runtime;
#  - the static archive calls nothing of the C++ runtime, so a C program links it with the C
#    driver;
#  - no function-local static needs a guard: the library is built without thread-safe statics,
#    so such a static would be raced on first use;
#  - every exported name carries a version node;
#  - on a 32-bit target, no C library call with a 32-bit time_t (one that has a 64-bit twin);
#  - with --size: the text of the shared library is within the device's budget.
# The target's C library is found through $CC (-print-file-name). Exits 1 on the first check
# that fails.
set -euo pipefail
shared=$1 static=$2 size_check=${3:-}
cc=${CC:-cc}
# The flash budget for the text of the armhf libvemo.so (docs/abi.md says what takes it).
text_budget=65536

fail() { echo "library check: FAILED: $*" >&2; exit 1; }

# Outputs are captured before they are searched: under pipefail, `... | grep -q` fails whenever
# grep's early exit kills the writer with SIGPIPE.
dynamic=$(readelf -dW "$shared")
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic")
echo "library check: NEEDED $(tr '\n' ' ' <<<"$needed")"
others=$(grep -Ev '^(libc|libpthread|libdl|libcjson)\.so\.[0-9]+$|^ld-linux[-a-z0-9_]*\.so\.[0-9]+$' \
  <<<"$needed" || true)
[ -z "$others" ] || fail "$(basename "$shared") needs $(tr '\n' ' ' <<<"$others")"

# Undefined in some member and defined in none: what the archive asks of the program's link.
symbols=$(nm -A "$static" 2>/dev/null)
defined=$(awk '$(NF-1) ~ /^[TDBRVWuiS]$/ {print $NF}' <<<"$symbols" | sort -u)
undefined=$(awk '$(NF-1) == "U" {print $NF}' <<<"$symbols" | sort -u)
external=$(comm -23 <(echo "$undefined") <(echo "$defined"))
runtime=$(grep -E '^(_Z|__cxa_|__gxx_|_Unwind_|__aeabi_atexit|__dynamic_cast)' <<<"$external" |
  grep -Ev '^__cxa_(atexit|finalize)$' || true)
[ -z "$runtime" ] || fail "$(basename "$static") calls the C++ runtime: $(tr '\n' ' ' <<<"$runtime")"
guards=$(grep -E '^_ZGV' <<<"$(awk '{print $NF}' <<<"$symbols")" || true)
[ -z "$guards" ] ||
  fail "guarded statics (use pthread_once or a constant initialiser): $(tr '\n' ' ' <<<"$guards")"

exported=$(nm -D --defined-only --with-symbol-versions "$shared" | awk '{print $3}')
unversioned=$(grep -Ev '@@VEMO_|^VEMO_[0-9.]+$' <<<"$exported" || true)
[ -z "$unversioned" ] || fail "exported without a version node: $(tr '\n' ' ' <<<"$unversioned")"

header=$(readelf -h "$shared")
if grep -q 'Class: *ELF32' <<<"$header"; then
  libc=$("$cc" -print-file-name=libc.so.6)
  libc_names=$(nm -D --defined-only "$libc" | awk '{sub(/@.*/, "", $3); print $3}' | sort -u)
  imports=$(nm -D --undefined-only "$shared" | awk '{sub(/@.*/, "", $2); print $2}')
  # glibc's 64-bit twins: __time64, __fcntl_time64, __localtime64_r.
  twins=$(awk '{n = $1; r = n; sub(/_r$/, "", r)
                print "__" n "64 " n; print "__" n "_time64 " n; print "__" r "64_r " n}' <<<"$imports")
  narrow=$(awk 'NR == FNR {have[$1] = 1; next} $1 in have {printf "%s (not %s) ", $2, $1}' \
    <(echo "$libc_names") <(echo "$twins"))
  [ -z "$narrow" ] || fail "32-bit time_t calls: $narrow"
  echo "library check: every time call of the C library is its 64-bit form"
fi

if [ "$size_check" = --size ]; then
  text=$(size "$shared" | awk 'NR == 2 {print $1}')
  echo "library check: text $text bytes of a budget of $text_budget ($((text_budget - text)) left)"
  [ "$text" -le "$text_budget" ] || fail "text of $(basename "$shared") is $text > $text_budget bytes"
fi
echo "library check: passed"
