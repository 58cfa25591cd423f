#!/usr/bin/env bash
# The one list of Debian 12 packages the launcher needs to build, run and test.
# Installs only what is missing, so a second run costs a dpkg query and nothing else.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang-format
  qt6-base-dev qt6-declarative-dev qt6-tools-dev-tools qcoro-qt6-dev
  libqt6opengl6-dev libgl-dev
  # The QML modules the views import. The Debian package depends on the same ones
  # (all but the tests' qttest): packaging/CMakeLists.txt reads them from here.
  qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-layouts
  qml6-module-qtquick-templates qml6-module-qtquick-window qml6-module-qtquick-dialogs
  qml6-module-qtqml-workerscript qml6-module-qtqml qml6-module-qttest
  libqt6svg6 libssl-dev libarchive-tools fonts-dejavu-core
  curl openssl xvfb xauth dbus-daemon
  # Wayland: the client library the program asks for seats, Qt's platform plugin
  # (the package recommends it), and the compositor scripts/desktop-check.sh uses.
  libwayland-dev qt6-wayland weston
  # libqt6svg6 draws the windows' SVG symbols.
  # Packaging and its checks: the .deb, lintian, the desktop entry and metainfo
  # validators, the icon renderer, the window-class probe.
  dpkg-dev file lintian desktop-file-utils appstream librsvg2-bin x11-utils
  # The real Godot 3 editor, for the end-to-end import test.
  godot3
  # The import fixtures' assets, made at test time: ImageMagick writes the images
  # (EXR with its extra coders), SoX the WAV and Ogg Vorbis sounds.
  imagemagick libmagickcore-6.q16-6-extra sox
  # The network tests' proxy: the program alone, without the system service.
  tinyproxy-bin
  # A desktop theme that hands over its own palette, for the window tests.
  qt6ct
  # git archive makes the zip a git host serves, with its commit as the comment.
  git
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
