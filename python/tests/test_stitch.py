"""Live stitching end to end: known shifts, the panorama against the scene,
every frame accounted for, pulls from the simulated camera, and the
worker-thread callbacks."""

import gc
import os
import threading
import warnings
import weakref

import numpy as np
import pytest

import vantix
from scenes import photo, textured_scene, twelve_bit

W, H = 160, 120
SCENE = textured_scene(400, 760, seed=3)


def _pan_frames(count, dx=30, x0=20, y0=100):
    """Frames of SCENE moving right by dx (and up and down by 5): known
    positions relative to the first frame."""
    shifts = [(dx * i, 5 * (i % 3)) for i in range(count)]
    frames = [SCENE[y0 + sy:y0 + sy + H, x0 + sx:x0 + sx + W] for sx, sy in shifts]
    return frames, shifts


BIG_SCENE = textured_scene(700, 1200, seed=4)


@pytest.mark.parametrize("channels", [None, "rgb"])
def test_one_call_pan_left_and_up_places_every_frame_at_its_known_shift(channels):
    """The canvas grows left and up twice, moving what it holds: positions
    still come out in the panorama's pixels."""
    path = [(700 - 12 * i, 400 - 7 * i) for i in range(40)]
    scene = BIG_SCENE[:, :, ::-1] if channels else BIG_SCENE
    result = vantix.stitch((scene[y:y + H, x:x + W] for x, y in path), channels=channels)
    assert [e.code for e in result.events].count(5) >= 2  # grown twice
    assert [f.mode for f in result.frames] == ["placed"] * len(path)
    x0, y0 = path[-1]
    for frame, (x, y) in zip(result.frames, path):
        assert abs(frame.position[0] - (x - x0)) <= 1 and abs(frame.position[1] - (y - y0)) <= 1
    h, w = result.image.shape[:2]
    assert (w, h) == (W + path[0][0] - x0, H + path[0][1] - y0)
    covered = np.zeros((h, w), bool)  # a diagonal band: the rest is background
    for x, y in path:
        covered[y - y0:y - y0 + H, x - x0:x - x0 + W] = True
    difference = np.abs(result.image.astype(int) - scene[y0:y0 + h, x0:x0 + w])
    assert np.median(difference[covered]) <= 1


def test_one_call_accounts_for_all_163_frames_of_a_grey_scan():
    path = [(20 + 2 * i, 100 + (i % 5)) for i in range(163)]
    grey = BIG_SCENE[:, :, 1]
    frames = (grey[y:y + H, x:x + W] if i != 50 else np.zeros((0, 0), np.uint8)
              for i, (x, y) in enumerate(path))
    result = vantix.stitch(frames)
    assert len(result.frames) == 163 and result.frames[50].mode == "empty"
    for i, (frame, (x, y)) in enumerate(zip(result.frames, path)):
        if i != 50:
            assert frame.mode == "placed" and frame.score > 0
            assert abs(frame.position[0] - (x - 20)) <= 1 and abs(frame.position[1] - (y - 100)) <= 1
    assert result.image.shape == (H + 4, W + 2 * 162)
    region = grey[100:104 + H, 20:20 + W + 2 * 162].astype(int)
    assert np.median(np.abs(result.image - region)) <= 1


def test_a_twelve_bit_scan_with_bits_12_stitches_as_its_eight_bit_original():
    """12-bit data in uint16 words, given as 16-bit, keep 17 grey levels:
    one warning says so; with bits=12 the scan is the 8-bit one."""
    building = photo("building.jpg")
    path = [(6 * i, 40 + i % 4) for i in range(87)]
    scan = lambda image: (image[y:y + 240, x:x + 320] for x, y in path)  # noqa: E731
    eight = vantix.stitch(scan(building))
    assert [f.mode for f in eight.frames] == ["placed"] * len(path)
    twelve = vantix.stitch(scan(twelve_bit(building)), bits=12)
    np.testing.assert_array_equal(twelve.image, eight.image)
    assert twelve.frames == eight.frames
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        vantix.stitch(scan(twelve_bit(building)))
    assert [(w.category, "bits=12" in str(w.message)) for w in caught] == [(UserWarning, True)]


