"""EdfSession end to end: stacks whose sharp parts are known."""

import threading
import warnings

import numpy as np
import pytest

import vantix
from scenes import gaussian_blur, photo, textured_scene, twelve_bit

SHARP = textured_scene(120, 160, seed=5)
BLURRED = np.clip(gaussian_blur(SHARP, 3), 0, 255).astype(np.uint8)


def _halves():
    """Two slices: the left half sharp in the first, the right in the second."""
    left, right = SHARP.copy(), SHARP.copy()
    left[:, 80:] = BLURRED[:, 80:]
    right[:, :80] = BLURRED[:, :80]
    return left, right


def _error(image, truth=SHARP):
    """Mean absolute error left and right of the seam (margins left out)."""
    d = np.abs(image.astype(float) - truth)[8:-8, 8:-8]
    return d[:, :64].mean(), d[:, 88:].mean()


@pytest.mark.parametrize("kind", ["pyramid_max", "pyramid_blend", "stack"])
def test_two_slices_keep_the_detail_of_both_halves(kind):
    slices = _halves()
    blurred_error = _error(slices[0])[1]  # what a blurred half costs
    with vantix.EdfSession(kind) as session:
        assert session.readdata() is None  # nothing fused yet
        session.start()
        for i, frame in enumerate(slices):
            session.push(frame)
            assert session.wait_for(vantix.EdfFrame, i + 1, timeout=20)
        fused = session.readdata()
        reports = list(session.events(timeout=0))
    assert [type(r) for r in reports] == [vantix.EdfFrame, vantix.EdfFrame]
    np.testing.assert_array_equal(reports[-1].image, fused)  # the callback's copy
    assert max(_error(fused)) < blurred_error / 2


@pytest.mark.parametrize("layout", ["bgr", "rgb", "grey"])
def test_one_call_fuses_all_20_frames_of_a_stack(layout):
    """Each frame is sharp on one strip only: the fused image is sharp
    everywhere only if every frame was fused."""
    sharp = {"bgr": SHARP, "rgb": SHARP[:, :, ::-1], "grey": SHARP[:, :, 1]}[layout]
    blurred = {"bgr": BLURRED, "rgb": BLURRED[:, :, ::-1], "grey": BLURRED[:, :, 1]}[layout]

    def stack():
        for i in range(20):
            frame = blurred.copy()
            frame[:, 8 * i:8 * i + 8] = sharp[:, 8 * i:8 * i + 8]
            yield frame

    fused = vantix.fuse(stack(), kind="stack", channels=None if layout == "bgr" else layout)
    assert fused.shape == sharp.shape and fused.dtype == np.uint8
    error = np.abs(fused.astype(float) - sharp)[8:-8]
    worst_strip = max(error[:, 8 * i:8 * i + 8].mean() for i in range(1, 19))
    blurred_error = np.abs(blurred.astype(float) - sharp)[8:-8, 8:-8].mean()
    assert worst_strip < blurred_error / 4, (worst_strip, blurred_error)


def test_sixteen_bit_frames_come_back_in_the_session_format():
    slices = [s.astype(np.uint16) * 257 for s in _halves()]
    with vantix.EdfSession("stack", format="BGR16") as session:
        session.start()
        for i, frame in enumerate(slices):
            session.push(frame)
            assert session.wait_for(vantix.EdfFrame, i + 1, timeout=20)
        fused = session.readdata()
    assert fused.dtype == np.uint16 and fused.shape == SHARP.shape
    assert max(_error(fused / 257.0)) < 1


def test_a_twelve_bit_stack_with_bits_12_fuses_as_its_eight_bit_original():
    """Each frame of a photo is sharp on one strip; as 12-bit data given as
    16-bit it would keep 17 grey levels: one warning a call or session."""
    sharp = photo("fruits.jpg")[120:360, 100:420]
    soft = np.clip(gaussian_blur(sharp, 3), 0, 255).astype(np.uint8)
    stack = []
    for i in range(4):
        frame = soft.copy()
        frame[:, 80 * i:80 * i + 80] = sharp[:, 80 * i:80 * i + 80]
        stack.append(frame)
    eight = vantix.fuse(stack, kind="stack")
    np.testing.assert_array_equal(vantix.fuse(map(twelve_bit, stack), kind="stack", bits=12),
                                  twelve_bit(eight))  # shifted back to 12 bits
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        assert len(np.unique(vantix.fuse(map(twelve_bit, stack), kind="stack"))) <= 17
        for bits in (None, 12):
            with vantix.EdfSession("stack", format="BGR16") as session:
                session.start()
                for frame in stack:
                    session.push(twelve_bit(frame), wait=True, bits=bits)
                session.drain()
                fused = session.readdata()
    assert [(w.category, "bits=12" in str(w.message)) for w in caught] == [(UserWarning, True)] * 2
    np.testing.assert_array_equal(fused, eight.astype(np.uint16) * 257)  # the session's format


def test_a_focus_sweep_pulled_from_the_camera_is_sharper_than_every_slice(simcam):
    count = 5
    with simcam.open(160, 120) as camera, vantix.EdfSession("stack") as session:
        camera.set_focus_sweep(SHARP, count, 8.0)
        session.start()
        slices = []
        for i in range(count):
            slices.append(session.pull(camera, version=(2, 3, 4, "named", 2)[i]).image)
            assert session.wait_for(vantix.EdfFrame, i + 1, timeout=20)
        fused = session.readdata()
    best_slice = min(np.mean(_error(s)) for s in slices)
    assert np.mean(_error(fused)) < best_slice / 3


def test_a_callback_pushing_every_next_frame_and_a_close_meanwhile():
    slices = _halves()
    threads = []
    holder = {}

    def next_frame(item):
        threads.append(threading.get_ident())
        holder["session"].push(slices[len(threads) % 2])  # never stops feeding

    session = vantix.EdfSession("stack", callback=next_frame)
    holder["session"] = session
    session.start()
    session.push(slices[0])
    assert session.wait_for(vantix.EdfFrame, 4, timeout=30)
    assert max(_error(session.readdata())) < 1
    session.close()  # the callback's pushes into the closing session are dropped
    holder.clear()
    assert threading.get_ident() not in threads and len(set(threads)) == 1


def test_a_failing_worker_is_reported_and_fuse_accounts_for_it(monkeypatch):
    """A session without fuser (a kind the binding refuses, made beneath its
    check) fails on its first frame: the session reports it and resumes
    after a restart, and fuse raises instead of waiting."""
    with pytest.raises(ValueError, match="'stack'"):
        vantix.EdfSession(kind=7)
    with pytest.raises(ValueError, match="'pyramid_max'"):
        vantix.fuse([SHARP], kind="pyramid")
    monkeypatch.setattr(vantix._edf._names, "code", lambda *args: 7)
    with vantix.EdfSession() as session:
        session.start()
        session.push(SHARP, wait=True)
        session.push(SHARP, wait=True)  # dropped while halted; does not wait
        session.drain()
        assert session.halted
        events = list(session.events(timeout=0))
        assert [(e.code, e.name) for e in events] == [(1, "VANTIX_EDF_ERROR_FAILED")]
        session.stop()
        session.start()
        session.push(SHARP, wait=True)
        session.drain()
        assert [e.code for e in session.events(timeout=0)] == [1]
    with pytest.raises(vantix.ProcessingError) as caught:
        vantix.fuse(iter([SHARP, SHARP, SHARP]))
    assert caught.value.code == 1 and caught.value.result is None
