#!/bin/sh
# Makes a Debian 12 system a sandbox: installs glimmerstrand's package (the
# first argument, a .deb file), what `glimmerstrand desktop` starts, and the
# Debian packages named after it; adds the user `agent` that runs it all.
# The Containerfile runs it, and so does the test that builds the same root
# with debootstrap (tests/sandbox/sandbox_test.sh).
set -eu
package=$1
shift
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "$package" \
  xvfb xauth dbus at-spi2-core openbox fonts-dejavu-core "$@"
apt-get clean
rm -rf /var/lib/apt/lists/*
id agent >/dev/null 2>&1 || useradd --create-home --uid 1000 --shell /bin/sh agent
