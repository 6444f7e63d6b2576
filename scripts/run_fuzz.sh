#!/usr/bin/env bash
# Builds the libFuzzer target with the address and undefined-behaviour
# sanitizers and runs it for a bounded time from a copy of the seed corpus.
#
#   bash scripts/run_fuzz.sh [seconds]     (default 60)
#
# CI runs it for a minute. A long run (a million call sequences or more
# takes about an hour on one free core) is the same command with more
# seconds, best under nice: nice bash scripts/run_fuzz.sh 5400
#
# The fuzz build differs from the library in two ways that only make it
# faster: the segmenter's working image holds SEGCORE_FUZZ_WORKING_PIXELS
# pixels (default 2400, the library's 76800), so reduced-image inputs stay
# small, and the engine's per-pixel loops are built without comparison
# tracing (see CMakeLists.txt).
#
# Fails on any crash, leak, sanitizer report or input that runs longer than
# 10 s. Findings are left in build-fuzz/findings/ (crash-*, leak-*,
# timeout-*); reproduce one with build-fuzz/fuzz/fuzz_engine <file>. The
# checked-in corpus (fuzz/corpus) is only read.
set -euo pipefail

seconds="${1:-60}"
case "$seconds" in
  ''|*[!0-9]*) echo "usage: $0 [seconds]" >&2; exit 2 ;;
esac

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

bash scripts/install_deps.sh clang libclang-rt-14-dev

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DSEGCORE_BUILD_FUZZER=ON \
  -DSEGCORE_SANITIZE=address,undefined -DBUILD_TESTING=OFF \
  -DSEGCORE_BUILD_BENCHMARKS=OFF -DSEGCORE_BUILD_TOOLS=OFF
cmake --build build-fuzz -j"$(nproc)" --target fuzz_engine

work="build-fuzz/fuzz-run"
findings="build-fuzz/findings"
rm -rf "$work" "$findings"
mkdir -p "$work/corpus" "$findings"
cp fuzz/corpus/* "$work/corpus/"

# Leaks are checked after every input; a report of any sanitizer ends the run.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:allocator_may_return_null=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"

# The engine's own log lines go to the log file only.
log="$work/fuzz.log"
status=0
build-fuzz/fuzz/fuzz_engine "$work/corpus" \
  -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -max_len=4096 \
  -print_final_stats=1 -artifact_prefix="$findings/" 2> "$log" || status=$?
quiet() { grep -v -E '^(Info|Error|Warn|GTime|TAG_MEM) ' "$log" || true; }

if [ "$status" -ne 0 ] || compgen -G "$findings/*" > /dev/null; then
  quiet >&2
  echo "fuzz_engine failed (exit $status); findings in $findings:" >&2
  ls -l "$findings" >&2 || true
  exit 1
fi
quiet | grep -E '^(INFO: seed corpus|#[0-9]+[[:space:]]+DONE|stat::|Done )' || true
echo "fuzz_engine: no crash, leak or timeout in ${seconds} s"
