#!/usr/bin/env bash
# Sets up, builds and runs the whole test suite of one build.
#   scripts/test.sh [default|asan|tsan|clang]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
scripts/setup.sh "$preset"
case "$preset" in
  default) dir=build ;;
  *) dir="build-$preset" ;;
esac
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"
# Statistical suites (label "heavy") test numbers, not memory or threads: the sanitizer
# builds skip them to keep CI short.
skip=()
case "$preset" in asan|tsan) skip=(-LE heavy) ;; esac
ctest --test-dir "$dir" --output-on-failure -j2 "${skip[@]}"
