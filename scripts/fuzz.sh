#!/usr/bin/env bash
# Builds the fuzz targets with clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer, and runs a bounded campaign of each from its
# checked-in seeds: scripts/fuzz.sh [seconds per target, default 60].
# New inputs go to build/fuzz/corpus, never into the checked-in seeds; a
# crash leaves its input in build/fuzz/crashes and fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build/fuzz
if [ ! -f "$build/build.ninja" ]; then
  cmake -S . -B "$build" -G Ninja \
    -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link" \
    -DGLIMMERSTRAND_SANITIZE=ON \
    -DGLIMMERSTRAND_BENCH=OFF \
    -DGLIMMERSTRAND_FUZZ=ON >/dev/null
fi
targets=(requestLines mcpMessages statements)
corpora=(request_lines mcp_messages statements)
cmake --build "$build" --target "${targets[@]/#/fuzz_}"
mkdir -p "$build/crashes"
for k in "${!targets[@]}"; do
  work="$build/corpus/${corpora[$k]}"
  mkdir -p "$work"
  echo "fuzz_${targets[$k]}: ${seconds}s"
  ASAN_OPTIONS=detect_leaks=0 "$build/tests/fuzz/fuzz_${targets[$k]}" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
    -artifact_prefix="$build/crashes/${corpora[$k]}-" \
    "$work" "tests/fuzz/corpus/${corpora[$k]}"
done
