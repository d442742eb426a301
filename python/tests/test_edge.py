"""Edge snapping onto a square whose corners are known."""

import numpy as np
import pytest

import vantix

W, H = 118, 90  # B G R rows of 354 bytes: the session reads them padded to 356
TOP_LEFT, BOTTOM_RIGHT = (50, 40), (57, 47)  # of a bright square, the only edge


def test_a_point_near_the_square_snaps_to_its_nearest_corner():
    frame = np.full((H, W, 3), 25, np.uint8)
    frame[TOP_LEFT[1]:BOTTOM_RIGHT[1] + 1, TOP_LEFT[0]:BOTTOM_RIGHT[0] + 1] = 255
    with vantix.EdgeSession(W, H, size=10) as session:
        for click, corner in (((46, 37), TOP_LEFT), ((61, 50), BOTTOM_RIGHT)):
            moved, x, y = session.snap(frame, *click)
            assert moved and abs(x - corner[0]) <= 1 and abs(y - corner[1]) <= 1
        assert session.snap(frame, 20, 70) == (False, 20, 70)  # far from any edge
        # A smaller search size, for this and later calls.
        assert session.snap(frame, 46, 37, size=3) == (False, 46, 37)
        assert session.size == 3 and session.snap(frame, 46, 37) == (False, 46, 37)
        for x, y in ((-1, 10), (W, 10), (10, H)):
            with pytest.raises(ValueError):
                session.snap(frame, x, y)  # the library would raise a C++ exception
        with pytest.raises(ValueError):
            session.snap(frame[:, :-1], 10, 10)  # would be read beyond its end
