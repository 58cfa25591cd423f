# Shared by the fake engines; sourced, not run.

sleeper=
list=
# A sleep in the background and `wait` let the TERM trap run at once.
pause() {
    sleep "$1" &
    sleeper=$!
    wait "$sleeper"
    sleeper=
}
# Dies by SIGTERM itself (status 15), as the real engine does, after an optional
# last line.
die_by_term() {
    [ -n "$sleeper" ] && kill "$sleeper" 2>/dev/null
    [ -n "$list" ] && rm -f "$list"
    [ -n "$1" ] && echo "$1"
    trap - TERM
    kill -TERM $$
}
# Writes the importable assets below project $1 (hidden folders skipped,
# extensions in any case) to a new temporary file named in $list, sorted.
list_assets() {
    list=$(mktemp) || exit 1
    find "$1" -mindepth 1 -name '.*' -prune -o -type f \( \
        -iname '*.png' -o -iname '*.jpg' -o -iname '*.jpeg' -o -iname '*.svg' -o \
        -iname '*.webp' -o -iname '*.tga' -o -iname '*.bmp' -o -iname '*.hdr' -o \
        -iname '*.exr' -o -iname '*.mp3' -o -iname '*.ogg' -o -iname '*.wav' -o \
        -iname '*.obj' -o -iname '*.glb' -o -iname '*.gltf' -o -iname '*.dae' -o \
        -iname '*.fbx' -o -iname '*.ttf' -o -iname '*.otf' \) -print | LC_ALL=C sort > "$list"
}
# Plays the game: runs for FAKE_RUN_SECONDS (default 0), then exits with $1. With
# FAKE_HELPERS set, it first starts two helpers that ignore the terminate request,
# one of them in a session of its own, and adds their pids to that file.
run_as_game() {
    trap 'die_by_term ""' TERM
    if [ -n "${FAKE_HELPERS:-}" ]; then
        stubborn='trap "" TERM; echo $$ >> "$FAKE_HELPERS"; while :; do sleep 0.05; done'
        sh -c "$stubborn" &
        setsid sh -c "$stubborn" &
    fi
    [ "${FAKE_RUN_SECONDS:-0}" != 0 ] && pause "$FAKE_RUN_SECONDS"
    exit "$1"
}
