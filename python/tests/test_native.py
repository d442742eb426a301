"""The ctypes layer: declarations and name tables against the header, the
library found, and result codes as exceptions."""

import ctypes
import os
import re
import subprocess
import sys

import numpy as np
import pytest

import vantix
from simcam import Camera
from vantix import _native

PYTHON_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
with open(os.path.join(PYTHON_DIR, "..", "include", "vantix.h")) as _header:
    HEADER_TEXT = re.sub(r"/\*.*?\*/", "", _header.read(), flags=re.S)

# C return types of the header and the ctypes restype each needs.
_RETURNS = {"void": None, "VantixResult": ctypes.c_uint32, "int32_t": ctypes.c_int32}


def test_the_exports_are_the_headers():
    """Every export's argument count and return type."""
    found = re.findall(r"VANTIX_API\s+([\w\s]+?\**)\s*(vantix_\w+)\s*\(([^)]*)\)", HEADER_TEXT)
    declared = {name: (ret.strip(), params) for ret, name, params in found}
    assert len(declared) == 37 and set(declared) == set(_native.SIGNATURES)
    for name, (ret, params) in declared.items():
        function = getattr(_native.lib, name)
        count = 0 if params.strip() == "void" else params.count(",") + 1
        assert function.argtypes is not None and len(function.argtypes) == count, name
        restype = function.restype
        if ret.endswith("*"):
            assert restype is ctypes.c_void_p or issubclass(restype, ctypes._Pointer), name
        else:
            assert restype is _RETURNS[ret], name


@pytest.mark.parametrize("function,prefix,table", [
    ("vantix_result_name", "VANTIX_", vantix.RESULT_NAMES),
    ("vantix_stitch_event_name", "VANTIX_STITCH_EVENT_", vantix._stitch.EVENT_NAMES),
    ("vantix_edf_error_name", "VANTIX_EDF_ERROR_", vantix._edf.ERROR_NAMES)])
def test_the_name_tables_are_the_headers(function, prefix, table):
    """Each macro the header's name function names, under the macro's name
    (the camera SDK codes it also names are named in hex by the binding)."""
    values = {name: int(value, 0) for name, value in re.findall(
        r"#define (VANTIX_\w+) (?:\(\(VantixResult\))?(0x[0-9A-Fa-f]+|\d+)u", HEADER_TEXT)}
    body = re.search(rf"{function}\(\w+ \w+\) \{{(.*?)\n\}}", HEADER_TEXT, re.S)[1]
    cases = re.findall(r"case (VANTIX_\w+): return \"(\w+)\";", body)
    assert table == {values[macro]: prefix + name for macro, name in cases}


def test_the_library_comes_from_vantix_library_and_python_m_vantix_checks_it():
    assert os.path.samefile(vantix.library_path, os.environ["VANTIX_LIBRARY"])
    run = subprocess.run([sys.executable, "-m", "vantix"], cwd=PYTHON_DIR,
                         capture_output=True, text=True)
    assert run.returncode == 0 and "resize and demosaic ok" in run.stdout, run.stderr


def test_result_codes_become_their_exceptions():
    with pytest.raises(vantix.NotImplementedByLibraryError) as caught:
        vantix.demosaic(np.zeros((8, 8), np.uint16), algorithm="vng")
    assert caught.value.name == "VANTIX_E_NOTIMPL" and caught.value.code == 0x80004001
    # A camera SDK's failure comes back as it is, named in hex.
    with Camera(160, 120) as camera, vantix.StitchSession(160, 120) as session:
        camera.set_result(0x80001234)
        with pytest.raises(vantix.VantixError) as caught:
            session.pull(camera)
    error = caught.value
    assert (type(error), error.code, error.name) == (vantix.VantixError, 0x80001234, "0x80001234")
