#!/bin/sh
# Stands in for a Godot 3 editor whose import never settles: it writes every
# sidecar at once, so the files look complete, but keeps adding a new entry to
# P/.import/ every FAKE_STEP_SECONDS (default 1) until terminated (then it dies
# by the signal, status 15). Called as "--editor --path P".

project=
while [ $# -gt 0 ]; do
    if [ "$1" = --path ] && [ $# -ge 2 ]; then
        project=$2
        shift
    fi
    shift
done

sleeper=
trap '[ -n "$sleeper" ] && kill "$sleeper" 2>/dev/null; echo "Editor closed."; trap - TERM; kill -TERM $$' TERM

echo "Godot Engine v3.5.3.stable.fake - https://godotengine.org"
if [ -z "$project" ] || [ ! -d "$project" ]; then
    echo "ERROR: no project at \"$project\"" >&2
    exit 1
fi
mkdir -p "$project/.import" || exit 1
find "$project" -mindepth 1 -name '.*' -prune -o -type f \( \
    -iname '*.png' -o -iname '*.jpg' -o -iname '*.jpeg' -o -iname '*.svg' -o \
    -iname '*.webp' -o -iname '*.tga' -o -iname '*.bmp' -o -iname '*.hdr' -o \
    -iname '*.exr' -o -iname '*.mp3' -o -iname '*.ogg' -o -iname '*.wav' -o \
    -iname '*.obj' -o -iname '*.glb' -o -iname '*.gltf' -o -iname '*.dae' -o \
    -iname '*.fbx' -o -iname '*.ttf' -o -iname '*.otf' \) \
    -exec sh -c 'for f; do echo "[remap]" > "$f.import"; done' sh {} +
n=0
while :; do
    n=$((n + 1))
    : > "$project/.import/entry-$n.stex"
    echo "Still importing ($n)"
    sleep "${FAKE_STEP_SECONDS:-1}" &
    sleeper=$!
    wait "$sleeper"
    sleeper=
done
