"""Synthetic images for the tests, made with numpy only."""

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
