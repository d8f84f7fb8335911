#!/usr/bin/env bash
# Builds the project and runs every test.
#   scripts/test.sh              normal build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

# The tests never need a display.
export QT_QPA_PLATFORM=offscreen
jobs=$(nproc 2>/dev/null || echo 2)

if [ "${1:-}" = "--sanitize" ]; then
  dir=build-asan
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DRVO_SANITIZE=ON -DRVO_BUILD_BENCH=OFF
  # Full unwinding so leak reports (and their suppressions) see the whole stack.
  export ASAN_OPTIONS="detect_leaks=1:halt_on_error=1:fast_unwind_on_malloc=0"
  export LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp:print_suppressions=0"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
else
  dir=build
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
cmake --build "$dir" -j"$jobs"
ctest --test-dir "$dir" --output-on-failure