# A pan that draws fewer than 11 frames: the canvas's draw queue (11
# entries, the oldest dropped when full) cannot overflow however the threads
# are scheduled, so what is drawn follows from the rule alone.  A longer pan
# may lose draws on a fast machine, where the drawing thread falls behind
# the worker; `painted` then overstates (documented).
@pytest.mark.parametrize("path", [[(8 * i, 100) for i in range(30)]])  # right in 8-pixel steps
def test_painted_is_what_the_canvas_drew(path):
    """On a black background: the frames the canvas draws (the first, then
    each more than a tenth of a frame from the last drawn) show the scene,
    the rest of the covered rectangle stays black."""
    scene = np.maximum(BIG_SCENE, 1)  # no black in the scene itself
    result = vantix.stitch((scene[y:y + H, x:x + W] for x, y in path), background="black")
    x0, y0 = min(x for x, _ in path), min(y for _, y in path)
    drawn = [path[0]]
    for x, y in path[1:]:
        if abs(x - drawn[-1][0]) > W // 10 or abs(y - drawn[-1][1]) > H // 10:
            drawn.append((x, y))
    assert len(drawn) < len(path) and len(drawn) < 11  # some frames are not drawn
    painted = np.zeros(result.image.shape[:2], bool)
    for x, y in drawn:
        painted[y - y0:y - y0 + H, x - x0:x - x0 + W] = True
    rows, cols = np.nonzero(painted)
    assert result.painted == (cols.min(), rows.min(), cols.max() + 1 - cols.min(),
                              rows.max() + 1 - rows.min())
    black = (result.image == 0).all(axis=2)
    assert not black[painted].any() and black[~painted].all()
    x, y, w, h = result.painted
    np.testing.assert_array_equal(result.painted_image, result.image[y:y + h, x:x + w])


def _push_all(session, frames):
    for frame in frames:
        session.push(frame, wait=True)
    session.drain()


def test_pushed_pan_is_placed_at_the_known_shifts_and_matches_the_scene():
    frames, shifts = _pan_frames(12)
    with vantix.StitchSession(W, H) as session:
        session.start()
        _push_all(session, frames)
        panorama = session.stop()
        crop = session.crop_rect()
        reports = [e for e in session.events(timeout=0) if isinstance(e, vantix.StitchFrame)]
    assert [r.mode for r in reports] == [vantix._stitch.PLACED] * len(frames)
    first = reports[0]
    assert (first.x, first.y) == (2 * W, 2 * H)  # the first frame's canvas position
    for report, (sx, sy) in zip(reports, shifts):
        assert abs(report.x - first.x - sx) <= 1 and abs(report.y - first.y - sy) <= 1
    # The covered rectangle is the union of the frames, and its pixels are
    # the scene's (rows in the pushed frames' order).
    assert crop[2:] == (W + shifts[-1][0], H + 10)
    assert panorama.shape == (H + 10, W + shifts[-1][0], 3)
    scene_part = SCENE[100:100 + H + 10, 20:20 + W + shifts[-1][0]].astype(int)
    assert np.abs(panorama.astype(int) - scene_part).mean() < 3
    assert np.median(np.abs(panorama.astype(int) - scene_part)) <= 1


