#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, address + undefined sanitizers, build-fuzz/) and runs
# the IES fuzzer for a bounded time, seeded with the real files of the shared corpus (read
# where they lie, never copied) and the repository's own test files.
#   scripts/fuzz.sh [SECONDS]   (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
scripts/setup.sh fuzz
corpus=build-fuzz/fuzz-corpus/ies
mkdir -p "$corpus"
seeds=(tests/data/ies)
for shared in ../shared/data/ies ../../shared/data/ies; do
  if [ -d "$shared" ]; then seeds+=("$shared"); break; fi
done
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
# A unit gets a minute: on a shared, loaded machine a slow unit is starved, not hung.
# The first folder collects new inputs; the seed folders are only read. Crash inputs go
# to build-fuzz/ so that the checkout stays clean.
build-fuzz/bin/ies_fuzzer -max_total_time="$seconds" -timeout=60 -rss_limit_mb=2048 \
  -max_len=65536 -dict=fuzz/ies.dict -print_final_stats=1 -artifact_prefix=build-fuzz/ \
  "$corpus" "${seeds[@]}"
