"""Python bindings of libvantix (ctypes + numpy).

Images are numpy arrays, B G R (or B G R A) by default.  The one-call
functions process every frame they are given::

    import numpy as np
    import vantix

    # A textured scene and a camera panning over it, 8 pixels a frame.
    rng = np.random.default_rng(0)
    noise = rng.integers(0, 256, (60, 120, 3), dtype=np.uint8)
    scene = vantix.resize(noise, (1200, 600), interpolation="cubic")
    frames = (scene[100:340, 8 * i:8 * i + 320] for i in range(30))

    result = vantix.stitch(frames)           # any iterable of frames
    panorama = result.image                  # cropped, uint8 B G R
    assert len(result.frames) == 30          # mode, position, score each

    # A focus stack of two frames, each sharp on one half.
    sharp = scene[:240, :320]
    soft = vantix.resize(vantix.resize(sharp, (80, 60), "area"), (320, 240), "cubic")
    near, far = sharp.copy(), sharp.copy()
    near[:, 160:], far[:, :160] = soft[:, 160:], soft[:, :160]
    fused = vantix.fuse([near, far], kind="stack")

    small = vantix.resize(panorama, (160, 60), interpolation="area")
    colour = vantix.demosaic(np.zeros((64, 64), np.uint16), pattern="GRBG", bits=12)

Live stitching follows continuous video: successive frames must overlap by
most of a frame and show texture; ``result.painted`` is the part of the
panorama the canvas drew (it skips frames within a tenth of a frame of
the last one drawn).  The working image of stitching and fusion is 8 bits
a channel (16-bit frames are divided by 257): pass ``bits=12`` for 12-bit
data in uint16 arrays.  Grey frames
(2-D arrays) and R G B frames (``channels="rgb"``) are converted on the
way in.  Names of choices (interpolation, Bayer pattern, EDF kind, ...)
are those of the command-line tool, read from the package's names.tsv;
unknown ones raise ValueError listing the choices.

The sessions (StitchSession, EdfSession, SpotSession, EdgeSession) give
frame-by-frame control.  The stitch and EDF queues drop the oldest frame
when full, so push with ``session.push(frame, wait=True)`` and call
``session.drain()`` before ``stop()`` to lose none.

The library is looked up through the environment variable VANTIX_LIBRARY
(the path of libvantix.so.1), then the library installed with the package
(``cmake --install`` records its path), then ``ctypes.util.find_library("vantix")``,
then "libvantix.so.1" through the dynamic loader.  Importing registers the C
library's malloc as the host allocator (vantix_init), which stitch and edge
sessions need; the panoramas the library allocates are freed by the binding.
``python -m vantix`` prints the library found and checks it.

Threads: StitchSession and EdfSession run a worker thread between start()
and stop(); their reports reach Python either through ``session.events()``
or through a callback called on that worker thread.  Spot and edge sessions
and the image operations run on the caller's thread.  Every call into the
library releases the interpreter lock.

Arguments that would make the library raise a C++ exception (which cannot
cross into Python and would end the process) are refused with ValueError
before the call.
"""

from ._edf import EdfError, EdfFrame, EdfSession, fuse
from ._errors import (RESULT_NAMES, FailError, InvalidArgumentError,
                      NotImplementedByLibraryError, NullPointerError, OutOfMemoryError,
                      ProcessingError, VantixError, result_name)
from ._image_ops import demosaic, resize
from ._native import library_path
from ._pull import Pulled
from ._session import CallbackError
from ._stitch import (MODE_NAMES, StitchedFrame, StitchEvent, StitchFrame, StitchResult,
                      StitchSession, stitch)
from ._version import library_version as _library_version
from .edge import EdgeSession
from .spot import SpotMeasurement, SpotSession, measure_spots

#: The version of the loaded libvantix (its CMake project version).
__version__: str = _library_version(library_path)

__all__ = [
    "stitch", "StitchResult", "StitchedFrame", "fuse", "ProcessingError",
    "resize", "demosaic",
    "StitchSession", "StitchFrame", "StitchEvent", "MODE_NAMES",
    "EdfSession", "EdfFrame", "EdfError",
    "SpotSession", "SpotMeasurement", "measure_spots",
    "EdgeSession", "Pulled",
    "VantixError", "NotImplementedByLibraryError", "NullPointerError",
    "InvalidArgumentError", "OutOfMemoryError", "FailError", "CallbackError",
    "RESULT_NAMES", "result_name", "library_path", "__version__",
]
