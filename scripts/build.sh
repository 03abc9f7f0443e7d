#!/usr/bin/env bash
# Configures and builds one preset (release, debug-asan or tsan): scripts/build.sh [preset] [target...]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}
shift || true
[ -f "build/$preset/build.ninja" ] || cmake --preset "$preset" >/dev/null
cmake --build "build/$preset" ${1:+--target "$@"}
