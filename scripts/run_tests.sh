#!/usr/bin/env bash
# Sets up, builds and runs every test on this machine:
#   1. plain build, whole suite, with the package test (install, then build and
#      run a caller's project against the installed package);
#   2. AddressSanitizer + UndefinedBehaviorSanitizer build, whole suite;
#   3. ThreadSanitizer build, the threaded parts (max-flow blocks, k-means,
#      cancellation from another thread);
#   4. the fuzz target for a bounded time (seconds: FUZZ_SECONDS, default 60).
# The plain build's suite includes segdemo's browser test: Debian's chromium
# driven by playwright-core from npm (pinned by tests/demo/package-lock.json;
# it never downloads a browser of its own).
set -euo pipefail
cd "$(dirname "$0")/.."

browser_test=(chromium)
{ command -v node && command -v npm; } >/dev/null || browser_test+=(nodejs npm)
bash scripts/install_deps.sh "${browser_test[@]}"
(cd tests/demo && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --no-audit --no-fund --loglevel=error)
jobs=$(nproc)
started=$(date +%s)
stage() { echo; echo "== $1 ($(( $(date +%s) - started )) s so far)"; }

stage "plain build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure -j"$jobs")

stage "address and undefined-behaviour sanitizers"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSEGCORE_SANITIZE=address,undefined \
  -DSEGCORE_BUILD_BENCHMARKS=OFF -DSEGCORE_BUILD_TOOLS=OFF
cmake --build build-asan -j"$jobs"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j"$jobs")

stage "thread sanitizer on the threaded parts"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSEGCORE_SANITIZE=thread \
  -DSEGCORE_BUILD_BENCHMARKS=OFF -DSEGCORE_BUILD_TOOLS=OFF
threaded=(test_graphcut test_colormodel)
[ -d tests/robustness ] && threaded+=(test_robustness)
cmake --build build-tsan -j"$jobs" --target "${threaded[@]}"
tsan_options="halt_on_error=1"
[ -f tests/tsan.supp ] && tsan_options="$tsan_options suppressions=$(pwd)/tests/tsan.supp"
(cd build-tsan && TSAN_OPTIONS="$tsan_options" ctest --output-on-failure -j"$jobs" \
  -L "$(IFS='|'; echo "${threaded[*]#test_}")")

if [ -f scripts/run_fuzz.sh ]; then
  stage "fuzzing"
  bash scripts/run_fuzz.sh "${FUZZ_SECONDS:-60}"
fi
stage "done"
