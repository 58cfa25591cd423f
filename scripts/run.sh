#!/usr/bin/env bash
# The first quick-start command: install, build, start the launcher.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
exec build/src/vantro
