#!/usr/bin/env bash
# Installs everything the build, the tests and the demo need on Debian 12.
set -euo pipefail
source "$(dirname "$0")/lib/packages.sh"
packages=(
  build-essential cmake ninja-build ccache clang-format git pkg-config
  libicu-dev nlohmann-json3-dev libgtest-dev libgmock-dev libbenchmark-dev uuid-dev
  libatspi2.0-dev libglib2.0-dev libx11-dev libxtst-dev libpng-dev libturbojpeg0-dev libjpeg62-turbo-dev
  libxext-dev libxcomposite-dev libxrandr-dev libxfixes-dev libssl-dev clang
  # the HTTP server of glimmerstrand mcp --http; the sandbox test builds a root and asks it over HTTP
  libmicrohttpd-dev debootstrap curl iproute2 util-linux procps
  nodejs xvfb dbus dbus-x11 at-spi2-core libglib2.0-bin x11-utils xdg-utils openbox
  # the install tests check the user unit and the man page with the real tools
  systemd groff-base
  # real applications the tests and the demo drive: GTK3, GTK4 and Qt5
  gtk-3-examples galculator mousepad gnome-calculator speedcrunch python3-gi gir1.2-gtk-3.0
  # editors whose dialogs, hidden widgets and background focus the tests check: GTK3, GTK4 and Qt
  gedit gnome-text-editor featherpad
  # LibreOffice with its GTK front end: sheets, documents and slides too large to walk whole
  libreoffice-calc libreoffice-writer libreoffice-impress libreoffice-gtk3
  # the browsers whose pages agents read and act on
  chromium firefox-esr
  # the Wayland desktop: a wlroots compositor run headless, our own Wayland client's libraries and
  # generator, Qt's Wayland plugin, and a second clipboard client and screenshot tool the tests check ours against
  sway libwayland-dev wayland-protocols libxkbcommon-dev qtwayland5 wl-clipboard grim
)
command -v npm >/dev/null || packages+=(npm)  # the agent task suite's MCP client comes from the npm registry
install_missing "${packages[@]}"
