"""The stateless image operations: resize and demosaic."""

import numpy as np

from . import _native
from ._arrays import pointer, rows_view, padded_pitch, from_rows
from ._native import ImageHeader, lib

INTERPOLATIONS = {
    "nearest": 0, "linear": 1, "cubic": 2, "area": 3, "lanczos4": 4,
    "auto": 0xFFFFFFFF,
}
PATTERNS = {"BGGR": 0x52474742, "RGGB": 0x42474752, "GRBG": 0x47425247, "GBRG": 0x47524247}
ORDERS = {"BGR": (0, 3), "BGRA": (1, 4), "RGB": (2, 3), "RGBA": (3, 4)}
ALGORITHMS = {"bilinear": 0, "vng": 1, "edge_aware": 2}

# Significant bits of 16-bit three-channel images and their header bit counts.
_BITS_16X3 = {10: 30, 11: 33, 12: 36, 14: 42, 16: 48}


def _code(value, table, what):
    if isinstance(value, str):
        try:
            return table[value.lower() if what != "pattern" else value.upper()]
        except KeyError:
            raise ValueError(f"unknown {what} {value!r}; use one of {sorted(table)}") from None
    return int(value) & 0xFFFFFFFF


def _bit_count(image, bits):
    dtype, channels = image.dtype, (1 if image.ndim == 2 else image.shape[2])
    if dtype == np.uint8 and bits in (None, 8) and channels in (1, 3, 4):
        return {1: 8, 3: 24, 4: 32}[channels]
    if dtype == np.uint16 and channels == 1:
        bits = 16 if bits is None else bits
        if 9 <= bits <= 16:
            return bits
    if dtype == np.uint16 and channels == 3:
        bits = 16 if bits is None else bits
        if bits in _BITS_16X3:
            return _BITS_16X3[bits]
    raise ValueError(
        f"resize takes uint8 images of 1, 3 or 4 channels, uint16 images of 1 channel "
        f"(bits 9..16) or 3 channels (bits 10, 11, 12, 14, 16); got {dtype} with "
        f"{channels} channel(s) and bits={bits}")


def _header(width, height, bit_count):
    return ImageHeader(biSize=40, biWidth=width, biHeight=height, biPlanes=1,
                       biBitCount=bit_count, biCompression=0)


def resize(img, size, interpolation="auto", bits=None):
    """Resizes an image and returns the result as a new array.

    Args:
        img: (height, width) or (height, width, channels) array: uint8 with
            1, 3 (B G R) or 4 (B G R A) channels, or uint16 with 1 or 3
            channels.  Any strides; non-contiguous rows are copied first.
        size: (width, height) of the result.
        interpolation: "nearest", "linear", "cubic", "area", "lanczos4" or
            "auto" (cubic when enlarging, else area), or the numeric code.
        bits: for uint16 images, the significant bits (9..16 for one
            channel; 10, 11, 12, 14 or 16 for three).  Default 16.

    Returns:
        An array of shape (size[1], size[0][, channels]) and img's dtype.

    Raises:
        ValueError: an image layout the library does not take.
        VantixError: the library's failure (e.g. InvalidArgumentError for an
            unknown interpolation code, FailError for a zero size).
    """
    src, src_pitch = rows_view(np.asarray(img))
    bit_count = _bit_count(src, bits)
    width, height = (int(v) for v in size)
    shape = (height, width) if src.ndim == 2 else (height, width, src.shape[2])
    dst = np.zeros(tuple(max(v, 0) for v in shape), src.dtype)
    dst_pitch = dst.strides[0] if dst.size else 0
    code = lib.vantix_resizeV2(
        _header(src.shape[1], src.shape[0], bit_count), src_pitch, pointer(src),
        _header(width, height, bit_count), dst_pitch, pointer(dst),
        _code(interpolation, INTERPOLATIONS, "interpolation"))
    _native.check(code, "vantix_resizeV2")
    return dst


def demosaic(raw, pattern="RGGB", bits=None, algorithm="bilinear", order="BGR"):
    """Demosaics a raw Bayer frame into a colour image.

    Args:
        raw: (height, width) array, uint8 (bits 8) or uint16 holding `bits`
            significant bits (9..16, not rescaled).  Copied when not
            contiguous.
        pattern: "RGGB", "BGGR", "GRBG" or "GBRG" (or the FourCC code).
            RGGB and BGGR frames come out in true colours; GRBG and GBRG
            frames come out with red and blue swapped, so a host with such
            a sensor passes the other G-first pattern.
        bits: significant bits; default 8 for uint8 and 16 for uint16.
        algorithm: "bilinear", "vng" (8-bit only) or "edge_aware".
        order: output channel order "BGR", "BGRA", "RGB" or "RGBA" (the
            four-channel orders with bilinear only).

    Returns:
        A (height, width, 3 or 4) array of raw's dtype.

    Raises:
        NotImplementedByLibraryError: VNG on 16-bit samples, or four
            channels with VNG or edge-aware.
        InvalidArgumentError: bits outside 8..16, unknown codes.

    Note: the C function reports VANTIX_E_FAIL after every conversion that
    ran, successful or not, and never reports success.  This wrapper
    therefore treats VANTIX_E_FAIL as success; it checks the sizes itself
    first (at least 2 x 2 pixels) so that the image library has no reason
    to fail.
    """
    src = np.ascontiguousarray(raw)
    if src.ndim != 2 or src.dtype not in (np.uint8, np.uint16):
        raise ValueError(f"demosaic takes a (height, width) uint8 or uint16 array, got "
                         f"{src.dtype} {src.shape}")
    if src.shape[0] < 2 or src.shape[1] < 2:
        raise ValueError(f"a Bayer frame needs at least 2 x 2 pixels, got {src.shape}")
    if bits is None:
        bits = 8 if src.dtype == np.uint8 else 16
    if (bits == 8) != (src.dtype == np.uint8):
        raise ValueError(f"bits={bits} does not match a {src.dtype} frame")
    height, width = src.shape
    if isinstance(order, str):
        try:
            out_format, channels = ORDERS[order.upper()]
        except KeyError:
            raise ValueError(f"unknown order {order!r}; use one of {sorted(ORDERS)}") from None
    else:
        out_format, channels = int(order), (4 if int(order) in (1, 3) else 3)
    item = src.itemsize
    # Three-channel rows are padded to 4 bytes, four-channel rows are not.
    pitch = padded_pitch(width, 24 * item) if channels == 3 else width * 4 * item
    out = np.zeros(pitch * height, np.uint8)
    code = lib.vantix_demosaic(pointer(src), pointer(out), width, height, int(bits),
                               _code(pattern, PATTERNS, "pattern"), out_format,
                               _code(algorithm, ALGORITHMS, "algorithm"))
    # VANTIX_E_FAIL is what a conversion that ran reports; see the docstring.
    if code != 0x80004005:
        _native.check(code, "vantix_demosaic")
    return from_rows(out, height, width, pitch, src.dtype, channels)
