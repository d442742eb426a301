"""SpotSession against the simulated camera's exact spots."""

import numpy as np
import pytest

import vantix

SIZE = (200, 160)


def _spot(x, y, sx, sy, angle=0.0, peak=0.8, orbit=0.0, period=0.0, breath=0.0,
          breath_period=0.0):
    return dict(centerX=x, centerY=y, sigmaX=sx, sigmaY=sy, angle=angle, peak=peak,
                orbitRadius=orbit, orbitPeriod=period, breathAmplitude=breath,
                breathPeriod=breath_period)


@pytest.fixture
def camera(simcam):
    with simcam.open(*SIZE) as cam:
        yield cam


def test_an_orbiting_spot_is_measured_at_its_true_centre_and_width(camera):
    camera.set_spots([_spot(95.0, 80.0, 6.0, 4.0, orbit=12.0, period=16)])
    with vantix.SpotSession() as session:
        for i in range(12):
            truth = camera.spot_truth(i)
            (spot,) = session.pull(camera, bits=16)
            np.testing.assert_array_equal(session.last_frame, camera.render(i, 16))
            if i < 2:
                continue  # the automatic aperture settles from the whole frame
            assert spot.center_x == pytest.approx(truth.centerX, abs=0.1)
            assert spot.center_y == pytest.approx(truth.centerY, abs=0.1)
            assert spot.major_diameter == pytest.approx(4 * truth.sigmaX, rel=0.03)
            assert spot.minor_diameter == pytest.approx(4 * truth.sigmaY, rel=0.03)
            assert spot.ellipticity == pytest.approx(truth.sigmaY / truth.sigmaX, rel=0.05)
            assert spot.angle == 90.0  # axis-aligned
            # The aperture for the next frame: on the spot, twice the 4-sigma size.
            assert (spot.aperture_x, spot.aperture_a) == (spot.center_x, spot.major_diameter)


def test_roi_fixed_aperture_and_reset(camera):
    camera.set_spots([_spot(60.0, 50.0, 5.0, 5.0)])
    with vantix.SpotSession() as session:
        session.set_roi(30, 20, 70, 70)
        (spot,) = session.pull(camera, bits=8)
        assert (spot.center_x, spot.center_y) == (pytest.approx(60, abs=0.1),
                                                  pytest.approx(50, abs=0.1))
        for roi in ((150, 120, 40, 30), (400, 10, 50, 50)):  # no spot; outside
            session.set_roi(*roi)
            assert session.pull(camera, bits=8)[0] == vantix.SpotMeasurement(*[0.0] * 11)
        session.set_roi()  # the whole frame again
        session.set_aperture(61.0, 49.0, 25.0, 20.0)
        (spot,) = session.pull(camera, bits=24)
        assert (spot.aperture_x, spot.aperture_y, spot.aperture_a, spot.aperture_b) == \
            (61.0, 49.0, 25.0, 20.0)
        session.reset()
        (spot,) = session.pull(camera, bits=48)
        assert spot.aperture_a == pytest.approx(spot.major_diameter)
        assert spot.major_diameter == pytest.approx(20.0, rel=0.03)


def test_averaging_blocks_of_a_breathing_spot(camera):
    camera.set_spots([_spot(100.0, 80.0, 5.0, 5.0, breath=0.4, breath_period=7)])
    with vantix.SpotSession(average_count=2) as session:
        session.set_aperture(100.0, 80.0, 45.0, 45.0)  # no aperture settling
        diameters = [session.pull(camera, bits=16)[0].major_diameter for _ in range(4)]
    truth = [4 * camera.spot_truth(i).sigmaX for i in range(4)]
    assert diameters[1] == pytest.approx((truth[0] + truth[1]) / 2, rel=0.03)
    assert diameters[2] == diameters[1]  # kept until the next block completes
    assert diameters[3] == pytest.approx((truth[2] + truth[3]) / 2, rel=0.03)


def test_several_spots_come_ordered_by_x(camera):
    camera.set_spots([_spot(150.0, 60.0, 4.0, 4.0), _spot(45.0, 110.0, 4.0, 4.0),
                      _spot(100.0, 40.0, 4.0, 4.0)])
    with vantix.SpotSession(spot_count=4) as session:
        spots = session.pull(camera, bits=8)
    assert len(spots) == 4
    assert spots[3] == vantix.SpotMeasurement(*[0.0] * 11)  # no fourth spot
    centres = [(s.center_x, s.center_y) for s in spots[:3]]
    assert centres == [(pytest.approx(x, abs=0.2), pytest.approx(y, abs=0.2))
                       for x, y in ((45, 110), (100, 40), (150, 60))]
    for s in spots[:3]:  # a few percent small: each is cut off at its box
        assert 0.85 * 16 < s.major_diameter <= 16.2


