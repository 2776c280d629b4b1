#!/usr/bin/env bash
# Builds the libFuzzer targets with clang under AddressSanitizer +
# UndefinedBehaviorSanitizer and runs each for a bounded time, starting from
# the committed seed corpora (never modified here). Any crash, leak, failed
# property or hang (an input running longer than the timeout) fails the run;
# the offending input is left in build-test/fuzz/. Prints executions per
# target.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh clang libclang-rt-dev

SECONDS_EACH=${FUZZ_SECONDS:-60}
JOBS=${JOBS:-$(nproc)}
TARGETS="child_buffers http_response"
dir="$PWD/build-test/fuzz"
export ASAN_OPTIONS=${FUZZ_ASAN_OPTIONS:-"detect_leaks=1"}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-"print_stacktrace=1:halt_on_error=1"}

echo "=== fuzz: configure and build (${dir})"
CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Asan -DWEBCLIENT_FUZZ=ON \
  -DWEBCLIENT_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j "$JOBS" --target fuzz_targets

failed=0
for target in $TARGETS; do
  work=$(mktemp -d)
  log="$dir/fuzz_${target}.log"
  echo "=== fuzz_${target}: ${SECONDS_EACH} s"
  if ! "$dir/tests/fuzz/fuzz_${target}" -max_total_time="$SECONDS_EACH" -timeout=25 -rss_limit_mb=4096 \
      -artifact_prefix="$dir/${target}-" "$work" "tests/fuzz/corpus/${target}" 2>"$log"; then
    echo "=== fuzz_${target} FAILED; last lines of ${log}:"
    grep -v -e '^LOCK' -e '^UNLOCK' -e '^Lock' -e '^~Lock' "$log" | tail -60
    failed=1
  fi
  grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$log" | sed "s/^/fuzz_${target}: /" || true
  rm -rf "$work"
done
[ "$failed" = 0 ] && echo "=== fuzz: all targets ran clean"
exit "$failed"
