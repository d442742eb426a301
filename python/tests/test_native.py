"""The ctypes layer: declarations against the header, the library found,
result codes as exceptions, and the frames and records of camera pulls."""

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
HEADER = os.path.join(PYTHON_DIR, "..", "include", "vantix.h")

# C return types of the header and the ctypes restype each needs.
_RETURNS = {"void": None, "VantixResult": ctypes.c_uint32, "int32_t": ctypes.c_int32}


def test_the_exports_and_result_names_are_the_headers():
    """Every export's argument count and return type; the library's result
    names as vantix_result_name gives them, with the macros' prefix."""
    with open(HEADER) as header:
        text = re.sub(r"/\*.*?\*/", "", header.read(), flags=re.S)
    found = re.findall(r"VANTIX_API\s+([\w\s]+?\**)\s*(vantix_\w+)\s*\(([^)]*)\)", text)
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
    values = {name: int(value, 16) for name, value in
              re.findall(r"#define (VANTIX_[SE]_\w+) \(\(VantixResult\)(0x[0-9A-Fa-f]+)u\)", text)}
    body = re.search(r"vantix_result_name\(VantixResult \w+\) \{(.*?)\n\}", text, re.S)[1]
    cases = re.findall(r"case (VANTIX_\w+): return \"(\w+)\";", body)
    assert len(cases) == 6
    assert vantix.RESULT_NAMES == {values[macro]: "VANTIX_" + name for macro, name in cases}


def test_the_library_comes_from_vantix_library_and_python_m_vantix_checks_it():
    assert os.path.samefile(vantix.library_path, os.environ["VANTIX_LIBRARY"])
    run = subprocess.run([sys.executable, "-m", "vantix"], cwd=PYTHON_DIR,
                         capture_output=True, text=True)
    assert run.returncode == 0 and "resize and demosaic ok" in run.stdout, run.stderr


def test_result_codes_become_their_exceptions():
    with pytest.raises(vantix.NotImplementedByLibraryError) as caught:
        vantix.demosaic(np.zeros((8, 8), np.uint16), algorithm="vng")
    assert caught.value.name == "VANTIX_E_NOTIMPL" and caught.value.code == 0x80004001
    assert _native.check(5, "f") == 5  # positive codes are successes
    # A camera SDK's failure comes back as it is, named in hex.
    with Camera(160, 120) as camera, vantix.StitchSession(160, 120) as session:
        camera.set_result(0x80001234)
        with pytest.raises(vantix.VantixError) as caught:
            session.pull(camera)
    error = caught.value
    assert (type(error), error.code, error.name) == (vantix.VantixError, 0x80001234, "0x80001234")
