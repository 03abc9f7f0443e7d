#!/usr/bin/env bash
# Installs what the benches need beyond scripts/setup.sh on Debian 12: the
# peer the side-by-side bench times (dogtail). The product never needs these.
set -euo pipefail
packages=(
  # the peer of linux_peer_bench: searches by name through the accessibility bus
  python3-dogtail
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
