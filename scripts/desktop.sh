#!/usr/bin/env bash
# A headless desktop for tests: the built `glimmerstrand desktop`, with the
# window manager only when asked for (--wm), as the tests expect, or a
# headless Wayland compositor instead of the X server (--wayland sway).
#
#   scripts/desktop.sh start [--wm | --wayland sway] [APP...]   prints the environment, for eval
#   scripts/desktop.sh run [--wm | --wayland sway] [APP...]     the same, then stays until stopped
#   scripts/desktop.sh stop                    stops what start started, by pid
#   scripts/desktop.sh status
#
# Everything lives in $GLIMMERSTRAND_DESKTOP_DIR (default: a folder of this
# user's); a second desktop needs a folder of its own. The client is
# $GLIMMERSTRAND_CLIENT, else the one of a build in this tree, else on PATH.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

client=${GLIMMERSTRAND_CLIENT:-}
if [ -z "$client" ]; then
  for candidate in "$root"/build/release/src/client/glimmerstrand "$root"/build/*/src/client/glimmerstrand; do
    if [ -x "$candidate" ]; then client=$candidate; break; fi
  done
fi
if [ -z "$client" ] && ! client=$(command -v glimmerstrand); then
  echo "desktop: no glimmerstrand client; build it: scripts/build.sh release glimmerstrand" >&2
  exit 1
fi

wm=--no-wm apps=() wayland=()
take_start_arguments() {
  while [ $# -gt 0 ]; do
    case $1 in
      --wm) wm=--wm ;;
      --wayland) wayland=(--wayland "$2"); shift ;;
      *) apps+=("$1") ;;
    esac
    shift
  done
}

case ${1:-} in
  start) shift; take_start_arguments "$@"; exec "$client" desktop start "$wm" "${wayland[@]}" "${apps[@]}" ;;
  run)
    shift; take_start_arguments "$@"
    trap '"$client" desktop stop >&2' EXIT INT TERM
    "$client" desktop start "$wm" "${wayland[@]}" "${apps[@]}"
    while :; do sleep 3600 & wait $!; done ;;
  stop | status) exec "$client" desktop "$1" ;;
  *) sed -n '2,13p' "$0" >&2; exit 2 ;;
esac
