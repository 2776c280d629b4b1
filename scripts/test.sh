#!/usr/bin/env bash
# Builds and runs the whole test suite in three variants: optimised with
# debug info, AddressSanitizer + UndefinedBehaviorSanitizer, and
# ThreadSanitizer. Warnings are errors here. Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

VARIANTS=${WEBCLIENT_TEST_VARIANTS:-"RelWithDebInfo Asan Tsan"}
JOBS=${JOBS:-$(nproc)}
export ASAN_OPTIONS=${ASAN_OPTIONS:-"detect_leaks=1:abort_on_error=0"}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-"print_stacktrace=1:halt_on_error=1"}
export TSAN_OPTIONS=${TSAN_OPTIONS:-"halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp"}

for variant in $VARIANTS; do
  dir="build-test/${variant,,}"
  echo "=== ${variant}: configure and build (${dir})"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$variant" -DWEBCLIENT_WERROR=ON >/dev/null
  cmake --build "$dir" -j "$JOBS"
  echo "=== ${variant}: test"
  (cd "$dir" && ctest --output-on-failure --timeout 900)
done
echo "=== all variants passed: ${VARIANTS}"
