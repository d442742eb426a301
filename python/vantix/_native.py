"""Loading libvantix and declaring its C interface for ctypes.

Every exported function gets ``argtypes`` and ``restype`` here, so ctypes
converts and checks arguments instead of guessing (a guessed ``int`` return
would truncate the 64-bit pointers of the new functions).

The library is loaded with ``ctypes.CDLL``: every foreign call releases the
interpreter lock while it runs.  That matters for the session families with a
worker thread: ``stop`` waits for the worker, and the worker may be waiting
for the interpreter lock to run a Python callback.  Holding the lock during
``stop`` (as ``ctypes.PyDLL`` would) would deadlock.
"""

import ctypes
import ctypes.util
import os

from ._errors import VantixError

# --------------------------------------------------------------------------
# Records that cross the boundary (layouts as in vantix.h)
# --------------------------------------------------------------------------


class ImageHeader(ctypes.Structure):
    """The 40-byte image header (a BITMAPINFOHEADER) of resize and stitch."""

    _fields_ = [
        ("biSize", ctypes.c_uint32),
        ("biWidth", ctypes.c_int32),
        ("biHeight", ctypes.c_int32),
        ("biPlanes", ctypes.c_uint16),
        ("biBitCount", ctypes.c_uint16),
        ("biCompression", ctypes.c_uint32),
        ("biSizeImage", ctypes.c_uint32),
        ("biXPelsPerMeter", ctypes.c_int32),
        ("biYPelsPerMeter", ctypes.c_int32),
        ("biClrUsed", ctypes.c_uint32),
        ("biClrImportant", ctypes.c_uint32),
    ]


class FrameInfoV2(ctypes.Structure):
    _fields_ = [("width", ctypes.c_uint32), ("height", ctypes.c_uint32),
                ("sdkDefined", ctypes.c_uint8 * 16)]


class FrameInfoV3(ctypes.Structure):
    _fields_ = [("width", ctypes.c_uint32), ("height", ctypes.c_uint32),
                ("sdkDefined", ctypes.c_uint8 * 32)]


class FrameInfoV4(ctypes.Structure):
    _fields_ = [("width", ctypes.c_uint32), ("height", ctypes.c_uint32),
                ("sdkDefined", ctypes.c_uint8 * 96)]


SPOT_FIELDS = ("total", "centerX", "centerY", "majorDiameter", "minorDiameter",
               "ellipticity", "angle", "apertureX", "apertureY", "apertureA",
               "apertureB")


class SpotResultRecord(ctypes.Structure):
    _fields_ = [(name, ctypes.c_double) for name in SPOT_FIELDS]


class SpotAperture(ctypes.Structure):
    _fields_ = [("centerX", ctypes.c_double), ("centerY", ctypes.c_double),
                ("a", ctypes.c_double), ("b", ctypes.c_double)]


for _record, _size in ((ImageHeader, 40), (FrameInfoV2, 24), (FrameInfoV3, 40),
                       (FrameInfoV4, 104), (SpotResultRecord, 88), (SpotAperture, 32)):
    assert ctypes.sizeof(_record) == _size, _record.__name__

# --------------------------------------------------------------------------
# Callback types
# --------------------------------------------------------------------------

Allocator = ctypes.CFUNCTYPE(ctypes.c_void_p, ctypes.c_uint64)
StitchFrameFn = ctypes.CFUNCTYPE(
    None, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_uint32,
    ctypes.c_uint32, ctypes.c_uint32, ctypes.c_uint32, ctypes.c_uint32,
    ctypes.c_int32, ctypes.c_int32, ctypes.c_uint32, ctypes.c_uint32,
    ctypes.c_uint32, ctypes.c_float)
StitchEventFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_uint32)
EdfFrameFn = ctypes.CFUNCTYPE(
    None, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_void_p, ctypes.c_uint32,
    ctypes.c_uint32, ctypes.c_uint32, ctypes.c_uint32)
EdfErrorFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_uint32)

# --------------------------------------------------------------------------
# Signatures of the 37 exports
# --------------------------------------------------------------------------

_u32, _i32, _u64 = ctypes.c_uint32, ctypes.c_int32, ctypes.c_uint64
_vp = ctypes.c_void_p
_res = ctypes.c_uint32  # VantixResult
_pu32 = ctypes.POINTER(ctypes.c_uint32)
_pi32 = ctypes.POINTER(ctypes.c_int32)
_hdr = ctypes.POINTER(ImageHeader)
_pull_args = [_vp, _vp, _i32, _vp, _i32, _u32]

