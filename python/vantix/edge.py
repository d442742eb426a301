"""Edge snapping: EdgeSession."""

from __future__ import annotations

import ctypes
from typing import Optional, Tuple, Union

import numpy as np

from ._arrays import FORMATS, check_frame, format_code, padded_pitch, pointer, to_session_layout
from ._native import lib
from ._session import Session


class EdgeSession(Session):
    """Moves a point onto the nearest edge near it, on the caller's thread.

    Args:
        width, height: frame size (at least 2 x 2).
        format: pixel format 0..3 or "BGR8", "BGR16", "BGRA8", "BGRA16".
        size: search size 1..50: the area searched is 3 * size pixels wide,
            and the point moves only onto an edge closer than size.
    """

    _delete = "vantix_edge_delete"

    def __init__(self, width: int, height: int, format: Union[str, int] = 0,
                 size: int = 10) -> None:
        super().__init__()
        self.format = format_code(format)
        self.frame_size = (int(width), int(height))
        if self.frame_size[0] < 2 or self.frame_size[1] < 2:
            raise ValueError("edge frames need at least 2 x 2 pixels")
        if not 1 <= int(size) <= 50:
            raise ValueError(f"search size is 1..50, got {size!r}")
        self.size = int(size)
        self._attach(lib.vantix_edge_new(self.format, *self.frame_size, self.size),
                     "vantix_edge_new")

    def snap(self, frame: np.ndarray, x: int, y: int, size: int = 0,
             channels: Optional[str] = None) -> Tuple[bool, int, int]:
        """Snaps point (x, y) of `frame` onto the nearest edge.

        frame: (height, width, channels) array of the session's format and
        size; size: 1..50 replaces the session's search size for this and
        later calls (0 keeps it).  Returns (moved, x, y): moved is True when
        an edge point lay closer than the size, and (x, y) is then that
        point; otherwise the point is returned unchanged.  The point must
        lie inside the frame.  Grey (2-D) frames and other channel orders
        (``channels="rgb"``, ...) are converted to the session's layout.
        """
        if not (int(size) == 0 or 1 <= int(size) <= 50):
            raise ValueError(f"search size is 1..50 (0 keeps the session's), got {size!r}")
        frame = check_frame(to_session_layout(frame, self.format, channels), self.format,
                            self.frame_size)
        width, height = self.frame_size
        # The library raises a C++ exception (which would end the process)
        # when the search area misses the frame: keep the point inside.
        if not (0 <= int(x) < width and 0 <= int(y) < height):
            raise ValueError(f"point ({x}, {y}) outside the {width}x{height} frame")
        _, dtype, channels = FORMATS[self.format]
        # The session reads rows at the format's default stride.
        pitch = padded_pitch(width, 8 * channels * np.dtype(dtype).itemsize)
        row_bytes = frame.shape[1] * frame.shape[2] * frame.itemsize
        if frame.flags.c_contiguous and row_bytes == pitch:
            packed = frame  # already at the default stride: no copy
        else:
            packed = np.empty((height, pitch), np.uint8)
            packed[:, :row_bytes] = np.ascontiguousarray(frame).view(np.uint8).reshape(height, -1)
        cx, cy = ctypes.c_int32(int(x)), ctypes.c_int32(int(y))
        handle = self._enter()
        try:
            moved = lib.vantix_edge_get(handle, pointer(packed), ctypes.byref(cx),
                                        ctypes.byref(cy), int(size) & 0xFFFFFFFF)
        finally:
            self._leave()
        if 1 <= int(size) <= 50:
            self.size = int(size)
        return bool(moved), cx.value, cy.value
