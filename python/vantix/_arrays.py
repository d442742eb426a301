"""Between numpy arrays and the row-pitch images of the C interface."""

from __future__ import annotations

import ctypes
from typing import Optional, Tuple

import numpy as np

#: Session pixel formats (vantix.h): (name, dtype, channels).
FORMATS = {
    0: ("BGR8", np.uint8, 3),
    1: ("BGR16", np.uint16, 3),
    2: ("BGRA8", np.uint8, 4),
    3: ("BGRA16", np.uint16, 4),
}
_FORMAT_BY_NAME = {name: code for code, (name, _, _) in FORMATS.items()}

#: Frame layouts of the camera pulls by bits a pixel: (dtype, channels).
PULL_LAYOUTS = {
    8: (np.uint8, 1),
    16: (np.uint16, 1),
    24: (np.uint8, 3),
    32: (np.uint8, 4),
    48: (np.uint16, 3),
    64: (np.uint16, 4),
}


def format_code(fmt):
    """A pixel format given as 0..3 or "BGR8", "BGR16", "BGRA8", "BGRA16"."""
    if isinstance(fmt, str):
        try:
            return _FORMAT_BY_NAME[fmt.upper()]
        except KeyError:
            raise ValueError(f"unknown pixel format {fmt!r}; use one of "
                             f"{sorted(_FORMAT_BY_NAME)}") from None
    if fmt not in FORMATS:
        raise ValueError(f"pixel format must be 0..3, got {fmt!r}")
    return int(fmt)


def padded_pitch(width, bits):
    """Row bytes padded to 4 bytes: vantix_default_stride of vantix.h (a
    static inline function, which ctypes cannot call)."""
    return ((width * bits + 31) >> 3) & ~3


def channels_of(image):
    return 1 if image.ndim == 2 else image.shape[2]


def rows_view(image):
    """(array, pitch): an array whose rows are contiguous pixel runs that the
    library can read at `pitch` bytes a row; non-conforming input is copied."""
    if image.ndim not in (2, 3):
        raise ValueError(f"expected an image of 2 or 3 dimensions, got shape {image.shape}")
    item = image.itemsize
    pixel = item * channels_of(image)
    inner_ok = (image.strides[1] == pixel and
                (image.ndim == 2 or image.strides[2] == item))
    if not (inner_ok and image.strides[0] >= pixel * image.shape[1] and
            image.flags.aligned and image.dtype.isnative):
        image = np.ascontiguousarray(image)
    return image, image.strides[0]


#: Channel layouts a session frame may be given in, by channel count.
LAYOUTS = {"grey": 1, "gray": 1, "bgr": 3, "rgb": 3, "bgra": 4, "rgba": 4}


def layout_of(frame: np.ndarray, channels: Optional[str]) -> str:
    """The channel layout of `frame`: `channels` when given (checked against
    the array), else grey for 2-D arrays, B G R for 3 channels, B G R A
    for 4."""
    count = 1 if frame.ndim == 2 else (frame.shape[2] if frame.ndim == 3 else 0)
    if channels is None:
        layout = {1: "grey", 3: "bgr", 4: "bgra"}.get(count)
        if layout is None:
            raise ValueError(f"a frame is a (height, width) grey array or a (height, width, 3 "
                             f"or 4) colour array, got shape {frame.shape}")
        return layout
    layout = str(channels).lower()
    if layout not in LAYOUTS:
        raise ValueError(f"unknown channels {channels!r}; choose one of "
                         f"{', '.join(repr(k) for k in LAYOUTS)}")
    if LAYOUTS[layout] != count or (count == 1 and frame.ndim != 2 and frame.shape[2] != 1):
        raise ValueError(f"channels={channels!r} does not fit a frame of shape {frame.shape}")
    return layout


def to_session_layout(frame: np.ndarray, fmt: int, channels: Optional[str] = None
                      ) -> np.ndarray:
    """`frame` in the channel layout of session pixel format `fmt` (B G R or
    B G R A): grey is spread over the colour channels, R G B reversed, an
    alpha channel dropped or added (opaque).  Frames already in the
    session's layout are returned as they are (no copy)."""
    frame = np.asarray(frame)
    name, dtype, want = FORMATS[fmt]
    if frame.ndim == 3 and frame.shape[2] == 1:
        frame = frame[:, :, 0]
    layout = layout_of(frame, channels)
    if frame.dtype != dtype:
        raise ValueError(f"a {name} session takes {np.dtype(dtype).name} frames, got "
                         f"{frame.dtype}")
    if layout in ("grey", "gray"):
        out = np.empty(frame.shape + (want,), dtype)
        out[:, :, :3] = frame[:, :, None]
    else:
        colour = frame[:, :, 2::-1] if layout in ("rgb", "rgba") else frame[:, :, :3]
        if want == 3 and layout == "bgr":
            return frame
        if want == 4 and layout == "bgra":
            return frame
        out = np.empty(frame.shape[:2] + (want,), dtype)
        out[:, :, :3] = colour
        if want == 4 and layout == "rgba":
            out[:, :, 3] = frame[:, :, 3]
    if want == 4 and layout not in ("bgra", "rgba"):
        out[:, :, 3] = np.iinfo(dtype).max
    return out


