#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer) in build-fuzz and runs each for SECONDS
# (default 60) on a copy of its corpus, two targets at a time.  Prints every
# target's executions and rate; exits non-zero if any target failed.
#   fuzz/run.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
export SECONDS_EACH=${1:-60}
shift || true
TARGETS=("$@")
[ $# -gt 0 ] || TARGETS=(fuzz_resize fuzz_demosaic fuzz_edge fuzz_spot fuzz_pixel_format)
export BUILD=${FUZZ_BUILD_DIR:-build-fuzz}

command -v clang++ >/dev/null || { echo "clang++ not found: apt-get install clang libclang-rt-14-dev"; exit 2; }
CC=clang CXX=clang++ cmake -S . -B "$BUILD" -G Ninja -Wno-dev -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_DISABLE_FIND_PACKAGE_OpenCV=ON -DVANTIX_BUILD_FUZZ=ON -DVANTIX_BUILD_TESTS=OFF \
  -DVANTIX_BUILD_BENCH=OFF -DVANTIX_BUILD_TOOLS=OFF \
  $(command -v ccache >/dev/null && echo -DCMAKE_{C,CXX}_COMPILER_LAUNCHER=ccache) >/dev/null
cmake --build "$BUILD" -j "${JOBS:-2}" --target "${TARGETS[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1:allocator_may_return_null=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export ARTIFACTS=${FUZZ_ARTIFACTS:-$BUILD/fuzz-artifacts} WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
mkdir -p "$ARTIFACTS"
# The corpus grows in a temporary copy; the committed one stays as it is.
printf '%s\n' "${TARGETS[@]}" | xargs -P "${FUZZ_PARALLEL:-2}" -I{} sh -c \
  'cp -r fuzz/corpus/{} "$WORK/{}"; "$BUILD/fuzz/{}" -max_total_time="$SECONDS_EACH" -timeout=10 \
     -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$ARTIFACTS/{}-" "$WORK/{}" \
     >"$WORK/{}.log" 2>&1; echo $? >"$WORK/{}.rc"'

statOf() { sed -n "s/^stat::$2: *//p" "$1" | tail -1; }
failed=0
printf '%-20s %8s %12s %10s\n' target result executions exec/s
for name in "${TARGETS[@]}"; do
  log=$WORK/$name.log result=ok
  [ "$(cat "$WORK/$name.rc" 2>/dev/null)" = 0 ] || { result=FAILED; failed=1; }
  printf '%-20s %8s %12s %10s\n' "$name" $result "$(statOf "$log" number_of_executed_units)" \
    "$(statOf "$log" average_exec_per_sec)"
  if [ $result != ok ]; then
    echo "---- $name (last lines of its log; inputs in $ARTIFACTS)"
    grep -v '^#[0-9]' "$log" | tail -40
  fi
done
exit $failed
