#!/usr/bin/env bash
# Runs the whole test suite: unit tests on the virtual board, the install check, and
# (with --sanitize) the same suite built with AddressSanitizer and UndefinedBehaviorSanitizer,
# plus short runs of the fuzz targets.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
mode=${1:-plain}
filter=${2:-}  # optional ctest name regex
case "$mode" in
  plain)    dir=build;          extra=() ;;
  --sanitize) dir=build-asan;   extra=(-DQUARN_SANITIZE=ON -DQUARN_FUZZ=ON -DCMAKE_BUILD_TYPE=Debug) ;;
  --tsan)   dir=build-tsan;     extra=(-DQUARN_TSAN=ON -DCMAKE_BUILD_TYPE=Debug) ;;
  *) echo "usage: scripts/test.sh [--sanitize|--tsan]" >&2; exit 2 ;;
esac
scripts/build.sh "$dir" "${extra[@]}"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" --timeout 600 ${filter:+-R "$filter"}
