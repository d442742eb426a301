"""Spot measurement of numpy arrays through the array camera.

libvantix measures spots only in frames it pulls from a camera SDK loaded in
the process.  libvantix_arraycam.so (tools/arraycam/arraycam.h) is such an
SDK whose camera shows a copy of the frame handed to it last.  It is loaded
the first time an array is measured, never at import: a process that pulls
from a real camera SDK (or the simulated one) is not disturbed as long as it
does not measure arrays.

The library binds the first camera SDK loaded in the process, once and for
good.  Before the array camera is used, it is asked whether it is that first
SDK; when another one is, measuring raises RuntimeError (its camera would be
handed the array camera's handle).
"""

import ctypes
import os
import threading

import numpy as np

from ._arrays import rows_view
from ._native import library_path

_LIBRARY_NAME = "libvantix_arraycam.so"
_lock = threading.Lock()
_arraycam = None
_first_checked = False


def _candidates():
    """Where the array camera is looked for, in order: $VANTIX_ARRAYCAM,
    beside libvantix (an installed prefix), in the build tree's
    tools/arraycam/ beside libvantix, then the dynamic loader."""
    found = []
    env = os.environ.get("VANTIX_ARRAYCAM")
    if env:
        found.append(env)
    here = os.path.dirname(os.path.abspath(library_path)) if os.sep in library_path else None
    if here:
        found.append(os.path.join(here, _LIBRARY_NAME))
        found.append(os.path.join(here, "tools", "arraycam", _LIBRARY_NAME))
    found.append(_LIBRARY_NAME)
    return found


def _load():
    tried = []
    for path in _candidates():
        if os.sep in path and not os.path.exists(path):
            tried.append(f"{path}: no such file")
            continue
        try:
            lib = ctypes.CDLL(path)
        except OSError as error:
            tried.append(f"{path}: {error}")
            continue
        vp, u32, i32 = ctypes.c_void_p, ctypes.c_uint32, ctypes.c_int32
        for name, restype, argtypes in (
                ("arraycam_open", vp, []),
                ("arraycam_close", None, [vp]),
                ("arraycam_set_frame", i32, [vp, vp, u32, u32, u32, u32, u32, u32]),
                ("arraycam_first_sdk", i32, [ctypes.c_char_p, ctypes.c_size_t])):
            function = getattr(lib, name)
            function.restype, function.argtypes = restype, argtypes
        return lib
    raise RuntimeError("cannot load the array camera; tried:\n  " + "\n  ".join(tried) +
                       "\nSet VANTIX_ARRAYCAM to the path of libvantix_arraycam.so.")


def arraycam():
    """The loaded array camera library, after checking that libvantix binds
    it (RuntimeError otherwise)."""
    global _arraycam, _first_checked
    with _lock:
        if _arraycam is None:
            _arraycam = _load()
        if not _first_checked:
            other = ctypes.create_string_buffer(4096)
            first = _arraycam.arraycam_first_sdk(other, len(other))
            if first != 1:
                name = other.value.decode(errors="replace") or "another camera SDK"
                raise RuntimeError(
                    f"cannot measure arrays in this process: the camera SDK {name} was "
                    "loaded before the array camera, and libvantix pulls only from the "
                    "first camera SDK loaded in a process (for good, once bound).  Measure "
                    "arrays in a process without another camera SDK (a subprocess, for "
                    "example), or import vantix and measure an array before loading it.")
            # Once first, always first: objects loaded later come after it.
            _first_checked = True
        return _arraycam


# --------------------------------------------------------------------------
# Frames
# --------------------------------------------------------------------------

#: (dtype, channels) of an array -> bits of the pull that delivers it as is.
_PULL_BITS = {(np.uint8, 1): 8, (np.uint16, 1): 16, (np.uint8, 3): 24, (np.uint16, 3): 48,
              (np.uint8, 4): 24, (np.uint16, 4): 48}


