"""The version of libvantix, one source of truth: the project version in
CMakeLists.txt, which names the built library file (libvantix.so.X.Y.Z)."""

from __future__ import annotations

import os
import re
from typing import Optional

_SUFFIX = re.compile(r"libvantix\.so\.(\d+\.\d+\.\d+)$")


def _loaded_library_file() -> Optional[str]:
    """The file the dynamic loader mapped for libvantix (symlinks resolved)."""
    try:
        with open("/proc/self/maps", encoding="utf-8", errors="replace") as maps:
            for line in maps:
                path = line.rstrip("\n").split(None, 5)[-1]
                if _SUFFIX.search(path):
                    return path
    except OSError:
        pass
    return None


def _from_cmake() -> Optional[str]:
    """The project version of a source tree holding this package."""
    here = os.path.dirname(os.path.abspath(__file__))
    try:
        with open(os.path.join(here, "..", "..", "CMakeLists.txt"), encoding="utf-8") as f:
            found = re.search(r"project\(\s*vantix\s+VERSION\s+([0-9.]+)", f.read())
        return found[1] if found else None
    except OSError:
        return None


def library_version(library_path: str) -> str:
    """The version of the loaded library: from its file name, else from
    the install record, the source tree or the package's metadata."""
    for path in (os.path.realpath(library_path), _loaded_library_file() or ""):
        found = _SUFFIX.search(path)
        if found:
            return found[1]
    try:
        from . import _installed
        return str(_installed.VERSION)  # type: ignore[attr-defined]
    except (ImportError, AttributeError):
        pass
    version = _from_cmake()
    if version:
        return version
    try:
        from importlib import metadata
        return metadata.version("vantix")
    except Exception:  # noqa: BLE001 - no metadata: an unknown version
        return "0+unknown"
