#!/usr/bin/env bash
# Builds and runs every benchmark; each prints lines "name: value (goal …)", and
# "name: missing (goal …; why)" for a figure it could not measure.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
export QT_QPA_PLATFORM="${QT_QPA_PLATFORM:-offscreen}"
failed=()
for bench in build/bench/bench_*; do
  [ -f "$bench" ] && [ -x "$bench" ] || continue
  echo "== $(basename "$bench")"
  # What ran before (a build, the previous benchmark) leaves dirty pages whose write-back
  # would fall into this benchmark's rounds.
  sync
  # One that fails still leaves the others to run.
  status=0
  "$bench" || status=$?
  [ "$status" -eq 0 ] || failed+=("$(basename "$bench") (exit status $status)")
done
if [ "${#failed[@]}" -gt 0 ]; then
  echo "== failed: ${failed[*]}"
  exit 1
fi
