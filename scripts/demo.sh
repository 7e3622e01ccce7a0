#!/usr/bin/env bash
# The main job: set up, build, start the reference daemon on /tmp/cloud_svr and run the example
# application against it. The daemon's own log goes to build/demo/daemon.log.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"

build="$root/build/demo"
"$root/scripts/build.sh" "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEMO_BUILD_TESTS=OFF -DVEMO_BUILD_BENCH=OFF

daemon="$build/tools/vemo_cloudd/vemo_cloudd"
demo="$build/examples/cloud_demo/cloud_demo"
fifo=$(mktemp -u /tmp/vemo-demo.XXXXXX)
mkfifo "$fifo"
# Held open read-write here so the daemon never sees the end of its command input.
exec 3<>"$fifo"
"$daemon" <&3 >"$build/daemon.log" 2>&1 &
daemon_pid=$!
cleanup() {
  echo quit >&3 || true
  wait "$daemon_pid" 2>/dev/null || true
  exec 3>&-
  rm -f "$fifo"
}
trap cleanup EXIT

for _ in $(seq 100); do
  [ -S /tmp/cloud_svr ] && break
  kill -0 "$daemon_pid" 2>/dev/null || { cat "$build/daemon.log"; echo "the daemon did not start" >&2; exit 1; }
  sleep 0.05
done

echo "=== reference daemon listening on /tmp/cloud_svr (log: $build/daemon.log)"
echo "=== example application (lines starting with 'demo:' narrate; the rest is the library's log)"
"$demo" "$fifo"
