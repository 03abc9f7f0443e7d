#!/usr/bin/env bash
# The main job: a daemon on the built-in simulated desktop, and a few
# statements sent to it by the shell client, each shown with its reply.
set -euo pipefail
cd "$(dirname "$0")/.."
client=build/release/src/client/glimmerstrand
export XDG_STATE_HOME
XDG_STATE_HOME=$(mktemp -d)
export GLIMMERSTRAND_PLATFORM=sim
unset GLIMMERSTRAND_SOCKET GLIMMERSTRAND_SIM_APPS
stop() {
  pid=$("$client" --json status 2>/dev/null | sed -n 's/.*"pid":\([0-9]*\),"startedAt".*/\1/p')
  [ -n "$pid" ] && kill "$pid" 2>/dev/null || true
  rm -rf "$XDG_STATE_HOME"
}
trap stop EXIT

run() {
  printf '\n$ glimmerstrand %s\n' "$*"
  "$client" "$@" || true
}
run ping
run --app Calculator query 'MATCH (b:Button) WHERE b.name =~ "[0-9]" RETURN b.id, b.name ORDER BY b.name LIMIT 4'
run --app Calculator do 'CALL ui.press("7"); CALL ui.press("+"); CALL ui.press("8"); MATCH (t:StaticText) RETURN t.value'
run --app Calculator do 'CALL ui.tree()'
run status
