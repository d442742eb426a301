"""Spot measurement: SpotSession, and measure_spots for numpy arrays."""

import ctypes
import threading
from dataclasses import dataclass, fields

from . import _native, _spot_array
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

    ``last_frame`` holds the frame of the latest pull (or measure), and
    ``last_dark_level`` the dark level measure() subtracted (None without).
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
        self.last_dark_level = None
        self._array_camera = None  # made by the first measure()
        self._frame_size = None  # (width, height) of the last frame measured
        self._measure_lock = threading.Lock()
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
        the averaged results (the ROI is kept).  The next measure() may
        take a frame of another size."""
        handle = self._enter()
        try:
            lib.vantix_spot_reset(handle)
        finally:
            self._leave()
        self._frame_size = None

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
        if measure:
            self._frame_size = (width, height)
        if not measure:
            return None
        return [SpotMeasurement._from_record(r) for r in self._records]

    def measure(self, image, dark_level=None, raw_bits=None):
        """Measures the spots of a numpy array as the session's next frame.

        The array is handed to the array camera (libvantix_arraycam.so,
        loaded on first use) and pulled from it with vantix_spot_pull, so
        the session's aperture, ROI and averaging carry on from frame to
        frame as with pull().

        image: (height, width) grey, or (height, width, 3) B G R or
            (height, width, 4) B G R A, uint8 or uint16; any strides
            (views are read in place where their rows are contiguous pixel
            runs, else copied).  Grey values are measured as they are (raw
            counts, e.g. 0..4095 for 12-bit data); colour is turned into
            grey by the library: 8-bit as 0.299 R + 0.587 G + 0.114 B
            rounded, 16-bit as (299 R + 587 G + 114 B) / 1000 truncated.
            Alpha is ignored.  Other dtypes are refused: convert them
            yourself (the diameters weigh every raw value).
        dark_level: None (default: measured as given), "corners" (the mean
            of the four corner patches, each 5 % of the height and width,
            per colour channel), or a number: rounded to whole counts and
            subtracted from the image, clamping at 0, before the frame is
            measured (``last_dark_level`` tells what was taken off).  This
            is a step of the binding, outside the library's measurement,
            which takes every value inside the aperture as signal.
        raw_bits: the sensor bit depth the data holds (8..16; default the
            sample size); reported to the library, which does not use it
            for measuring.

        Returns a list of spot_count SpotMeasurement, like pull().  Raises
        RuntimeError when another camera SDK was loaded into this process
        before the array camera (the library pulls only from the first).

        A session measures frames of one size: the aperture (and averaging)
        carried over from the previous frame is meaningless for a frame of
        another size (the library then measures inside the old aperture, or
        leaves the records untouched when no signal is inside it).  Such a
        frame raises ValueError; call reset() first (it restarts the
        aperture and averaging), or measure single arrays with
        vantix.measure_spots, which uses a fresh session each call.
        """
        frame, channels, bits = _spot_array.frame_of(image)
        size = (frame.shape[1], frame.shape[0])
        previous = self._frame_size
        if previous is not None and size != previous:
            raise ValueError(
                f"this frame is {size[0]}x{size[1]} pixels, the session's previous frame "
                f"{previous[0]}x{previous[1]}: the aperture and averaging carried over "
                f"from it do not apply to a frame of another size.  Call reset() before "
                f"measuring frames of a new size, or vantix.measure_spots() for single "
                f"arrays.")
        level = None
        if dark_level is not None:
            frame, level = _spot_array.subtract_dark(frame, dark_level)
        height, width = frame.shape[:2]
        buffer, pitch = frame_buffer(width, height, bits)
        info = _native.FrameInfoV2()
        with self._measure_lock:
            if self._array_camera is None:
                self._array_camera = _spot_array.ArrayCamera()
            self._array_camera.show(frame, channels, raw_bits)
            ctypes.memset(self._records, 0, ctypes.sizeof(self._records))
            handle = self._enter()
            try:
                code = lib.vantix_spot_pull(handle, self._array_camera.handle, 1,
                                            pointer(buffer), bits, 0, ctypes.byref(info),
                                            self._records)
            finally:
                self._leave()
            _native.check(code, "vantix_spot_pull")
            dtype, out_channels = PULL_LAYOUTS[bits]
            self.last_frame = from_rows(buffer, height, width, pitch, dtype, out_channels)
            self.last_dark_level = level
            self._frame_size = size
            return [SpotMeasurement._from_record(r) for r in self._records]

    def close(self):
        """Deletes the native session (and its array camera).  Idempotent."""
        try:
            super().close()
        finally:
            with self._measure_lock:
                if self._array_camera is not None:
                    self._array_camera.close()
                    self._array_camera = None


def measure_spots(image, spots=1, *, roi=None, aperture=None, passes=1, dark_level=None,
                  raw_bits=None):
    """Measures the bright spots of one numpy array (see SpotSession.measure
    for the images taken, what is converted and `dark_level`).

    spots: 1 for the single-spot measurement inside an elliptical aperture,
        more to find and measure that many spots by segmentation.
    roi: (x, y, width, height) to measure only that part (centres stay in
        whole-image pixels).
    aperture: (center_x, center_y, a, b), a fixed axis-aligned elliptical
        aperture; by default the automatic one, which starts as the ellipse
        inscribed in the image.
    passes: how often the image is measured in a row; with the automatic
        aperture each pass uses the aperture the one before left (centred
        on the spot, semi-axes the 4-sigma diameters), so 2 or 3 close in on
        a spot that the first, whole-image aperture measures with too much
        background.  The last pass's records are returned.

    Returns a list of `spots` SpotMeasurement.  Diameters are the 4-sigma
    diameters along x and y (major_diameter is x's), angle is 90.  Loads the
    array camera on first use and raises RuntimeError when another camera
    SDK was loaded into the process before it.
    """
    if int(passes) < 1:
        raise ValueError(f"passes must be at least 1, got {passes!r}")
    if dark_level is not None:  # once for all passes
        image, _ = _spot_array.subtract_dark(_spot_array.frame_of(image)[0], dark_level)
    with SpotSession(spot_count=spots) as session:
        if roi is not None:
            session.set_roi(*roi)
        if aperture is not None:
            session.set_aperture(*aperture)
        for _ in range(int(passes)):
            records = session.measure(image, raw_bits=raw_bits)
        return records
