"""resize, demosaic and edge snapping on numpy arrays of every depth and
layout, against results known here."""

import numpy as np
import pytest

import vantix

RNG = np.random.default_rng(7)


@pytest.mark.parametrize("shape,dtype,bits,top", [((18, 26, 4), np.uint8, None, 255),
                                                   ((18, 26), np.uint16, 12, 4095),
                                                   ((18, 26, 3), np.uint16, 16, 65535)])
def test_nearest_doubling_of_a_strided_view_repeats_every_pixel(shape, dtype, bits, top):
    # Rows and pixels both strided: copied first.
    image = RNG.integers(0, top, shape, dtype, endpoint=True)[::2, 1::2]
    out = vantix.resize(image, (26, 18), interpolation="nearest", bits=bits)
    assert out.dtype == dtype
    np.testing.assert_array_equal(out, image.repeat(2, axis=0).repeat(2, axis=1))


def test_row_padded_views_are_read_and_written_in_place():
    padded = RNG.integers(0, 256, (40, 64, 3), np.uint8)[:20, :32]
    target = np.zeros((50, 70, 3), np.uint8)
    assert vantix.resize(padded, (64, 40), "nearest", out=target[5:45, 3:67]) is not None
    np.testing.assert_array_equal(target[5:45, 3:67], padded.repeat(2, 0).repeat(2, 1))
    assert not target[:5].any() and not target[:, 67:].any()
    with pytest.raises(ValueError):
        vantix.resize(padded, (64, 40), out=np.zeros((40, 64, 3), np.uint16))


@pytest.mark.parametrize("dtype,bits,bgr", [(np.uint8, None, (30, 140, 220)),
                                            (np.uint16, 12, (500, 2000, 3500))])
@pytest.mark.parametrize("pattern,red,blue", [("RGGB", (0, 0), (1, 1)), ("BGGR", (1, 1), (0, 0)),
                                              ("GRBG", (0, 1), (1, 0)), ("GBRG", (1, 0), (0, 1))])
def test_demosaic_restores_a_flat_colour_in_the_channel_order_asked(dtype, bits, bgr, pattern,
                                                                    red, blue):
    raw = np.full((24, 24), bgr[1], dtype)
    raw[red[0]::2, red[1]::2], raw[blue[0]::2, blue[1]::2] = bgr[2], bgr[0]
    inside = np.s_[3:-3, 3:-3]  # away from the borders
    for algorithm in ("bilinear", "edge_aware") + (("vng",) if bits is None else ()):
        out = vantix.demosaic(raw, pattern=pattern.lower(), bits=bits, algorithm=algorithm)
        assert out.shape == (24, 24, 3) and out.dtype == dtype and out.flags.c_contiguous
        assert (out[inside] == bgr).all(), algorithm
    rgba = np.empty((24, 24, 4), dtype)
    assert vantix.demosaic(raw, pattern=pattern, bits=bits, order="RGBA", out=rgba) is rgba
    assert (rgba[inside][..., :3] == bgr[::-1]).all()


def test_a_click_snaps_to_the_corner_of_a_square_and_clicks_off_the_frame_are_refused():
    frame = np.full((90, 118, 3), 25, np.uint8)  # rows of 354 bytes, read padded to 356
    frame[40:48, 50:58] = 255
    with vantix.EdgeSession(118, 90, size=10) as session:
        moved, x, y = session.snap(frame, 46, 37)
        assert moved and abs(x - 50) <= 1 and abs(y - 40) <= 1
        # A smaller search size, for this and later calls.
        assert session.snap(frame, 46, 37, size=3) == (False, 46, 37) and session.size == 3
        # What the library would answer with a C++ exception, ending the process.
        for image, x, y in ((frame, -1, 10), (frame, 118, 10), (frame, 10, 90),
                            (frame[:, :-1], 10, 10)):
            with pytest.raises(ValueError):
                session.snap(image, x, y)
