"""The stateless image operations: resize and demosaic."""

from __future__ import annotations

from typing import Optional, Tuple, Union

import numpy as np

from . import _names, _native
from ._arrays import padded_pitch, pointer, rows_view
from ._native import ImageHeader, lib

# Significant bits of 16-bit three-channel images and their header bit counts.
_BITS_16X3 = {10: 30, 11: 33, 12: 36, 14: 42, 16: 48}


def _bit_count(image: np.ndarray, bits: Optional[int]) -> int:
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


def _header(width: int, height: int, bit_count: int) -> ImageHeader:
    return ImageHeader(biSize=40, biWidth=width, biHeight=height, biPlanes=1,
                       biBitCount=bit_count, biCompression=0)


def _check_out(out: np.ndarray, shape: Tuple[int, ...], dtype: np.dtype,
               pitch: Optional[int] = None) -> np.ndarray:
    """Validates a caller's output array: shape, dtype, pixels contiguous
    within rows (and the row pitch the library writes, when it has one)."""
    if not isinstance(out, np.ndarray) or out.shape != shape or out.dtype != dtype:
        raise ValueError(f"out must be a {np.dtype(dtype).name} array of shape {shape}, got "
                         f"{getattr(out, 'dtype', type(out).__name__)} "
                         f"{getattr(out, 'shape', '')}")
    pixel = out.itemsize * (1 if out.ndim == 2 else out.shape[2])
    rows_ok = out.strides[1] == pixel and (out.ndim == 2 or out.strides[2] == out.itemsize)
    if not (rows_ok and out.flags.writeable and out.flags.aligned and
            out.strides[0] >= pixel * out.shape[1] and (pitch is None or out.strides[0] == pitch)):
        need = f" and rows {pitch} bytes apart" if pitch is not None else ""
        raise ValueError(f"out needs writable pixels contiguous within rows{need}")
    return out


def resize(img: np.ndarray, size: Tuple[int, int], interpolation: Union[str, int] = "auto",
           bits: Optional[int] = None, out: Optional[np.ndarray] = None) -> np.ndarray:
    """Resizes an image and returns the result as a new array.

    Args:
        img: (height, width) or (height, width, channels) array: uint8 with
            1, 3 or 4 channels, or uint16 with 1 or 3 channels (channel
            order does not matter).  Any strides: views whose pixels are
            contiguous within rows are read in place, others copied first.
        size: (width, height) of the result, each at least 1.
        interpolation: "nearest", "linear", "cubic", "area", "lanczos"
            (alias "lanczos4") or "auto" (cubic when enlarging, else area),
            or one of their codes; the names are the command-line tool's.
        bits: for uint16 images, the significant bits (9..16 for one
            channel; 10, 11, 12, 14 or 16 for three).  Default 16.
        out: an array to write the result into (shape and dtype of the
            result, pixels contiguous within rows).  Reusing one saves the
            cost of fresh memory (page faults) on every call.

    Returns:
        `out`, or a new C-contiguous array of shape (size[1], size[0][,
        channels]) and img's dtype.

    Raises:
        ValueError: an unknown interpolation, a size below 1 or an image
            layout the library does not take (the message lists the choices).
        VantixError: a failure reported by the library.
    """
    src, src_pitch = rows_view(np.asarray(img))
    bit_count = _bit_count(src, bits)
    width, height = (int(v) for v in size)
    if width < 1 or height < 1:
        raise ValueError(f"size is (width, height), each at least 1; got {tuple(size)!r}")
    method = _names.code("interp", interpolation, "interpolation")
    shape = (height, width) if src.ndim == 2 else (height, width, src.shape[2])
    dst = np.empty(shape, src.dtype) if out is None else _check_out(out, shape, src.dtype)
    code = lib.vantix_resizeV2(
        _header(src.shape[1], src.shape[0], bit_count), src_pitch, pointer(src),
        _header(width, height, bit_count), dst.strides[0], pointer(dst), method)
    _native.check(code, "vantix_resizeV2")
    return dst


