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

PYTHON_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
HEADER = os.path.join(PYTHON_DIR, "..", "include", "vantix.h")

# C return types of the header and the ctypes restype each needs.
_RETURNS = {"void": None, "VantixResult": ctypes.c_uint32, "int32_t": ctypes.c_int32}


def test_the_exports_and_result_names_are_the_headers():
    """Every export's argument count and return type; the library's result
    names as vantix_result_name gives them, with the macros' prefix (a
    camera SDK's codes are named in hex)."""
    with open(HEADER) as header:
        text = re.sub(r"/\*.*?\*/", "", header.read(), flags=re.S)
    found = re.findall(r"VANTIX_API\s+([\w\s]+?\**)\s*(vantix_\w+)\s*\(([^)]*)\)", text)
    declared = {name: (ret.strip(), params) for ret, name, params in found}
    assert len(declared) == 37 and set(declared) == set(_native.SIGNATURES)
    for name, (ret, params) in declared.items():
        function = getattr(_native.lib, name)
        count = 0 if params.strip() == "void" else params.count(",") + 1
        assert function.argtypes is not None and len(function.argtypes) == count, name
        if ret.endswith("*"):
            restype = function.restype
            assert restype is ctypes.c_void_p or issubclass(restype, ctypes._Pointer), name
        else:
            assert function.restype is _RETURNS[ret], name
    values = {name: int(value, 16) for name, value in
              re.findall(r"#define (VANTIX_[SE]_\w+) \(\(VantixResult\)(0x[0-9A-Fa-f]+)u\)", text)}
    body = re.search(r"vantix_result_name\(VantixResult \w+\) \{(.*?)\n\}", text, re.S)[1]
    cases = re.findall(r"case (VANTIX_\w+): return \"(\w+)\";", body)
    assert len(cases) == 6
    assert vantix.RESULT_NAMES == {values[macro]: "VANTIX_" + name for macro, name in cases}


def test_the_library_comes_from_vantix_library_and_python_m_vantix_checks_it():
    assert os.path.samefile(vantix.library_path, os.environ["VANTIX_LIBRARY"])
    with open(os.path.join(os.path.dirname(HEADER), "..", "CMakeLists.txt")) as cmake:
        version = re.search(r"project\(vantix VERSION ([0-9.]+)", cmake.read())[1]
    assert vantix.__version__ == version
    run = subprocess.run([sys.executable, "-m", "vantix"], cwd=PYTHON_DIR,
                         capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    assert run.stdout.splitlines()[0] == f"vantix {version}" and "ok" in run.stdout


def test_result_codes_become_their_exceptions():
    with pytest.raises(vantix.NotImplementedByLibraryError) as caught:
        vantix.demosaic(np.zeros((8, 8), np.uint16), algorithm="vng")
    assert caught.value.name == "VANTIX_E_NOTIMPL" and caught.value.code == 0x80004001
    with pytest.raises(vantix.NullPointerError):  # beneath the binding, which never passes null
        _native.check(_native.lib.vantix_resizeV1(None, None, 0), "vantix_resizeV1")
    assert isinstance(vantix.VantixError.from_code(0x8007000E), vantix.OutOfMemoryError)
    error = vantix.VantixError.from_code(0x80001234)  # a camera SDK's own code
    assert type(error) is vantix.VantixError and error.name == "0x80001234"
    assert _native.check(5, "f") == 5  # positive codes are successes
