#!/bin/sh
# Runs the Python binding tests against a CMake build tree:
#   python/run_tests.sh BUILD_DIR [pytest arguments]
# The tree needs the targets vantix, vantix_simcam and vantix_arraycam.
set -eu
if [ $# -lt 1 ]; then
  echo "usage: $0 BUILD_DIR [pytest arguments]" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
shift
here=$(cd "$(dirname "$0")" && pwd)
VANTIX_LIBRARY="$build/libvantix.so.1"
VANTIX_SIMCAM="$build/testing/simcam/libvantix_simcam.so"
VANTIX_ARRAYCAM="$build/tools/arraycam/libvantix_arraycam.so"
for f in "$VANTIX_LIBRARY" "$VANTIX_SIMCAM" "$VANTIX_ARRAYCAM"; do
  if [ ! -f "$f" ]; then
    echo "$0: $f is missing (build the targets vantix, vantix_simcam and vantix_arraycam in $build)" >&2
    exit 2
  fi
done
export VANTIX_LIBRARY VANTIX_SIMCAM VANTIX_ARRAYCAM
cd "$here/.."
exec /usr/bin/python3 -m pytest -q -p no:cacheprovider "$@" python/tests
