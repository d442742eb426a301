"""What every session class shares: the native handle's life, and the bridge
between callbacks on the library's worker threads and the Python user.

Lifetime rules kept here:
  * the ctypes callback objects live in the session's bridge, which the
    session keeps until after the native delete has returned;
  * the C-side callbacks hold no reference to the session object itself, so
    a session that goes out of scope is finalised on the user's thread;
  * stop and delete run with the interpreter lock released (the library is
    a CDLL), and no lock that a callback might wait for is held meanwhile.
"""

from __future__ import annotations

import atexit
import collections
import queue
import threading
import warnings
import weakref
from typing import Any, Callable, Iterator, Optional

import numpy as np

from . import _native
from ._arrays import depth_warning, pointer, sample_bits, widen_samples
from ._native import lib

# The bridge whose callback the current thread is running, if any.  A
# session must not be stopped from its own callback: the stop would wait for
# the very thread it runs on.  A callback can still drop the last reference
# to its session, which is then finalised right there; such a session is
# closed from a thread of its own.
_in_callback = threading.local()

_live = weakref.WeakSet()


def _close_all():
    # Workers must not call into an interpreter that is shutting down.
    for session in list(_live):
        try:
            session.close()
        except Exception:  # noqa: BLE001 - nothing can be reported any more
            pass


atexit.register(_close_all)


class CallbackError(RuntimeError):
    """Raised on the user's thread for an exception that a Python callback
    raised on a worker thread; the original is its ``__cause__``."""


class Bridge:
    """Carries copied callback data from worker threads to the user.

    With a user callable, each item is passed to it (on the worker thread);
    otherwise items go into a thread-safe queue that ``events()`` drains.
    An exception raised by the callable is stored (the first one) and
    re-raised by the session's next call; it never reaches the C library.
    """

    def __init__(self, user_callback):
        self.user_callback = user_callback
        self.queue = queue.SimpleQueue()
        self.error = None
        self.counts = collections.Counter()
        self.latest = {}  # plain values the callbacks keep (single assignments)
        self.callbacks = ()  # ctypes function objects, kept until delete returns
        self.lock = threading.Lock()  # only ever held for a few instructions
        self.arrived = threading.Condition(self.lock)  # notified after each item
        # Lossless pushing (see ThreadedSession.push_waiting); its own lock,
        # never held while calling into the library or a user callback.
        self.flow = threading.Condition()
        self.in_flight = False  # a frame pushed, not yet reported on
        self.pending = None  # (array, pitch) to push after that report
        self.halted = False  # the worker stopped itself after a failure
        self.pusher = None  # callable(array, pitch): the library's push

    def run(self, make_item):
        """Body of every C-side callback: make the item (copying what is
        valid only during the call), then hand it over.  Never raises."""
        _in_callback.bridge = self
        try:
            item = make_item()
            # Counted once delivered, so that a count wait_for saw is a
            # report that events() can already read.
            try:
                if self.user_callback is None:
                    self.queue.put(item)
                else:
                    self.user_callback(item)
            finally:
                with self.lock:
                    self.counts[type(item).__name__] += 1
                    self.arrived.notify_all()
        except BaseException as error:  # noqa: BLE001 - must not unwind into C
            with self.lock:
                if self.error is None:
                    self.error = error
                self.arrived.notify_all()
        finally:
            _in_callback.bridge = None

    def frame_reported(self, make_item):
        """The worker reported on a frame (called on the worker thread, in
        the frame callback).  A frame kept waiting is pushed first, so that
        the worker finds it on its next pass instead of sleeping; then the
        report is delivered.  Only after that does the session count as
        idle, so drain() returns once the last report can be read."""
        if self._push_waiting():
            self.run(make_item)
            return
        self.run(make_item)
        # A push(wait=True) may have left a frame meanwhile (it saw this
        # frame still in flight): push it now, or the session is idle.
        if not self._push_waiting():
            with self.flow:
                self.in_flight = False
                self.flow.notify_all()

    def _push_waiting(self):
        """Pushes the frame kept waiting, if any; the session stays in
        flight with it.  Returns whether there was one."""
        with self.flow:
            pending, self.pending = self.pending, None
            self.flow.notify_all()
        if pending is None:
            return False
        self.pusher(*pending)
        return True

    def worker_halted(self):
        """The worker stopped itself after a failure: a waiting frame is
        dropped, as the library drops frames pushed to a halted session."""
        with self.flow:
            self.halted = True
            self.in_flight = False
            self.pending = None
            self.flow.notify_all()

    def count(self, kind):
        with self.lock:
            return self.counts[kind.__name__]

    def take_error(self):
        with self.lock:
            error, self.error = self.error, None
        return error


