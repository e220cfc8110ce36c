#!/usr/bin/env bash
# Builds everything and runs the whole test suite.
#   scripts/test.sh              release build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
#   scripts/test.sh --tsan       ThreadSanitizer build in build-tsan/
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

build=build
flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
case "${1:-}" in
  --sanitize)
    build=build-asan
    flags=(-DCMAKE_BUILD_TYPE=Debug -DCPIC_SANITIZE=ON -DCPIC_BUILD_BENCH=OFF)
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    ;;
  --tsan)
    # Optimised, as the threads then interleave as they do in production; a
    # report makes the test's process exit with status 66.
    build=build-tsan
    flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCPIC_TSAN=ON -DCPIC_BUILD_BENCH=OFF)
    export TSAN_OPTIONS=second_deadlock_stack=1:die_after_fork=0
    ;;
  "") ;;
  *)
    echo "usage: scripts/test.sh [--sanitize | --tsan]" >&2
    exit 2
    ;;
esac
jobs=$(nproc)
cmake -S . -B "$build" "${flags[@]}" >/dev/null
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 300
