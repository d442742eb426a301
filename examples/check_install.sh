#!/usr/bin/env bash
# Checks that an installed libvantix can be used from C and C++.
#
#   examples/check_install.sh [SOURCE_DIR [SCRATCH_DIR [BUILD_DIR]]]
#
# Configures a Release build of the library (tests and benchmarks off) in
# BUILD_DIR (default SCRATCH_DIR/build; an existing configured tree is reused,
# only the installed targets are built), installs it into SCRATCH_DIR/prefix,
# checks the installed files, then builds the examples twice against the
# prefix (CMake find_package, and make with pkg-config), runs them without
# LD_LIBRARY_PATH and checks their output.  SOURCE_DIR defaults to the
# repository holding this script; SCRATCH_DIR to a temporary directory that
# is removed at exit.  Prints a PASS/FAIL summary; exits 1 on any failure.
set -euo pipefail

started=$SECONDS
src=$(cd "${1:-$(dirname "${BASH_SOURCE[0]}")/..}" && pwd)
if [[ -n "${2:-}" ]]; then
  mkdir -p "$2"
  scratch=$(cd "$2" && pwd)
  keep_scratch=1
else
  scratch=$(mktemp -d "${TMPDIR:-/tmp}/vantix-install.XXXXXX")
  keep_scratch=0
fi
build=${3:-$scratch/build}
prefix=$scratch/prefix
# The installed files must be found through their run paths alone.
unset LD_LIBRARY_PATH

results=()
failures=0
pass() { echo "PASS: $1"; results+=("PASS  $1"); }
fail() { echo "FAIL: $1" >&2; results+=("FAIL  $1"); failures=$((failures + 1)); }
check() { # check NAME COMMAND...: runs the command, records the outcome
  local name=$1
  shift
  if "$@"; then pass "$name"; else fail "$name"; fi
}
finish() {
  local status=$?
  echo
  echo "== install check summary ($((SECONDS - started)) s, scratch $scratch)"
  printf '  %s\n' "${results[@]}"
  if [[ $status -ne 0 && $failures -eq 0 ]]; then
    echo "  FAIL  aborted (exit status $status) before all checks ran"
    failures=1
  fi
  if [[ $keep_scratch -eq 0 ]]; then rm -rf "$scratch"; fi
  if [[ $failures -eq 0 ]]; then echo "== PASS"; exit 0; fi
  echo "== FAIL ($failures)"
  exit 1
}
trap finish EXIT

# --- build and install ------------------------------------------------------
if [[ ! -f $build/CMakeCache.txt ]]; then
  args=(-S "$src" -B "$build" -DCMAKE_BUILD_TYPE=Release -DVANTIX_BUILD_TESTS=OFF
        -DVANTIX_BUILD_BENCH=OFF -Wno-dev)
  if command -v ninja >/dev/null; then args+=(-G Ninja); fi
  if command -v ccache >/dev/null; then
    args+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
  fi
  cmake "${args[@]}"
fi
cmake --build "$build" -j "$(nproc)" --target vantix vantix_tool vantix_simcam vantix_arraycam
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix"
pass "configure, build and install into $prefix"

# --- installed files ---------------------------------------------------------
pc=$(find "$prefix" -name vantix.pc -path '*/pkgconfig/*' | head -n 1)
libdir=$(dirname "$(dirname "${pc:-$prefix/lib/pkgconfig/vantix.pc}")")
shopt -s nullglob
versioned=("$libdir"/libvantix.so.1.*.*)
shopt -u nullglob
check "headers include/vantix.h and vantix.hpp" \
  test -f "$prefix/include/vantix.h" -a -f "$prefix/include/vantix.hpp"
