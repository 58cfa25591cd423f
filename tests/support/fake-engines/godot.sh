#!/bin/sh
# Stands in for a Godot build in tests, as the arguments ask:
#   --import --path P: Godot 4's import, a ".import" sidecar beside every importable
#     asset, then exit FAKE_EXIT (FAKE_CRASH=1: die of SIGSEGV first);
#   --editor --path P: Godot 3's editor, a sidecar every FAKE_STEP_SECONDS, then open
#     until terminated (FAKE_NEVER_SETTLES=1: all at once, then new P/.import entries;
#     FAKE_STUBBORN=1: ignoring SIGTERM);
#   --path P: the game, FAKE_RUN_SECONDS long, exit FAKE_GAME_EXIT; FAKE_HELPERS=FILE
#     first starts two helpers that ignore SIGTERM, one orphaned in a session of its own.
# FAKE_SKIP=NAME leaves out that asset's sidecar; FAKE_UNRUNNABLE=1 drops its own
# execute permission after an import. SIGTERM ends it by the signal, as the real one.
project= mode=game arguments="$*" sleeper=
while [ $# -gt 0 ]; do
    case $1 in
    --path) project=$2 && shift ;;
    --import) mode=import ;;
    --editor) mode=editor ;;
    esac
    shift
done
# A sleep in the background and `wait` let the TERM trap run at once.
pause() { sleep "$1" & sleeper=$!; wait $sleeper; sleeper=; }
die_by_term() {
    [ -n "$sleeper" ] && kill $sleeper 2>/dev/null
    [ -n "$1" ] && echo "$1"
    trap - TERM && kill -TERM $$
}

echo "Godot Engine v4.3.stable.fake - https://godotengine.org"
if [ ! -f "$project/project.godot" ]; then
    echo "ERROR: Couldn't load project data at path \"$project\"." >&2
    exit 1
fi
if [ $mode = game ]; then
    echo "Running project: $arguments"
    trap 'die_by_term ""' TERM
    if [ -n "${FAKE_HELPERS:-}" ]; then
        stubborn='trap "" TERM; echo $$ >> "$FAKE_HELPERS"; while :; do sleep 0.05; done'
        sh -c "$stubborn" &
        (setsid sh -c "$stubborn" &) # orphaned at once: only the run's mark ties it
    fi
    [ "${FAKE_RUN_SECONDS:-0}" != 0 ] && pause "$FAKE_RUN_SECONDS"
    exit "${FAKE_GAME_EXIT:-0}"
fi

if [ -n "${FAKE_CRASH:-}" ]; then
    ulimit -c 0 # no core file in the working folder
    kill -SEGV $$
fi
cache=$project/.godot/imported
if [ $mode = editor ]; then
    cache=$project/.import
    trap 'die_by_term "Editor closed."' TERM
    [ -n "${FAKE_STUBBORN:-}" ] && trap '' TERM
fi
mkdir -p "$cache" || exit 1
# Hidden folders are skipped, extensions count in any case.
assets=$(find "$project" -mindepth 1 -name '.*' -prune -o -type f -print | LC_ALL=C sort |
    grep -iE '\.(png|jpe?g|svg|webp|tga|bmp|hdr|exr|mp3|ogg|wav|obj|glb|gltf|dae|fbx|ttf|otf)$')
n=0
# A loop fed by a here-document runs in this shell, so the trap still reaches it.
while IFS= read -r file; do
    [ -n "$file" ] || continue
    n=$((n + 1))
    [ $mode = editor ] && [ -z "${FAKE_NEVER_SETTLES:-}" ] && pause "${FAKE_STEP_SECONDS:-1}"
    : >"$cache/${file##*/}-$n"
    if [ "${FAKE_SKIP:-}" = "${file##*/}" ]; then
        echo "ERROR: Error importing '$file'." >&2
        continue
    fi
    echo '[remap]' >"$file.import"
    echo "[ $n ] import: $file"
done <<ASSETS
$assets
ASSETS
if [ $mode = import ]; then
    echo "Import done."
    [ -n "${FAKE_UNRUNNABLE:-}" ] && chmod a-x "$0"
    exit "${FAKE_EXIT:-0}"
fi
echo "Import finished; the editor stays open."
while :; do
    [ -n "${FAKE_NEVER_SETTLES:-}" ] && n=$((n + 1)) && : >"$cache/entry-$n"
    pause "${FAKE_STEP_SECONDS:-1}"
done
