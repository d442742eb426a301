"""Camera pulls shared by the stitch and EDF sessions."""

import ctypes
from collections import namedtuple

from . import _native
from ._arrays import PULL_LAYOUTS, frame_buffer, from_rows, pointer
from ._native import lib

Pulled = namedtuple("Pulled", "image result info")
Pulled.__doc__ = """One frame pulled from the camera.

image: the frame as delivered, (height, width[, channels]) array;
result: the camera SDK's result code (0, or a positive success code);
info: the frame-information record as bytes (None for the named pull)."""

_INFO = {2: ("", _native.FrameInfoV2), 3: ("V3", _native.FrameInfoV3),
         4: ("V4", _native.FrameInfoV4)}

#: The pull bit count matching each session pixel format.
FORMAT_BITS = {0: 24, 1: 48, 2: 32, 3: 64}


def camera_handle(camera):
    """The SDK camera handle of `camera`: an int address, a ctypes pointer,
    or any object with an ``_as_parameter_`` attribute (ctypes' protocol)."""
    value = getattr(camera, "_as_parameter_", camera)
    if isinstance(value, ctypes.c_void_p):
        value = value.value
    if not isinstance(value, int) or value == 0:
        raise ValueError(f"not a camera handle: {camera!r}")
    return value


def frame_size(camera, size):
    if size is None:
        size = getattr(camera, "size", None)
    if size is None:
        raise ValueError("give the camera's frame size as size=(width, height)")
    width, height = (int(v) for v in size)
    if width < 1 or height < 1:
        raise ValueError(f"bad frame size {size!r}")
    return width, height


def pull(family, handle, camera, size, bits, push, version, fmt, row_pitch=0):
    """Pulls one frame through vantix_<family>_pull[V3|V4|nam] into a
    session of pixel format `fmt`."""
    if bits not in PULL_LAYOUTS:
        raise ValueError(f"bits must be one of {sorted(PULL_LAYOUTS)}, got {bits!r}")
    if push and bits != FORMAT_BITS[fmt]:
        # The session reads the pushed buffer in its own format: another
        # layout would be read wrongly, or beyond the buffer's end.
        raise ValueError(f"a session of format {fmt} takes pulls of {FORMAT_BITS[fmt]} bits")
    if push and version == "named" and fmt in (1, 3):
        raise ValueError("the named pull pushes at an 8-bit row stride; use version 2, 3 "
                         "or 4 with 16-bit formats")
    width, height = frame_size(camera, size)
    cam = camera_handle(camera)
    buffer, pitch = frame_buffer(width, height, bits, row_pitch)
    if version == "named":
        w, h = ctypes.c_uint32(0), ctypes.c_uint32(0)
        name = f"vantix_{family}_pullnam"
        code = getattr(lib, name)(handle, cam, int(push), pointer(buffer), bits,
                                  ctypes.byref(w), ctypes.byref(h))
        info = None
    else:
        try:
            suffix, record_type = _INFO[version]
        except KeyError:
            raise ValueError("version is 2, 3, 4 or 'named'") from None
        record = record_type()
        name = f"vantix_{family}_pull{suffix}"
        code = getattr(lib, name)(handle, cam, int(push), pointer(buffer), bits, row_pitch,
                                  ctypes.byref(record))
        w, h = record.width, record.height
        info = bytes(record)
    _native.check(code, name)
    w, h = int(getattr(w, "value", w)), int(getattr(h, "value", h))
    if (w, h) != (width, height):
        raise ValueError(f"the camera delivered {w}x{h} pixels, expected {width}x{height}")
    dtype, channels = PULL_LAYOUTS[bits]
    return Pulled(from_rows(buffer, height, width, pitch, dtype, channels), code, info)
