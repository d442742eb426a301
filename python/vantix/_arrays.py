"""Between numpy arrays and the row-pitch images of the C interface."""

import ctypes

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
    """Row bytes padded to 4 bytes, as the library's default stride."""
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
    """A zeroed byte buffer for a pulled frame and the pitch its rows use."""
    pitch = row_pitch or padded_pitch(width, bits)
    return np.zeros(pitch * height, np.uint8), pitch
