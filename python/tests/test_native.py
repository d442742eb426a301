"""The ctypes declarations against the header, library lookup and the
mapping of result codes to exceptions."""

import ctypes
import os
import re
import subprocess
import sys

import numpy as np
import pytest

import vantix
from vantix import _native

HEADER = os.path.join(os.path.dirname(__file__), "..", "..", "include", "vantix.h")

# C return types of the header and the ctypes restype each needs.
_RETURNS = {"void": None, "VantixResult": ctypes.c_uint32, "int32_t": ctypes.c_int32}


def _declarations():
    with open(HEADER) as header:
        text = re.sub(r"/\*.*?\*/", "", header.read(), flags=re.S)
    found = re.findall(r"VANTIX_API\s+([\w\s]+?\**)\s*(vantix_\w+)\s*\(([^)]*)\)", text)
    return {name: (ret.strip(), params) for ret, name, params in found}


def test_every_export_of_the_header_has_its_signature():
    declared = _declarations()
    assert len(declared) == 37
    assert set(declared) == set(_native.SIGNATURES)
    for name, (ret, params) in declared.items():
        function = getattr(_native.lib, name)
        assert function.argtypes is not None, name
        count = 0 if params.strip() == "void" else params.count(",") + 1
        assert len(function.argtypes) == count, name
        if ret.endswith("*"):
            restype = function.restype
            assert restype is ctypes.c_void_p or issubclass(restype, ctypes._Pointer), name
        else:
            assert function.restype is _RETURNS[ret], name


def test_the_library_comes_from_vantix_library_and_python_m_vantix_checks_it():
    assert os.path.samefile(vantix.library_path, os.environ["VANTIX_LIBRARY"])
    with open(os.path.join(os.path.dirname(HEADER), "..", "CMakeLists.txt")) as cmake:
        version = re.search(r"project\(vantix VERSION ([0-9.]+)", cmake.read())[1]
    assert vantix.__version__ == version
    python_dir = os.path.join(os.path.dirname(__file__), "..")
    run = subprocess.run([sys.executable, "-m", "vantix"], cwd=python_dir,
                         capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    assert run.stdout.splitlines()[0] == f"vantix {version}" and "ok" in run.stdout


def test_a_missing_library_names_what_was_tried():
    env = dict(os.environ, VANTIX_LIBRARY="/nonexistent/libvantix.so.1", LD_LIBRARY_PATH="")
    python_dir = os.path.join(os.path.dirname(__file__), "..")
    run = subprocess.run([sys.executable, "-c", "import vantix"], cwd=python_dir, env=env,
                         capture_output=True, text=True)
    assert run.returncode != 0
    assert "ImportError" in run.stderr
    assert "/nonexistent/libvantix.so.1 (from VANTIX_LIBRARY)" in run.stderr
    assert "Set VANTIX_LIBRARY" in run.stderr


def test_result_codes_become_their_exceptions():
    image = np.zeros((8, 8, 3), np.uint8)
    raw16 = np.zeros((8, 8), np.uint16)

    def resize(width, method):  # beneath the binding, which refuses both cases first
        header = vantix._image_ops._header
        code = _native.lib.vantix_resizeV2(header(8, 8, 24), 24, image.ctypes.data,
                                           header(width, 4, 24), 12, image.ctypes.data, method)
        _native.check(code, "vantix_resizeV2")

    reached = [
        (vantix.InvalidArgumentError, "VANTIX_E_INVALIDARG", lambda: resize(4, 9)),
        (vantix.FailError, "VANTIX_E_FAIL", lambda: resize(0, 1)),
        (vantix.NotImplementedByLibraryError, "VANTIX_E_NOTIMPL",
         lambda: vantix.demosaic(raw16, algorithm="vng")),
        (vantix.NullPointerError, "VANTIX_E_POINTER",
         lambda: _native.check(_native.lib.vantix_resizeV1(None, None, 0), "vantix_resizeV1")),
    ]
    for cls, name, call in reached:
        with pytest.raises(cls) as caught:
            call()
        assert caught.value.name == name
        assert caught.value.code == int(re.search(r"0x[0-9A-F]{8}", str(caught.value))[0], 16)
    # Out of memory cannot be provoked safely: the mapping itself.
    error = vantix.VantixError.from_code(0x8007000E, "f")
    assert isinstance(error, vantix.OutOfMemoryError) and error.name == "VANTIX_E_OUTOFMEMORY"
    # A camera SDK's own failure code keeps its value and is named in hex.
    error = vantix.VantixError.from_code(0x80001234)
    assert type(error) is vantix.VantixError and error.name == "0x80001234"
    assert _native.check(5, "f") == 5  # positive codes are successes
