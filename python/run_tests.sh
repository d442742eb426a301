#!/bin/sh
# Runs the Python binding tests against a CMake build tree:
#   python/run_tests.sh BUILD_DIR [pytest arguments]
# The tree needs the targets vantix and vantix_simcam.
set -eu
if [ $# -lt 1 ]; then
  echo "usage: $0 BUILD_DIR [pytest arguments]" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
shift
here=$(cd "$(dirname "$0")" && pwd)
VANTIX_LIBRARY="$build/libvantix.so.1"
VANTIX_SIMCAM="$build/tools/simcam/libvantix_simcam.so"
for f in "$VANTIX_LIBRARY" "$VANTIX_SIMCAM"; do
  if [ ! -f "$f" ]; then
    echo "$0: $f is missing (build the targets vantix and vantix_simcam in $build)" >&2
    exit 2
  fi
done
export VANTIX_LIBRARY VANTIX_SIMCAM
cd "$here/.."
exec /usr/bin/python3 -m pytest -q -p no:cacheprovider "$@" python/tests
