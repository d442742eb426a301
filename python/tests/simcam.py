"""The simulated camera SDK (testing/simcam), loaded globally as a host loads
its camera SDK: the library finds it among the loaded objects."""

import ctypes as _c
import os

import numpy as np

_cam, _u32, _i32, _p = _c.c_void_p, _c.c_uint32, _c.c_int32, _c.c_void_p
lib = _c.CDLL(os.environ["VANTIX_SIMCAM"], mode=os.RTLD_GLOBAL)
for _name, _restype, _argtypes in (
        ("simcam_open", _cam, [_u32, _u32]),
        ("simcam_close", None, [_cam]),
        ("simcam_set_result", None, [_cam, _i32]),
        ("simcam_frame_bytes", _c.c_size_t, [_cam, _i32, _i32]),
        ("simcam_render", _i32, [_cam, _u32, _p, _i32, _i32]),
        ("simcam_texture", _i32, [_p, _u32, _u32, _u32, _u32]),
        ("simcam_blur", _i32, [_p, _u32, _u32, _u32, _c.c_double, _p, _u32])):
    getattr(lib, _name).restype, getattr(lib, _name).argtypes = _restype, _argtypes


def texture(height, width, seed):
    """A B G R scene with detail at several scales that registers uniquely."""
    scene = np.empty((height, width, 3), np.uint8)
    assert lib.simcam_texture(scene.ctypes.data, width, height, width * 3, seed) == 0
    return scene


def blur(image, sigma):
    """A B G R image blurred by a Gaussian of `sigma`."""
    image = np.ascontiguousarray(image)
    out = np.empty_like(image)
    h, w, stride = image.shape[0], image.shape[1], image.strides[0]
    assert lib.simcam_blur(image.ctypes.data, w, h, stride, sigma, out.ctypes.data, stride) == 0
    return out


class Camera:
    """A simulated camera showing its built-in test pattern; usable wherever
    the bindings take a camera (and passed to simcam's functions as itself)."""

    def __init__(self, width, height):
        self.size = (width, height)
        self._as_parameter_ = lib.simcam_open(width, height)
        assert self._as_parameter_, "simcam_open failed"

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        lib.simcam_close(self)

    def set_result(self, code):
        lib.simcam_set_result(self, _c.c_int32(code & 0xFFFFFFFF).value)

    def render(self, index, bits=24):
        """Frame `index` as a pull delivers it: the ground truth of a pull."""
        w, h = self.size
        rows = np.zeros((h, lib.simcam_frame_bytes(self, bits, 0) // h), np.uint8)
        assert lib.simcam_render(self, index, rows.ctypes.data, bits, 0) == 0
        dtype = np.uint16 if bits in (16, 48, 64) else np.uint8
        image = rows[:, :w * bits // 8].copy().view(dtype).reshape(h, w, -1)
        return image[:, :, 0] if image.shape[2] == 1 else image
