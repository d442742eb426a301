"""Stitching from Python: frames cut from a scene at known shifts land there."""

import numpy as np
import pytest

import vantix
from simcam import Camera, texture

W, H = 160, 120
SCENE = texture(700, 1200, seed=4)


def _cut(scene, path):
    return [scene[y:y + H, x:x + W] for x, y in path]


@pytest.mark.parametrize("layout", ["bgr", "rgb", "grey"])
def test_a_pan_left_and_up_places_every_frame_at_its_known_shift(layout):
    """The canvas grows left and up, moving what it holds; an empty frame is
    reported as such and the scan goes on."""
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
    h, w = result.image.shape[:2]
    assert (w, h) == (W + path[0][0] - x0, H + path[0][1] - y0)
    covered = np.zeros((h, w), bool)  # a diagonal band: the rest is background
    for x, y in path:
        covered[y - y0:y - y0 + H, x - x0:x - x0 + W] = True
    difference = np.abs(result.image.astype(int) - scene[y0:y0 + h, x0:x0 + w])
    assert np.median(difference[covered]) <= 1


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
    alpha = np.full((H, W), 255, np.uint8)
    with vantix.StitchSession(W, H, format="BGRA16", background="black") as session:
        session.start()
        for frame in frames:  # B G R A, the scene's values times 257
            session.push(np.dstack([frame, alpha]).astype(np.uint16) * 257, wait=True)
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


def test_pulls_of_every_version_and_the_camera_failing_with_its_own_code():
    with Camera(W, H) as camera, vantix.StitchSession(W, H) as session:
        camera.set_pan(SCENE, [(40, 120), (400, 150)], frames_per_segment=10)
        session.start()
        for i, version in enumerate((2, 3, 4, "named")):
            pulled = session.pull(camera, version=version)
            np.testing.assert_array_equal(pulled.image, camera.render(i))
            info = {2: 24, 3: 40, 4: 104, "named": None}[version]
            assert (pulled.info and len(pulled.info)) == info
            session.wait_for(vantix.StitchFrame, i + 1, timeout=None)  # pushed and placed
        camera.set_result(0x80001234)
        with pytest.raises(vantix.VantixError) as caught:
            session.pull(camera)
        assert caught.value.code == 0x80001234 and caught.value.name == "0x80001234"
        with pytest.raises(ValueError):  # grey frames cannot go into a B G R session
            session.pull(camera, bits=8)
