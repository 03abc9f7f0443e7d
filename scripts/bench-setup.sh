#!/usr/bin/env bash
# Installs what the benches need beyond scripts/setup.sh on Debian 12: the
# peer the side-by-side bench times (dogtail). The product never needs these.
set -euo pipefail
source "$(dirname "$0")/lib/packages.sh"
packages=(
  # the peer of linux_peer_bench: searches by name through the accessibility bus
  python3-dogtail
)
install_missing "${packages[@]}" >/dev/null
