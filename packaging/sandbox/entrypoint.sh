#!/bin/sh
# The sandbox's entry point: starts a headless desktop with the applications
# named in the arguments (each a command, such as galculator or
# "gtk3-widget-factory"), then serves MCP over HTTP for an agent host outside:
# http://HOST:$GLIMMERSTRAND_HTTP_PORT/mcp (8765), on every interface, with
# the bearer token in $GLIMMERSTRAND_HTTP_TOKEN. A TERM, INT or HUP stops the
# server, the daemon and the desktop.
set -eu
if [ -z "${GLIMMERSTRAND_HTTP_TOKEN:-}" ]; then
  echo "glimmerstrand-sandbox: set GLIMMERSTRAND_HTTP_TOKEN to the token agents must send" >&2
  exit 2
fi
port=${GLIMMERSTRAND_HTTP_PORT:-8765}
exports=$(glimmerstrand desktop start "$@")
eval "$exports"

server=
stop() {
  trap - TERM INT HUP
  [ -n "$server" ] && kill -TERM "$server" 2>/dev/null && wait "$server" || true
  glimmerstrand stop >/dev/null 2>&1 || true
  glimmerstrand desktop stop >/dev/null 2>&1 || true
  exit "$1"
}
trap 'stop 0' TERM INT HUP
glimmerstrand mcp --http "${GLIMMERSTRAND_HTTP_ADDRESS:-0.0.0.0}:$port" &
server=$!
status=0
wait "$server" || status=$?
server=
stop "$status"  # the server ended by itself: the sandbox is no more use
