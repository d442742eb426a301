"""Stitch and EDF sessions: scenes with known shifts and sharp parts, camera
pulls, callbacks, and sessions closed or dropped while running."""

import gc
import os
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


def test_waiting_pushes_of_16_bit_frames_are_all_reported_when_drain_returns():
    shifts = [(30 * i, 5 * (i % 3)) for i in range(8)]
    frames = _cut(SCENE, [(20 + sx, 100 + sy) for sx, sy in shifts])
    with vantix.StitchSession(W, H, format="BGR16", background="black").start() as session:
        for frame in frames:  # the scene's values times 257
            session.push(frame.astype(np.uint16) * 257, wait=True)
        session.drain()
        reports = [e for e in session.events(timeout=0) if isinstance(e, vantix.StitchFrame)]
        panorama = session.stop()  # read from the canvas's 4-byte pixels (through readdata)
    # The first frame sits at (2 W, 2 H) of the canvas, the others at their shifts.
    assert [(r.mode, r.x - 2 * W, r.y - 2 * H) for r in reports] == \
        [(1, sx, sy) for sx, sy in shifts]
    assert panorama.shape == (H + 10, W + shifts[-1][0], 3)
    scene = SCENE[100:100 + H + 10, 20:20 + W + shifts[-1][0]]
    assert np.median(np.abs(panorama - scene.astype(float))) <= 1


@pytest.mark.parametrize("layout", ["bgr", "rgb", "grey", "12-bit"])
def test_one_call_fuses_all_20_frames_of_a_stack(layout):
    """Sharp everywhere only if every frame was fused."""
    pick = {"rgb": np.s_[:, :, ::-1], "grey": np.s_[:, :, 1]}.get(layout, np.s_[:])
    sharp, blurred = SHARP[pick], BLURRED[pick]
    if layout == "12-bit":  # samples as a 12-bit sensor gives them: top bits repeated below
        sharp, blurred = (a.astype(np.uint16) * 16 + a // 16 for a in (sharp, blurred))
    frames = [blurred.copy() for _ in range(20)]
    for i, frame in enumerate(frames):  # frame i is sharp on columns 8 i .. 8 i + 7 only
        frame[:, 8 * i:8 * i + 8] = sharp[:, 8 * i:8 * i + 8]
    options = {"bits": 12} if layout == "12-bit" else {"channels": layout}
    fused = vantix.fuse(frames, kind="stack", **options)
    assert fused.shape == sharp.shape and fused.dtype == sharp.dtype
    fused_error, blurred_error = (np.abs(a.astype(float) - sharp)[8:-8] for a in (fused, blurred))
    for i in range(1, 19):  # a frame left out leaves its strip blurred
        strip = np.s_[:, 8 * i:8 * i + 8]
        assert fused_error[strip].mean() < blurred_error[strip].mean() / 2, i


@pytest.mark.parametrize("kind,format,bits,version", [
    ("stitch", "BGR8", 24, 2), ("stitch", "BGR16", 48, 3), ("stitch", "BGRA16", 64, 4),
    ("stitch", "BGRA8", 32, "named"), ("edf", "BGR8", 24, "named"), ("edf", "BGR16", 48, 4)])
def test_a_pull_pushes_the_camera_frame_or_raises_its_failure(kind, format, bits, version):
    if kind == "stitch":
        session, report = vantix.StitchSession(W, H, format=format), vantix.StitchFrame
    else:
        session, report = vantix.EdfSession(format=format), vantix.EdfFrame
    with Camera(W, H) as camera, session:
        session.start()
        for i in range(3):
            pulled = session.pull(camera, version=version)
            np.testing.assert_array_equal(pulled.image, camera.render(i, bits))
            assert session.wait_for(report, i + 1, timeout=None)  # pushed and processed
        with pytest.raises(ValueError):  # grey frames cannot go into a colour session
            session.pull(camera, bits=8)
        camera.set_result(0x80001234)  # a camera SDK's failure comes back as it is, in hex
        with pytest.raises(vantix.VantixError) as caught:
            session.pull(camera, version=version)
        assert (caught.value.code, caught.value.name) == (0x80001234, "0x80001234")


def _threads():
    return len(os.listdir("/proc/self/task"))


@pytest.mark.parametrize("stop", [False, True])
def test_a_callback_runs_on_the_worker_thread_and_its_error_reaches_the_caller(stop):
    seen, holder, before = [], {}, _threads()

    def callback(item):
        seen.append(threading.get_ident())
        if stop:
            holder["s"].stop()  # refused: the stop would wait for this very thread
        raise KeyError("from the callback")

    session = holder["s"] = vantix.StitchSession(W, H, callback=callback, copy_canvas=True).start()
    session.push(SCENE[:H, :W])
    session.wait_for(vantix.StitchFrame, 1, timeout=None)
    with pytest.raises(vantix.CallbackError) as caught:
        session.close()  # once the worker has ended
    assert isinstance(caught.value.__cause__, RuntimeError if stop else KeyError)
    assert _threads() == before  # the worker and the canvas's drawing thread have ended
    assert list(session.events(timeout=0)) == [] and seen and threading.get_ident() not in seen
    session.close()  # twice: nothing left to do or report
    with pytest.raises(ValueError):
        session.push(SCENE[:H, :W])  # closed


KEPT = {}  # a session reachable from its callback without a reference cycle


@pytest.mark.parametrize("how", ["release", "cycle", "in_callback"])
def test_a_session_dropped_while_running_ends_its_threads(how):
    """Released, freed by the collector (a cycle through its callback), or
    released inside its own callback (then closed from a helper thread)."""
    before, holder = _threads(), {}
    callback = {"cycle": lambda item, h=holder: h["s"].running,
                "in_callback": lambda item: KEPT.pop("armed", 0) and KEPT.clear()}.get(how)
    session = holder["s"] = vantix.StitchSession(W, H, callback=callback).start()
    for frame in _cut(SCENE, [(30 * i, 40) for i in range(6)]):
        session.push(frame)
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
for session in sessions * 20:
    session.push(frame)
"""


def test_the_interpreter_exits_cleanly_with_sessions_running(python):
    python("-c", EXIT_SCRIPT)  # status 0, nothing on standard error
