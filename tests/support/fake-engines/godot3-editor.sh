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

sleeper=
list=
# A sleep in the background and `wait` let the TERM trap run at once.
pause() {
    sleep "$1" &
    sleeper=$!
    wait "$sleeper"
    sleeper=
}
die_by_term() {
    [ -n "$sleeper" ] && kill "$sleeper" 2>/dev/null
    [ -n "$list" ] && rm -f "$list"
    [ -n "$1" ] && echo "$1"
    trap - TERM
    kill -TERM $$
}

echo "Godot Engine v3.5.3.stable.fake - https://godotengine.org"
if [ -z "$project" ] || [ ! -f "$project/project.godot" ]; then
    echo "ERROR: Couldn't load project data at path \"$project\". Is the .pck file missing?" >&2
    exit 1
fi

if [ "$editing" = false ]; then
    echo "Running project: $arguments"
    trap 'die_by_term ""' TERM
    [ "${FAKE_RUN_SECONDS:-0}" != 0 ] && pause "$FAKE_RUN_SECONDS"
    exit "${FAKE_GAME_EXIT:-0}"
fi

trap 'die_by_term "Editor closed."' TERM
list=$(mktemp) || exit 1
find "$project" -mindepth 1 -name '.*' -prune -o -type f \( \
    -iname '*.png' -o -iname '*.jpg' -o -iname '*.jpeg' -o -iname '*.svg' -o \
    -iname '*.webp' -o -iname '*.tga' -o -iname '*.bmp' -o -iname '*.hdr' -o \
    -iname '*.exr' -o -iname '*.mp3' -o -iname '*.ogg' -o -iname '*.wav' -o \
    -iname '*.obj' -o -iname '*.glb' -o -iname '*.gltf' -o -iname '*.dae' -o \
    -iname '*.fbx' -o -iname '*.ttf' -o -iname '*.otf' \) -print | LC_ALL=C sort > "$list"
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
