#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer) in build-fuzz (or $FUZZ_BUILD_DIR) and runs each
# for SECONDS (default 60) on a copy of its corpus, two targets at a time.
# Prints every target's executions and rate, and the log's end of a target
# that failed (its input in <build>/fuzz-artifacts); exits non-zero then.
#   fuzz/run.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
export SECONDS_EACH=${1:-60} BUILD=${FUZZ_BUILD_DIR:-build-fuzz} WORK=$(mktemp -d)
shift || true
[ $# -gt 0 ] || set -- fuzz_resize fuzz_demosaic fuzz_edge fuzz_spot fuzz_pixel_format
trap 'rm -rf "$WORK"' EXIT

command -v clang++ >/dev/null || { echo "clang++ not found: apt-get install clang libclang-rt-14-dev"; exit 2; }
CC=clang CXX=clang++ cmake -S . -B "$BUILD" -G Ninja -Wno-dev -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_DISABLE_FIND_PACKAGE_OpenCV=ON -DVANTIX_BUILD_FUZZ=ON -DVANTIX_BUILD_TESTS=OFF \
  -DVANTIX_BUILD_BENCH=OFF -DVANTIX_BUILD_TOOLS=OFF \
  $(command -v ccache >/dev/null && echo -DCMAKE_{C,CXX}_COMPILER_LAUNCHER=ccache) >/dev/null
cmake --build "$BUILD" -j "${JOBS:-2}" --target "$@"
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1:allocator_may_return_null=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
mkdir -p "$BUILD/fuzz-artifacts"

# One target; the corpus grows in a temporary copy, the committed one stays.
fuzz() {
  cp -r "fuzz/corpus/$1" "$WORK/$1"
  if "$BUILD/fuzz/$1" -max_total_time="$SECONDS_EACH" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$BUILD/fuzz-artifacts/$1-" "$WORK/$1" >"$WORK/$1.log" 2>&1; then
    echo "$1 ok:" $(grep -o 'number_of_executed_units: *[0-9]*\|average_exec_per_sec: *[0-9]*' "$WORK/$1.log")
  else
    echo "$1 FAILED; the end of its log:"
    grep -v '^#[0-9]' "$WORK/$1.log" | tail -40
    return 1
  fi
}
export -f fuzz
printf '%s\n' "$@" | xargs -P 2 -I{} bash -c 'fuzz {}'
