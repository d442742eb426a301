"""Stitch and EDF sessions: scenes with known shifts and sharp parts, camera
pulls, callbacks, and sessions closed or dropped while running."""

import gc
import os
import subprocess
import sys
import threading
import time
import weakref

import numpy as np
import pytest

import vantix
from simcam import Camera, blur, texture

W, H = 160, 120
SCENE = texture(700, 1200, seed=4)
SHARP = texture(H, W, seed=1)
BLURRED = blur(SHARP, 3)


def _cut(scene, path):
    return [scene[y:y + H, x:x + W] for x, y in path]


def _strips(sharp, blurred, count):
    """`count` frames, each sharp on its own vertical strip only."""
    step = sharp.shape[1] // count
    for i in range(count):
        frame = blurred.copy()
        frame[:, step * i:step * i + step] = sharp[:, step * i:step * i + step]
        yield frame


@pytest.mark.parametrize("layout", ["bgr", "rgb", "grey"])
def test_a_pan_left_and_up_places_every_frame_at_its_known_shift(layout):
    """The canvas grows left and up, moving what it holds; an empty frame is reported."""
    scene = {"bgr": SCENE, "rgb": SCENE[:, :, ::-1], "grey": SCENE[:, :, 1]}[layout]
    path = [(700 - 6 * i, 400 - 3 * i) for i in range(100)]
    frames = _cut(scene, path)
    frames[50] = np.zeros((0, 0), np.uint8)
    result = vantix.stitch(frames, channels=layout if layout == "rgb" else None)
    assert [e.code for e in result.events].count(5) >= 2  # grown twice
    assert [f.mode for f in result.frames] == ["placed"] * 50 + ["empty"] + ["placed"] * 49
    x0, y0 = path[-1]  # the panorama's top-left corner
    assert [tuple(f.position) for i, f in enumerate(result.frames) if i != 50] == \
        [(x - x0, y - y0) for i, (x, y) in enumerate(path) if i != 50]
    assert result.image.shape[:2] == (H + path[0][1] - y0, W + path[0][0] - x0)
    for x, y in (path[0], path[-1]):  # the first frame, moved twice, and the last
        drawn = result.image[y - y0:y - y0 + H, x - x0:x - x0 + W]
        assert np.median(np.abs(drawn.astype(int) - scene[y:y + H, x:x + W])) <= 1


def test_painted_is_what_the_canvas_drew():
    """Frames 8 pixels apart on black: the canvas draws a frame more than a
    tenth of a frame (16) from the last one drawn, so every third, the last
    at x = 216; beyond it the image is background.  Ten draws: the canvas's
    draw queue (11) cannot overflow, whatever the thread scheduling."""
    scene = np.maximum(SCENE, 1)  # no black in the scene itself
    result = vantix.stitch(_cut(scene, [(8 * i, 100) for i in range(30)]), background="black")
    assert result.image.shape == (H, W + 232, 3) and result.painted == (0, 0, W + 216, H)
    black = (result.image == 0).all(axis=2)
    assert not black[:, :W + 216].any() and black[:, W + 216:].all()


