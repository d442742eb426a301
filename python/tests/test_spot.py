"""Spot measurement against beams whose centre and width are known."""

import os
import subprocess
import sys

import numpy as np
import pytest

import vantix
from simcam import Camera


def test_an_orbiting_spot_is_measured_at_its_true_centre_and_width():
    with Camera(200, 160) as camera, vantix.SpotSession() as session:
        camera.set_spots([dict(centerX=95.0, centerY=80.0, sigmaX=6.0, sigmaY=4.0, peak=0.8,
                               orbitRadius=12.0, orbitPeriod=16)])
        for i in range(12):
            truth = camera.spot_truth(i)
            (spot,) = session.pull(camera, bits=16)
            np.testing.assert_array_equal(session.last_frame, camera.render(i, 16))
            if i < 2:
                continue  # the automatic aperture settles from the whole frame
            assert max(abs(spot.center_x - truth.centerX), abs(spot.center_y - truth.centerY)) < 0.1
            assert (spot.major_diameter, spot.minor_diameter, spot.angle) == \
                (pytest.approx(4 * truth.sigmaX, rel=0.03),
                 pytest.approx(4 * truth.sigmaY, rel=0.03), 90.0)  # axis-aligned
        with pytest.raises(ValueError):
            session.pull(camera, bits=32)  # would be a C++ exception in the library


# Arrays go through the array camera, which the library binds only when no
# other camera SDK was loaded before it: a fresh interpreter each.
_ARRAY_SCENARIO = r'''
import ctypes, os, sys
import numpy as np
import vantix

h, w = 400, 480
y, x = np.mgrid[0:h, 0:w].astype(np.float64)
t, dx, dy = np.radians(30.0), x - 241.3, y - 197.6  # turned: both moments mix the axes
u, v = np.cos(t) * dx + np.sin(t) * dy, -np.sin(t) * dx + np.cos(t) * dy
profile = np.exp(-0.5 * (u * u / 40.0**2 + v * v / 26.0**2))

def moments(a):
    a = a / a.sum(dtype=np.float64)
    cx, cy = (a * x).sum(), (a * y).sum()
    return cx, cy, 4 * np.sqrt((a * (x - cx) ** 2).sum()), 4 * np.sqrt((a * (y - cy) ** 2).sum())

def check(spot, truth):
    got = (spot.center_x, spot.center_y, spot.major_diameter, spot.minor_diameter)
    assert np.allclose(got, truth, rtol=1e-9, atol=0), (got, truth)

grey = np.rint(4095 * profile).astype(np.uint16)
if sys.argv[1] == "simcam-first":
    ctypes.CDLL(os.environ["VANTIX_SIMCAM"], mode=os.RTLD_GLOBAL)
    try:
        vantix.measure_spots(grey)
    except RuntimeError as error:
        assert "libvantix_simcam.so" in str(error), error
        print("refused")
    sys.exit(0)

# The array's own second moments (the first aperture, inscribed in the
# frame, holds the whole beam), read from 8 bits and from a strided view.
eight = np.rint(255 * profile).astype(np.uint8)
check(vantix.measure_spots(eight)[0], moments(eight))
truth = moments(grey)
padded = np.zeros((430, 520), np.uint16)
padded[7:407, 11:491] = grey
check(vantix.measure_spots(padded[7:407, 11:491])[0], truth)
# A flipped B G R A copy with a 200-count offset, which the corner estimate
# takes off exactly: the same beam, upside down.
colour = np.dstack([grey, grey, grey, np.full_like(grey, 9)]) + np.uint16(200)
check(vantix.measure_spots(colour[::-1], dark_level="corners")[0],
      (truth[0], 399 - truth[1], truth[2], truth[3]))
# A fixed aperture comes back as set; a region without signal gives an
# all-zero record.
spot = vantix.measure_spots(grey, aperture=(240.5, 198.5, 200.0, 150.0))[0]
assert (spot.aperture_x, spot.aperture_y, spot.aperture_a, spot.aperture_b) == \
    (240.5, 198.5, 200.0, 150.0)
assert vantix.measure_spots(grey, roi=(0, 0, 40, 30))[0] == vantix.SpotMeasurement(*[0.0] * 11)
print("measured")
'''


@pytest.mark.parametrize("scenario,expected", [("measure", "measured"),
                                               ("simcam-first", "refused")])
def test_arrays_are_measured_at_their_own_depth_in_a_process_of_their_own(scenario, expected):
    package = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    done = subprocess.run([sys.executable, "-c", _ARRAY_SCENARIO, scenario],
                          env=dict(os.environ, PYTHONPATH=package), capture_output=True,
                          text=True)
    assert done.returncode == 0 and done.stdout.split() == [expected], done.stderr
