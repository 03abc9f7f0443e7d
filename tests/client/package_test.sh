#!/usr/bin/env bash
# The Debian package: built by cpack, it declares the libraries it links,
# installs with dpkg into a fresh root whose package database is this
# system's (so every dependency must name a real installed package), and the
# client runs from there.
# Usage: package_test.sh BUILD_DIR VERSION
set -euo pipefail
build=$1 version=$2
work=$(mktemp -d)
root=$work/root
cleanup() {
  "$root/usr/bin/glimmerstrand" stop >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 || {
  cat "$work/cpack.log" >&2
  fail "cpack"
}
deb=$(echo "$work"/out/glimmerstrand_"$version"_*.deb)
[[ -f $deb ]] || fail "no package in $work/out"
# Every library the binaries link comes from a package the package depends on.
depends=$(dpkg-deb -f "$deb" Depends)
# The package names alone, one a line, whether or not a version follows.
packages=$(tr ',' '\n' <<<"$depends" | awk '{print $1}')
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
for binary in "$build/src/client/glimmerstrand" "$build/src/native/glimmerstrand-native"; do
  for soname in $(readelf -d "$binary" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    owner=$(dpkg -S "*/$multiarch/$soname" | head -1 | cut -d: -f1)
    [[ -n $owner ]] && grep -qx "$owner" <<<"$packages" || fail "$soname comes from '$owner', not in Depends: $depends"
  done
done
contents=$(dpkg-deb -c "$deb")
for path in ./usr/bin/glimmerstrand ./usr/bin/glimmerstrand-native ./usr/lib/systemd/user/glimmerstrand.service \
  ./usr/share/man/man1/glimmerstrand.1 ./usr/share/bash-completion/completions/glimmerstrand \
  ./usr/share/zsh/vendor-completions/_glimmerstrand; do
  [[ $contents == *" $path"* ]] || fail "package lacks $path"
done

mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
cp /var/lib/dpkg/status "$root/var/lib/dpkg/status"
touch "$root/var/lib/dpkg/available"
dpkg --root="$root" --force-not-root -i "$deb" >"$work/dpkg.log" 2>&1 || {
  cat "$work/dpkg.log" >&2
  fail "dpkg -i"
}
[[ $(dpkg --root="$root" -s glimmerstrand | sed -n 's/^Status: //p') == "install ok installed" ]] ||
  fail "not installed: $(dpkg --root="$root" -s glimmerstrand)"

export HOME=$work XDG_STATE_HOME=$work/state PATH=/usr/bin:/bin GLIMMERSTRAND_PLATFORM=sim
unset GLIMMERSTRAND_SOCKET GLIMMERSTRAND_SIM_APPS
[[ $("$root/usr/bin/glimmerstrand" --version) == "glimmerstrand $version" ]] || fail "--version"
[[ $("$root/usr/bin/glimmerstrand-native" --version) == "glimmerstrand-native $version" ]] || fail "native --version"
[[ $(dpkg-deb -f "$deb" Recommends) == *at-spi2-core* ]] || fail "Recommends: $(dpkg-deb -f "$deb" Recommends)"
out=$("$root/usr/bin/glimmerstrand" --app Calculator query 'MATCH (b:Button {name:"7"}) RETURN b.name')
[[ $out == *$'b.name\n7'* ]] || fail "query from the package: $out"
echo "package ok"