def frame_of(image):
    """(array, channels, pull bits) of an image to measure: 2-d grey, or
    (h, w, 1) grey, (h, w, 3) B G R, (h, w, 4) B G R A; uint8 or uint16."""
    image = np.asarray(image)
    if image.ndim == 3 and image.shape[2] == 1:
        image = image[:, :, 0]
    if image.ndim == 2:
        channels = 1
    elif image.ndim == 3 and image.shape[2] in (3, 4):
        channels = image.shape[2]
    else:
        raise ValueError("a spot frame is (height, width) grey or (height, width, 3 or 4) "
                         f"B G R[A]; got shape {image.shape}")
    if image.dtype not in (np.uint8, np.uint16):
        raise ValueError(f"spot frames are uint8 or uint16, got {image.dtype} (scale and "
                         "convert them first: the measurement weighs raw values)")
    if image.shape[0] < 1 or image.shape[1] < 1 or max(image.shape[:2]) > 65535:
        raise ValueError(f"a spot frame is 1 to 65535 pixels a side, got {image.shape[:2]}")
    if not image.dtype.isnative:
        image = image.astype(image.dtype.newbyteorder("="))
    return image, channels, _PULL_BITS[(image.dtype.type, channels)]


def corner_dark_level(image):
    """Mean of the four corner patches (each 5 % of the height by 5 % of the
    width, at least one pixel): a float for grey, one per channel (B, G, R)
    for colour (alpha left out)."""
    h, w = image.shape[:2]
    ph, pw = max(1, round(0.05 * h)), max(1, round(0.05 * w))
    corners = [image[:ph, :pw], image[:ph, w - pw:], image[h - ph:, :pw], image[h - ph:, w - pw:]]
    if image.ndim == 2:
        return float(np.mean([c.mean(dtype=np.float64) for c in corners]))
    return tuple(float(np.mean([c[:, :, k].mean(dtype=np.float64) for c in corners]))
                 for k in range(3))


def subtract_dark(image, dark_level):
    """(image minus its dark level rounded to whole counts, clamped at 0;
    the level subtracted).

    dark_level: "corners" (corner_dark_level) or a number >= 0."""
    if isinstance(dark_level, str):
        if dark_level != "corners":
            raise ValueError(f"dark_level is 'corners' or a number, not {dark_level!r}")
        level = corner_dark_level(image)
    else:
        level = float(dark_level)
        if not level >= 0:
            raise ValueError(f"dark_level must be >= 0, got {dark_level!r}")
        if image.ndim == 3:
            level = (level,) * 3
    # Whole counts, as the vantix tool subtracts them.
    level = float(np.rint(level)) if image.ndim == 2 else tuple(float(v) for v in np.rint(level))
    out = image.copy()
    if image.ndim == 2:
        out[...] = np.clip(image.astype(np.int64) - int(level), 0, None)
    else:
        out[:, :, :3] = np.clip(image[:, :, :3].astype(np.int64) - np.asarray(level, np.int64),
                                0, None)
    return out, level


class ArrayCamera:
    """One camera of the array camera library, for one spot session."""

    def __init__(self):
        self._lib = arraycam()
        self._handle = self._lib.arraycam_open()
        if not self._handle:
            raise MemoryError("arraycam_open failed")

    @property
    def handle(self):
        return self._handle

    def show(self, image, channels, raw_bits):
        """Copies the frame into the camera (the next pulls deliver it)."""
        rows, pitch = rows_view(image)
        bits = rows.itemsize * 8
        if raw_bits is None:
            raw_bits = bits
        if not 8 <= int(raw_bits) <= bits:
            raise ValueError(f"raw_bits of a {bits}-bit frame is 8..{bits}, got {raw_bits!r}")
        code = self._lib.arraycam_set_frame(self._handle, rows.ctypes.data, rows.shape[1],
                                            rows.shape[0], bits, channels, pitch, int(raw_bits))
        if code < 0:
            raise RuntimeError(f"arraycam_set_frame failed: 0x{code & 0xFFFFFFFF:08X}")

    def close(self):
        if self._handle:
            self._lib.arraycam_close(self._handle)
            self._handle = None
