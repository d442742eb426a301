"""Extended depth of field: stacks whose sharp parts are known."""

import threading

import numpy as np
import pytest

import vantix
from simcam import Camera, blur, texture, twelve_bit

SHARP = texture(120, 160, seed=1)
BLURRED = blur(SHARP, 3)


def _strips(sharp, blurred, count):
    """`count` frames, each sharp on its own vertical strip only."""
    step = sharp.shape[1] // count
    for i in range(count):
        frame = blurred.copy()
        frame[:, step * i:step * i + step] = sharp[:, step * i:step * i + step]
        yield frame


def _error(image):
    """Mean absolute error left and right of the seam of two halves."""
    d = np.abs(image.astype(float) - SHARP)[8:-8, 8:-8]
    return d[:, :64].mean(), d[:, 88:].mean()


@pytest.mark.parametrize("layout", ["bgr", "rgb", "grey"])
def test_one_call_fuses_all_20_frames_of_a_stack(layout):
    """Sharp everywhere only if every frame was fused."""
    pick = {"bgr": np.s_[:, :, :], "rgb": np.s_[:, :, ::-1], "grey": np.s_[:, :, 1]}[layout]
    sharp, blurred = SHARP[pick], BLURRED[pick]
    fused = vantix.fuse(_strips(sharp, blurred, 20), kind="stack",
                        channels=None if layout == "bgr" else layout)
    assert fused.shape == sharp.shape and fused.dtype == np.uint8
    fused_error, blurred_error = (np.abs(a.astype(float) - sharp)[8:-8] for a in (fused, blurred))
    for i in range(1, 19):  # a frame left out leaves its strip blurred
        strip = np.s_[:, 8 * i:8 * i + 8]
        assert fused_error[strip].mean() < blurred_error[strip].mean() / 2, i


def test_a_twelve_bit_stack_with_bits_12_fuses_as_its_eight_bit_original():
    """As 16-bit, 12-bit data keep 17 grey levels: a warning says so."""
    stack = list(_strips(SHARP, BLURRED, 4))
    eight = vantix.fuse(stack, kind="stack")
    twelve = vantix.fuse(map(twelve_bit, stack), kind="stack", bits=12)
    assert twelve.dtype == np.uint16
    np.testing.assert_array_equal(twelve, twelve_bit(eight))
    with pytest.warns(UserWarning, match="bits=12"):
        assert len(np.unique(vantix.fuse(map(twelve_bit, stack), kind="stack"))) <= 17


def test_a_focus_sweep_pulled_from_the_camera_is_sharper_than_every_slice():
    with Camera(160, 120) as camera, vantix.EdfSession("stack") as session:
        camera.set_focus_sweep(SHARP, 5, 8.0)
        assert session.readdata() is None  # nothing fused yet
        session.start()
        slices = []
        for i, version in enumerate((2, 3, 4, "named", 2)):
            slices.append(session.pull(camera, version=version).image)
            session.wait_for(vantix.EdfFrame, i + 1, timeout=None)
        reports = [next(session.events(timeout=60)) for _ in slices]
        fused = session.readdata()
    np.testing.assert_array_equal(reports[-1].image, fused)  # the report's copy
    assert np.mean(_error(fused)) < min(np.mean(_error(s)) for s in slices) / 3


def test_a_callback_pushing_every_next_frame_and_a_close_meanwhile():
    halves, threads, holder = list(_strips(SHARP, BLURRED, 2)), [], {}

    def next_frame(item):
        threads.append(threading.get_ident())
        holder["session"].push(halves[len(threads) % 2])  # never stops feeding

    session = vantix.EdfSession("stack", callback=next_frame)
    holder["session"] = session
    session.start()
    session.push(halves[0])
    session.wait_for(vantix.EdfFrame, 4, timeout=None)
    assert max(_error(session.readdata())) < 1
    session.close()  # the callback's pushes into the closing session are dropped
    holder.clear()
    assert threading.get_ident() not in threads and len(set(threads)) == 1


def test_a_failing_worker_is_reported_and_fuse_raises(monkeypatch):
    """A session without fuser (a kind made beneath the binding's check)
    fails on its first frame; a waiting push then returns at once, and a
    restart resumes; fuse raises instead of waiting."""
    monkeypatch.setattr(vantix._edf._names, "code", lambda *args: 7)
    with vantix.EdfSession() as session:
        session.start()
        session.push(SHARP, wait=True)
        session.push(SHARP, wait=True)  # dropped while halted; does not wait
        session.drain()
        assert session.halted
        error = next(session.events(timeout=60))
        assert (error.code, error.name) == (1, "VANTIX_EDF_ERROR_FAILED")
        session.stop()
        assert not session.start().halted
    with pytest.raises(vantix.ProcessingError) as caught:
        vantix.fuse(iter([SHARP, SHARP, SHARP]))
    assert caught.value.code == 1 and caught.value.result is None