class Session:
    """Base of the four session classes: handle, closing, context manager."""

    _delete = None  # name of the family's delete function
    _start_fn = None  # name of its start function
    _stop = None  # name of its stop function (None: no worker thread)

    def __init__(self, user_callback=None):
        self._handle = None
        self._bridge = Bridge(user_callback)
        self._cond = threading.Condition()
        self._busy = 0
        self._closed = False
        self._running = False
        self._run_lock = threading.Lock()  # start/stop, never taken by callbacks

    def _attach(self, handle, what):
        if not handle:
            raise RuntimeError(f"{what} returned no session")
        self._handle = handle
        _live.add(self)

    # -- use of the handle by ordinary calls --------------------------------

    def _enter(self, push=False):
        """The handle, counted as in use until _leave().  For a push from
        the session's own callback while it is being closed: None (the
        frame is dropped, as the library drops frames of a stopping
        session)."""
        self._raise_pending()
        with self._cond:
            if self._closed:
                if push and getattr(_in_callback, "bridge", None) is self._bridge:
                    return None
                raise ValueError("the session is closed")
            self._busy += 1
        return self._handle

    def _leave(self):
        with self._cond:
            self._busy -= 1
            self._cond.notify_all()

    def _raise_pending(self):
        error = self._bridge.take_error()
        if error is not None:
            raise CallbackError(f"a callback raised {error!r}") from error

    def _refuse_in_callback(self, what):
        if getattr(_in_callback, "bridge", None) is self._bridge:
            raise RuntimeError(f"{what} cannot be called from the session's own callback "
                               "(it would wait for the thread running the callback)")

    # -- closing ------------------------------------------------------------

    def close(self) -> None:
        """Stops the worker if it runs, then deletes the native session.

        Idempotent.  Safe from any thread except a callback of the session.
        Re-raises a pending callback error after the session is gone.
        """
        self._refuse_in_callback("close")
        with self._cond:
            if self._closed:
                return
            self._closed = True
        handle = self._handle
        if self._stop is not None:
            self._stop_worker(handle)  # the stop runs with the GIL released
        with self._cond:
            self._cond.wait_for(lambda: self._busy == 0)
        getattr(lib, self._delete)(handle)
        self._handle = None
        _live.discard(self)
        # Only now may the ctypes callback objects go.
        self._bridge.callbacks = ()
        error = self._bridge.take_error()
        if error is not None:
            raise CallbackError(f"a callback raised {error!r}") from error

    @property
    def closed(self) -> bool:
        return self._closed

    def __enter__(self):
        return self

    def __exit__(self, exc_type, exc, tb):
        if exc_type is None:
            self.close()
        else:
            try:
                self.close()
            except CallbackError:
                pass  # do not hide the exception that ended the block

    def __del__(self):
        if getattr(self, "_handle", None) is None or self._closed:
            return
        if getattr(_in_callback, "bridge", None) is not None:
            # Finalised inside a callback, on a worker thread: close from a
            # thread of its own once the callback has returned.
            threading.Thread(target=self._close_quietly, daemon=True).start()
            return
        self._close_quietly()

    def _close_quietly(self):
        try:
            self.close()
        except CallbackError as error:
            warnings.warn(f"vantix session closed with an unreported callback error: "
                          f"{error.__cause__!r}", RuntimeWarning)
        except Exception:  # noqa: BLE001 - nothing to report to in a finaliser
            pass


