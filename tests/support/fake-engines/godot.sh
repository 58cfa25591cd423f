#!/bin/sh
# Stands in for a Godot build in tests, as the arguments ask:
#   --import --path P: Godot 4's import, a ".import" sidecar beside every importable
#     asset, then exit FAKE_EXIT (FAKE_CRASH=1: die of SIGSEGV first);
#   --editor --path P: Godot 3's editor, an imported file in P/.import and a sidecar
#     naming it every FAKE_STEP_SECONDS, fonts left alone, then open until terminated
#     (FAKE_NEVER_SETTLES=1: all at once, then new P/.import entries; FAKE_STUBBORN=1:
#     ignoring SIGTERM; FAKE_TORN=NAME: the first editor, when terminated, leaves that
#     asset's sidecar naming a file it never wrote, as a second pass cut short would);
#     on a display, it says which once it has reached it;
#   --path P: the game, FAKE_RUN_SECONDS long, exit FAKE_GAME_EXIT; FAKE_HELPERS=FILE
#     first starts two helpers that ignore SIGTERM, one orphaned in a session of its own.
# FAKE_SKIP=NAME leaves out that asset's sidecar; FAKE_UNRUNNABLE=1 drops its own
# execute permission after an import. SIGTERM ends it by the signal, as the real one.
# -displayfd ...: an X server that never gets ready.
[ "$1" = -displayfd ] && exec sleep 60
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
kinds='png|jpe?g|svg|webp|tga|bmp|hdr|exr|mp3|ogg|wav|obj|glb|gltf|dae|fbx|ttf|otf'
tear() {
    [ -n "${FAKE_TORN:-}" ] && [ ! -e "$project/.torn" ] || return 0
    : >"$project/.torn"
    find "$project" -name "$FAKE_TORN" -type f -exec sh -c \
        'printf "[remap]\npath=\"res://.import/torn.stex\"\n" >"$1.import"' sh {} \;
}
if [ $mode = editor ]; then
    cache=$project/.import
    kinds='png|jpe?g|svg|webp|tga|bmp|hdr|exr|mp3|ogg|wav|obj|glb|gltf|dae|fbx'
    trap 'tear; die_by_term "Editor closed."' TERM
    [ -n "${FAKE_STUBBORN:-}" ] && trap '' TERM
    [ -n "${DISPLAY:-}" ] && xdpyinfo >/dev/null 2>&1 && echo "Editor on display $DISPLAY"
fi
mkdir -p "$cache" || exit 1
# Hidden folders, ".gdignore" folders and projects of their own are skipped,
# extensions count in any case.
assets=$(find "$project" -mindepth 1 \( -name '.*' -o -type d \( -exec test -e '{}/.gdignore' \; \
    -o -exec test -e '{}/project.godot' \; \) \) -prune -o -type f -print | LC_ALL=C sort |
    grep -iE "\\.($kinds)\$")
n=0
# A loop fed by a here-document runs in this shell, so the trap still reaches it.
while IFS= read -r file; do
    [ -n "$file" ] || continue
    n=$((n + 1))
    [ $mode = editor ] && [ -z "${FAKE_NEVER_SETTLES:-}" ] && pause "${FAKE_STEP_SECONDS:-1}"
    if [ "${FAKE_SKIP:-}" = "${file##*/}" ]; then
        echo "ERROR: Error importing '$file'." >&2
        continue
    fi
    # Written aside and renamed into place, the imported file first, as Godot does.
    dest=${file##*/}-$n.stex
    : >"$cache/$dest.tmp" && mv "$cache/$dest.tmp" "$cache/$dest"
    printf '[remap]\npath="res://%s"\n\n[deps]\n\ndest_files=[ "res://%s" ]\n' \
        "${cache#"$project"/}/$dest" "${cache#"$project"/}/$dest" >"$file.import.tmp"
    mv "$file.import.tmp" "$file.import"
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
