#!/usr/bin/env bash
# Builds and runs every benchmark; each prints lines "name: value (goal …)".
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
export QT_QPA_PLATFORM="${QT_QPA_PLATFORM:-offscreen}"
for bench in build/bench/bench_*; do
  [ -f "$bench" ] && [ -x "$bench" ] || continue
  echo "== $(basename "$bench")"
  # What ran before (a build, the previous benchmark) leaves dirty pages whose write-back
  # would fall into this benchmark's rounds.
  sync
  "$bench"
done
