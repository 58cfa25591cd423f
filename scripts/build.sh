#!/usr/bin/env bash
# Installs what is missing, then configures (once) and builds into a build folder.
# Usage: scripts/build.sh [--sanitize]   (the sanitizer build goes to build-asan/)
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build
options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
if [ "${1:-}" = --sanitize ]; then
  dir=build-asan
  options=(-DCMAKE_BUILD_TYPE=Debug -DVANTRO_SANITIZE=ON)
fi

scripts/install-deps.sh
if [ ! -f "$dir/build.ninja" ]; then
  cmake -S . -B "$dir" -G Ninja "${options[@]}"
fi
cmake --build "$dir" --parallel "$(nproc)"
