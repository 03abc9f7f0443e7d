#!/usr/bin/env bash
# Installs, checks the format, builds and runs every test: the release build,
# then the unit tests again under AddressSanitizer and UndefinedBehaviorSanitizer,
# then a short fuzz campaign of each input surface.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/check-format.sh
scripts/build.sh release
ctest --test-dir build/release --output-on-failure -j2
scripts/build.sh debug-asan
ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build/debug-asan --output-on-failure -j2 -LE no-sanitizer
scripts/fuzz.sh 20
