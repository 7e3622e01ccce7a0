#!/usr/bin/env bash
# consumer_test.sh BUILD_DIR: installs BUILD_DIR into a scratch prefix, checks the installed
# tree, builds the consumer program (consumer/) against it twice, with pkg-config and with
# find_package(vemo), and runs every build against the installed reference daemon on
# /tmp/cloud_svr. Nothing of the source or build tree is used after the install: the programs
# must find headers, libraries and cJSON through what was installed alone.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
cc=${CC:-cc}

work=$(mktemp -d /tmp/vemo-install.XXXXXX)
prefix="$work/prefix"
daemon_pid=""
cleanup() {
  if [ -n "$daemon_pid" ]; then
    echo quit >&3 || true
    wait "$daemon_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "install test: $*" >&2; exit 1; }

echo "install test: cmake --install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"

# ---- the installed tree ----
pc=$(find "$prefix" -path '*/pkgconfig/vemo.pc')
[ -n "$pc" ] || fail "no pkgconfig/vemo.pc installed"
libdir=$(dirname "$(dirname "$pc")")
for f in include/vemo/vemo.h include/vemo/codes.h include/vemo/util.h include/vemo/mw.h \
         include/vemo/export.h bin/vemo_cloudd; do
  [ -e "$prefix/$f" ] || fail "$f not installed"
done
for f in libvemo.a libvemo.so cmake/vemo/vemoConfig.cmake cmake/vemo/vemoConfigVersion.cmake \
         cmake/vemo/vemoTargets.cmake; do
  [ -e "$libdir/$f" ] || fail "${libdir#"$prefix"/}/$f not installed"
done
# The development link points at the SONAME link, which points at the versioned library.
soname=$(readelf -d "$libdir/libvemo.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libvemo.so.1 ] || fail "SONAME is '$soname', not libvemo.so.1"
[ "$(readlink "$libdir/libvemo.so")" = libvemo.so.1 ] || fail "libvemo.so does not link to libvemo.so.1"
[[ "$(readlink "$libdir/libvemo.so.1")" == libvemo.so.1.* ]] || fail "libvemo.so.1 does not link to the versioned file"
# (What libvemo.so exports and needs is library.check's.) Outputs are captured before they are
# searched: under pipefail, `ldd ... | grep -q` fails whenever grep's early exit kills the writer
# with SIGPIPE.

# ---- pkg-config route ----
export PKG_CONFIG_PATH="$libdir/pkgconfig"
grep -qx "prefix=$prefix" "$pc" || fail "vemo.pc does not name the install prefix: $(grep '^prefix=' "$pc")"
cflags=$(pkg-config --cflags vemo)
libs=$(pkg-config --libs vemo)
echo "install test: pkg-config: $cflags $libs"
mkdir -p "$work/pkgconfig"
# shellcheck disable=SC2086 # the flags are words
"$cc" -std=c99 -Wall -Wextra -Werror $cflags "$here/consumer/consumer.c" -o "$work/pkgconfig/consumer" \
  $libs -Wl,-rpath,"$libdir"
# Static: the archive in place of -lvemo, and what --static adds for it, with the C driver.
static_libs=$(pkg-config --static --libs vemo)
# shellcheck disable=SC2086
"$cc" -std=c99 -Wall -Wextra -Werror $cflags "$here/consumer/consumer.c" \
  -o "$work/pkgconfig/consumer_static" "$libdir/libvemo.a" ${static_libs//-lvemo/} ||
  fail "the pkg-config static build does not link with: $static_libs"

# ---- find_package route ----
echo "install test: find_package(vemo)"
cmake -S "$here/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >"$work/cmake-configure.log" ||
  { cat "$work/cmake-configure.log"; fail "the consumer project does not configure"; }
cmake --build "$work/cmake" >"$work/cmake-build.log" 2>&1 ||
  { cat "$work/cmake-build.log"; fail "the consumer project does not build"; }
# The shared builds load the installed libvemo.so.1, the static ones no libvemo, none the C++
# runtime.
for program in pkgconfig/consumer cmake/consumer pkgconfig/consumer_static cmake/consumer_static; do
  loaded=$(ldd "$work/$program")
  unwanted='libstdc\+\+|libgcc_s|libvemo'
  if [[ $program != *_static ]]; then
    unwanted='libstdc\+\+|libgcc_s'
    grep -q "libvemo.so.1 => $libdir/libvemo.so.1" <<<"$loaded" || fail "$program does not load $libdir/libvemo.so.1"
  fi
  if grep -Eq "$unwanted" <<<"$loaded"; then fail "$program loads $(grep -Eo "$unwanted" <<<"$loaded")"; fi
done

# ---- against the installed daemon ----
# ctest's resource lock orders the tests of one run; the file lock shared with the end-to-end
# tests and the demo check keeps runs of other build trees off /tmp/cloud_svr meanwhile.
exec 4>/tmp/cloud_svr.lock
flock -w 600 4
fifo="$work/commands"
mkfifo "$fifo"
# Held open read-write so the daemon never sees the end of its command input.
exec 3<>"$fifo"
"$prefix/bin/vemo_cloudd" --quiet <&3 >"$work/daemon.log" 2>&1 &
daemon_pid=$!
for _ in $(seq 200); do
  [ -S /tmp/cloud_svr ] && break
  kill -0 "$daemon_pid" 2>/dev/null || { cat "$work/daemon.log"; fail "the daemon did not start"; }
  sleep 0.05
done
[ -S /tmp/cloud_svr ] || fail "the daemon did not create /tmp/cloud_svr"

status=0
for program in pkgconfig/consumer pkgconfig/consumer_static cmake/consumer cmake/consumer_static; do
  run="$work/run-${program//\//-}"
  mkdir -p "$run"
  if (cd "$run" && "$work/$program" >"$run/out.log" 2>&1); then
    echo "install test: $program: $(grep '^consumer:' "$run/out.log" | tail -n1)"
  else
    echo "install test: $program failed; its output:" >&2
    cat "$run/out.log" >&2
    status=1
  fi
done
[ $status -eq 0 ] || exit 1
echo "install test: 4 passed, 0 failed"
