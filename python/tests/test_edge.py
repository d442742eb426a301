"""EdgeSession: snapping onto a square whose corners are known."""

import numpy as np
import pytest

import vantix

W, H = 120, 90
# A bright 8 x 8 square: its outline (stored as its corner points) is the
# only edge in the frame.
TOP_LEFT, BOTTOM_RIGHT = (50, 40), (57, 47)


def _frame(fmt):
    name, dtype, channels = {0: ("BGR8", np.uint8, 3), 1: ("BGR16", np.uint16, 3),
                             2: ("BGRA8", np.uint8, 4), 3: ("BGRA16", np.uint16, 4)}[fmt]
    top = 255 if dtype == np.uint8 else 65535
    frame = np.full((H, W, channels), top // 10, dtype)
    frame[TOP_LEFT[1]:BOTTOM_RIGHT[1] + 1, TOP_LEFT[0]:BOTTOM_RIGHT[0] + 1, :3] = top
    return frame


@pytest.mark.parametrize("fmt", [0, 1, 2, 3])
def test_a_point_near_the_square_snaps_to_its_nearest_corner(fmt):
    frame = _frame(fmt)
    with vantix.EdgeSession(W, H, format=fmt, size=10) as session:
        for click, corner in (((46, 37), TOP_LEFT), ((61, 50), BOTTOM_RIGHT)):
            moved, x, y = session.snap(frame, *click)
            assert moved
            assert abs(x - corner[0]) <= 1 and abs(y - corner[1]) <= 1
        # Far from the square (and from any edge): the point stays.
        assert session.snap(frame, 20, 70) == (False, 20, 70)
        # A smaller search size for this and later calls.
        assert session.snap(frame, 46, 37, size=3) == (False, 46, 37)
        assert session.size == 3 and session.snap(frame, 46, 37) == (False, 46, 37)


def test_points_outside_the_frame_and_foreign_frames_are_refused():
    frame = _frame(0)
    with vantix.EdgeSession(W, H) as session:
        for x, y in ((-1, 10), (W, 10), (10, H), (500, 500)):
            with pytest.raises(ValueError):
                session.snap(frame, x, y)  # the library would raise a C++ exception
        for bad in (frame[:, :-1], frame.astype(np.uint16), frame[:, :, :2]):
            with pytest.raises(ValueError):
                session.snap(bad, 10, 10)
        # The frame's corners are inside: clipped search areas work there.
        for x, y in ((0, 0), (W - 1, H - 1), (0, H - 1)):
            assert session.snap(frame, x, y) == (False, x, y)
    with pytest.raises(ValueError):
        vantix.EdgeSession(1, 10)
