#!/usr/bin/env bash
# run.sh [PROGRAM] [vemo_burst options...]: runs the burst scenarios (A, A with a synchronous
# request in every handler, B) once without a limit and once under a 3 GiB address-space limit,
# the most a 32-bit process can have, and prints one table. Exits non-zero when a run failed.
# PROGRAM defaults to the vemo_burst of build/plain or build/bench.
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
program=${1:-}
if [ -n "$program" ] && [ "${program#--}" = "$program" ]; then shift; else program=""; fi
for candidate in "$program" "$root/build/plain/tests/burst/vemo_burst" "$root/build/bench/bench/burst/vemo_burst"; do
  if [ -n "$candidate" ] && [ -x "$candidate" ]; then program=$candidate; break; fi
done
[ -x "$program" ] || { echo "run.sh: no vemo_burst found; give its path" >&2; exit 2; }
address_space_limit=3221225472

echo "| limit | scenario | N | threads created | peak threads | RSS growth MiB | answered | 1 s request | burst s | result |"
echo "|---|---|---:|---:|---:|---:|---:|---|---:|---|"
status=0
for limit in none 3GiB; do
  prefix=()
  [ "$limit" = none ] || prefix=(prlimit --as=$address_space_limit)
  for variant in "--scenario A" "--scenario A --sync-in-handler" "--scenario B"; do
    # shellcheck disable=SC2086 # the variant is a list of options
    report=$("${prefix[@]}" "$program" $variant "$@" 2>&1 >/dev/null) || status=1
    grep -v '^burst ' <<<"$report" >&2
    grep '^burst ' <<<"$report" | awk -v limit="$limit" '{
      for (i = 2; i <= NF; ++i) { split($i, kv, "="); v[kv[1]] = kv[2] }
      name = v["scenario"] (v["sync_in_handler"] == 1 ? " + sync in handler" : "")
      if (v["sync_in_handler"] == 1) v["answered"] = v["answered"] " (" v["handler_syncs"] " in handlers)"
      sync = v["sync_ms"] == "" ? "-" : sprintf("rc %s, %s ms", v["sync_rc"], v["sync_ms"])
      printf "| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", limit, name, v["count"],
             v["threads_created"], v["peak_threads"], v["rss_growth_mib"], v["answered"], sync,
             v["burst_s"], v["result"]
      delete v
    }'
  done
done
exit $status
