"""resize and demosaic against results computed here with numpy."""

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


# Colour sites of each pattern in a 2 x 2 cell: (row, column) of R and B.
_SITES = {"RGGB": ((0, 0), (1, 1)), "BGGR": ((1, 1), (0, 0)),
          "GRBG": ((0, 1), (1, 0)), "GBRG": ((1, 0), (0, 1))}


def _mosaic(bgr, pattern):
    (ry, rx), (by, bx) = _SITES[pattern]
    raw = bgr[:, :, 1].copy()
    raw[ry::2, rx::2] = bgr[ry::2, rx::2, 2]
    raw[by::2, bx::2] = bgr[by::2, bx::2, 0]
    return raw


def _interiors(image):
    """The pixels of 12 x 12 patches at least 3 from their borders."""
    return image.reshape(4, 12, 5, 12, -1)[:, 3:9, :, 3:9]


@pytest.mark.parametrize("dtype,bits,top", [(np.uint8, None, 255), (np.uint16, 12, 4095)])
@pytest.mark.parametrize("pattern", ["RGGB", "BGGR", "GRBG", "GBRG"])
def test_demosaic_restores_flat_colours(dtype, bits, top, pattern):
    flat = RNG.integers(0, top, (4, 5, 3), dtype, endpoint=True)
    bgr = flat.repeat(12, axis=0).repeat(12, axis=1)  # flat patches
    raw = _mosaic(bgr, pattern)
    for algorithm in ("bilinear", "edge_aware") + (("vng",) if bits is None else ()):
        out = vantix.demosaic(raw, pattern=pattern.lower(), bits=bits, algorithm=algorithm)
        assert out.shape == bgr.shape and out.dtype == dtype and out.flags.c_contiguous
        np.testing.assert_array_equal(_interiors(out), _interiors(bgr))
    rgba = np.empty(bgr.shape[:2] + (4,), dtype)
    assert vantix.demosaic(raw, pattern=pattern, bits=bits, order="RGBA", out=rgba) is rgba
    np.testing.assert_array_equal(_interiors(rgba[:, :, 2::-1]), _interiors(bgr))