class ThreadedSession(Session):
    """A session with a worker thread (stitch, EDF): start/stop and the
    results of its callbacks."""

    def __init__(self, user_callback: Optional[Callable[[Any], None]] = None) -> None:
        super().__init__(user_callback)
        self._init_flow()
        self._depth_checked = False  # the first uint16 frame was looked at

    def _widen(self, frame, bits):
        """`frame` (an array) with its uint16 samples of `bits` bits scaled
        to 16 bits; warns once a session when the first uint16 frame, pushed
        without `bits`, looks like data of fewer bits."""
        bits = sample_bits(bits)
        if frame.dtype == np.uint16 and not self._depth_checked:
            self._depth_checked = True
            message = depth_warning(frame) if bits is None else None
            if message is not None:
                warnings.warn(message, UserWarning, stacklevel=3)
        return widen_samples(frame, bits)

    # -- events -------------------------------------------------------------

    def events(self, timeout: float = 1.0) -> Iterator[Any]:
        """Yields callback results in arrival order until none arrives for
        `timeout` seconds (0: only those already waiting).  Empty when the
        session was created with a callback.  Re-raises a callback error."""
        while True:
            self._raise_pending()
            try:
                item = self._bridge.queue.get(timeout=timeout) if timeout > 0 \
                    else self._bridge.queue.get_nowait()
            except queue.Empty:
                return
            yield item

    def wait_for(self, kind: type, count: int, timeout: Optional[float] = 10.0) -> bool:
        """Waits until `count` callback results of class `kind` have arrived
        in total since creation (or `timeout` seconds passed; None: no
        limit); returns whether they did.  Re-raises a callback error that
        came before they did."""
        bridge = self._bridge
        with bridge.arrived:
            done = bridge.arrived.wait_for(
                lambda: bridge.counts[kind.__name__] >= count or bridge.error is not None,
                timeout)
            done = bridge.counts[kind.__name__] >= count
        if not done:
            self._raise_pending()
        return done

    # -- pushing without loss -----------------------------------------------
    #
    # The library's queues drop frames (the oldest when full; the stitch
    # worker also skips all but the sharpest of the frames waiting), so the
    # only way to have every frame processed is to have at most one waiting
    # in the library.  A waiting push keeps the next frame on the Python
    # side until the worker reports on the one in flight; the report's
    # callback pushes it (on the worker thread, before the worker looks at
    # its queue again), so the worker runs at its own speed.

    def _init_flow(self) -> None:
        self._flow = self._bridge.flow

    # Subclasses: the name of their family's push function.
    _pushback_name = ""

    def _push_now(self, frame, pitch) -> None:
        """The library's push of a prepared frame."""
        handle = self._enter(push=True)
        if handle is None:
            return
        try:
            self._before_push(frame)
            code = getattr(lib, self._pushback_name)(
                handle, pointer(frame), frame.shape[1], frame.shape[0], 0, pitch)
        finally:
            self._leave()
        _native.check(code, self._pushback_name)

    def _arm_pusher(self, handle) -> None:
        """The push of a frame kept waiting, run by the frame callback (on
        the worker thread, which close() joins before the delete)."""
        push = getattr(lib, self._pushback_name)
        self._bridge.pusher = lambda frame, pitch: push(handle, pointer(frame), frame.shape[1],
                                                        frame.shape[0], 0, pitch)

    def _before_push(self, frame) -> None:
        """Subclasses: what a push records of the frame first."""

    def _push_prepared(self, frame, pitch, wait: bool = False) -> None:
        bridge = self._bridge
        if wait and getattr(_in_callback, "bridge", None) is not bridge:
            with self._flow:
                self._flow.wait_for(lambda: bridge.pending is None or bridge.halted or
                                    not self._running or self._closed)
                if bridge.in_flight and not bridge.halted and self._running and \
                        not self._closed:
                    bridge.pending = (frame, pitch)
                    return
        with self._flow:
            if self._running and not bridge.halted:
                bridge.in_flight = True
        self._push_now(frame, pitch)

    def _wait_idle(self) -> None:
        bridge = self._bridge
        with self._flow:
            self._flow.wait_for(lambda: (not bridge.in_flight and bridge.pending is None) or
                                bridge.halted or not self._running or self._closed)

    @property
    def halted(self) -> bool:
        """True when the worker stopped itself after a failure (reported
        as an event or error item); stop() and start() resume."""
        return self._bridge.halted

    def drain(self) -> None:
        """Waits until the worker has reported on the frame pushed last (or
        has halted, or the session was stopped).  With every frame pushed
        with ``push(frame, wait=True)`` that means every frame was
        processed; call it before stop(), which does not wait for frames
        still queued.  Re-raises a callback error."""
        self._refuse_in_callback("drain")
        self._wait_idle()
        self._raise_pending()

    # -- running ------------------------------------------------------------

    @property
    def running(self) -> bool:
        """True between start() and stop()."""
        return self._running

    def start(self) -> "ThreadedSession":
        """Starts the worker thread; returns self."""
        self._refuse_in_callback("start")
        with self._run_lock:
            handle = self._enter()
            try:
                if not self._running:
                    with self._flow:
                        self._bridge.halted = False
                    getattr(lib, self._start_fn)(handle)
                    self._running = True
            finally:
                self._leave()
        return self

    def _set_stopped(self) -> None:
        with self._flow:
            self._running = False
            self._bridge.in_flight = False
            self._bridge.pending = None
            self._flow.notify_all()

    def _native_stop(self, handle):
        getattr(lib, self._stop)(handle)

    def _stop_worker(self, handle):
        with self._run_lock:
            was_running = self._running
            self._set_stopped()
            if was_running:
                self._native_stop(handle)
            return was_running
