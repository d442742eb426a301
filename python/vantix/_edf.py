"""Extended depth of field: EdfSession and the one-call vantix.fuse."""

from __future__ import annotations

import itertools
import threading
import warnings
from collections import namedtuple
from typing import Any, Iterable, List, Optional, Tuple, Union

import numpy as np

from . import _names, _native
from ._arrays import (FORMATS, depth_warning, format_code, from_address, from_session_layout,
                      layout_of, narrow_samples, pointer, sample_bits, session_frame,
                      widen_samples)
from ._errors import ProcessingError
from ._native import lib
from ._pull import FORMAT_BITS, Pulled, pull as _pull
from ._session import ThreadedSession
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
    every frame, push with ``push(frame, wait=True)`` and call ``drain()``
    after the last (or use ``vantix.fuse``).

    Args:
        kind: fuser, "pyramid_max" (0), "pyramid_blend" (1) or "stack" (2);
            the names are the command-line tool's.
        format: pixel format 0..3 or "BGR8", "BGR16", "BGRA8", "BGRA16";
            the working image is 8 bits a channel whatever the format (the
            fused image is handed back in the format, 16-bit samples being
            8-bit values times 257).  16-bit frames of fewer significant
            bits: see push's `bits`.
        callback: optional callable(item), run on the worker thread.
        copy_images: copy the fused image into every EdfFrame (default);
            False leaves ``EdfFrame.image`` None (use readdata()).
    """

    _delete = "vantix_edf_delete"
    _start_fn = "vantix_edf_start"
    _stop = "vantix_edf_stop"

    def __init__(self, kind: Union[str, int] = "pyramid_max", format: Union[str, int] = 0,
                 callback=None, copy_images: bool = True) -> None:
        super().__init__(callback)
        self.kind = _names.code("edf_kind", kind, "EDF kind")
        self.format = format_code(format)
        self.size = None  # (width, height) of the first frame
        bridge = self._bridge
        copy_images = bool(copy_images)

        def on_frame(_ctx, event, data, stride, width, height, type_):
            def item():
                dtype, channels = _TYPES.get(type_, FORMATS[0][1:])
                image = from_address(data, height, width, stride, dtype, channels) \
                    if data and copy_images else None
                return EdfFrame(event, image, threading.get_ident())
            bridge.frame_reported(item)

        def on_error(_ctx, code):
            bridge.run(lambda: EdfError(code, ERROR_NAMES.get(code, f"error {code}"),
                                        threading.get_ident()))
            # Halted only once the error can be read: drain() returns then.
            bridge.worker_halted()

        frame_fn, error_fn = _native.EdfFrameFn(on_frame), _native.EdfErrorFn(on_error)
        bridge.callbacks = (frame_fn, error_fn)
        if self.format == 0:
            handle = lib.vantix_edf_new(self.kind, frame_fn, error_fn, None)
        else:
            handle = lib.vantix_edf_newV2(self.format, self.kind, frame_fn, error_fn, None)
        self._attach(handle, "vantix_edf_new")
        self._arm_pusher(handle)

    def push(self, frame: np.ndarray, wait: bool = False,
             channels: Optional[str] = None, bits: Optional[int] = None) -> None:
        """Queues a copy of `frame`, of the first frame's size.  Dropped
        while the session is not running (or halted after an error).

        The queue holds 3 frames and drops the oldest.  With ``wait=True``
        no frame is lost: while the worker fuses a frame, the next one
        waits on the Python side (the call returns) and the worker's report
        pushes it; a further waiting push blocks until then.  Call
        ``drain()`` after the last frame, before stop().

        `frame` is of the session's dtype: (height, width, 3) B G R,
        (height, width, 4) B G R A, or (height, width) grey; ``channels``
        ("bgr", "rgb", "bgra", "rgba", "grey") says otherwise.  Frames not
        in the session's layout are converted (a copy).

        `bits` (9..16, default 16): the significant bits of uint16 samples
        (12 for 12-bit camera data in 16-bit words).  The library reduces
        16-bit samples to its 8-bit working image as if they spanned
        0..65535, so they are first shifted left by 16 - bits (a copy;
        samples above 2**bits - 1 saturate at 65535).  Without `bits`, the
        session's first uint16 frame is looked at: when its largest sample
        fits in fewer bits (below 32768), one UserWarning suggests the
        matching bits=N.  Ignored for uint8 frames.  The fused image
        (readdata, EdfFrame) stays in the session's format: 8-bit values
        times 257 (shift it right by 16 - bits to compare with the frames).
        """
        frame = self._widen(np.asarray(frame), bits)
        self._push_prepared(*session_frame(frame, self.format, self.size, channels), wait)

    _pushback_name = "vantix_edf_pushback"

    def _before_push(self, frame: np.ndarray) -> None:
        self.size = self.size or (frame.shape[1], frame.shape[0])

    def pull(self, camera: Any, size: Optional[Tuple[int, int]] = None, push: bool = True,
             bits: Optional[int] = None, version: Union[int, str] = 2) -> Pulled:
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
    def fused_count(self) -> int:
        """Number of fused images reported so far."""
        return self._bridge.count(EdfFrame)

    def readdata(self) -> Optional[np.ndarray]:
        """A stable copy of the current fused image in the session's format,
        (height, width, channels); None before the first fused image."""
        if self.fused_count == 0 or self.size is None:
            return None
        _, dtype, channels = FORMATS[self.format]
        width, height = self.size
        out = np.empty((height, width, channels), dtype)
        handle = self._enter()
        try:
            lib.vantix_edf_readdata(handle, pointer(out), out.strides[0])
        finally:
            self._leave()
        return out

    def stop(self) -> None:
        """Stops the worker (after the frame in progress).  The stack and
        the fused image are kept; start() continues the same stack."""
        self._refuse_in_callback("stop")
        handle = self._enter()
        try:
            self._stop_worker(handle)
        finally:
            self._leave()


def fuse(frames: Iterable[np.ndarray], kind: Union[str, int] = "pyramid_max", *,
         channels: Optional[str] = None, bits: Optional[int] = None) -> Optional[np.ndarray]:
    """Fuses a focus stack (every frame of `frames`) into one image that is
    sharp wherever some frame was, and returns it.

    Every frame is fused, one after another at the worker's speed (the
    session's queue of 3 never drops one).

    Args:
        frames: any iterable (a list, a generator) of numpy arrays of one
            scene, one size and one dtype: (height, width, 3) B G R,
            (height, width, 4) B G R A or (height, width) grey; uint8 or
            uint16.  The working image is 8 bits a channel: 16-bit frames
            are scaled down (divided by 257), and the fused image comes
            back as uint16 holding 8-bit values times 257 (scaled back to
            `bits` bits when `bits` is given).  Views with strides are read in
            place when their pixels are contiguous within rows; other
            layouts are converted before the push.  Empty frames are
            skipped.
        kind: "pyramid_max", "pyramid_blend" or "stack" (or 0, 1, 2);
            "stack" came closest to the sharp scene on the stacks measured
            (docs/getting-started.md, "Choosing options").
        channels: "bgr", "rgb", "bgra", "rgba" or "grey" to say how the
            frames are ordered (default: by shape, as above).
        bits: significant bits of uint16 samples, 9..16 (default 16); 12
            for 12-bit camera data in 16-bit words.  The library reduces
            16-bit samples to 8 bits as if they spanned 0..65535, so each
            frame is first shifted left by 16 - bits (samples above
            2**bits - 1 saturate at 65535), and the fused image is shifted
            back (0..2**bits - 1).  Without `bits`, when the first uint16
            frame's largest sample fits in fewer bits (below 32768), one
            UserWarning suggests the matching bits=N: 12-bit data given as
            16-bit keep only 17 grey levels.  Ignored for uint8 frames.

    Returns:
        The fused image in the frames' layout (B G R, R G B, grey; an
        alpha channel is opaque), or None for no frame.

    Raises:
        ValueError: a frame of another size or dtype than the first, or an
            unknown kind (the message lists the choices).
        ProcessingError: the worker stopped after a failure; its ``result``
            is the image fused before it (or None).
    """
    kind_code = _names.code("edf_kind", kind, "EDF kind")
    bits = sample_bits(bits)
    iterator = (np.asarray(f) for f in frames)
    first = next((f for f in iterator if f.size), None)
    if first is None:
        return None
    message = depth_warning(first) if bits is None else None
    if message is not None:
        warnings.warn(message, UserWarning, stacklevel=2)
    layout = layout_of(first, channels)
    fmt = (1 if first.dtype == np.uint16 else 0) + (2 if layout in ("bgra", "rgba") else 0)
    halt: List[EdfError] = []

    def on_item(item: Any) -> None:
        if isinstance(item, EdfError) and not halt:
            halt.append(item)

    session = EdfSession(kind_code, format=fmt, callback=on_item, copy_images=False)
    with session:
        session.start()
        size = None
        for frame in itertools.chain([first], iterator):
            if frame.size == 0:
                continue
            prepared = session_frame(widen_samples(frame, bits), fmt, size, channels)
            size = size or (frame.shape[1], frame.shape[0])
            if session.halted:
                break
            session._push_prepared(*prepared, wait=True)
        session.drain()
        session.stop()
        fused = session.readdata()
    result = None if fused is None else narrow_samples(from_session_layout(fused, layout), bits)
    if halt:
        raise ProcessingError(halt[0].code, halt[0].name, result)
    return result

