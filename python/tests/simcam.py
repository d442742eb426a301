"""The simulated camera SDK, loaded into the test process the way a host
loads its camera SDK (globally: the library finds it among loaded objects),
its control interface (testing/simcam/simcam.h) and its scene images."""

import ctypes as _c
import os

import numpy as np

_cam, _u32, _i32, _p = _c.c_void_p, _c.c_uint32, _c.c_int32, _c.c_void_p


class Point(_c.Structure):
    _fields_ = [("x", _c.c_double), ("y", _c.c_double)]


class Spot(_c.Structure):
    """A spot as set; its first six fields are also the truth of a frame."""
    _fields_ = [(n, _c.c_double) for n in (
        "centerX", "centerY", "sigmaX", "sigmaY", "angle", "peak", "orbitRadius",
        "orbitPeriod", "breathAmplitude", "breathPeriod")]


lib = _c.CDLL(os.environ["VANTIX_SIMCAM"], mode=os.RTLD_GLOBAL)
for _name, _restype, _argtypes in (
        ("simcam_open", _cam, [_u32, _u32]),
        ("simcam_close", None, [_cam]),
        ("simcam_set_result", None, [_cam, _i32]),
        ("simcam_default_pitch", _u32, [_u32, _i32]),
        ("simcam_render", _i32, [_cam, _u32, _p, _i32, _i32]),
        ("simcam_set_pan", _i32, [_cam, _p, _u32, _u32, _u32, _c.POINTER(Point), _u32, _u32]),
        ("simcam_set_focus_sweep", _i32, [_cam, _p, _u32, _u32, _u32, _u32, _c.c_double]),
        ("simcam_set_spots", _i32, [_cam, _c.POINTER(Spot), _u32, _c.c_double, _c.c_double,
                                    _u32]),
        ("simcam_spot_truth", _i32, [_cam, _u32, _u32, _c.POINTER(Spot)]),
        ("simcam_texture", _i32, [_p, _u32, _u32, _u32, _u32]),
        ("simcam_blur", _i32, [_p, _u32, _u32, _u32, _c.c_double, _p, _u32])):
    getattr(lib, _name).restype, getattr(lib, _name).argtypes = _restype, _argtypes


def _bgr(image):
    image = np.ascontiguousarray(image, np.uint8)
    assert image.ndim == 3 and image.shape[2] == 3
    return image, image.shape[1], image.shape[0], image.strides[0]


def texture(height, width, seed):
    """A B G R scene with detail at several scales that registers uniquely."""
    scene = np.empty((height, width, 3), np.uint8)
    assert lib.simcam_texture(scene.ctypes.data, width, height, width * 3, seed) == 0
    return scene


def blur(image, sigma):
    """A B G R image blurred by a Gaussian of `sigma`."""
    image, w, h, stride = _bgr(image)
    out = np.empty_like(image)
    assert lib.simcam_blur(image.ctypes.data, w, h, stride, sigma, out.ctypes.data, stride) == 0
    return out


def twelve_bit(image):
    """8-bit samples as a 12-bit sensor gives them (top bits repeated below),
    which the library reduces to the same 8-bit values."""
    return image.astype(np.uint16) * 16 + image // 16


class Camera:
    """A simulated camera; usable wherever the bindings take a camera."""

    def __init__(self, width, height):
        self.size = (width, height)
        self.handle = lib.simcam_open(width, height)
        assert self.handle, "simcam_open failed"
        self._as_parameter_ = _c.c_void_p(self.handle)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        lib.simcam_close(self.handle)

    def set_result(self, code):
        lib.simcam_set_result(self.handle, _c.c_int32(code & 0xFFFFFFFF).value)

    def set_pan(self, scene, path, frames_per_segment):
        self._scene, w, h, stride = _bgr(scene)  # the simulator keeps reading it
        points = (Point * len(path))(*(Point(x, y) for x, y in path))
        assert lib.simcam_set_pan(self.handle, self._scene.ctypes.data, w, h, stride, points,
                                  len(path), frames_per_segment) == 0

    def set_focus_sweep(self, image, frame_count, max_blur_sigma):
        image, w, h, stride = _bgr(image)
        assert lib.simcam_set_focus_sweep(self.handle, image.ctypes.data, w, h, stride,
                                          frame_count, max_blur_sigma) == 0

    def set_spots(self, spots):
        array = (Spot * len(spots))(*(Spot(**s) for s in spots))
        assert lib.simcam_set_spots(self.handle, array, len(spots), 0.0, 0.0, 1) == 0

    def spot_truth(self, index):
        truth = Spot()
        assert lib.simcam_spot_truth(self.handle, index, 0, _c.byref(truth)) == 0
        return truth

    def render(self, index, bits=24):
        """Frame `index` as a pull delivers it: the ground truth of a pull."""
        dtype, channels = {8: (np.uint8, 1), 16: (np.uint16, 1), 24: (np.uint8, 3)}[bits]
        w, h = self.size
        pitch = lib.simcam_default_pitch(w, bits)
        buffer = np.zeros(pitch * h, np.uint8)
        assert lib.simcam_render(self.handle, index, buffer.ctypes.data, bits, 0) == 0
        rows = buffer.reshape(h, pitch)[:, :w * bits // 8].copy().view(dtype)
        return rows.reshape(h, w) if channels == 1 else rows.reshape(h, w, channels)
