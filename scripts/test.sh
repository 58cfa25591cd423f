#!/usr/bin/env bash
# The second quick-start command: install, build, run every test.
# Usage: scripts/test.sh [--sanitize]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh "$@"
dir=build
[ "${1:-}" = --sanitize ] && dir=build-asan
export QT_QPA_PLATFORM="${QT_QPA_PLATFORM:-offscreen}"
# Any sanitizer report ends the test program with a failure.
export ASAN_OPTIONS="${ASAN_OPTIONS:-abort_on_error=0:halt_on_error=1:detect_leaks=1}"
export LSAN_OPTIONS="${LSAN_OPTIONS:-suppressions=$PWD/tests/support/lsan.supp:print_suppressions=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"
ctest --test-dir "$dir" --output-on-failure --parallel "$(nproc)"
