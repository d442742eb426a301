"""Live stitching: StitchSession."""

import ctypes
import threading
import time
from collections import namedtuple

import numpy as np

from . import _native
from ._arrays import check_frame, format_code, from_address, from_rows, pointer, rows_view
from ._native import lib
from ._pull import FORMAT_BITS, pull as _pull
from ._session import ThreadedSession

PLACED, KEPT, LOST, NOT_PLACED = 1, 2, 3, 4
MODE_NAMES = {PLACED: "placed", KEPT: "kept", LOST: "lost", NOT_PLACED: "not placed"}

EVENT_NAMES = {
    1: "VANTIX_STITCH_EVENT_FAILED",
    2: "VANTIX_STITCH_EVENT_OUT_OF_MEMORY",
    3: "VANTIX_STITCH_EVENT_CANVAS_GROWING",
    4: "VANTIX_STITCH_EVENT_GROW_FAILED",
    5: "VANTIX_STITCH_EVENT_CANVAS_GREW",
    7: "VANTIX_STITCH_EVENT_TRACKING_LOST",
    8: "VANTIX_STITCH_EVENT_TRACKING_REGAINED",
    9: "VANTIX_STITCH_EVENT_RELOCATION_BEGUN",
    10: "VANTIX_STITCH_EVENT_RELOCATION_ENDED",
    22: "VANTIX_STITCH_EVENT_POINT_LOCATED",
    23: "VANTIX_STITCH_EVENT_POINT_NOT_LOCATED",
    24: "VANTIX_STITCH_EVENT_RELOCATION_SERVED",
    25: "VANTIX_STITCH_EVENT_POSITION_SET",
}

StitchFrame = namedtuple(
    "StitchFrame",
    "x y mode changed reset score frame_width frame_height canvas_width "
    "canvas_height canvas thread_id")
StitchFrame.__doc__ = """A frame that reached composition (onFrame).

x, y: the frame's top-left corner on the canvas of this report; mode: 1
placed, 2 kept as reference, 3 tracking lost, 4 not placed (MODE_NAMES);
changed/reset: canvas changed / reallocated since the last report; score:
sharpness; canvas: a copy of the canvas pixels (rows in canvas order) when
the session was made with copy_canvas=True, else None; thread_id: the
ident of the worker thread that reported it."""

StitchEvent = namedtuple("StitchEvent", "code name thread_id")
StitchEvent.__doc__ = "A stitch event (onEvent): code, its header name, worker thread ident."

_BACKGROUNDS = {"checkerboard": 0, "white": 1, "black": 2}


