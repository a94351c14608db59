#!/usr/bin/env bash
# Builds the libFuzzer harnesses (clang, AddressSanitizer + UndefinedBehaviorSanitizer) and runs
# each for SECONDS (default 60) from its checked-in seeds. Fails on any crash, leak or time-out;
# the input that caused it is left as build-fuzz/<fuzzer>-crash-*, -leak-* or -timeout-*.
#   scripts/fuzz.sh [SECONDS]
# What a run discovers goes to build-fuzz/corpus/<fuzzer>/; the seeds in fuzz/corpus stay as
# they are.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
secs="${1:-60}"
build=build-fuzz
CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSABLE_SANITIZE= \
  -DSABLE_BUILD_FUZZ=ON -DSABLE_BUILD_TESTS=OFF -DSABLE_BUILD_BENCH=OFF \
  -DSABLE_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target frame_reader_fuzzer connect_packet_fuzzer
export ASAN_OPTIONS="detect_leaks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
for fuzzer in frame_reader connect_packet; do
  corpus="$build/corpus/$fuzzer"
  mkdir -p "$corpus"
  echo "fuzzing $fuzzer for ${secs} s"
  "$build/fuzz/${fuzzer}_fuzzer" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 \
    -max_len=8192 -print_final_stats=1 -artifact_prefix="$build/${fuzzer}-" \
    "$corpus" "fuzz/corpus/$fuzzer"
done
