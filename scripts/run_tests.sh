#!/usr/bin/env bash
# Sets up, builds and runs every test: once plainly, once under
# AddressSanitizer with UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install_deps.sh
jobs=$(nproc)

echo "== plain build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure -j"$jobs")

echo "== address and undefined-behaviour sanitizers"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSEGCORE_SANITIZE=address,undefined \
  -DSEGCORE_BUILD_BENCHMARKS=OFF -DSEGCORE_BUILD_TOOLS=OFF
cmake --build build-asan -j"$jobs"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j"$jobs")
