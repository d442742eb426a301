"""Live stitching: StitchSession and the one-call vantix.stitch."""

from __future__ import annotations

import ctypes
import itertools
import threading
import time
import warnings
from collections import namedtuple
from dataclasses import dataclass, field
from typing import Any, Iterable, List, Optional, Tuple, Union

import numpy as np

from . import _names, _native
from ._arrays import (depth_warning, format_code, from_address, from_rows,
                      from_session_layout, layout_of, padded_pitch, pointer, sample_bits,
                      session_frame, widen_samples)
from ._errors import ProcessingError
from ._native import lib
from ._pull import FORMAT_BITS, Pulled, pull as _pull
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

# Events after which the worker has stopped itself (outside a canvas growth,
# where 2 reports a growth that failed for lack of memory).
_HALTING_EVENTS = (1, 2)
_GROWTH_BEGUN, _GROWTH_OUTCOMES = 3, (2, 4, 5)


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
        format: 0/"BGR8", 1/"BGR16", 2/"BGRA8", 3/"BGRA16": the frames'
            dtype (uint8, uint16) and the layout handed to the library.
            Grey (2-D) frames and other channel orders are converted on
            push (see push).  The working image is 8 bits a channel:
            16-bit frames are scaled down to it (divided by 257; see
            push's `bits` for data of fewer significant bits).
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
        background = _names.code("background", background, "background")
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
            bridge.frame_reported(item)

        growing = [False]

        def on_event(_ctx, code):
            halts = False
            if code == _GROWTH_BEGUN:
                growing[0] = True
            elif growing[0] and code in _GROWTH_OUTCOMES:
                growing[0] = False
            else:
                halts = code in _HALTING_EVENTS
            bridge.run(lambda: StitchEvent(code, EVENT_NAMES.get(code, f"event {code}"),
                                           threading.get_ident()))
            # Halted only once the event can be read: drain() returns then.
            if halts:
                bridge.worker_halted()

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
        self._arm_pusher(handle)

    def push(self, frame: np.ndarray, wait: bool = False,
             channels: Optional[str] = None, bits: Optional[int] = None) -> None:
        """Queues a copy of `frame` (dropped while the session is not running).

        The session's queue holds 21 frames and drops the oldest, and the
        worker takes the sharpest of up to six waiting frames and drops
        those before it: pushing faster than the worker keeps pace loses
        frames.  With ``wait=True`` no frame is lost: while the worker
        processes a frame, the next one waits on the Python side (the call
        returns) and the worker's report pushes it; a further waiting push
        blocks until then.  The worker runs at its own speed.  Call
        ``drain()`` after the last frame, before stop().

        `frame` is of the session's dtype: (height, width, 3) B G R,
        (height, width, 4) B G R A, or (height, width) grey; ``channels``
        ("bgr", "rgb", "bgra", "rgba", "grey") says otherwise.  Frames not
        in the session's layout are converted (a copy); views whose pixels
        are contiguous within rows are passed as they are.

        `bits` (9..16, default 16): the significant bits of uint16 samples
        (12 for 12-bit camera data in 16-bit words).  The library reduces
        16-bit samples to its 8-bit working image as if they spanned
        0..65535, so they are first shifted left by 16 - bits (a copy;
        samples above 2**bits - 1 saturate at 65535).  Without `bits`, the
        session's first uint16 frame is looked at: when its largest sample
        fits in fewer bits (below 32768), one UserWarning suggests the
        matching bits=N.  Ignored for uint8 frames.
        """
        frame = self._widen(np.asarray(frame), bits)
        self._push_prepared(*session_frame(frame, self.format, self.size, channels), wait)

    _pushback_name = "vantix_stitch_pushback"

    def pull(self, camera: Any, size: Optional[Tuple[int, int]] = None, push: bool = True,
             bits: Optional[int] = None, version: Union[int, str] = 2) -> Pulled:
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

    def stop(self, cropped: bool = True) -> Optional[np.ndarray]:
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
                self._set_stopped()
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
            pitch = padded_pitch(width, 24)
            address = ctypes.addressof(header) + header.biSize
            return from_address(address, height, width, pitch, np.uint8, 3)
        finally:
            _native.free(image)

    def _native_stop(self, handle):
        lib.vantix_stitch_stop(handle, 0, 0)

    def readdata(self, width: Optional[int] = None, height: Optional[int] = None,
                 roi: Optional[Tuple[int, int, int, int]] = None,
                 timeout: float = 1.0) -> Optional[np.ndarray]:
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
        pitch = padded_pitch(int(width), channels * 8)
        buffer = np.empty(pitch * int(height), np.uint8)
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
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                return None
            # A growth ends with an event (5, or 4 or 2 when it failed):
            # retry when the next report arrives (at the latest after a
            # short while, in case it came before this wait began).
            bridge = self._bridge
            with bridge.arrived:
                seen = sum(bridge.counts.values())
                bridge.arrived.wait_for(lambda: sum(bridge.counts.values()) > seen,
                                        min(remaining, 0.05))

    def crop_rect(self) -> Tuple[int, int, int, int]:
        """The covered rectangle of the canvas as (x, y, width, height)."""
        values = [ctypes.c_uint32(0) for _ in range(4)]
        handle = self._enter()
        try:
            lib.vantix_stitch_cropparams(handle, *(ctypes.byref(v) for v in values))
        finally:
            self._leave()
        return tuple(v.value for v in values)

    def canvas_size(self) -> Tuple[int, int]:
        """(width, height) of the canvas as of the latest frame report, else
        the initial canvas of 4 x 4 frames."""
        return self._bridge.latest.get("canvas", (4 * self.size[0], 4 * self.size[1]))


# --------------------------------------------------------------------------
# One call: every frame of an iterable, nothing dropped
# --------------------------------------------------------------------------

StitchedFrame = namedtuple("StitchedFrame", "mode position score")
StitchedFrame.__doc__ = """What became of one input frame in vantix.stitch.

mode: "placed" (placed on the canvas: its rectangle is part of the
panorama, and it is drawn unless it lies within a tenth of a frame of the
last frame drawn, see StitchResult.painted), "kept" (the view had not
moved enough: nothing drawn), "lost" (tracking lost), "not placed"
(registered but not drawn, e.g. blurrier than what is there), "empty" (a
frame without pixels: not pushed) or "not processed" (the worker had
stopped after a failure); position: (x, y) of the frame's top-left corner in the
returned image's pixels (where the worker found it; None when not
processed); score: the frame's sharpness score (None when not processed)."""


@dataclass
class StitchResult:
    """The result of vantix.stitch.

    image: the panorama cropped to the covered rectangle (the bounding
    rectangle of every placed frame), uint8, in the frames' channel order
    (B G R by default; R G B with channels="rgb"; 2-D for grey frames);
    None when nothing was placed.  frames: one StitchedFrame per input
    frame, in input order.  events: the StitchEvents the session reported
    (canvas growth, tracking lost, ...).

    painted: (x, y, width, height) in ``image`` pixels, the bounding
    rectangle of the frames actually drawn (None without image).  The
    canvas draws a placed frame only when it lies more than a tenth of the
    frame width in x, or a tenth of the height in y, from the last frame
    it drew; frames closer than that count for the covered rectangle but
    are not drawn.  So when a scan ends with small steps, up to a tenth of
    a frame at its end (in the direction of travel) is inside ``image``
    but shows the background: 30 frames 8 pixels apart, 320 wide, give a
    552-pixel-wide image of which the first 520 columns are painted.
    ``painted_image`` is ``image`` cropped to this rectangle.  Like the
    covered rectangle, it may hold background between the frames of a
    path that is not straight.  It is computed from the reported
    positions and the rule above; the canvas may additionally skip a
    frame when its drawing queue overflows (11 frames waiting) and draw
    the frame after one it failed to draw, neither of which the binding
    sees.
    """

    image: Optional[np.ndarray]
    frames: List[StitchedFrame] = field(default_factory=list)
    events: List[StitchEvent] = field(default_factory=list)
    painted: Optional[Tuple[int, int, int, int]] = None

    @property
    def painted_image(self) -> Optional[np.ndarray]:
        """``image`` cropped to ``painted`` (a view), or None."""
        if self.image is None or self.painted is None:
            return None
        x, y, w, h = self.painted
        return self.image[y:y + h, x:x + w]


class _Positions:
    """Frame positions in the coordinates of the first canvas.

    The canvas grows by whole steps (four frames) and, when it grows left
    or up, moves what it holds right or down by that step, so positions
    reported before and after differ by it.  A growth to the left is told
    from one to the right by the growing frame's position: it lies about a
    step away from the last placed frame (frames move by less than a frame
    between two placements)."""

    def __init__(self, canvas: Tuple[int, int]) -> None:
        self.canvas = canvas
        self.offset = [0, 0]
        self.last_placed: Optional[Tuple[int, int]] = None

    def add(self, report: StitchFrame) -> Tuple[int, int]:
        size = (report.canvas_width, report.canvas_height)
        if size != self.canvas:
            for axis, position in enumerate((report.x, report.y)):
                step = size[axis] - self.canvas[axis]
                if (step > 0 and self.last_placed is not None and
                        position - self.last_placed[axis] > step / 2):
                    self.offset[axis] += step
            self.canvas = size
        if report.mode == PLACED:
            self.last_placed = (report.x, report.y)
        return report.x - self.offset[0], report.y - self.offset[1]


def _painted(drawn_at: List[Tuple[int, int]], size: Tuple[int, int],
             image_size: Tuple[int, int]) -> Optional[Tuple[int, int, int, int]]:
    """Bounding rectangle (x, y, w, h) of frames of `size` drawn at
    `drawn_at` (image pixels), clipped to the image."""
    if not drawn_at:
        return None
    x0 = max(0, min(x for x, _ in drawn_at))
    y0 = max(0, min(y for _, y in drawn_at))
    x1 = min(image_size[0], max(x for x, _ in drawn_at) + size[0])
    y1 = min(image_size[1], max(y for _, y in drawn_at) + size[1])
    return (x0, y0, max(0, x1 - x0), max(0, y1 - y0))


def _drawn(placed: List[Tuple[int, int]], size: Tuple[int, int]) -> List[Tuple[int, int]]:
    """The positions among those of the placed frames (in placing order,
    one coordinate system) that the canvas draws: the first, then each
    one more than a tenth of the frame (integer division, as the canvas
    computes it) from the last one drawn in x or in y."""
    tenth = (size[0] // 10, size[1] // 10)
    drawn: List[Tuple[int, int]] = []
    for x, y in placed:
        if not drawn or abs(x - drawn[-1][0]) > tenth[0] or abs(y - drawn[-1][1]) > tenth[1]:
            drawn.append((x, y))
    return drawn


def stitch(frames: Iterable[np.ndarray], *, channels: Optional[str] = None,
           background: Union[str, int] = "checkerboard", scale_level: Optional[int] = None,
           strict_level: Optional[int] = None, bits: Optional[int] = None) -> StitchResult:
    """Stitches every frame of `frames` into a panorama and returns a
    StitchResult (``.image``, ``.painted``, ``.frames``, ``.events``).

    The live stitcher follows continuous video of a moving view: each frame
    is registered against the last reference frame, so successive frames
    must overlap by most of a frame and show texture (a tile grid with
    small overlaps, or blank areas, lose tracking).  Every frame is
    processed, one after another at the worker's speed (the session's
    queue never drops one), and accounted for in ``.frames``.

    Args:
        frames: any iterable (a list, a generator) of numpy arrays of one
            size and dtype: (height, width, 3) B G R, (height, width, 4)
            B G R A or (height, width) grey; uint8, or uint16 (the working
            image and the panorama are 8 bits a channel: 16-bit frames are
            scaled down, divided by 257; see `bits`).  Views with strides
            are read in place when their pixels are contiguous within rows;
            other layouts are converted (grey spread over B G R, R G B
            reversed) before the push.
        channels: "bgr", "rgb", "bgra", "rgba" or "grey" to say how the
            frames are ordered (default: by shape, as above).
        background: canvas outside the frames: "checkerboard", "white",
            "black".
        scale_level, strict_level: quality levels 0..4 (default 2).
        bits: significant bits of uint16 samples, 9..16 (default 16); 12
            for 12-bit camera data in 16-bit words.  The library reduces
            16-bit samples to 8 bits as if they spanned 0..65535, so each
            frame is first shifted left by 16 - bits (samples above
            2**bits - 1 saturate at 65535).  Without `bits`, when the first
            uint16 frame's largest sample fits in fewer bits (below 32768),
            one UserWarning suggests the matching bits=N: 12-bit data given
            as 16-bit keep only 17 grey levels, too few to register frames
            on.  Ignored for uint8 frames.

    ``.image`` is the covered rectangle of the canvas (every placed frame's
    rectangle); ``.painted`` tells which part of it the canvas drew (a
    frame within a tenth of a frame of the last one drawn is not drawn, so
    the end of a scan that ends with small steps shows the background; see
    StitchResult).

    Raises:
        ValueError: a frame of another size or dtype than the first, or an
            unknown option (the message lists the choices).
        ProcessingError: the worker stopped after a failure; its ``result``
            holds the panorama and frames up to there (frames not yet read
            from the iterable are not read).
    """
    bits = sample_bits(bits)
    iterator = (np.asarray(f) for f in frames)
    entries: List[StitchedFrame] = []
    empty = StitchedFrame("empty", None, None)
    first = None
    for first in iterator:
        if first.size:
            break
        entries.append(empty)
        first = None
    if first is None:
        return StitchResult(None, entries)
    layout = layout_of(first, channels)
    fmt = 1 if first.dtype == np.uint16 else 0
    message = depth_warning(first) if bits is None else None
    if message is not None:
        warnings.warn(message, UserWarning, stacklevel=2)
    size = (first.shape[1], first.shape[0])
    positions = _Positions((4 * size[0], 4 * size[1]))
    reports: List[Tuple[StitchFrame, Tuple[int, int]]] = []
    events: List[StitchEvent] = []
    halt: List[StitchEvent] = []

    def on_item(item: Any) -> None:  # on the worker thread, reports in push order
        if isinstance(item, StitchFrame):
            reports.append((item, positions.add(item)))
        else:
            events.append(item)
            if session.halted and not halt:
                halt.append(item)

    session = StitchSession(size[0], size[1], format=fmt, background=background,
                            scale_level=scale_level, strict_level=strict_level,
                            callback=on_item)
    offered: List[int] = []  # input indices pushed, in order
    with session:
        session.start()
        for frame in itertools.chain([first], iterator):
            if frame.size == 0:
                entries.append(empty)
                continue
            prepared = session_frame(widen_samples(frame, bits), fmt, size, channels)
            if session.halted:
                break
            offered.append(len(entries))
            entries.append(StitchedFrame("not processed", None, None))
            session._push_prepared(*prepared, wait=True)
        session.drain()
        panorama = session.stop()
        crop = session.crop_rect()
    offset = positions.offset
    placed: List[Tuple[int, int]] = []
    for index, (report, (x, y)) in zip(offered, reports):
        position = (x + offset[0] - crop[0], y + offset[1] - crop[1])
        entries[index] = StitchedFrame(MODE_NAMES.get(report.mode, str(report.mode)),
                                       position, float(report.score))
        if report.mode == PLACED:
            placed.append(position)
    image = None if panorama is None else from_session_layout(panorama, layout)
    painted = None if image is None else \
        _painted(_drawn(placed, size), size, (image.shape[1], image.shape[0]))
    result = StitchResult(image, entries, events, painted)
    if halt:
        raise ProcessingError(halt[0].code, halt[0].name, result)
    return result

