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
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan.supp}"
export LSAN_OPTIONS="${LSAN_OPTIONS:-suppressions=$PWD/scripts/lsan.supp}"
# Statistical suites (label "heavy") test numbers, not memory or threads: the sanitizer
# builds skip them to keep CI short.
skip=()
# Embree's parallel build runs on TBB workers that come uninstrumented from the
# distribution, so the sanitizers cannot see their synchronisation: tests that build
# scenes with it run in the default build only (the demo renders material previews; beside
# those workers LeakSanitizer's own thread stopper has crashed). The concurrent-query test
# (single-threaded engine) stays in.
# The same crash has ended the tool at exit in a test that renders a swatch through it: the
# two tests that do run in the default build only too.
engine='PreviewBatchCommandTest|IntersectorTest|EmbreeModuleTest[.](Selection|Both|Bad)|PreviewRendererTest|IntersectCommandTest|PreviewCommandTest|PreviewPipelineTest|KelvoToolTest[.]DemoWrites'
engine+='|KelvoLimitsTest[.]MaterialsBeyondRange|ImageCommandTest[.]LinearPicturesConvert'
# The browser test drives the default build's tool in chromium; it checks pages, not memory.
# Under ThreadSanitizer the live editor's server suite reports a race inside Debian's
# uninstrumented cpp-httplib (a function-local static regex one worker builds and another
# reads past its guard, where TSan sees no synchronisation); a suppression by library would
# hide races in our handlers too, which run on its workers. It runs under ASan.
case "$preset" in
  asan) skip=(-LE 'heavy|browser' -E "$engine") ;;
  tsan) skip=(-LE 'heavy|browser' -E "$engine|PreviewServerTest") ;;
esac
ctest --test-dir "$dir" --output-on-failure -j2 "${skip[@]}"