def test_waiting_pushes_of_16_bit_frames_are_all_reported_when_drain_returns():
    shifts = [(30 * i, 5 * (i % 3)) for i in range(8)]
    frames = _cut(SCENE, [(20 + sx, 100 + sy) for sx, sy in shifts])
    with vantix.StitchSession(W, H, format="BGR16", background="black") as session:
        session.start()
        for frame in frames:  # the scene's values times 257
            session.push(frame.astype(np.uint16) * 257, wait=True)
        session.drain()
        reports = [e for e in session.events(timeout=0) if isinstance(e, vantix.StitchFrame)]
        panorama = session.stop()
        x, y, w, h = session.crop_rect()
        view = session.readdata(w // 2, h // 2, roi=(x, y, w, h))
    # The first frame sits at (2 W, 2 H) of the canvas, the others at their shifts.
    assert [(r.mode, r.x - 2 * W, r.y - 2 * H) for r in reports] == \
        [(1, sx, sy) for sx, sy in shifts]
    scene = SCENE[100:100 + h, 20:20 + w].astype(float)
    assert (w, h) == (W + shifts[-1][0], H + 10) and panorama.shape == (h, w, 3)
    assert np.median(np.abs(panorama - scene)) <= 1
    halved = scene[:h // 2 * 2, :w // 2 * 2].reshape(h // 2, 2, w // 2, 2, 3).mean(axis=(1, 3))
    assert np.median(np.abs(view[:, :, :3] - halved)) <= 3


@pytest.mark.parametrize("layout", ["bgr", "rgb", "grey", "12-bit"])
def test_one_call_fuses_all_20_frames_of_a_stack(layout):
    """Sharp everywhere only if every frame was fused."""
    pick = {"rgb": np.s_[:, :, ::-1], "grey": np.s_[:, :, 1]}.get(layout, np.s_[:])
    sharp, blurred = SHARP[pick], BLURRED[pick]
    frames = _strips(sharp, blurred, 20)
    if layout == "12-bit":  # samples as a 12-bit sensor gives them: top bits repeated below
        twelve = (f.astype(np.uint16) * 16 + f // 16 for f in frames)
        fused = vantix.fuse(twelve, kind="stack", bits=12)
        assert fused.dtype == np.uint16
        fused = (fused >> 4).astype(np.uint8)
    else:
        fused = vantix.fuse(frames, kind="stack", channels=None if layout == "bgr" else layout)
    assert fused.shape == sharp.shape and fused.dtype == np.uint8
    fused_error, blurred_error = (np.abs(a.astype(float) - sharp)[8:-8] for a in (fused, blurred))
    for i in range(1, 19):  # a frame left out leaves its strip blurred
        strip = np.s_[:, 8 * i:8 * i + 8]
        assert fused_error[strip].mean() < blurred_error[strip].mean() / 2, i


@pytest.mark.parametrize("kind,format,bits,version", [
    ("stitch", "BGR8", 24, 2), ("stitch", "BGR16", 48, 3), ("stitch", "BGRA16", 64, 4),
    ("stitch", "BGRA8", 32, "named"), ("edf", "BGR8", 24, "named"), ("edf", "BGR16", 48, 4)])
def test_pulls_deliver_the_cameras_frames_at_their_depth_and_push_them(kind, format, bits,
                                                                      version):
    if kind == "stitch":
        session, report = vantix.StitchSession(W, H, format=format), vantix.StitchFrame
    else:
        session, report = vantix.EdfSession(format=format), vantix.EdfFrame
    with Camera(W, H) as camera, session:
        session.start()
        for i in range(3):
            pulled = session.pull(camera, version=version)
            np.testing.assert_array_equal(pulled.image, camera.render(i, bits))
            record_bytes = {2: 24, 3: 40, 4: 104, "named": None}[version]
            assert (pulled.info and len(pulled.info)) == record_bytes
            assert session.wait_for(report, i + 1, timeout=None)  # pushed and processed
        with pytest.raises(ValueError):  # grey frames cannot go into a colour session
            session.pull(camera, bits=8)


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
    session.push(SCENE[:H, :W])
    session.wait_for(vantix.StitchFrame, 1, timeout=None)
    with pytest.raises(vantix.CallbackError) as caught:
        session.close()  # once the worker has ended
    assert isinstance(caught.value.__cause__, RuntimeError if stop else KeyError)
    assert list(session.events(timeout=0)) == [] and seen and threading.get_ident() not in seen
    session.close()  # twice: nothing left to do or report
    with pytest.raises(ValueError):
        session.push(SCENE[:H, :W])  # closed


KEPT = {}  # a session reachable from its callback without a reference cycle


@pytest.mark.parametrize("how", ["close", "release", "cycle", "in_callback"])
def test_a_session_dropped_while_running_ends_its_threads(how):
    """Closed, released, freed by the collector (a cycle through its callback),
    or released inside its own callback (then closed from a helper thread)."""
    before, holder = _threads(), {}
    callback = {"cycle": lambda item, h=holder: h["s"].running,
                "in_callback": lambda item: KEPT.pop("armed", 0) and KEPT.clear()}.get(how)
    session = holder["s"] = vantix.StitchSession(W, H, callback=callback).start()
    for frame in _cut(SCENE, [(30 * i, 40) for i in range(6)]):
        session.push(frame)
    if how == "close":
        session.close()
    if how == "in_callback":  # the next report drops the last reference
        KEPT.update(s=session, armed=1)
        session.push(SCENE[40:40 + H, 180:180 + W])
    gone = weakref.ref(session)
    del session, holder, callback
    gc.collect()
    # The worker and the canvas's drawing thread have ended (in the
    # callback's case, once the helper thread's close has run).
    assert how == "in_callback" or (gone() is None and _threads() == before)
    while gone() is not None or _threads() != before:
        time.sleep(0.01)


EXIT_SCRIPT = """
import numpy as np, vantix
frame = np.random.default_rng(0).integers(0, 256, (60, 80, 3), np.uint8)
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
