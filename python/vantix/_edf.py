"""Extended depth of field: EdfSession."""

import threading
from collections import namedtuple

import numpy as np

from . import _native
from ._arrays import FORMATS, check_frame, format_code, from_address, pointer, rows_view
from ._native import lib
from ._pull import FORMAT_BITS, pull as _pull
from ._session import ThreadedSession

KINDS = {"pyramid_max": 0, "pyramid_blend": 1, "stack": 2}
ERROR_NAMES = {1: "VANTIX_EDF_ERROR_FAILED", 2: "VANTIX_EDF_ERROR_OUT_OF_MEMORY"}
# OpenCV type codes of the fused image: (dtype, channels).
_TYPES = {16: (np.uint8, 3), 18: (np.uint16, 3), 24: (np.uint8, 4), 26: (np.uint16, 4)}

EdfFrame = namedtuple("EdfFrame", "event image thread_id")
EdfFrame.__doc__ = """A new fused image (onFrame): event (0), a copy of the
fused image in the session's format, and the worker thread's ident."""

EdfError = namedtuple("EdfError", "code name thread_id")
EdfError.__doc__ = """The worker halted after a failure (onError): code 1
processing failed, 2 out of memory; the session stays halted until stop()
and start()."""


class EdfSession(ThreadedSession):
    """An extended-depth-of-field session fusing a focus stack.

    Push frames of one scene at different focus (all of the first frame's
    size) or pull them from a camera; a worker thread fuses them and reports
    an EdfFrame (holding a copy of the fused image) after each, or an
    EdfError.  Get them by iterating ``session.events(timeout)`` or through
    ``callback=f`` (called on the worker thread; keep it short; it may push
    the next frame but must not stop or close the session; an exception it
    raises is re-raised as CallbackError by the next call or close).
    The frame queue holds 3 frames and drops the oldest when full: to fuse
    every frame, push the next after the previous one's report.

    Args:
        kind: fuser, "pyramid_max" (0), "pyramid_blend" (1) or "stack" (2).
        format: pixel format 0..3 or "BGR8", "BGR16", "BGRA8", "BGRA16".
        callback: optional callable(item), run on the worker thread.
    """

    _delete = "vantix_edf_delete"
    _start_fn = "vantix_edf_start"
    _stop = "vantix_edf_stop"

    def __init__(self, kind="pyramid_max", format=0, callback=None):
        super().__init__(callback)
        self.kind = KINDS[kind] if isinstance(kind, str) else int(kind)
        self.format = format_code(format)
        self.size = None  # (width, height) of the first frame
        bridge = self._bridge

        def on_frame(_ctx, event, data, stride, width, height, type_):
            def item():
                dtype, channels = _TYPES.get(type_, FORMATS[0][1:])
                image = from_address(data, height, width, stride, dtype, channels) \
                    if data else None
                return EdfFrame(event, image, threading.get_ident())
            bridge.run(item)

        def on_error(_ctx, code):
            bridge.run(lambda: EdfError(code, ERROR_NAMES.get(code, f"error {code}"),
                                        threading.get_ident()))

        frame_fn, error_fn = _native.EdfFrameFn(on_frame), _native.EdfErrorFn(on_error)
        bridge.callbacks = (frame_fn, error_fn)
        if self.format == 0:
            handle = lib.vantix_edf_new(self.kind, frame_fn, error_fn, None)
        else:
            handle = lib.vantix_edf_newV2(self.format, self.kind, frame_fn, error_fn, None)
        self._attach(handle, "vantix_edf_new")

    def push(self, frame):
        """Queues a copy of `frame`, a (height, width, channels) array of
        the session's format, of the first frame's size.  Dropped while the
        session is not running (or halted after an error)."""
        frame, pitch = rows_view(check_frame(frame, self.format, self.size))
        handle = self._enter(push=True)
        if handle is None:
            return
        try:
            self.size = self.size or (frame.shape[1], frame.shape[0])
            code = lib.vantix_edf_pushback(handle, pointer(frame), frame.shape[1],
                                           frame.shape[0], 0, pitch)
        finally:
            self._leave()
        _native.check(code, "vantix_edf_pushback")

    def pull(self, camera, size=None, push=True, bits=None, version=2):
        """Pulls one frame from the camera SDK and (with `push`) queues it;
        see StitchSession.pull.  Returns a Pulled (image, result, info)."""
        bits = FORMAT_BITS[self.format] if bits is None else bits
        handle = self._enter()
        try:
            pulled = _pull("edf", handle, camera, size, bits, push, version, self.format)
        finally:
            self._leave()
        if push and self.size is None:
            self.size = (pulled.image.shape[1], pulled.image.shape[0])
        return pulled

    @property
    def fused_count(self):
        """Number of fused images reported so far."""
        return self._bridge.count(EdfFrame)

    def readdata(self):
        """A stable copy of the current fused image in the session's format,
        (height, width, channels); None before the first fused image."""
        if self.fused_count == 0 or self.size is None:
            return None
        _, dtype, channels = FORMATS[self.format]
        width, height = self.size
        out = np.zeros((height, width, channels), dtype)
        handle = self._enter()
        try:
            lib.vantix_edf_readdata(handle, pointer(out), out.strides[0])
        finally:
            self._leave()
        return out

    def stop(self):
        """Stops the worker (after the frame in progress).  The stack and
        the fused image are kept; start() continues the same stack."""
        self._refuse_in_callback("stop")
        handle = self._enter()
        try:
            self._stop_worker(handle)
        finally:
            self._leave()
