#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
#   scripts/test.sh                        plain build (g++)
#   scripts/test.sh address,undefined      AddressSanitizer + UndefinedBehaviorSanitizer (clang)
#   scripts/test.sh thread                 ThreadSanitizer (clang)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
san="${1:-}"
if [ -z "$san" ]; then
  build=build
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSABLE_SANITIZE= >/dev/null
else
  build="build-${san//,/-}"
  CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DSABLE_SANITIZE="$san" \
    -DSABLE_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" -j"$(nproc)"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
