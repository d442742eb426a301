"""The ctypes layer: declarations and name tables against the header, the
library found, and result codes as exceptions."""

import ctypes
import os
import re

import numpy as np
import pytest

import vantix
from vantix import _native

HEADER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "include", "vantix.h")
with open(HEADER) as _header:
    HEADER_TEXT = re.sub(r"/\*.*?\*/", "", _header.read(), flags=re.S)

# C return types of the header and the ctypes restype each needs.
_RETURNS = {"void": None, "VantixResult": ctypes.c_uint32, "int32_t": ctypes.c_int32}


def test_the_library_named_by_vantix_library_is_loaded_with_the_headers_exports():
    """Every export's argument count and return type."""
    assert os.path.samefile(vantix.library_path, os.environ["VANTIX_LIBRARY"])
    found = re.findall(r"VANTIX_API\s+([\w\s]+?\**)\s*(vantix_\w+)\s*\(([^)]*)\)", HEADER_TEXT)
    assert len(found) == 37 and {name for _, name, _ in found} == set(_native.SIGNATURES)
    for ret, name, params in found:
        function = getattr(_native.lib, name)
        count = 0 if params.strip() == "void" else params.count(",") + 1
        assert function.argtypes is not None and len(function.argtypes) == count, name
        if ret.endswith("*"):
            assert issubclass(function.restype, (ctypes.c_void_p, ctypes._Pointer)), name
        else:
            assert function.restype is _RETURNS[ret.strip()], name


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


def test_python_m_vantix_checks_the_library(python):
    assert "resize and demosaic ok" in python("-m", "vantix")


def test_a_result_code_becomes_its_exception():
    with pytest.raises(vantix.NotImplementedByLibraryError) as caught:
        vantix.demosaic(np.zeros((8, 8), np.uint16), algorithm="vng")
    assert caught.value.name == "VANTIX_E_NOTIMPL" and caught.value.code == 0x80004001