SIGNATURES = {
    "vantix_init": (None, [Allocator]),
    # live stitching
    "vantix_stitch_new": (_vp, [_u64, _u32, _u32, _u32, StitchFrameFn, StitchEventFn, _vp]),
    "vantix_stitch_newV2": (_vp, [_u32, _u64, _u32, _u32, _u32, StitchFrameFn,
                                  StitchEventFn, _vp]),
    "vantix_stitch_newV3": (_vp, [_u32, _u64, _u32, _u32, _u32, _u32, _u32,
                                  StitchFrameFn, StitchEventFn, _vp]),
    "vantix_stitch_delete": (None, [_vp]),
    "vantix_stitch_start": (None, [_vp]),
    "vantix_stitch_stop": (_hdr, [_vp, _u32, _u32]),
    "vantix_stitch_readdata": (_i32, [_vp, _vp, _u32, _u32, _u32, _u32, _u32, _u32]),
    "vantix_stitch_cropparams": (None, [_vp, _pu32, _pu32, _pu32, _pu32]),
    "vantix_stitch_pushback": (_res, [_vp, _vp, _u32, _u32, _u64, _u32]),
    "vantix_stitch_pull": (_res, _pull_args + [ctypes.POINTER(FrameInfoV2)]),
    "vantix_stitch_pullV3": (_res, _pull_args + [ctypes.POINTER(FrameInfoV3)]),
    "vantix_stitch_pullV4": (_res, _pull_args + [ctypes.POINTER(FrameInfoV4)]),
    "vantix_stitch_pullnam": (_res, [_vp, _vp, _i32, _vp, _u32, _pu32, _pu32]),
    # extended depth of field
    "vantix_edf_new": (_vp, [_u32, EdfFrameFn, EdfErrorFn, _vp]),
    "vantix_edf_newV2": (_vp, [_u32, _u32, EdfFrameFn, EdfErrorFn, _vp]),
    "vantix_edf_delete": (None, [_vp]),
    "vantix_edf_start": (None, [_vp]),
    "vantix_edf_stop": (None, [_vp]),
    "vantix_edf_readdata": (None, [_vp, _vp, _u32]),
    "vantix_edf_pushback": (_res, [_vp, _vp, _u32, _u32, _u64, _u32]),
    "vantix_edf_pull": (_res, _pull_args + [ctypes.POINTER(FrameInfoV2)]),
    "vantix_edf_pullV3": (_res, _pull_args + [ctypes.POINTER(FrameInfoV3)]),
    "vantix_edf_pullV4": (_res, _pull_args + [ctypes.POINTER(FrameInfoV4)]),
    "vantix_edf_pullnam": (_res, [_vp, _vp, _i32, _vp, _u32, _pu32, _pu32]),
    # spot measurement
    "vantix_spot_new": (_vp, [_u32, _u32]),
    "vantix_spot_delete": (None, [_vp]),
    "vantix_spot_reset": (None, [_vp]),
    "vantix_spot_setAperture": (None, [_vp, SpotAperture]),
    "vantix_spot_setRoi": (None, [_vp, _u32, _u32, _u32, _u32]),
    "vantix_spot_pull": (_res, [_vp, _vp, _u32, _vp, _u32, _u32,
                                ctypes.POINTER(FrameInfoV2),
                                ctypes.POINTER(SpotResultRecord)]),
    # edge snapping
    "vantix_edge_new": (_vp, [_u32, _u32, _u32, _u32]),
    "vantix_edge_get": (_i32, [_vp, _vp, _pi32, _pi32, _u32]),
    "vantix_edge_delete": (None, [_vp]),
    # image operations
    "vantix_resizeV1": (_res, [_hdr, _hdr, _u32]),
    "vantix_resizeV2": (_res, [_hdr, _u32, _vp, _hdr, _u32, _vp, _u32]),
    "vantix_demosaic": (_res, [_vp, _vp, _u32, _u32, _i32, _u32, _u32, _u32]),
}


def _candidates():
    """Where the library is looked for, in order, as (description, path)."""
    found = []
    env = os.environ.get("VANTIX_LIBRARY")
    if env:
        found.append(("VANTIX_LIBRARY", env))
    # An installed package knows where its library was installed.
    try:
        from . import _installed
        found.append(("the installed package", _installed.LIBRARY))
    except ImportError:
        pass
    name = ctypes.util.find_library("vantix")
    if name:
        found.append(("ctypes.util.find_library('vantix')", name))
    found.append(("the dynamic loader", "libvantix.so.1"))
    return found


def _load():
    tried = []
    for origin, path in _candidates():
        try:
            return ctypes.CDLL(path), path
        except OSError as error:
            tried.append(f"{path} (from {origin}): {error}")
    raise ImportError(
        "cannot load libvantix; tried:\n  " + "\n  ".join(tried) +
        "\nSet VANTIX_LIBRARY to the path of libvantix.so.1, or install the "
        "library where the dynamic loader finds it.")


lib, library_path = _load()
for _name, (_restype, _argtypes) in SIGNATURES.items():
    _function = getattr(lib, _name)
    _function.restype = _restype
    _function.argtypes = _argtypes

# The host allocator is the C library's malloc itself, so the panorama of a
# stitch stop is allocated without calling back into Python (the stop runs
# with the interpreter lock released) and is freed with the C library's free.
_libc = ctypes.CDLL(None)
_libc.malloc.restype = ctypes.c_void_p
_libc.malloc.argtypes = [ctypes.c_size_t]
_libc.free.restype = None
_libc.free.argtypes = [ctypes.c_void_p]
_malloc = Allocator(ctypes.cast(_libc.malloc, ctypes.c_void_p).value)


def free(pointer):
    """Frees memory the library allocated with the host allocator."""
    _libc.free(pointer)


lib.vantix_init(_malloc)

# --------------------------------------------------------------------------
# Result codes
# --------------------------------------------------------------------------


def failed(code):
    """True when a result code reports a failure (negative as int32)."""
    return (code & 0xFFFFFFFF) >= 0x80000000


def check(code, function):
    """Raises the VantixError for a failed result code; returns the code."""
    code &= 0xFFFFFFFF
    if failed(code):
        raise VantixError.from_code(code, function)
    return code
