#!/usr/bin/env bash
# The sandbox image's root file system, built as packaging/sandbox/Containerfile
# builds it but with debootstrap, as no container engine runs here: Debian 12,
# our package, and the desktop and an application installed by the image's own
# install.sh. Its entry point then runs in it under chroot, as the image's user,
# in a network namespace of the test's own, and is asked over HTTP from
# outside the root: refused without the token, then a session that reads the
# application and writes to it.
#
# Usage (as root, with the network to Debian's mirror):
#   tests/sandbox/sandbox_test.sh [BUILD_DIR]     default: build/release
# The root is downloaded and installed anew each time: about a minute here
# (debootstrap 25 s, the install 20-30 s, the rest seconds). CTest runs it as
# Sandbox.EntryPointAnswersOverHttp.
set -euo pipefail
repo=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:-$repo/build/release}" && pwd)
fail() { echo "FAIL: $*" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || fail "debootstrap, chroot and network namespaces need root"
for tool in debootstrap curl ip unshare chroot cpack; do
  command -v "$tool" >/dev/null || fail "$tool is missing (scripts/setup.sh installs it)"
done

work=$(mktemp -d /var/tmp/glimmerstrand-sandbox.XXXXXX)
root=$work/root
namespace=glimmerstrand-sandbox-$$
token=$(head -c 24 /dev/urandom | od -An -tx1 | tr -d ' \n')
port=8765
sandbox=
# The entry point, the first process of the sandbox's own: unshare, its
# parent, ignores TERM while it waits.
stop_sandbox() {
  local entry
  entry=$(pgrep -P "$sandbox" || true)
  [ -n "$entry" ] && kill -TERM "$entry" 2>/dev/null
  for _ in $(seq 200); do kill -0 "$sandbox" 2>/dev/null || return 0; sleep 0.1; done
  return 1
}
cleanup() {
  if [ -n "$sandbox" ] && ! stop_sandbox; then
    # The end of the first process ends every process of its namespace.
    pkill -KILL -P "$sandbox" 2>/dev/null || true
    wait "$sandbox" 2>/dev/null || true
  fi
  ip netns delete "$namespace" 2>/dev/null || true
  for mount in "$root/proc" "$root/dev" "$root/run" "$root/tmp"; do umount -l "$mount" 2>/dev/null || true; done
  rm -rf --one-file-system "$work"
}
trap cleanup EXIT
started=$SECONDS
phase() { echo "sandbox: $1 ($((SECONDS - started)) s)" >&2; }

phase "building the package"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/package" >"$work/cpack.log" 2>&1 || {
  cat "$work/cpack.log" >&2
  fail "cpack"
}
deb=$(echo "$work"/package/glimmerstrand_*.deb)
[ -f "$deb" ] || fail "no package in $work/package"

phase "debootstrap of Debian 12"
mirror=$(sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/debian.sources 2>/dev/null | head -1)
debootstrap --variant=minbase bookworm "$root" "${mirror:-http://deb.debian.org/debian}" >"$work/debootstrap.log" 2>&1 || {
  tail -20 "$work/debootstrap.log" >&2
  fail "debootstrap"
}

phase "installing the package, the desktop and galculator with the image's install.sh"
cp "$deb" "$root/tmp/glimmerstrand.deb"
cp "$repo/packaging/sandbox/install.sh" "$root/tmp/install.sh"
cp /etc/resolv.conf "$root/etc/resolv.conf"
mount -t proc proc "$root/proc"
chroot "$root" sh /tmp/install.sh /tmp/glimmerstrand.deb galculator >"$work/install.log" 2>&1 || {
  tail -30 "$work/install.log" >&2
  fail "install.sh"
}
umount "$root/proc"
install -m 0755 "$repo/packaging/sandbox/entrypoint.sh" "$root/usr/local/bin/glimmerstrand-sandbox"
rm -f "$root/tmp/glimmerstrand.deb" "$root/tmp/install.sh"
du -sh "$root" >&2

