#!/usr/bin/env bash
# Installs, builds, and runs the main job: the daemon on the simulated desktop,
# driven by the shell client.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh release glimmerstrand-native glimmerstrand
scripts/demo.sh