def test_camera_codes_and_refused_bit_counts(camera):
    with vantix.SpotSession() as session:
        assert session.pull(camera, bits=32, measure=False) is None
        assert session.last_frame.shape == (SIZE[1], SIZE[0], 4)
        with pytest.raises(ValueError):
            session.pull(camera, bits=32)  # would be a C++ exception
        camera.set_result(0x80070057)
        with pytest.raises(vantix.InvalidArgumentError) as caught:
            session.pull(camera)
        assert caught.value.function == "vantix_spot_pull"
    with pytest.raises(ValueError):
        session.reset()  # closed


# Arrays are measured through the array camera, which the library binds only
# when no other camera SDK was loaded before it: each scenario gets a fresh
# interpreter (this one has the simulated camera loaded).
_ARRAY_SCENARIO = r'''
import ctypes, os, sys
import numpy as np
import vantix

def beam(peak, dtype, h=400, w=480):
    y, x = np.mgrid[0:h, 0:w].astype(np.float64)
    t = np.radians(30.0)  # turned: x and y moments both mix the two axes
    dx, dy = x - 241.3, y - 197.6
    u, v = np.cos(t) * dx + np.sin(t) * dy, -np.sin(t) * dx + np.cos(t) * dy
    return np.rint(peak * np.exp(-0.5 * (u * u / 40.0**2 + v * v / 26.0**2))).astype(dtype)

def moments(a):
    a = a.astype(np.float64)
    y, x = np.mgrid[0:a.shape[0], 0:a.shape[1]]
    s = a.sum()
    cx, cy = (a * x).sum() / s, (a * y).sum() / s
    return (cx, cy, 4 * np.sqrt((a * (x - cx) ** 2).sum() / s),
            4 * np.sqrt((a * (y - cy) ** 2).sum() / s))

def check(spot, truth):
    got = (spot.center_x, spot.center_y, spot.major_diameter, spot.minor_diameter)
    assert np.allclose(got, truth, rtol=1e-9, atol=0), (got, truth)

if sys.argv[1] == "simcam-first":
    ctypes.CDLL(os.environ["VANTIX_SIMCAM"], mode=os.RTLD_GLOBAL)
    try:
        vantix.measure_spots(beam(4095, np.uint16))
    except RuntimeError as error:
        assert "libvantix_simcam.so" in str(error), error
        print("refused")
    sys.exit(0)

# 8, 12 and 16 bits: the records are the array's own second moments (the
# first aperture, inscribed in the frame, holds the whole beam).
for peak, dtype, raw in ((255, np.uint8, None), (4095, np.uint16, 12), (65535, np.uint16, None)):
    image = beam(peak, dtype)
    (spot,) = vantix.measure_spots(image, raw_bits=raw)
    check(spot, moments(image))
    assert spot.angle == 90.0

# Strided views, colour and a flipped B G R A copy give the same beam.
grey = beam(4095, np.uint16)
truth = moments(grey)
padded = np.zeros((430, 520), np.uint16)
padded[7:407, 11:491] = grey
check(vantix.measure_spots(padded[7:407, 11:491])[0], truth)
colour = np.dstack([grey, grey, grey, np.full_like(grey, 9)])
check(vantix.measure_spots(colour[:, :, :3])[0], truth)
(flipped,) = vantix.measure_spots(colour[::-1])
check(flipped, (truth[0], 399 - truth[1], truth[2], truth[3]))

# A 200-count offset: measured as signal without the dark step; taken off
# exactly by the corner estimate (the corners hold no beam).
lifted = grey + np.uint16(200)
assert vantix.measure_spots(lifted)[0].major_diameter > 1.5 * truth[2]
with vantix.SpotSession() as session:
    check(session.measure(lifted, dark_level="corners")[0], truth)
    assert session.last_dark_level == 200.0
    np.testing.assert_array_equal(session.last_frame, grey)
    session.reset()  # the next frame's aperture starts from the whole frame again
    check(session.measure(lifted, dark_level=200)[0], truth)
    # A frame of another size would be measured inside the last frame's
    # aperture: refused, until a reset.
    wider = np.pad(grey, ((0, 40), (0, 60)))
    try:
        session.measure(wider)
        raise AssertionError("a frame of another size was measured")
    except ValueError as error:
        assert all(s in str(error) for s in ("540x440", "480x400", "reset()")), error
    session.reset()
    check(session.measure(wider)[0], truth)
try:
    vantix.measure_spots(grey.astype(np.float32))
except ValueError:
    print("measured")
'''


def test_arrays_are_measured_at_their_own_depth_in_a_process_of_their_own():
    import os
    import subprocess
    import sys

    package = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    env = dict(os.environ, PYTHONPATH=package)
    for scenario, expected in (("measure", "measured"), ("simcam-first", "refused")):
        done = subprocess.run([sys.executable, "-c", _ARRAY_SCENARIO, scenario], env=env,
                              capture_output=True, text=True, check=False)
        assert done.returncode == 0 and done.stdout.split() == [expected], done.stderr