phase "starting the entry point in a network namespace of its own"
ip netns add "$namespace"
ip netns exec "$namespace" ip link set lo up
# Its own mounts and processes too, as in a container: proc, dev, a fresh
# /run and /tmp; the entry point runs as the image's user.
ip netns exec "$namespace" unshare --mount --pid --fork --kill-child bash -c '
  root=$1
  mount --make-rprivate /
  mount -t proc proc "$root/proc"
  mount --rbind /dev "$root/dev"
  mount -t tmpfs -o mode=0755 tmpfs "$root/run"
  mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
  # Nothing of the caller stays open in the sandbox, such as a lock that it holds.
  for fd in $(ls /proc/self/fd); do [ "$fd" -gt 2 ] && eval "exec $fd>&-"; done
  exec chroot --userspec=1000:1000 "$root" env -i HOME=/home/agent PATH=/usr/local/bin:/usr/bin:/bin \
    GLIMMERSTRAND_HTTP_TOKEN="$2" GLIMMERSTRAND_HTTP_PORT="$3" /usr/local/bin/glimmerstrand-sandbox galculator
' sandbox "$root" "$token" "$port" >"$work/sandbox.log" 2>&1 &
sandbox=$!

url=http://127.0.0.1:$port/mcp
inside() { ip netns exec "$namespace" "$@"; }
post() {  # post SESSION BODY [CURL ARGUMENTS...]
  local session=$1 body=$2
  shift 2
  inside curl -sS -m 60 -D "$work/headers" -H 'Content-Type: application/json' \
    -H 'Accept: application/json, text/event-stream' ${session:+-H "Mcp-Session-Id: $session"} "$@" --data "$body" "$url"
}
initialize='{"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-11-25","capabilities":{},"clientInfo":{"name":"sandbox-test","version":"1"}}}'

# Ready once the server refuses a request without a token: it listens, and
# the desktop and its application are up, as the entry point starts it last.
for _ in $(seq 600); do
  code=$(inside curl -s -o /dev/null -w '%{http_code}' -m 5 -X POST "$url" || true)
  [ "$code" = 401 ] && break
  kill -0 "$sandbox" 2>/dev/null || { cat "$work/sandbox.log" >&2; fail "the entry point ended"; }
  sleep 0.2
done
[ "$code" = 401 ] || { cat "$work/sandbox.log" >&2; fail "no answer on $url"; }
phase "answering over HTTP"

[ "$(post "" "$initialize" -o /dev/null -w '%{http_code}' -H "Authorization: Bearer wrong")" = 401 ] ||
  fail "a wrong token was not refused"
reply=$(post "" "$initialize" -H "Authorization: Bearer $token")
[[ $reply == *'"serverInfo":{"name":"glimmerstrand"'* ]] || fail "initialize: $reply"
session=$(sed -n 's/^[Mm]cp-[Ss]ession-[Ii]d: *\([0-9a-f]*\).*/\1/p' "$work/headers")
[ -n "$session" ] || fail "no session id in: $(cat "$work/headers")"

call() {  # call ID CYPHER
  post "$session" "{\"jsonrpc\":\"2.0\",\"id\":$1,\"method\":\"tools/call\",\"params\":{\"name\":\"do\",\"arguments\":{\"app\":\"galculator\",\"cypher\":\"$2\"}}}" \
    -H "Authorization: Bearer $token" -H 'MCP-Protocol-Version: 2025-11-25'
}
read=$(call 2 'MATCH (b:CheckBox {name:\"7\"}) RETURN b.name')
[[ $read == *'b.name\n7'* ]] || fail "a read of galculator: $read"
wrote=$(call 3 'MATCH (b:CheckBox {name:\"AC\"}) SET b.pressed = true; MATCH (b:CheckBox {name:\"4\"}) SET b.pressed = true; MATCH (b:CheckBox {name:\"2\"}) SET b.pressed = true; MATCH (t:TextArea) RETURN t.value')
[[ $wrote == *'t.value\n42'* ]] || fail "pressing 4 and 2 on galculator: $wrote"
[ "$(post "$session" '' -o /dev/null -w '%{http_code}' -X DELETE -H "Authorization: Bearer $token")" = 204 ] ||
  fail "DELETE of the session"

# The readiness probe of the README's Kubernetes example, as the image's user:
# the daemon answers and its platform is usable.
chroot --userspec=1000:1000 "$root" env -i HOME=/home/agent PATH=/usr/local/bin:/usr/bin:/bin \
  glimmerstrand doctor >"$work/probe.log" 2>&1 || { cat "$work/probe.log" >&2; fail "the readiness probe"; }

# A TERM to the entry point (a container's stop) ends the server, the daemon
# and the desktop, and the sandbox with status 0.
stop_sandbox || fail "the entry point did not end within 20 s of a TERM"
status=0
wait "$sandbox" || status=$?
sandbox=
[ "$status" -eq 0 ] || { cat "$work/sandbox.log" >&2; fail "the sandbox ended with status $status"; }
phase "done"
echo "sandbox ok"
