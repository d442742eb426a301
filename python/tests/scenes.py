"""Images for the tests: synthetic ones made with numpy, and photographs
of opencv-doc."""

import numpy as np


def gaussian_blur(image, sigma):
    """Gaussian blur of each channel (FFT, periodic edges; tests compare
    interiors only)."""
    image = np.asarray(image, np.float64)
    h, w = image.shape[:2]
    fy, fx = np.fft.fftfreq(h)[:, None], np.fft.fftfreq(w)[None, :]
    kernel = np.exp(-2 * (np.pi * sigma) ** 2 * (fx ** 2 + fy ** 2))
    if image.ndim == 3:
        kernel = kernel[:, :, None]
    spectrum = np.fft.fft2(image, axes=(0, 1)) * kernel
    return np.real(np.fft.ifft2(spectrum, axes=(0, 1)))


def textured_scene(height, width, seed=1):
    """An 8-bit B G R scene with detail at several scales (no repetition,
    so every window registers uniquely)."""
    rng = np.random.default_rng(seed)
    layers = [gaussian_blur(rng.standard_normal((height, width, 3)), s) * s
              for s in (1.5, 4.0, 12.0)]
    scene = sum(layers)
    scene = (scene - scene.mean()) / scene.std()
    return np.clip(128 + 45 * scene, 0, 255).astype(np.uint8)


PHOTOS = "/usr/share/doc/opencv-doc/examples/data"


def photo(name):
    """A photograph of opencv-doc as a B G R uint8 array (the test is
    skipped without opencv-doc or PIL)."""
    import os

    import pytest
    image = pytest.importorskip("PIL.Image")
    path = os.path.join(PHOTOS, name)
    if not os.path.exists(path):
        pytest.skip(f"{path} (opencv-doc) is not installed")
    return np.ascontiguousarray(np.asarray(image.open(path).convert("RGB"))[:, :, ::-1])


def twelve_bit(image):
    """8-bit samples as 12-bit ones (the top bits repeated below): exactly
    what a 12-bit sensor would give for the same scene, and reduced by the
    library to the same 8-bit values once shifted up to 16 bits."""
    return image.astype(np.uint16) * 16 + image // 16
