#!/usr/bin/env bash
# build.sh DIR [cmake options...]: configures and builds one tree.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$1; shift
cmake -S "$root" -B "$dir" "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