check "versioned library ${versioned[0]:-libvantix.so.1.x.y}" test ${#versioned[@]} -eq 1
check "links libvantix.so.1 and libvantix.so" \
  test -L "$libdir/libvantix.so.1" -a -L "$libdir/libvantix.so" -a -e "$libdir/libvantix.so"
check "SONAME libvantix.so.1" \
  bash -c "readelf -d '$libdir/libvantix.so' | grep -q 'SONAME.*\[libvantix.so.1\]'"
exports=$(nm -D --defined-only "$libdir/libvantix.so" | awk '$2 == "T" && $3 ~ /^vantix_/' | wc -l)
others=$(nm -D --defined-only "$libdir/libvantix.so" | awk '$2 == "T" && $3 !~ /^vantix_/' | wc -l)
check "37 vantix_ exports and no other functions (found $exports, $others)" \
  test "$exports" -eq 37 -a "$others" -eq 0
check "CMake package vantixConfig.cmake + vantixConfigVersion.cmake" \
  test -f "$libdir/cmake/vantix/vantixConfig.cmake" -a -f "$libdir/cmake/vantix/vantixConfigVersion.cmake"
check "pkg-config file vantix.pc" test -n "$pc"
check "no OpenCV in the exported target or vantix.pc" \
  bash -c "! grep -qi opencv '$libdir'/cmake/vantix/*.cmake '$pc'"
check "simulated camera lib/vantix/libvantix_simcam.so + include/vantix/simcam.h" \
  test -f "$libdir/vantix/libvantix_simcam.so" -a -f "$prefix/include/vantix/simcam.h"
arraycam_exports=$(nm -D --defined-only "$libdir/libvantix_arraycam.so" 2>/dev/null | awk '$2 == "T"' | wc -l)
check "array camera lib/libvantix_arraycam.so (8 exports, found $arraycam_exports) + include/vantix/arraycam.h" \
  test "$arraycam_exports" -eq 8 -a -f "$prefix/include/vantix/arraycam.h"
leftovers=$(find "$prefix" \( -name '*.a' -o -name '*legacy*' -o -name '*partial*' -o -name 'test_*' \
  -o -name 'bench_*' \) | wc -l)
check "no static library, test, benchmark or simulator variant installed" test "$leftovers" -eq 0
check "installed tool runs: vantix --help" \
  bash -c "'$prefix/bin/vantix' --help | grep -q 'usage: vantix'"

# The installed Python package finds the installed library by itself.
pydir=$(find "$prefix" -path '*/dist-packages/vantix' -type d | head -1)
check "Python package installed (${pydir:-none})" test -n "$pydir"
check "Python package data: names.tsv and py.typed" \
  test -f "$pydir/names.tsv" -a -f "$pydir/py.typed"
if [[ -n $pydir && -x /usr/bin/python3 ]] && /usr/bin/python3 -c 'import numpy' 2>/dev/null; then
  check "installed Python package resizes with the installed library" \
    env -u VANTIX_LIBRARY PYTHONPATH="$(dirname "$pydir")" /usr/bin/python3 -c "
import numpy as np, vantix
assert vantix.library_path.startswith('$prefix'), vantix.library_path
out = vantix.resize(np.full((4, 6, 3), 7, np.uint8), (12, 8), interpolation='nearest')
assert out.shape == (8, 12, 3) and (out == 7).all()"
  check "installed Python package measures an array through the installed array camera" \
    env -u VANTIX_LIBRARY -u VANTIX_ARRAYCAM PYTHONPATH="$(dirname "$pydir")" /usr/bin/python3 -c "
import numpy as np, vantix
image = np.zeros((40, 50), np.uint16)
image[18:23, 20:27] = 1000
(spot,) = vantix.measure_spots(image)
assert (spot.center_x, spot.center_y) == (23.0, 20.0), spot"
  version=$(sed -n 's/^project(vantix VERSION \([0-9.]*\).*/\1/p' "$src/CMakeLists.txt")
  check "python -m vantix self-check reports the library's version $version" \
    bash -c "env -u VANTIX_LIBRARY PYTHONPATH='$(dirname "$pydir")' /usr/bin/python3 -m vantix |
             grep -x 'vantix $version' >/dev/null"
fi

# find_package: major version 1 accepted, 2 refused; the imported target
# brings only the library and the include directory.
probe=$scratch/version-probe
mkdir -p "$probe"
cat >"$probe/CMakeLists.txt" <<'PROBE'
cmake_minimum_required(VERSION 3.16)
project(probe NONE)
find_package(vantix ${WANT} QUIET)
if(TARGET vantix::vantix)
  get_target_property(links vantix::vantix INTERFACE_LINK_LIBRARIES)
  message(STATUS "probe: found ${vantix_VERSION} links '${links}'")
else()
  message(STATUS "probe: not found")
endif()
PROBE
matches() { [[ $1 == $2 ]]; } # matches TEXT GLOB
probe_with() { # probe_with VERSION: prints the probe's verdict
  rm -rf "$probe/build"
  cmake -S "$probe" -B "$probe/build" -DWANT="$1" -DCMAKE_PREFIX_PATH="$prefix" |
    sed -n 's/^-- probe: //p'
}
found1=$(probe_with 1)
found2=$(probe_with 2)
check "find_package(vantix 1) gives vantix::vantix with no link dependencies ($found1)" \
  matches "$found1" "found 1.* links 'links-NOTFOUND'"
check "find_package(vantix 2) refused ($found2)" test "$found2" = "not found"

# --- the examples, built two ways ------------------------------------------
cmake_out=$scratch/examples-cmake
make_out=$scratch/examples-make
if cmake -S "$src/examples" -B "$cmake_out" -DCMAKE_BUILD_TYPE=Release \
     -DCMAKE_PREFIX_PATH="$prefix" && cmake --build "$cmake_out" -j "$(nproc)"; then
  pass "examples built with CMake find_package(vantix 1)"
else
  fail "examples built with CMake find_package(vantix 1)"
fi
if PKG_CONFIG_PATH=$(dirname "$pc") make -C "$src/examples" OUT="$make_out"; then
  pass "examples built with make and pkg-config"
else
  fail "examples built with make and pkg-config"
fi

# pnm_ok FILE MAGIC WIDTH HEIGHT: binary PGM/PPM of that size, 8-bit.
pnm_ok() {
  local file=$1 magic=$2 width=$3 height=$4 m dims max channels=1
  [[ -f $file ]] || { echo "$file: missing" >&2; return 1; }
  { read -r m; read -r dims; read -r max; } <"$file"
  [[ $magic == P6 ]] && channels=3
  local header="$m"$'\n'"$dims"$'\n'"$max"$'\n'
  local want=$((${#header} + width * height * channels))
  if [[ $m != "$magic" || $dims != "$width $height" || $max != 255 ||
        $(stat -c %s "$file") -ne $want ]]; then
    echo "$file: header '$m $dims $max', $(stat -c %s "$file") bytes; want $magic $width $height, $want" >&2
    return 1
  fi
}

run_examples() { # run_examples LABEL DIR
  local label=$1 dir=$2 log
  log=$(cd "$dir" && ./stitch_push "$dir/panorama.ppm") && echo "$log" || { fail "$label stitch_push ran"; }
  local size
  size=$(sed -n 's/^panorama \([0-9]*\) x \([0-9]*\) .*/\1 \2/p' <<<"$log")
  # shellcheck disable=SC2086
  check "$label stitch_push: panorama ${size:-?} saved as PPM" pnm_ok "$dir/panorama.ppm" P6 ${size:-0 0}

  log=$(cd "$dir" && ./edf_stack "$dir/fused.pgm") && echo "$log" || fail "$label edf_stack ran"
  check "$label edf_stack: fused 320x240 PGM" pnm_ok "$dir/fused.pgm" P5 320 240

  log=$(cd "$dir" && ./resize_demosaic "$dir/resized.ppm") && echo "$log" || fail "$label resize_demosaic ran"
  check "$label resize_demosaic: 200x150 PPM" pnm_ok "$dir/resized.ppm" P6 200 150

  log=$(cd "$dir" && ./edf_fuse "$dir/fused_half.ppm") && echo "$log" || fail "$label edf_fuse ran"
  check "$label edf_fuse (C++): fused and halved to a 160x120 PPM" pnm_ok "$dir/fused_half.ppm" P6 160 120

  # No argument: the example's default is the installed simulator.
  log=$(cd "$dir" && ./spot_pull) && echo "$log" || fail "$label spot_pull ran"
  check "$label spot_pull: last centre within 0.5 px of the configured spot" \
    awk '/spot at/ { for (i = 1; i < NF; ++i) if ($i == "at") { x = $(i + 1); y = $(i + 2) } }
         /^frame/ { for (i = 1; i < NF; ++i) if ($i == "centre") { mx = $(i + 1); my = $(i + 2); n++ } }
         END { dx = mx - x; dy = my - y; exit !(n > 0 && x != "" && dx * dx + dy * dy <= 0.25) }' \
    <<<"$log"
}
[[ -x $cmake_out/spot_pull ]] && run_examples "cmake:" "$cmake_out"
[[ -x $make_out/spot_pull ]] && run_examples "make:" "$make_out"
true
