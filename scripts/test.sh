#!/usr/bin/env bash
# Builds everything and runs the whole test suite.
#   scripts/test.sh              release build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

build=build
flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
if [ "${1:-}" = "--sanitize" ]; then
  build=build-asan
  flags=(-DCMAKE_BUILD_TYPE=Debug -DCPIC_SANITIZE=ON -DCPIC_BUILD_BENCH=OFF)
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
fi
jobs=$(nproc)
cmake -S . -B "$build" "${flags[@]}" >/dev/null
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 300