def demosaic(raw: np.ndarray, pattern: Union[str, int] = "RGGB", bits: Optional[int] = None,
             algorithm: Union[str, int] = "bilinear", order: Union[str, int] = "BGR",
             out: Optional[np.ndarray] = None) -> np.ndarray:
    """Demosaics a raw Bayer frame into a colour image.

    Args:
        raw: (height, width) array, uint8 (bits 8) or uint16 holding `bits`
            significant bits (9..16, not rescaled).  Copied first when its
            rows are not contiguous.
        pattern: the sensor's colour filter layout, named by its top-left
            2 x 2 cell read row by row: "RGGB", "BGGR", "GRBG" or "GBRG"
            (any case).  All four come out in true colours, as with the
            command-line tool.
        bits: significant bits; default 8 for uint8 and 16 for uint16.
        algorithm: "bilinear", "vng" (8-bit only) or "edge_aware" (alias
            "ea").
        order: output channel order "bgr", "bgra", "rgb" or "rgba" (the
            four-channel orders with bilinear only).
        out: an array to write the result into: (height, width, 3 or 4) of
            raw's dtype, rows padded to 4 bytes for 3 channels (a
            C-contiguous array when a row's bytes are a multiple of 4).
            Reusing one saves the cost of fresh memory on every call.

    Returns:
        `out`, or a new C-contiguous (height, width, 3 or 4) array of raw's
        dtype.

    Raises:
        ValueError: unknown names (the message lists the choices), a frame
            that is not 2-D uint8/uint16 or smaller than 2 x 2, bits not
            matching the dtype.
        NotImplementedByLibraryError: VNG on 16-bit samples, or four
            channels with VNG or edge-aware.
        InvalidArgumentError: bits outside 8..16.

    Note: the C function reports VANTIX_E_FAIL after every conversion that
    ran, successful or not, and never reports success.  This wrapper
    therefore treats VANTIX_E_FAIL as success; it checks the sizes itself
    first (at least 2 x 2 pixels) so that the image library has no reason
    to fail.
    """
    src = np.asarray(raw)
    if src.ndim != 2 or src.dtype not in (np.uint8, np.uint16):
        raise ValueError(f"demosaic takes a (height, width) uint8 or uint16 array, got "
                         f"{src.dtype} {src.shape}")
    if not (src.flags.c_contiguous and src.flags.aligned and src.dtype.isnative):
        src = np.ascontiguousarray(src)
    if src.shape[0] < 2 or src.shape[1] < 2:
        raise ValueError(f"a Bayer frame needs at least 2 x 2 pixels, got {src.shape}")
    if bits is None:
        bits = 8 if src.dtype == np.uint8 else 16
    if (bits == 8) != (src.dtype == np.uint8):
        raise ValueError(f"bits={bits} does not match a {src.dtype} frame")
    pattern_code = _names.code("pattern", pattern, "Bayer pattern")
    out_format = _names.code("order", order, "channel order")
    method = _names.code("algorithm", algorithm, "demosaic algorithm")
    channels = 4 if _names.name_of("order", out_format).endswith("a") else 3
    height, width = src.shape
    item = src.itemsize
    # Three-channel rows are padded to 4 bytes, four-channel rows are not.
    row_bytes = width * channels * item
    pitch = padded_pitch(width, 24 * item) if channels == 3 else row_bytes
    if out is not None:
        buffer = _check_out(out, (height, width, channels), src.dtype, pitch)
    elif pitch == row_bytes:
        out = buffer = np.empty((height, width, channels), src.dtype)
    else:
        buffer = np.empty((height, pitch), np.uint8)
    code = lib.vantix_demosaic(pointer(src), pointer(buffer), width, height, int(bits),
                               pattern_code, out_format, method)
    # VANTIX_E_FAIL is what a conversion that ran reports; see the docstring.
    if code != 0x80004005:
        _native.check(code, "vantix_demosaic")
    if out is None:
        out = np.ascontiguousarray(buffer[:, :row_bytes]).view(src.dtype).reshape(
            height, width, channels)
    return out
