"""Spot measurement: SpotSession."""

import ctypes
from dataclasses import dataclass, fields

from . import _native
from ._arrays import PULL_LAYOUTS, frame_buffer, from_rows, pointer
from ._native import lib
from ._pull import camera_handle, frame_size
from ._session import Session

# Bit counts the measurement takes; others would raise a C++ exception
# straight through the C interface (which ends the process).
MEASURED_BITS = (8, 16, 24, 48)


@dataclass(frozen=True)
class SpotMeasurement:
    """One spot's measurement (lengths in frame pixels, angles in degrees).

    total: summed grey value; center_x/center_y: intensity-weighted centre;
    major_diameter/minor_diameter: 4-sigma diameters; ellipticity: smaller /
    larger diameter (0 without signal); angle: orientation in (-90, 90];
    aperture_x, aperture_y, aperture_a, aperture_b: the aperture (one spot)
    or the measuring box (several spots): centre and semi-axes.
    """

    total: float
    center_x: float
    center_y: float
    major_diameter: float
    minor_diameter: float
    ellipticity: float
    angle: float
    aperture_x: float
    aperture_y: float
    aperture_a: float
    aperture_b: float

    @classmethod
    def _from_record(cls, record):
        return cls(*(getattr(record, name) for name in _native.SPOT_FIELDS))


assert len(fields(SpotMeasurement)) == len(_native.SPOT_FIELDS)


class SpotSession(Session):
    """Measures bright spots in frames pulled from the camera, on the
    caller's thread (no worker, no callbacks).

    Args:
        spot_count: spots a frame; 1 selects the single-spot measurement
            inside a self-adjusting elliptical aperture.
        average_count: average fields over consecutive blocks of this many
            frames (below 2: no averaging).

    ``last_frame`` holds the frame of the latest pull.
    """

    _delete = "vantix_spot_delete"

    def __init__(self, spot_count=1, average_count=1):
        super().__init__()
        if not 1 <= int(spot_count) <= 4096:
            raise ValueError("spot_count must be 1..4096")
        if not 0 <= int(average_count) <= 1_000_000:
            raise ValueError("average_count must be 0..1000000")
        self.spot_count = int(spot_count)
        self.last_frame = None
        self._records = (_native.SpotResultRecord * self.spot_count)()
        self._attach(lib.vantix_spot_new(self.spot_count, int(average_count)),
                     "vantix_spot_new")

    def set_roi(self, x=0, y=0, width=0, height=0):
        """Measures only (x, y, width, height) of the frame; a width or
        height of 0 (the default) measures the whole frame.  Centres stay
        in whole-frame pixels."""
        handle = self._enter()
        try:
            lib.vantix_spot_setRoi(handle, *(int(v) & 0xFFFFFFFF for v in (x, y, width, height)))
        finally:
            self._leave()

    def set_aperture(self, center_x, center_y, a, b):
        """Uses a fixed axis-aligned elliptical aperture (semi-axes a along
        x, b along y, both > 0) until reset()."""
        if not (a > 0 and b > 0):
            raise ValueError("aperture semi-axes must be > 0")
        handle = self._enter()
        try:
            lib.vantix_spot_setAperture(handle, _native.SpotAperture(center_x, center_y, a, b))
        finally:
            self._leave()

    def reset(self):
        """Restarts averaging, returns to the automatic aperture and zeroes
        the averaged results (the ROI is kept)."""
        handle = self._enter()
        try:
            lib.vantix_spot_reset(handle)
        finally:
            self._leave()

    def pull(self, camera, size=None, bits=8, measure=True, row_pitch=0):
        """Pulls one frame from the camera SDK and measures it.

        camera: the SDK's camera handle (int, ctypes pointer or an object
        with ``_as_parameter_``); size: its frame size (width, height),
        default ``camera.size``; bits: 8, 16 (grey), 24 or 48 (B G R).
        Returns a list of spot_count SpotMeasurement (ordered by centre x
        with several spots, missing spots all zero at the end), or None when
        `measure` is false.  A frame without signal gives all-zero records.  Raises
        VantixError with the SDK's code when the pull fails.
        """
        if measure and bits not in MEASURED_BITS:
            raise ValueError(f"measured frames have bits {MEASURED_BITS}, got {bits!r}")
        if bits not in PULL_LAYOUTS:
            raise ValueError(f"bits must be one of {sorted(PULL_LAYOUTS)}")
        width, height = frame_size(camera, size)
        cam = camera_handle(camera)
        buffer, pitch = frame_buffer(width, height, bits, row_pitch)
        info = _native.FrameInfoV2()
        # The library leaves a record untouched for a frame without signal;
        # starting from zeros makes such a frame read as total 0, like the
        # empty records of the several-spot measurement.
        ctypes.memset(self._records, 0, ctypes.sizeof(self._records))
        handle = self._enter()
        try:
            code = lib.vantix_spot_pull(handle, cam, 1 if measure else 0, pointer(buffer),
                                        bits, row_pitch, ctypes.byref(info), self._records)
        finally:
            self._leave()
        _native.check(code, "vantix_spot_pull")
        if (info.width, info.height) != (width, height):
            raise ValueError(f"the camera delivered {info.width}x{info.height} pixels, "
                             f"expected {width}x{height}")
        dtype, channels = PULL_LAYOUTS[bits]
        self.last_frame = from_rows(buffer, height, width, pitch, dtype, channels)
        if not measure:
            return None
        return [SpotMeasurement._from_record(r) for r in self._records]
