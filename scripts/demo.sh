#!/usr/bin/env bash
# A short session on the line protocol: each request line, then the replies.
set -euo pipefail
cd "$(dirname "$0")/.."
native=build/release/src/native/glimmerstrand-native
requests='{"id":1,"method":"ping"}
{"id":2,"method":"nope"}
{"method":"ping"}'
printf '%s\n' "$requests" | sed 's/^/> /'
printf '%s\n' "$requests" | "$native" | sed 's/^/< /'
