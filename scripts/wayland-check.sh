#!/usr/bin/env bash
# The launcher on Wayland, started the way a desktop starts it (no QT_QPA_PLATFORM,
# no X server to fall back to), must come up natively and stay up:
#  - under weston's headless back end at 2x: text input offered, but no seat at all,
#    as in a kiosk; Qt 6.4's Wayland text input would crash there;
#  - under weston in an X server, whose seat has a keyboard: the compositor's text
#    input (the desktop's input methods) must stay in use.
# Usage: scripts/wayland-check.sh   (after scripts/build.sh)
set -euo pipefail
cd "$(dirname "$0")/.."
exe=$PWD/build/src/vantro
[ -x "$exe" ] || { echo "wayland-check: build first (scripts/build.sh)" >&2; exit 1; }

work=$(mktemp -d)
compositor=
cleanup() {
  [ -n "$compositor" ] && kill -- -"$compositor" 2>/dev/null
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "wayland-check: $*" >&2
  exit 1
}

unset DISPLAY QT_QPA_PLATFORM QT_IM_MODULE WAYLAND_DISPLAY WAYLAND_SOCKET
mkdir -m 700 "$work/runtime"
export XDG_RUNTIME_DIR="$work/runtime" XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"

# check NAME EXPECTED_INPUT_METHOD COMMAND...: starts the compositor COMMAND in its
# own process group, then the launcher on it for 5 seconds.
check() {
  local name=$1 input=$2
  shift 2
  setsid "$@" --socket="$name" --idle-time=0 --log="$work/$name.log" >"$work/$name.out" 2>&1 &
  compositor=$!
  for _ in $(seq 50); do
    [ -S "$XDG_RUNTIME_DIR/$name" ] && break
    sleep 0.2
  done
  [ -S "$XDG_RUNTIME_DIR/$name" ] || { cat "$work/$name.log"; fail "$name: weston did not start"; }
  local status=0
  WAYLAND_DISPLAY=$name QT_LOGGING_RULES=qt.qpa.wayland.debug=true timeout 5 "$exe" \
    2>"$work/$name.err" || status=$?
  kill -- -"$compositor"
  wait "$compositor" 2>/dev/null || true
  compositor=
  grep -vE '^qt\.qpa\.wayland' "$work/$name.err" || true
  [ "$status" -eq 124 ] || fail "$name: the launcher ended with status $status within 5 s"
  if grep -vE '^qt\.qpa\.wayland' "$work/$name.err" | grep -qiE 'qml|plugin|error'; then
    fail "$name: the launcher reported an error"
  fi
  grep -q "using input method: .*$input" "$work/$name.err" ||
    fail "$name: expected the $input input method, got: $(grep 'using input method' "$work/$name.err")"
  echo "$name: up natively, $(grep -m1 -o 'using input method: .*' "$work/$name.err")"
}

check headless QComposeInputContext weston --backend=headless-backend.so --scale=2
check seated QWaylandInputContext \
  xvfb-run -a -s "-screen 0 1280x1024x24" weston --backend=x11-backend.so --use-pixman
echo "wayland-check: all good"
