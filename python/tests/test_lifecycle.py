"""Threads and lifetimes: callbacks on the worker thread, a raising
callback, stops from elsewhere, sessions closed or collected while running,
and an interpreter exiting with sessions running."""

import gc
import os
import subprocess
import sys
import threading
import time
import weakref

import pytest

import vantix
from simcam import texture

W, H = 160, 120
SCENE = texture(200, 600, seed=3)
FRAMES = [SCENE[40:40 + H, 30 * i:30 * i + W] for i in range(12)]


def _threads():
    return len(os.listdir("/proc/self/task"))


@pytest.mark.parametrize("stop", [False, True])
def test_a_callback_runs_on_the_worker_thread_and_its_error_reaches_the_caller(stop):
    seen, holder = [], {}

    def callback(item):
        seen.append(threading.get_ident())
        if stop:
            holder["s"].stop()  # refused: the stop would wait for this very thread
        raise KeyError("from the callback")

    holder["s"] = session = vantix.StitchSession(W, H, callback=callback, copy_canvas=True)
    session.start()
    session.push(FRAMES[0])
    session.wait_for(vantix.StitchFrame, 1, timeout=None)
    with pytest.raises(vantix.CallbackError) as caught:
        session.close()  # once the worker has ended
    assert isinstance(caught.value.__cause__, RuntimeError if stop else KeyError)
    assert list(session.events(timeout=0)) == [] and seen and threading.get_ident() not in seen
    holder.clear()
    with pytest.raises(ValueError):
        session.push(FRAMES[0])  # closed


def test_stop_from_another_thread_while_pushing_with_a_busy_callback():
    session = vantix.StitchSession(W, H, callback=lambda item: sum(range(20000)))
    session.start()
    result = {}
    stopper = threading.Thread(target=lambda: result.setdefault("pano", session.stop()))
    for i, frame in enumerate(FRAMES):
        session.push(frame)  # frames pushed after the stop are dropped
        if i == 4:
            stopper.start()
    stopper.join()
    assert not session.running
    assert result["pano"] is None or result["pano"].shape[2] == 3
    session.close()
    session.close()  # idempotent


KEPT = {}  # a session reachable from its callback without a reference cycle


def test_sessions_dropped_while_running_end_their_threads():
    """Closed, released, freed by the collector (a cycle through their
    callback), or released inside their own callback: closed then from a
    helper thread, as a stop there would wait for the very thread."""
    before = _threads()
    for how in ("close", "release", "cycle", "in_callback"):
        holder = {}
        callback = {"cycle": lambda item, h=holder: h["s"].running,
                    "in_callback": lambda item: KEPT.pop("armed", 0) and KEPT.clear()}.get(how)
        session = holder["s"] = vantix.StitchSession(W, H, callback=callback).start()
        for frame in FRAMES[:6]:
            session.push(frame)
        if how == "close":
            session.close()
        if how == "in_callback":  # the next report drops the last reference
            KEPT.update(s=session, armed=1)
            session.push(FRAMES[6])
        gone = weakref.ref(session)
        del session, holder, callback
        gc.collect()
        # The worker and the canvas's drawing thread have ended (in the
        # callback's case, once the helper thread's close has run).
        assert how == "in_callback" or (gone() is None and _threads() == before), how
        while gone() is not None or _threads() != before:
            time.sleep(0.01)


EXIT_SCRIPT = """
import numpy as np, vantix
frame = np.full((60, 80, 3), 128, np.uint8)
frame[20:40, 30:50] = 250
sessions = [vantix.StitchSession(80, 60, callback=lambda item: None).start(),
            vantix.EdfSession(callback=lambda item: None).start()]
for _ in range(20):
    for s in sessions:
        s.push(frame)
print("leaving")
"""


def test_the_interpreter_exits_cleanly_with_sessions_running():
    python_dir = os.path.join(os.path.dirname(__file__), "..")
    run = subprocess.run([sys.executable, "-c", EXIT_SCRIPT], cwd=python_dir,
                         capture_output=True, text=True)
    assert run.returncode == 0 and run.stdout.strip() == "leaving" and run.stderr == "", \
        run.stderr
