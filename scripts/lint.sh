#!/usr/bin/env bash
# Formatting and static checks, as CI runs them:
#   scripts/lint.sh [format|tidy]   (default both)
# format: clang-format --dry-run -Werror over every tracked .h and .cpp file.
# tidy:   clang-tidy (.clang-tidy: bugprone, performance) over the module's and the host's
#         sources, with the compile commands of build/ (configured if missing), two at a time.
set -euo pipefail
cd "$(dirname "$0")/.."
what="${1:-all}"

if [ "$what" = all ] || [ "$what" = format ]; then
  git ls-files -z '*.h' '*.cpp' | xargs -0 clang-format --dry-run -Werror
  echo "lint: formatting is clean"
fi

if [ "$what" = all ] || [ "$what" = tidy ]; then
  [ -f build/compile_commands.json ] || cmake --preset default > /dev/null
  mapfile -t sources < <(git ls-files 'modules/*.cpp' 'host/*.cpp' | sed "s#^#$PWD/#")
  run-clang-tidy -j2 -quiet -p build "${sources[@]}" > build/clang-tidy.log 2>&1 || {
    sed -E 's/\x1b\[[0-9;]*m//g' build/clang-tidy.log | grep -E ': (error|warning):' | sort -u >&2 || true
    echo "lint: clang-tidy found the problems above (full log: build/clang-tidy.log)" >&2
    exit 1
  }
  echo "lint: clang-tidy is clean (${#sources[@]} files)"
fi