class StitchSession(ThreadedSession):
    """A live-stitching session building a panorama from moving frames.

    Frames (numpy arrays in the session's pixel format) are pushed, or
    pulled from a camera; a worker thread registers and places them.  Its
    reports arrive as StitchFrame and StitchEvent items: iterate
    ``session.events(timeout)``, or pass ``callback=f`` to have ``f(item)``
    called on the worker thread for each (then keep ``f`` short, and do not
    stop or close the session from it; an exception it raises is re-raised
    as CallbackError by the session's next call or by close).

    Use as a context manager (stop and delete on exit) or call close().

    Args:
        width, height: frame size in pixels.
        format: 0/"BGR8", 1/"BGR16", 2/"BGRA8", 3/"BGRA16": frames of
            shape (height, width, 3 or 4), uint8 or uint16.
        background: "checkerboard", "white", "black" (or 0, 1, 2).
        scale_level, strict_level: quality levels 0..4 (default 2).
        callback: optional callable(item), run on the worker thread.
        copy_canvas: copy the canvas into every StitchFrame (costly: the
            canvas is 4 x 4 frames at least).
    """

    _delete = "vantix_stitch_delete"
    _start_fn = "vantix_stitch_start"
    _stop = "vantix_stitch_stop"

    def __init__(self, width, height, format=0, background="checkerboard",
                 scale_level=None, strict_level=None, callback=None, copy_canvas=False):
        super().__init__(callback)
        self.format = format_code(format)
        self.size = (int(width), int(height))
        if not (1 <= self.size[0] <= 16384 and 1 <= self.size[1] <= 16384):
            raise ValueError(f"frame size {self.size} outside 1..16384")
        if isinstance(background, str):
            if background not in _BACKGROUNDS:
                raise ValueError(f"background is one of {sorted(_BACKGROUNDS)}")
            background = _BACKGROUNDS[background]
        self._copy_canvas = bool(copy_canvas)
        self._canvas_channels = 3 if self.format == 0 else 4
        bridge = self._bridge
        copy_canvas, channels = self._copy_canvas, self._canvas_channels

        # The callbacks close over the bridge only, never over the session.
        def on_frame(_ctx, data, stride, cw, ch, fw, fh, _ftype, x, y, mode, changed,
                     reset, score):
            bridge.latest["canvas"] = (cw, ch)
            def item():
                canvas = (from_address(data, ch, cw, stride, np.uint8, channels)
                          if copy_canvas and data else None)
                return StitchFrame(x, y, mode, bool(changed), bool(reset), score, fw, fh,
                                   cw, ch, canvas, threading.get_ident())
            bridge.run(item)

        def on_event(_ctx, code):
            bridge.run(lambda: StitchEvent(code, EVENT_NAMES.get(code, f"event {code}"),
                                           threading.get_ident()))

        frame_fn, event_fn = _native.StitchFrameFn(on_frame), _native.StitchEventFn(on_event)
        bridge.callbacks = (frame_fn, event_fn)
        w, h = self.size
        if scale_level is not None or strict_level is not None:
            levels = [2 if v is None else int(v) for v in (scale_level, strict_level)]
            if not all(0 <= v <= 4 for v in levels):
                raise ValueError("quality levels are 0..4")
            handle = lib.vantix_stitch_newV3(self.format, 0, w, h, background, *levels,
                                             frame_fn, event_fn, None)
        elif self.format != 0:
            handle = lib.vantix_stitch_newV2(self.format, 0, w, h, background, frame_fn,
                                             event_fn, None)
        else:
            handle = lib.vantix_stitch_new(0, w, h, background, frame_fn, event_fn, None)
        self._attach(handle, "vantix_stitch_new")

    def push(self, frame):
        """Queues a copy of `frame` (dropped while the session is not running)."""
        frame, pitch = rows_view(check_frame(frame, self.format, self.size))
        handle = self._enter(push=True)
        if handle is None:
            return
        try:
            code = lib.vantix_stitch_pushback(handle, pointer(frame), frame.shape[1],
                                              frame.shape[0], 0, pitch)
        finally:
            self._leave()
        _native.check(code, "vantix_stitch_pushback")

    def pull(self, camera, size=None, push=True, bits=None, version=2):
        """Pulls one frame from the camera SDK loaded in the process and
        (with `push`) queues it.  Returns a Pulled (image, result, info).

        camera: the SDK's camera handle (int, ctypes pointer, or an object
        with ``_as_parameter_``); size: its frame size (width, height),
        default ``camera.size``; bits: default the session format's (24, 48,
        32, 64); version: 2, 3, 4 or "named" for the four pull functions.
        Raises VantixError with the SDK's code when the pull fails.
        """
        bits = FORMAT_BITS[self.format] if bits is None else bits
        handle = self._enter()
        try:
            return _pull("stitch", handle, camera, size, bits, push, version, self.format)
        finally:
            self._leave()

    def stop(self, cropped=True):
        """Stops the worker (frames already placed are drawn first) and
        returns the panorama as a (height, width, 3) uint8 B G R array (the
        canvas is 8-bit whatever the frame format), rows in canvas order (the
        pushed frames' row order): the covered rectangle when `cropped`, else
        the whole canvas; None when nothing is covered.  A later start()
        continues the panorama."""
        self._refuse_in_callback("stop")
        handle = self._enter()
        try:
            with self._run_lock:
                self._running = False
                image = lib.vantix_stitch_stop(handle, 1, 1 if cropped else 0)
        finally:
            self._leave()
        if not image:
            return None
        if self.format != 0:
            # The library copies the panorama at 3 bytes a pixel whatever the
            # canvas's pixel size, so with the 4-byte canvas of formats 1..3
            # its image is not usable.  The stop above has waited until
            # every placed frame was drawn; the same rectangle is read at
            # its own size (a plain copy) through readdata instead.
            _native.free(image)
            rect = self.crop_rect() if cropped else (0, 0) + tuple(self.canvas_size())
            view = self.readdata(rect[2], rect[3], roi=rect, timeout=5.0)
            return None if view is None else np.ascontiguousarray(view[:, :, :3])
        try:
            header = image.contents
            width, height = header.biWidth, header.biHeight
            pitch = ((width * 24 + 31) >> 3) & ~3
            address = ctypes.addressof(header) + header.biSize
            return from_address(address, height, width, pitch, np.uint8, 3)
        finally:
            _native.free(image)

    def _native_stop(self, handle):
        lib.vantix_stitch_stop(handle, 0, 0)

    def readdata(self, width=None, height=None, roi=None, timeout=1.0):
        """A scaled copy of the canvas (or of `roi` = (x, y, w, h) of it) as
        a (height, width, 3) uint8 array (4 channels for formats 1..3).
        Default size: the canvas's (or the roi's) own.  Retries while the
        canvas is being reallocated; None if it stays busy for `timeout` s."""
        if width is None or height is None:
            if roi is not None:
                width, height = roi[2], roi[3]
            else:
                width, height = self.canvas_size()
        x, y, rw, rh = (int(v) for v in roi) if roi is not None else (0, 0, 0, 0)
        channels = self._canvas_channels
        pitch = ((int(width) * channels * 8 + 31) // 32) * 4
        buffer = np.zeros(pitch * int(height), np.uint8)
        deadline = time.monotonic() + timeout
        while True:
            handle = self._enter()
            try:
                done = lib.vantix_stitch_readdata(handle, pointer(buffer), int(width),
                                                  int(height), x, y, rw, rh)
            finally:
                self._leave()
            if done:
                return from_rows(buffer, int(height), int(width), pitch, np.uint8, channels)
            if time.monotonic() > deadline:
                return None
            time.sleep(0.005)

    def crop_rect(self):
        """The covered rectangle of the canvas as (x, y, width, height)."""
        values = [ctypes.c_uint32(0) for _ in range(4)]
        handle = self._enter()
        try:
            lib.vantix_stitch_cropparams(handle, *(ctypes.byref(v) for v in values))
        finally:
            self._leave()
        return tuple(v.value for v in values)

    def canvas_size(self):
        """(width, height) of the canvas as of the latest frame report, else
        the initial canvas of 4 x 4 frames."""
        return self._bridge.latest.get("canvas", (4 * self.size[0], 4 * self.size[1]))
