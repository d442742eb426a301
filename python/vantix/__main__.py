"""``python -m vantix``: where the package found libvantix, and a short
check that it works (a resize and a demosaic)."""

from __future__ import annotations

import sys
from typing import List, Optional

USAGE = """usage: python -m vantix [--help]

Prints the Python package's and the library's version and location, then
checks the library with a small resize and demosaic.  The library is looked
up through VANTIX_LIBRARY, the path recorded by `cmake --install`, then the
dynamic loader.  Exit status 0 when the check passes."""


def main(argv: Optional[List[str]] = None) -> int:
    args = sys.argv[1:] if argv is None else argv
    if args:
        print(USAGE, file=sys.stdout if args[0] in ("-h", "--help") else sys.stderr)
        return 0 if args[0] in ("-h", "--help") else 2
    try:
        import numpy as np

        import vantix
        from vantix import _names
    except ImportError as error:
        print(f"vantix: cannot load the library: {error}", file=sys.stderr)
        return 1
    print(f"vantix {vantix.__version__}")
    print(f"  package: {vantix.__path__[0]}")
    print(f"  library: {vantix.library_path}")
    print(f"  names:   {_names.TABLE_PATH}")
    image = np.arange(24, dtype=np.uint8).reshape(2, 4, 3)
    small = vantix.resize(image, (8, 4), interpolation="nearest")
    colour = vantix.demosaic(np.full((4, 4), 100, np.uint8), pattern="RGGB")
    ok = (small == image.repeat(2, 0).repeat(2, 1)).all() and (colour == 100).all()
    print(f"  check:   resize and demosaic {'ok' if ok else 'FAILED'}")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
