#!/bin/sh
# A game run by the engine: prints its arguments (all on one line, then one a
# line), then FAKE_LINES (default 0) numbered lines, runs for FAKE_RUN_SECONDS
# (default 0) and exits with FAKE_EXIT (default 0). SIGTERM kills it by the
# signal (status 15).

. "$(dirname "$0")/common.sh"

echo "Godot Engine v4.3.stable.fake - https://godotengine.org"
echo "Arguments: $*"
for argument in "$@"; do
    printf 'arg: %s\n' "$argument"
done
i=0
while [ "$i" -lt "${FAKE_LINES:-0}" ]; do
    i=$((i + 1))
    echo "game line $i"
done
run_as_game "${FAKE_EXIT:-0}"
