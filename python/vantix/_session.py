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

import atexit
import collections
import queue
import threading
import time
import warnings
import weakref

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

    def run(self, make_item):
        """Body of every C-side callback: make the item (copying what is
        valid only during the call), then hand it over.  Never raises."""
        _in_callback.bridge = self
        try:
            item = make_item()
            with self.lock:
                self.counts[type(item).__name__] += 1
            if self.user_callback is None:
                self.queue.put(item)
            else:
                self.user_callback(item)
        except BaseException as error:  # noqa: BLE001 - must not unwind into C
            with self.lock:
                if self.error is None:
                    self.error = error
        finally:
            _in_callback.bridge = None

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

    def close(self):
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
    def closed(self):
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

    # -- events -------------------------------------------------------------

    def events(self, timeout=1.0):
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

    def wait_for(self, kind, count, timeout=10.0):
        """Waits until `count` callback results of class `kind` have arrived
        in total since creation; returns whether they did."""
        deadline = time.monotonic() + timeout
        while self._bridge.count(kind) < count:
            self._raise_pending()
            if time.monotonic() > deadline:
                return False
            time.sleep(0.005)
        return True

    # -- running ------------------------------------------------------------

    @property
    def running(self):
        """True between start() and stop()."""
        return self._running

    def start(self):
        """Starts the worker thread; returns self."""
        self._refuse_in_callback("start")
        with self._run_lock:
            handle = self._enter()
            try:
                if not self._running:
                    getattr(lib, self._start_fn)(handle)
                    self._running = True
            finally:
                self._leave()
        return self

    def _native_stop(self, handle):
        getattr(lib, self._stop)(handle)

    def _stop_worker(self, handle):
        with self._run_lock:
            was_running, self._running = self._running, False
            if was_running:
                self._native_stop(handle)
            return was_running
