#!/usr/bin/env bash
# Installs, builds, and runs the main job: a short session on the line protocol.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh release glimmerstrand-native
scripts/demo.sh
