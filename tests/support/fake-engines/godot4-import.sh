#!/bin/sh
# Stands in for a Godot 4 build in tests.
#
# With --import (as in "--headless --import --path P --quit") it imports project P:
# creates P/.godot/ and writes a ".import" sidecar beside every importable asset
# (hidden folders skipped, extensions case-insensitive), then exits with
# FAKE_EXIT (default 0). FAKE_SKIP=NAME leaves out the sidecar of the asset with
# that file name (or that path inside P).
#
# Without --import it plays the game: prints its arguments, runs for
# FAKE_RUN_SECONDS (default 0) and exits with FAKE_GAME_EXIT (default 0), so one
# file can serve as the whole engine of an install.
#
# Like the real engine, it fails when P holds no project.godot. FAKE_UNRUNNABLE=1
# makes it drop its own execute permission once it has imported.

. "$(dirname "$0")/common.sh"

project=
importing=false
arguments="$*"
while [ $# -gt 0 ]; do
    case $1 in
    --path)
        if [ $# -ge 2 ]; then
            project=$2
            shift
        fi
        ;;
    --import) importing=true ;;
    esac
    shift
done

echo "Godot Engine v4.3.stable.fake - https://godotengine.org"
if [ -z "$project" ] || [ ! -f "$project/project.godot" ]; then
    echo "ERROR: Couldn't load project data at path \"$project\". Is the .pck file missing?" >&2
    exit 1
fi

if [ "$importing" = false ]; then
    echo "Running project: $arguments"
    run_as_game "${FAKE_GAME_EXIT:-0}"
fi

list_assets "$project"
trap 'rm -f "$list"' EXIT
total=$(wc -l < "$list" | tr -d ' ')

mkdir -p "$project/.godot/imported" || exit 1
echo "Reimporting $total files"
n=0
while IFS= read -r file; do
    n=$((n + 1))
    name=${file##*/}
    inside=${file#"$project"/}
    if [ -n "${FAKE_SKIP:-}" ] && { [ "$FAKE_SKIP" = "$name" ] || [ "$FAKE_SKIP" = "$inside" ]; }; then
        echo "ERROR: Error importing 'res://$inside'." >&2
        continue
    fi
    printf '[remap]\n\nimporter="fake"\npath="res://.godot/imported/%s-%d.ctex"\n' \
        "$name" "$n" > "$file.import"
    : > "$project/.godot/imported/$name-$n.ctex"
    echo "[ $n/$total ] import: res://$inside"
done < "$list"
echo "Import done."
[ -n "${FAKE_UNRUNNABLE:-}" ] && chmod a-x "$0"
exit "${FAKE_EXIT:-0}"
