#!/usr/bin/env bash
# The real launcher started the way a desktop starts it (no QT_QPA_PLATFORM, no X
# server to fall back to):
#  - under weston's headless back end at 2x, which offers text input but no seat at
#    all, as a kiosk does (Qt 6.4's Wayland text input crashes there), and with no
#    session bus: it comes up natively and stays up;
#  - under weston in an X server, whose seat has a keyboard: the compositor's text
#    input (the desktop's input methods) stays in use;
#  - twice in one session: the second start asks the first to raise its window
#    (org.freedesktop.Application.Activate) and exits at once; the first runs on.
# Usage: scripts/desktop-check.sh   (after scripts/build.sh)
set -euo pipefail
cd "$(dirname "$0")/.."
exe=$PWD/build/src/vantro
[ -x "$exe" ] || { echo "desktop-check: build first (scripts/build.sh)" >&2; exit 1; }

work=$(mktemp -d)
compositor=
cleanup() {
  [ -n "$compositor" ] && kill -- -"$compositor" 2>/dev/null
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "desktop-check: $*" >&2
  exit 1
}

unset DISPLAY QT_QPA_PLATFORM QT_IM_MODULE WAYLAND_DISPLAY WAYLAND_SOCKET DBUS_SESSION_BUS_ADDRESS
mkdir -m 700 "$work/runtime"
export XDG_RUNTIME_DIR="$work/runtime" XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"

# start_weston NAME COMMAND...: the compositor in its own process group.
start_weston() {
  local name=$1
  shift
  setsid "$@" --socket="$name" --idle-time=0 --log="$work/$name.log" >"$work/$name.out" 2>&1 &
  compositor=$!
  for _ in $(seq 50); do
    [ -S "$XDG_RUNTIME_DIR/$name" ] && return
    sleep 0.2
  done
  cat "$work/$name.log"
  fail "$name: weston did not start"
}
stop_weston() {
  kill -- -"$compositor"
  wait "$compositor" 2>/dev/null || true
  compositor=
}

# check NAME EXPECTED_INPUT_METHOD COMMAND...: the launcher on that compositor for 5 s.
check() {
  local name=$1 input=$2 status=0
  shift 2
  start_weston "$name" "$@"
  WAYLAND_DISPLAY=$name QT_LOGGING_RULES=qt.qpa.wayland.debug=true timeout 5 "$exe" \
    2>"$work/$name.err" || status=$?
  stop_weston
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

start_weston session weston --backend=headless-backend.so
status=0
WAYLAND_DISPLAY=session dbus-run-session -- sh -c '
  dbus-monitor "interface=org.freedesktop.Application,member=Activate" >"$1/monitor" 2>&1 &
  "$2" 2>"$1/first.err" &
  first=$!
  sleep 3
  timeout 5 "$2" 2>"$1/second.err" || exit 20
  sleep 0.5
  kill -0 "$first" || exit 21
  kill "$first"
  wait "$first" || true' sh "$work" "$exe" 2>"$work/session.err" || status=$?
stop_weston
case $status in
  0) ;;
  20) cat "$work/second.err"; fail "session: the second start did not exit at once" ;;
  21) cat "$work/first.err"; fail "session: the first launcher did not run on" ;;
  *) fail "session: the check ended with status $status" ;;
esac
grep -q 'member=Activate' "$work/monitor" || fail "session: the second start did not ask the first to raise its window"
echo "session: a second start raised the first and exited"
echo "desktop-check: all good"
