#!/bin/sh
# Stands in for a Godot 3 editor whose import never settles: it writes every
# sidecar at once, so the files look complete, but keeps adding a new entry to
# P/.import/ every FAKE_STEP_SECONDS (default 1) until terminated (then it dies
# by the signal, status 15). Called as "--editor --path P".

. "$(dirname "$0")/common.sh"

project=
while [ $# -gt 0 ]; do
    if [ "$1" = --path ] && [ $# -ge 2 ]; then
        project=$2
        shift
    fi
    shift
done

trap 'die_by_term "Editor closed."' TERM
echo "Godot Engine v3.5.3.stable.fake - https://godotengine.org"
if [ -z "$project" ] || [ ! -d "$project" ]; then
    echo "ERROR: no project at \"$project\"" >&2
    exit 1
fi
mkdir -p "$project/.import" || exit 1
list_assets "$project"
while IFS= read -r file; do
    echo "[remap]" > "$file.import"
done < "$list"
rm -f "$list"
list=
n=0
while :; do
    n=$((n + 1))
    : > "$project/.import/entry-$n.stex"
    echo "Still importing ($n)"
    pause "${FAKE_STEP_SECONDS:-1}"
done