def from_session_layout(image: np.ndarray, layout: str) -> np.ndarray:
    """The inverse of to_session_layout for a result image (B G R or
    B G R A): back to the frames' layout."""
    if layout in ("grey", "gray"):
        return np.ascontiguousarray(image[:, :, 1])
    if layout in ("rgb", "rgba"):
        order = [2, 1, 0, 3] if image.shape[2] == 4 and layout == "rgba" else [2, 1, 0]
        return np.ascontiguousarray(image[:, :, order])
    if layout == "bgr" and image.shape[2] == 4:
        return np.ascontiguousarray(image[:, :, :3])
    return image


# --------------------------------------------------------------------------
# Sample depth of 16-bit frames
# --------------------------------------------------------------------------
#
# Stitching and fusion work on 8 bits a channel; the library maps 16-bit
# samples onto them by dividing by 257, as if they spanned 0..65535.  Data
# of fewer significant bits (12-bit camera data in uint16 words) are
# therefore shifted up to the full range first, or they would be left with
# a handful of grey levels.


def sample_bits(bits: Optional[int]) -> Optional[int]:
    """Checks a `bits=` argument: None or 9..16."""
    if bits is None:
        return None
    if isinstance(bits, bool) or not isinstance(bits, (int, np.integer)) or \
            not 9 <= int(bits) <= 16:
        raise ValueError(f"bits is the number of significant bits of uint16 samples, 9..16; "
                         f"got {bits!r}")
    return int(bits)


def widen_samples(frame: np.ndarray, bits: Optional[int]) -> np.ndarray:
    """A uint16 `frame` of `bits` significant bits scaled to 16 bits: shifted
    left by 16 - bits, samples above 2**bits - 1 saturating at 65535.
    Other frames, and bits None or 16, are returned as they are."""
    if bits is None or bits == 16 or frame.dtype != np.uint16:
        return frame
    wide = np.left_shift(frame, np.uint16(16 - bits))
    np.putmask(wide, frame > (1 << bits) - 1, np.uint16(65535))
    return wide


def narrow_samples(image: np.ndarray, bits: Optional[int]) -> np.ndarray:
    """The inverse of widen_samples for a result: back to `bits` bits."""
    if bits is None or bits == 16 or image.dtype != np.uint16:
        return image
    return np.right_shift(image, np.uint16(16 - bits))


def depth_warning(frame: np.ndarray) -> Optional[str]:
    """A warning text when a uint16 frame looks like data of fewer bits
    (its largest sample is below 2**15), else None."""
    if frame.dtype != np.uint16 or frame.size == 0:
        return None
    largest = int(frame.max())
    if largest >= 1 << 15:
        return None
    guess = max(9, largest.bit_length())
    return (f"the uint16 frames' largest sample is {largest}, which fits in {guess} bits: "
            f"16-bit samples are reduced to the 8-bit working image as if they spanned "
            f"0..65535 (divided by 257), leaving only {round(largest / 257) + 1} grey levels.  "
            f"Pass bits={guess} if the data are {guess}-bit (bits=16 silences this "
            f"warning).")


def check_frame(frame, fmt, size=None):
    """Validates a session frame of pixel format `fmt` (and `size` (w, h))."""
    frame = np.asarray(frame)
    name, dtype, channels = FORMATS[fmt]
    if frame.dtype != dtype or frame.ndim != 3 or frame.shape[2] != channels:
        raise ValueError(f"a {name} frame is a (height, width, {channels}) "
                         f"{np.dtype(dtype).name} array, got {frame.dtype} {frame.shape}")
    if size is not None and (frame.shape[1], frame.shape[0]) != tuple(size):
        raise ValueError(f"frame of {frame.shape[1]}x{frame.shape[0]} pixels, the session "
                         f"takes {size[0]}x{size[1]}")
    if frame.shape[0] < 1 or frame.shape[1] < 1:
        raise ValueError("empty frame")
    return frame


def session_frame(frame: np.ndarray, fmt: int, size: Optional[Tuple[int, int]] = None,
                  channels: Optional[str] = None) -> Tuple[np.ndarray, int]:
    """(array, row pitch) of a frame ready for a session push."""
    return rows_view(check_frame(to_session_layout(frame, fmt, channels), fmt, size))


def pointer(array):
    return ctypes.c_void_p(array.ctypes.data)


def from_rows(buffer, height, width, pitch, dtype, channels):
    """An owned (height, width[, channels]) array from a padded byte buffer."""
    rows = np.frombuffer(buffer, np.uint8, count=pitch * height).reshape(height, pitch)
    row_bytes = width * channels * np.dtype(dtype).itemsize
    image = rows[:, :row_bytes].copy().view(dtype)
    return image.reshape(height, width) if channels == 1 else image.reshape(height, width, channels)


def from_address(address, height, width, pitch, dtype, channels):
    """Copies an image living at a C address (valid only now) into numpy."""
    if height == 0 or width == 0:
        shape = (height, width) if channels == 1 else (height, width, channels)
        return np.zeros(shape, dtype)
    row_bytes = width * channels * np.dtype(dtype).itemsize
    # The last row may end right after its pixels: read only what exists.
    size = pitch * (height - 1) + row_bytes
    raw = ctypes.string_at(address, size) + bytes(pitch - row_bytes)
    return from_rows(raw, height, width, pitch, dtype, channels)


def frame_buffer(width, height, bits, row_pitch=0):
    """A byte buffer for a pulled frame and the pitch its rows use."""
    pitch = row_pitch or padded_pitch(width, bits)
    return np.empty(pitch * height, np.uint8), pitch
