#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer) in build-fuzz and runs each for SECONDS
# (default 60) on a copy of its seed corpus, two targets at a time.  Prints
# every target's executions and rate; exits non-zero if any target failed.
#   fuzz/run.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
SECONDS_EACH=${1:-60}
shift || true
TARGETS=("$@")
if [ ${#TARGETS[@]} -eq 0 ]; then
  TARGETS=(fuzz_resize fuzz_demosaic fuzz_edge fuzz_spot fuzz_pixel_format)
fi
PARALLEL=${FUZZ_PARALLEL:-2}
BUILD=${FUZZ_BUILD_DIR:-build-fuzz}

command -v clang++ >/dev/null || { echo "clang++ not found: apt-get install clang libclang-rt-14-dev"; exit 2; }
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
CC=clang CXX=clang++ cmake -S . -B "$BUILD" -G Ninja -Wno-dev -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_DISABLE_FIND_PACKAGE_OpenCV=ON -DVANTIX_BUILD_FUZZ=ON -DVANTIX_BUILD_TESTS=OFF \
  -DVANTIX_BUILD_BENCH=OFF -DVANTIX_BUILD_TOOLS=OFF "${launcher[@]}" >/dev/null
cmake --build "$BUILD" -j "${JOBS:-2}" --target "${TARGETS[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1:allocator_may_return_null=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
ARTIFACTS=${FUZZ_ARTIFACTS:-$BUILD/fuzz-artifacts}
mkdir -p "$ARTIFACTS"

run_target() {
  local name=$1
  mkdir -p "$WORK/$name"
  # The corpus grows in the temporary copy; the seeds stay as committed.
  cp fuzz/corpus/"$name"/* "$WORK/$name"/ 2>/dev/null || true
  local rc=0
  "$BUILD/fuzz/$name" -max_total_time="$SECONDS_EACH" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$ARTIFACTS/$name-" "$WORK/$name" fuzz/corpus/"$name" \
    >"$WORK/$name.log" 2>&1 || rc=$?
  echo "$rc" >"$WORK/$name.rc"
}

# At most PARALLEL targets at a time; each leaves its exit status in a file.
for name in "${TARGETS[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$PARALLEL" ]; do wait -n || true; done
  run_target "$name" &
done
wait || true
declare -A status
failed=0
for name in "${TARGETS[@]}"; do
  if [ "$(cat "$WORK/$name.rc" 2>/dev/null)" = 0 ]; then status[$name]=ok; else status[$name]=FAILED; failed=1; fi
done

printf '%-20s %8s %12s %10s\n' target result executions exec/s
for name in "${TARGETS[@]}"; do
  log="$WORK/$name.log"
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  printf '%-20s %8s %12s %10s\n' "$name" "${status[$name]}" "${execs:-?}" "${rate:-?}"
  if [ "${status[$name]}" != ok ]; then
    echo "---- $name (last lines of its log; inputs in $ARTIFACTS)"
    grep -v '^#[0-9]' "$log" | tail -40
  fi
done
exit $failed
