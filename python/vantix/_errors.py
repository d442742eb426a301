"""Exceptions for the result codes of libvantix."""

from __future__ import annotations

#: The library's failure codes and their names as in vantix.h.
RESULT_NAMES = {
    0x00000000: "VANTIX_S_OK",
    0x80004001: "VANTIX_E_NOTIMPL",
    0x80004003: "VANTIX_E_POINTER",
    0x80070057: "VANTIX_E_INVALIDARG",
    0x8007000E: "VANTIX_E_OUTOFMEMORY",
    0x80004005: "VANTIX_E_FAIL",
}


def result_name(code: int) -> str:
    """The header's name of a result code, or its hex value (codes of a
    camera SDK, passed through by the pull functions, have no name)."""
    code &= 0xFFFFFFFF
    return RESULT_NAMES.get(code, f"0x{code:08X}")


class VantixError(Exception):
    """A failed result code of the library (or of the camera SDK, for pulls).

    Attributes:
        code: the 32-bit result code as an unsigned int (e.g. 0x80070057).
        name: its name as in vantix.h (e.g. "VANTIX_E_INVALIDARG"), or the
            code in hex for a camera SDK's own code.
        function: the exported function that returned it.

    Catch a subclass (``InvalidArgumentError``, ...) for one code, or this
    class for every failure.
    """

    code = None

    def __init__(self, code, function=""):
        self.code = code & 0xFFFFFFFF
        self.name = result_name(self.code)
        self.function = function
        where = f"{function} returned " if function else ""
        super().__init__(f"{where}{self.name} (0x{self.code:08X})")

    @staticmethod
    def from_code(code, function=""):
        """The exception for a failed code: its subclass when it has one."""
        cls = _BY_CODE.get(code & 0xFFFFFFFF, VantixError)
        return cls(code, function)


class NotImplementedByLibraryError(VantixError):
    """VANTIX_E_NOTIMPL: the combination is not offered (or no camera SDK)."""


class NullPointerError(VantixError):
    """VANTIX_E_POINTER: a required pointer was null."""


class InvalidArgumentError(VantixError):
    """VANTIX_E_INVALIDARG: an argument failed validation."""


class OutOfMemoryError(VantixError):
    """VANTIX_E_OUTOFMEMORY: the image library ran out of memory."""


class FailError(VantixError):
    """VANTIX_E_FAIL: any other failure inside the image library."""


_BY_CODE = {
    0x80004001: NotImplementedByLibraryError,
    0x80004003: NullPointerError,
    0x80070057: InvalidArgumentError,
    0x8007000E: OutOfMemoryError,
    0x80004005: FailError,
}


class ProcessingError(RuntimeError):
    """A session's worker stopped after a failure during vantix.stitch or
    vantix.fuse.

    Attributes:
        code: the event (stitch: 1 failed, 2 out of memory) or error code
            (EDF: 1 failed, 2 out of memory) the worker reported.
        name: its name as in vantix.h.
        result: what was made before the failure (a StitchResult, or the
            fused image so far; None when nothing was).
    """

    def __init__(self, code, name, result=None):
        self.code = code
        self.name = name
        self.result = result
        super().__init__(f"the worker stopped: {name} ({code})")
