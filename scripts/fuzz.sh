#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) with clang in build-fuzz/ and runs each for the given
# number of seconds (default 60) on a copy of its seed corpus (fuzz/corpus/<name>/), so the
# tree is left as it was. Prints each target's executions per second and total runs; exits
# non-zero on any crash, leak, timeout or sanitizer report. The failing inputs are copied to
# build-fuzz/artifacts/ to reproduce with: build-fuzz/fuzz/fuzz_<name> <input>
#   scripts/fuzz.sh [seconds]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
bash scripts/install-deps.sh --fuzz

jobs=$(nproc 2>/dev/null || echo 2)
targets=(command profile base64)
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DRVO_BUILD_FUZZ=ON -DRVO_BUILD_TESTS=OFF -DRVO_BUILD_BENCH=OFF
cmake --build build-fuzz -j"$jobs" --target "${targets[@]/#/fuzz_}"

# The file codec's target writes files and Qt syncs each one to disk: use memory when there is some.
base="${TMPDIR:-/tmp}"
if [ -d /dev/shm ] && [ -w /dev/shm ]; then base=/dev/shm; fi
work=$(mktemp -d "$base/rvo-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT

export QT_QPA_PLATFORM=offscreen
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
failed=0
for t in "${targets[@]}"; do
  cp -r "fuzz/corpus/$t" "$work/corpus-$t"
  mkdir -p "$work/artifacts-$t" "$work/tmp-$t"
  status=0
  TMPDIR="$work/tmp-$t" ASAN_OPTIONS="detect_leaks=1" \
    "build-fuzz/fuzz/fuzz_$t" -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=2048 -timeout=30 \
    -print_final_stats=1 -artifact_prefix="$work/artifacts-$t/" "$work/corpus-$t" >"$work/$t.log" 2>&1 || status=$?
  runs=$(awk '/stat::number_of_executed_units:/ {print $2}' "$work/$t.log")
  rate=$(awk '/stat::average_exec_per_sec:/ {print $2}' "$work/$t.log")
  echo "fuzz_$t: ${rate:-?} executions per second, ${runs:-?} runs in ${seconds} s"
  if [ "$status" -ne 0 ] || grep -qE "ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:" "$work/$t.log"; then
    failed=1
    echo "fuzz_$t FAILED (exit status $status):"
    grep -vE '^#[0-9]+\s+(NEW|REDUCE|pulse|INITED|RELOAD)|NEW_FUNC' "$work/$t.log" | tail -60
    mkdir -p build-fuzz/artifacts
    cp -r "$work/artifacts-$t/." build-fuzz/artifacts/ 2>/dev/null || true
  fi
done
echo "fuzz.sh: ${SECONDS} s in all (build included)"
exit "$failed"