def test_sixteen_bit_frames_and_the_scaled_canvas_view():
    frames, shifts = _pan_frames(4)
    with vantix.StitchSession(W, H, format="BGRA16", background="black",
                              scale_level=3, strict_level=1) as session:
        session.start()
        for frame in frames:
            bgra = np.dstack([frame, np.full((H, W), 255, np.uint8)]).astype(np.uint16) * 257
            session.push(bgra, wait=True)
        session.drain()
        panorama = session.stop()
        x, y, w, h = session.crop_rect()
        view = session.readdata(w // 2, h // 2, roi=(x, y, w, h))
    scene_part = SCENE[100:100 + h, 20:20 + w].astype(float)
    assert (w, h) == (W + shifts[-1][0], H + 10) and panorama.shape == (h, w, 3)
    assert np.median(np.abs(panorama - scene_part)) <= 1
    # The half-size view of the covered rectangle is the half-size scene.
    halved = scene_part[:h // 2 * 2, :w // 2 * 2].reshape(h // 2, 2, w // 2, 2, 3)
    assert view.shape == (h // 2, w // 2, 4)
    assert np.median(np.abs(view[:, :, :3] - halved.mean(axis=(1, 3)))) <= 3


def test_pulled_pan_from_the_camera_matches_the_scene(simcam):
    with simcam.open(W, H) as camera, vantix.StitchSession(W, H) as session:
        path = [(40, 120), (400, 150)]
        camera.set_pan(SCENE, path, frames_per_segment=10)
        session.start()
        for i in range(11):
            version = (2, 3, 4, "named")[i % 4]
            pulled = session.pull(camera, version=version)
            np.testing.assert_array_equal(pulled.image, camera.render(i))
            assert pulled.result == 0
            assert pulled.info is None if version == "named" else \
                len(pulled.info) == {2: 24, 3: 40, 4: 104}[version]
            assert session.wait_for(vantix.StitchFrame, i + 1, timeout=20)
        panorama = session.stop()
        x0, y0 = camera.pan_position(0)
        x1, y1 = camera.pan_position(10)
    assert abs(panorama.shape[1] - (W + x1 - x0)) <= 2
    assert abs(panorama.shape[0] - (H + y1 - y0)) <= 2
    region = SCENE[int(y0):int(y0) + panorama.shape[0], int(x0):int(x0) + panorama.shape[1]]
    assert np.median(np.abs(panorama.astype(int) - region)) <= 2


def test_a_camera_failure_raises_its_code_and_nothing_is_pushed(simcam):
    with simcam.open(W, H) as camera, vantix.StitchSession(W, H) as session:
        session.start()
        camera.set_result(0x80001234)
        with pytest.raises(vantix.VantixError) as caught:
            session.pull(camera)
        assert caught.value.code == 0x80001234 and caught.value.name == "0x80001234"
        camera.set_result(3)  # a positive code is a success
        assert session.pull(camera).result == 3
        assert session.wait_for(vantix.StitchFrame, 1, timeout=20)
        # Grey frames may be pulled, but not pushed into a B G R session.
        np.testing.assert_array_equal(session.pull(camera, bits=8, push=False).image,
                                      camera.render(1, 8))
        with pytest.raises(ValueError):
            session.pull(camera, bits=8)
        assert camera.frame_index() == 2


def test_a_worker_stopped_by_a_failure_never_leaves_a_waiting_push_hanging():
    frames, _ = _pan_frames(2)
    with vantix.StitchSession(W, H) as session:
        session.start()
        session.push(frames[0], wait=True)
        # A frame of another size (the binding refuses it; pushed beneath the
        # check here) makes the worker fail and stop.
        session._push_prepared(np.ascontiguousarray(SCENE[:H // 2, :W // 2]), W // 2 * 3)
        session.push(frames[1], wait=True)  # returns: the worker has halted
        session.drain()
        assert session.halted
        assert [e.code for e in session.events(timeout=0)
                if isinstance(e, vantix.StitchEvent)] == [1]
        session.stop()
        session.start()  # resumes
        session.push(frames[1], wait=True)
        session.drain()
        assert not session.halted


def test_callbacks_run_on_the_worker_thread_and_their_errors_reach_the_caller():
    frames, _ = _pan_frames(3)
    seen = []

    def record(item):
        seen.append((type(item), threading.get_ident()))
        if len(seen) == 2:
            raise KeyError("from the callback")

    session = vantix.StitchSession(W, H, callback=record, copy_canvas=True)
    session.start()
    session.push(frames[0])
    assert session.wait_for(vantix.StitchFrame, 1, timeout=20)
    session.push(frames[1])
    assert session.wait_for(vantix.StitchFrame, 2, timeout=20)
    with pytest.raises(vantix.CallbackError) as caught:
        session.push(frames[2])
    assert isinstance(caught.value.__cause__, KeyError)
    session.close()
    assert list(session.events(timeout=0)) == []  # everything went to the callback
    assert {ident for _, ident in seen} and threading.get_ident() not in \
        {ident for _, ident in seen}
    with pytest.raises(ValueError):
        session.push(frames[0])


def test_stop_from_another_thread_while_pushing_and_a_busy_callback():
    frames, _ = _pan_frames(12)
    spins = []

    def busy(item):  # holds the interpreter lock for a while on every report
        spins.append(sum(range(20000)))

    session = vantix.StitchSession(W, H, callback=busy)
    session.start()
    result = {}
    stopper = threading.Thread(target=lambda: result.setdefault("pano", session.stop()))
    for i, frame in enumerate(frames):
        session.push(frame)  # frames pushed after the stop are dropped
        if i == 4:
            stopper.start()
    stopper.join(timeout=60)
    assert not stopper.is_alive() and not session.running
    assert result["pano"] is None or result["pano"].shape[2] == 3
    session.close()
    session.close()  # idempotent


def _native_threads():
    return len(os.listdir("/proc/self/task"))


def test_sessions_closed_or_collected_while_running():
    frames, _ = _pan_frames(6)
    before = _native_threads()
    for how in ("close", "release", "cycle"):
        holder = {}
        session = vantix.StitchSession(
            W, H, callback=(lambda item, h=holder: h["s"].running) if how == "cycle" else None)
        holder["s"] = session  # with the callback: a cycle only the collector frees
        session.start()
        for frame in frames:
            session.push(frame)
        if how == "close":
            session.close()
        gone = weakref.ref(session)
        del session, holder
        gc.collect()
        assert gone() is None, how
        # The worker and the canvas's drawing thread have ended.
        assert _native_threads() == before, how


def test_a_callback_may_not_stop_its_own_session():
    frames, _ = _pan_frames(1)
    holder = {}
    session = vantix.StitchSession(W, H, callback=lambda item: holder["s"].stop())
    holder["s"] = session
    session.start()
    session.push(frames[0])
    session.wait_for(vantix.StitchFrame, 1, timeout=20)
    with pytest.raises(vantix.CallbackError) as caught:
        session.close()
    assert isinstance(caught.value.__cause__, RuntimeError)
    holder.clear()
