"""Session lifetimes the bindings must survive: a session finalised on its
own worker thread, and an interpreter exiting with sessions running."""

import os
import subprocess
import sys
import threading
import time
import weakref

import vantix
from scenes import textured_scene

FRAME = textured_scene(60, 80, seed=9)


def _threads():
    return len(os.listdir("/proc/self/task"))


def test_a_callback_that_drops_the_last_reference_to_its_session():
    """The session is finalised on its worker thread, inside the callback,
    where it must not be stopped (the stop would wait for that very thread):
    it is closed from a helper thread once the callback has returned."""
    before = _threads()
    trigger, dropped = threading.Event(), threading.Event()

    def make():
        holder = {}

        def on_report(item):
            if trigger.is_set() and holder:
                holder.clear()  # the last reference: finalised right here
                dropped.set()

        holder["session"] = vantix.StitchSession(80, 60, callback=on_report)
        holder["session"].start()
        return weakref.ref(holder["session"])

    ref = make()
    trigger.set()
    ref().push(FRAME)
    assert dropped.wait(timeout=20)
    for _ in range(2000):
        if ref() is None and _threads() == before:
            break
        time.sleep(0.01)
    assert ref() is None and _threads() == before


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
                         capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr
    assert run.stdout.strip() == "leaving" and run.stderr == ""
