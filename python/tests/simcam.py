"""The simulated camera SDK, loaded into the test process the way a host
loads its camera SDK, and its control interface (tools/simcam/simcam.h)."""

import ctypes
import os

import numpy as np

_c = ctypes
_cam = _c.c_void_p


class Point(_c.Structure):
    _fields_ = [("x", _c.c_double), ("y", _c.c_double)]


class Spot(_c.Structure):
    _fields_ = [(n, _c.c_double) for n in (
        "centerX", "centerY", "sigmaX", "sigmaY", "angle", "peak", "orbitRadius",
        "orbitPeriod", "breathAmplitude", "breathPeriod")]


class SpotTruth(_c.Structure):
    _fields_ = [(n, _c.c_double) for n in (
        "centerX", "centerY", "sigmaX", "sigmaY", "angle", "peak")]


_SIGNATURES = {
    "simcam_open": (_cam, [_c.c_uint32, _c.c_uint32]),
    "simcam_close": (None, [_cam]),
    "simcam_set_result": (None, [_cam, _c.c_int32]),
    "simcam_frame_index": (_c.c_uint32, [_cam]),
    "simcam_render": (_c.c_int32, [_cam, _c.c_uint32, _c.c_void_p, _c.c_int32, _c.c_int32]),
    "simcam_set_still": (_c.c_int32, [_cam, _c.c_void_p, _c.c_uint32, _c.c_uint32,
                                      _c.c_uint32]),
    "simcam_set_pan": (_c.c_int32, [_cam, _c.c_void_p, _c.c_uint32, _c.c_uint32, _c.c_uint32,
                                    _c.POINTER(Point), _c.c_uint32, _c.c_uint32]),
    "simcam_pan_position": (_c.c_int32, [_cam, _c.c_uint32, _c.POINTER(Point)]),
    "simcam_set_focus_sweep": (_c.c_int32, [_cam, _c.c_void_p, _c.c_uint32, _c.c_uint32,
                                            _c.c_uint32, _c.c_uint32, _c.c_double]),
    "simcam_set_spots": (_c.c_int32, [_cam, _c.POINTER(Spot), _c.c_uint32, _c.c_double,
                                      _c.c_double, _c.c_uint32]),
    "simcam_spot_truth": (_c.c_int32, [_cam, _c.c_uint32, _c.c_uint32,
                                       _c.POINTER(SpotTruth)]),
}

_PULL_LAYOUT = {8: (np.uint8, 1), 16: (np.uint16, 1), 24: (np.uint8, 3), 32: (np.uint8, 4),
                48: (np.uint16, 3), 64: (np.uint16, 4)}


class SimcamLibrary:
    def __init__(self, path):
        # Global, as a host's SDK: the library finds it among loaded objects.
        self.lib = _c.CDLL(path, mode=os.RTLD_GLOBAL)
        for name, (restype, argtypes) in _SIGNATURES.items():
            fn = getattr(self.lib, name)
            fn.restype, fn.argtypes = restype, argtypes

    def open(self, width, height):
        return Camera(self.lib, width, height)


class Camera:
    """A simulated camera; usable wherever the bindings take a camera."""

    def __init__(self, lib, width, height):
        self.lib = lib
        self.size = (width, height)
        self.handle = lib.simcam_open(width, height)
        assert self.handle, "simcam_open failed"
        self._as_parameter_ = _c.c_void_p(self.handle)

    def close(self):
        self.lib.simcam_close(self.handle)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    @staticmethod
    def _bgr(image):
        image = np.ascontiguousarray(image, np.uint8)
        assert image.ndim == 3 and image.shape[2] == 3
        return image, image.shape[1], image.shape[0], image.strides[0]

    def set_result(self, code):
        self.lib.simcam_set_result(self.handle, _c.c_int32(code & 0xFFFFFFFF).value)

    def frame_index(self):
        return self.lib.simcam_frame_index(self.handle)

    def set_still(self, image):
        image, w, h, stride = self._bgr(image)
        assert self.lib.simcam_set_still(self.handle, image.ctypes.data, w, h, stride) == 0

    def set_pan(self, scene, path, frames_per_segment):
        scene, w, h, stride = self._bgr(scene)
        self._scene = scene  # the simulator may keep reading it
        points = (Point * len(path))(*(Point(x, y) for x, y in path))
        assert self.lib.simcam_set_pan(self.handle, scene.ctypes.data, w, h, stride, points,
                                       len(path), frames_per_segment) == 0

    def pan_position(self, index):
        p = Point()
        assert self.lib.simcam_pan_position(self.handle, index, _c.byref(p)) == 0
        return p.x, p.y

    def set_focus_sweep(self, image, frame_count, max_blur_sigma):
        image, w, h, stride = self._bgr(image)
        assert self.lib.simcam_set_focus_sweep(self.handle, image.ctypes.data, w, h, stride,
                                               frame_count, max_blur_sigma) == 0

    def set_spots(self, spots, background=0.0, noise=0.0, seed=1):
        array = (Spot * len(spots))(*(Spot(**s) for s in spots))
        assert self.lib.simcam_set_spots(self.handle, array, len(spots), background, noise,
                                         seed) == 0

    def spot_truth(self, index, spot=0):
        t = SpotTruth()
        assert self.lib.simcam_spot_truth(self.handle, index, spot, _c.byref(t)) == 0
        return t

    def render(self, index, bits=24):
        """Frame `index` as a pull would deliver it (ground truth)."""
        dtype, channels = _PULL_LAYOUT[bits]
        w, h = self.size
        pitch = (w * bits + 31) // 32 * 4
        buffer = np.zeros(pitch * h, np.uint8)
        assert self.lib.simcam_render(self.handle, index, buffer.ctypes.data, bits, 0) == 0
        rows = buffer.reshape(h, pitch)[:, :w * bits // 8].copy().view(dtype)
        return rows.reshape(h, w) if channels == 1 else rows.reshape(h, w, channels)


_loaded = {}


def load(path):
    if path not in _loaded:
        _loaded[path] = SimcamLibrary(path)
    return _loaded[path]
