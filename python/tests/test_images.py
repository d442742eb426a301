"""Image operations and spot measurement on numpy arrays of every depth and
layout, against results known here."""

import numpy as np
import pytest

import vantix
from simcam import Camera

RNG = np.random.default_rng(7)


@pytest.mark.parametrize("dtype,bits,channels", [(np.uint8, None, (4,)), (np.uint16, 12, ()),
                                                 (np.uint16, 16, (3,))])
@pytest.mark.parametrize("cut", [np.s_[::2, 1::2], np.s_[:9, :13]],
                         ids=["pixels strided: copied", "rows padded: read in place"])
def test_nearest_doubling_of_a_view_into_a_view_repeats_every_pixel(dtype, bits, channels, cut):
    image = RNG.integers(0, 2 ** (bits or 8), (18, 26) + channels, dtype)[cut]
    target = np.zeros((24, 30) + channels, dtype)
    inside = target[3:21, 2:28]
    assert vantix.resize(image, (26, 18), "nearest", bits=bits, out=inside) is inside
    np.testing.assert_array_equal(inside, image.repeat(2, 0).repeat(2, 1))
    assert not target[:3].any() and not target[:, 28:].any()  # nothing beyond the view
    with pytest.raises(ValueError):
        vantix.resize(image, (26, 18), out=np.zeros((18, 26) + channels, np.int32))


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
        assert session.snap(frame, 46, 37) == (True, 50, 40)
        # What the library would answer with a C++ exception, ending the process.
        for image, x, y in ((frame, -1, 10), (frame, 118, 10), (frame, 10, 90),
                            (frame[:, :-1], 10, 10)):
            with pytest.raises(ValueError):
                session.snap(image, x, y)


def test_a_pull_measures_the_frame_the_camera_delivered_at_its_depth():
    with Camera(200, 160) as camera, vantix.SpotSession() as session:
        for i in range(2):
            assert len(session.pull(camera, bits=16)) == 1
            np.testing.assert_array_equal(session.last_frame, camera.render(i, 16))
        with pytest.raises(ValueError):
            session.pull(camera, bits=32)  # would be a C++ exception in the library


# Arrays go through the array camera, which the library binds only when no
# other camera SDK was loaded before it: a fresh interpreter.  The truth is
# the arrays' own second moments (the first aperture, inscribed in the
# frame, holds the whole beam).
_ARRAYS = r'''
import numpy as np
import vantix

y, x = np.mgrid[0:400, 0:480].astype(np.float64)
profile = np.exp(-0.5 * (((x - 241.3) / 40.0) ** 2 + ((y - 197.6) / 26.0) ** 2))

def check(image, like, **options):
    """The spot measured in `image` has the moments of the grey array `like`."""
    a = like / like.sum(dtype=np.float64)
    cx, cy = (a * x).sum(), (a * y).sum()
    truth = cx, cy, 4 * np.sqrt((a * (x - cx) ** 2).sum()), 4 * np.sqrt((a * (y - cy) ** 2).sum())
    spot = vantix.measure_spots(image, **options)[0]
    got = (spot.center_x, spot.center_y, spot.major_diameter, spot.minor_diameter)
    assert np.allclose(got, truth, rtol=1e-9, atol=0), (got, truth)

eight, grey = np.rint(255 * profile).astype(np.uint8), np.rint(4095 * profile).astype(np.uint16)
check(eight, eight)
check(np.pad(grey, ((7, 23), (11, 29)))[7:407, 11:491], grey)  # a view of padded rows
# A flipped B G R A copy with a 200-count offset, which the corner estimate
# takes off exactly: the same beam, upside down.
colour = np.dstack([grey, grey, grey, np.full_like(grey, 9)]) + np.uint16(200)
check(colour[::-1], grey[::-1], dark_level="corners")
'''


def test_arrays_are_measured_at_their_own_depth_layout_and_strides(python):
    python("-c", _ARRAYS)  # status 0: every check of the script held
