#!/bin/sh
# Stands in for the Godot 3 editor in tests.
#
# With --editor (as in "--editor --path P") it imports project P the slow way the
# real editor does: creates P/.import/, then every FAKE_STEP_SECONDS (default 1)
# writes the sidecar of one asset and one entry in P/.import/, printing progress.
# Then it stays open until terminated; SIGTERM kills it by the signal (status 15),
# as it does the real editor. FAKE_SKIP=NAME leaves out that asset's sidecar.
#
# Without --editor it plays the game: prints its arguments, runs for
# FAKE_RUN_SECONDS (default 0) and exits with FAKE_GAME_EXIT (default 0).
#
# Like the real engine, it fails when P holds no project.godot.

project=
editing=false
arguments="$*"
while [ $# -gt 0 ]; do
    case $1 in
    --path)
        if [ $# -ge 2 ]; then
            project=$2
            shift
        fi
        ;;
    --editor | -e) editing=true ;;
    esac
    shift
done

. "$(dirname "$0")/common.sh"

echo "Godot Engine v3.5.3.stable.fake - https://godotengine.org"
if [ -z "$project" ] || [ ! -f "$project/project.godot" ]; then
    echo "ERROR: Couldn't load project data at path \"$project\". Is the .pck file missing?" >&2
    exit 1
fi

if [ "$editing" = false ]; then
    echo "Running project: $arguments"
    run_as_game "${FAKE_GAME_EXIT:-0}"
fi

trap 'die_by_term "Editor closed."' TERM
list_assets "$project"
total=$(wc -l < "$list" | tr -d ' ')

mkdir -p "$project/.import" || exit 1
echo "Editor opened; importing $total files"
n=0
# A redirected loop runs in this shell, so the trap still reaches it.
while IFS= read -r file; do
    n=$((n + 1))
    pause "${FAKE_STEP_SECONDS:-1}"
    name=${file##*/}
    inside=${file#"$project"/}
    : > "$project/.import/$name-$n.stex"
    if [ -n "${FAKE_SKIP:-}" ] && { [ "$FAKE_SKIP" = "$name" ] || [ "$FAKE_SKIP" = "$inside" ]; }; then
        echo "ERROR: Error importing 'res://$inside'." >&2
        continue
    fi
    printf '[remap]\n\nimporter="fake"\npath="res://.import/%s-%d.stex"\n' \
        "$name" "$n" > "$file.import"
    echo "[ $n/$total ] import: res://$inside"
done < "$list"
rm -f "$list"
list=
echo "Import finished; the editor stays open."
while :; do
    pause 1
done
