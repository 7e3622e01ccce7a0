#!/usr/bin/env bash
# check_demo.sh DAEMON DEMO [valgrind]: runs the example application against the reference
# daemon on /tmp/cloud_svr and fails when the demo fails (or, with valgrind, when it leaks or
# touches memory it must not).
set -euo pipefail
daemon=$1 demo=$2 mode=${3:-}
# ctest's resource lock orders the tests of one run; this file lock (shared with the end-to-end
# tests) also keeps runs of several build trees off /tmp/cloud_svr at the same time.
exec 4>/tmp/cloud_svr.lock
flock -w 600 4
work=$(mktemp -d)
fifo="$work/commands"
mkfifo "$fifo"
exec 3<>"$fifo"
"$daemon" --quiet <&3 >"$work/daemon.log" 2>&1 &
daemon_pid=$!
cleanup() {
  echo quit >&3 || true
  wait "$daemon_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
for _ in $(seq 200); do
  [ -S /tmp/cloud_svr ] && break
  sleep 0.05
done
runner=()
if [ "$mode" = valgrind ]; then
  # "Possibly lost" is not an error: a detached dispatch thread that has finished its work may
  # still be unwinding when the process exits, and its thread-local block then shows as such.
  runner=(valgrind --quiet --leak-check=full --show-leak-kinds=definite,indirect
          --errors-for-leak-kinds=definite,indirect --error-exitcode=99)
fi
set +e
"${runner[@]}" "$demo" "$fifo" >"$work/demo.log" 2>&1
rc=$?
set -e
grep '^demo:' "$work/demo.log" || true
if [ $rc -ne 0 ]; then
  echo "demo failed with status $rc; its whole output:"
  cat "$work/demo.log"
fi
exit $rc
