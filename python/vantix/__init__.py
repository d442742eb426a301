"""Python bindings of libvantix (ctypes + numpy).

Images are numpy arrays in the library's channel order (B G R, B G R A).

    import vantix
    small = vantix.resize(image, (320, 240), interpolation="area")
    colour = vantix.demosaic(raw, pattern="RGGB")
    with vantix.StitchSession(640, 480) as stitch:
        stitch.start()
        for frame in frames:
            stitch.push(frame)
        panorama = stitch.stop()

The library is looked up through the environment variable VANTIX_LIBRARY
(the path of libvantix.so.1), then the library installed with the package
(``cmake --install`` records its path), then ``ctypes.util.find_library("vantix")``,
then "libvantix.so.1" through the dynamic loader.  Importing registers the C
library's malloc as the host allocator (vantix_init), which stitch and edge
sessions need; the panoramas the library allocates are freed by the binding.

Threads: StitchSession and EdfSession run a worker thread between start()
and stop(); their reports reach Python either through ``session.events()``
or through a callback called on that worker thread.  Spot and edge sessions
and the image operations run on the caller's thread.  Every call into the
library releases the interpreter lock.

Arguments that would make the library raise a C++ exception (which cannot
cross into Python and would end the process) are refused with ValueError
before the call.
"""

from ._errors import (RESULT_NAMES, FailError, InvalidArgumentError,
                      NotImplementedByLibraryError, NullPointerError, OutOfMemoryError,
                      VantixError, result_name)
from ._image_ops import demosaic, resize
from ._native import library_path
from ._pull import Pulled
from ._session import CallbackError
from .edf import EdfError, EdfFrame, EdfSession
from .edge import EdgeSession
from .spot import SpotMeasurement, SpotSession
from .stitch import MODE_NAMES, StitchEvent, StitchFrame, StitchSession

__all__ = [
    "resize", "demosaic",
    "StitchSession", "StitchFrame", "StitchEvent", "MODE_NAMES",
    "EdfSession", "EdfFrame", "EdfError",
    "SpotSession", "SpotMeasurement",
    "EdgeSession", "Pulled",
    "VantixError", "NotImplementedByLibraryError", "NullPointerError",
    "InvalidArgumentError", "OutOfMemoryError", "FailError", "CallbackError",
    "RESULT_NAMES", "result_name", "library_path",
]
