#!/usr/bin/env bash
# Builds the Debian package and proves it as a player's machine would see it:
# lintian finds no error, the desktop entry and metainfo validate, every QML module
# the views import comes with the package's dependencies, the window's class matches
# the desktop entry, and the installed program starts without a QML or plugin error.
# Installs the package (pulling its dependencies) and removes it again, as root or
# through sudo. Usage: scripts/package-check.sh
set -euo pipefail
cd "$(dirname "$0")/.."
app_id=org.vantro.Vantro3D
package=vantro3d

fail() {
  echo "package-check: $*" >&2
  exit 1
}

scripts/build.sh
sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
work=$(mktemp -d)
installed=0
cleanup() {
  if [ "$installed" = 1 ]; then
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get remove -y -qq "$package" >/dev/null
  fi
  rm -rf "$work"
}
trap cleanup EXIT

rm -f build/"$package"_*.deb
(cd build && cpack -G DEB >"$work/cpack.log") || { cat "$work/cpack.log"; fail "cpack failed"; }
deb=$(echo build/"$package"_*.deb)
[ -f "$deb" ] || fail "cpack made no package"
depends=$(dpkg-deb -f "$deb" Depends)
echo "== $deb"
echo "Depends: $depends"

echo "== lintian"
status=0
lintian --fail-on error "$deb" >"$work/lintian.log" 2>&1 || status=$?
grep -v 'root privileges' "$work/lintian.log" || true
[ "$status" -eq 0 ] || fail "lintian found errors"

echo "== package contents"
dpkg-deb -x "$deb" "$work/tree"
appstreamcli validate-tree --no-net "$work/tree"
# The PNG is committed for software centres; it must still be the SVG's picture.
rsvg-convert -w 128 -h 128 "packaging/$app_id.svg" | cmp -s - "packaging/$app_id.png" ||
  fail "packaging/$app_id.png is not the SVG's rendering: run rsvg-convert -w 128 -h 128 packaging/$app_id.svg -o packaging/$app_id.png"

echo "== QML modules the views import"
# One line per dependency, without version constraints.
depends_list=$(tr ',' '\n' <<<"$depends" | sed 's/(.*//; s/^ *//; s/ *$//')
qml_root=$(qtpaths6 --query QT_INSTALL_QML)
modules=$(sed -nE 's/^[[:space:]]*import[[:space:]]+([A-Za-z][A-Za-z0-9_.]*).*/\1/p' src/ui/*.qml | sort -u)
for module in $modules; do
  [ "$module" = Vantro ] && continue # our own, built into the program
  qmldir="$qml_root/${module//.//}/qmldir"
  owner=$(dpkg -S "$qmldir" 2>/dev/null | cut -d: -f1) ||
    fail "no installed package holds QML module $module ($qmldir)"
  grep -qxF "$owner" <<<"$depends_list" ||
    fail "QML module $module comes from $owner, which the package does not depend on: add it to the qml6-module list in scripts/install-deps.sh"
  echo "$module: $owner"
done

echo "== install"
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$PWD/$deb" >"$work/apt.log" 2>&1 ||
  { cat "$work/apt.log"; fail "apt-get install failed"; }
installed=1
desktop=/usr/share/applications/$app_id.desktop
desktop-file-validate "$desktop"
appstreamcli validate --no-net "/usr/share/metainfo/$app_id.metainfo.xml"
# The entry's command, found the way a desktop session finds it.
exe=$(PATH="$PATH:/usr/local/games:/usr/games" command -v "$(sed -n 's/^Exec=//p' "$desktop")") ||
  fail "the desktop entry's Exec is not an installed program"
echo "Exec: $exe"

# A private home for the runs, so they neither read nor leave a player's files.
mkdir -m 700 "$work/runtime"
run_env=(XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config" XDG_RUNTIME_DIR="$work/runtime")

echo "== start (offscreen)"
status=0
env "${run_env[@]}" QT_QPA_PLATFORM=offscreen timeout 5 "$exe" 2>"$work/stderr" || status=$?
cat "$work/stderr"
[ "$status" -eq 124 ] || fail "the program ended after less than 5 s with status $status"
if grep -qiE 'qml|plugin|module' "$work/stderr"; then
  fail "the program reported a QML or plugin error"
fi

echo "== window class (Xvfb)"
wm_class=$(sed -n 's/^StartupWMClass=//p' "$desktop")
# The window's class hint, as a dock matching windows to entries reads it.
xvfb-run -a sh -c '"$@" & pid=$!; sleep 3; xwininfo -root -tree; kill $pid' sh \
  env "${run_env[@]}" QT_QPA_PLATFORM=xcb "$exe" >"$work/tree.txt" 2>/dev/null || true
grep -F "\"$wm_class\")" "$work/tree.txt" ||
  fail "no window of class \"$wm_class\" (the desktop entry's StartupWMClass)"
echo "package-check: all good"
