"""Measures what the Python wrappers add to the C calls beneath them, on a
12-megapixel frame (4000 x 3000): resize, demosaic and a session push, each
against the same C function called through ctypes with every argument made
beforehand.  A measuring script, not a test:

    VANTIX_LIBRARY=build/libvantix.so.1 PYTHONPATH=python \\
        /usr/bin/python3 python/bench_overhead.py [repeats]

Calls alternate (wrapper, C, wrapper, ...) so that load on the machine hits
both alike; the minimum and the median of each are printed.  resize and
demosaic are measured twice: returning a new array (against the C call
writing into a new np.empty array: fresh memory costs page faults on both
sides) and writing into a reused ``out=`` array (against the C call
writing into a reused buffer).
"""

import statistics
import sys
import time

import numpy as np

import vantix
from vantix import _image_ops, _native
from vantix._native import lib

W, H = 4000, 3000
REPEATS = int(sys.argv[1]) if len(sys.argv) > 1 else 15


def timed(call):
    start = time.perf_counter()
    call()
    return time.perf_counter() - start


def compare(name, wrapper, direct):
    wrapper(), direct()  # first touch of the memory out of the figures
    a, b = [], []
    for _ in range(REPEATS):
        a.append(timed(wrapper))
        b.append(timed(direct))
    ma, mb = min(a), min(b)
    print(f"{name:<36} wrapper {ma * 1e3:8.2f} ms  C {mb * 1e3:8.2f} ms  "
          f"overhead {100 * (ma - mb) / mb:+6.1f} % (min)  "
          f"{100 * (statistics.median(a) - statistics.median(b)) / statistics.median(b):+6.1f} %"
          f" (median)")


def main():
    rng = np.random.default_rng(0)
    image = rng.integers(0, 256, (H, W, 3), dtype=np.uint8)
    raw = rng.integers(0, 256, (H, W), dtype=np.uint8)
    print(f"vantix {vantix.__version__}, {W} x {H} frames, {REPEATS} calls each")

    # resize to half size, area
    half = (H // 2, W // 2, 3)
    out = np.empty(half, np.uint8)
    src_h, dst_h = _image_ops._header(W, H, 24), _image_ops._header(W // 2, H // 2, 24)

    def c_resize(dst):
        lib.vantix_resizeV2(src_h, W * 3, image.ctypes.data, dst_h, W * 3 // 2, dst.ctypes.data, 3)
        return dst

    compare("resize 12 MP BGR to 1/2, area, new",
            lambda: vantix.resize(image, (W // 2, H // 2), interpolation="area"),
            lambda: c_resize(np.empty(half, np.uint8)))
    compare("resize ..., out=",
            lambda: vantix.resize(image, (W // 2, H // 2), interpolation="area", out=out),
            lambda: c_resize(out))

    # demosaic, bilinear, to B G R
    bgr = np.empty((H, W, 3), np.uint8)
    pattern = vantix._names.code("pattern", "RGGB", "")

    def c_demosaic(dst):
        lib.vantix_demosaic(raw.ctypes.data, dst.ctypes.data, W, H, 8, pattern, 0, 0)
        return dst

    compare("demosaic 12 MP RGGB bilinear, new",
            lambda: vantix.demosaic(raw, "RGGB"),
            lambda: c_demosaic(np.empty((H, W, 3), np.uint8)))
    compare("demosaic ..., out=",
            lambda: vantix.demosaic(raw, "RGGB", out=bgr),
            lambda: c_demosaic(bgr))

    # What Python adds, alone: the same calls on a 16 x 16 image, where the
    # library's own work is negligible (timings of 12 MP calls on a loaded
    # machine vary by more than these microseconds).
    tiny, tiny_raw = image[:16, :16].copy(), raw[:16, :16].copy()
    tiny_out, tiny_bgr = np.empty((8, 8, 3), np.uint8), np.empty((16, 16, 3), np.uint8)
    t_src, t_dst = _image_ops._header(16, 16, 24), _image_ops._header(8, 8, 24)
    for name, wrapped, direct in (
            ("resize", lambda: vantix.resize(tiny, (8, 8), "area", out=tiny_out),
             lambda: lib.vantix_resizeV2(t_src, 48, tiny.ctypes.data, t_dst, 24,
                                         tiny_out.ctypes.data, 3)),
            ("demosaic", lambda: vantix.demosaic(tiny_raw, "RGGB", out=tiny_bgr),
             lambda: lib.vantix_demosaic(tiny_raw.ctypes.data, tiny_bgr.ctypes.data, 16, 16, 8,
                                         pattern, 0, 0))):
        added = [timed(wrapped) - timed(direct) for _ in range(2000)]
        print(f"{'  ' + name + ': Python-side work alone':<36} "
              f"{statistics.median(added) * 1e6:8.1f} us")

    # session push (conversion and deep copy of the frame into the queue).
    # The worker fusing 12 MP frames meanwhile makes these figures noisy, so
    # the wrapper's own work is also timed on a stopped session, where the
    # library returns at once: that difference is what Python adds.
    with vantix.EdfSession("stack") as session:
        session.start()
        handle = session._handle
        session.push(image)  # the first frame sets the session's size
        compare("EdfSession.push 12 MP BGR",
                lambda: session.push(image),
                lambda: lib.vantix_edf_pushback(handle, image.ctypes.data, W, H, 0, W * 3))
        session.stop()
        added = []
        for _ in range(200):
            wrapped = timed(lambda: session.push(image))
            added.append(wrapped - timed(
                lambda: lib.vantix_edf_pushback(handle, image.ctypes.data, W, H, 0, W * 3)))
        print(f"{'  push: Python-side work alone':<36} {statistics.median(added) * 1e6:8.1f} us")
    _native.lib  # keep the library referenced to the end


def sessions():
    """Frames processed and time per frame: a 163-frame pan (640 x 480) and
    a 20-frame focus stack, pushed as fast as possible (the queues drop
    frames), with push(wait=True), and through the one-call functions."""
    rng = np.random.default_rng(1)
    noise = rng.integers(0, 256, (100, 260, 3), dtype=np.uint8)
    scene = vantix.resize(noise, (2600, 1000), interpolation="cubic")
    pan = [np.ascontiguousarray(scene[200:680, 10 * i:10 * i + 640]) for i in range(163)]
    stack = [pan[0]] * 20

    def report(name, count, total, seconds):
        print(f"{name:<44} {count:4d} of {total} frames  {seconds / total * 1e3:7.2f} ms a frame")

    for what, frames, make, kind in (("stitch", pan, vantix.StitchSession, vantix.StitchFrame),
                                     ("edf", stack, vantix.EdfSession, vantix.EdfFrame)):
        for wait in (False, True):
            start = time.perf_counter()
            with (make(640, 480) if what == "stitch" else make("stack")) as session:
                session.start()
                for frame in frames:
                    session.push(frame, wait=wait)
                session.drain()
                session.stop()
                count = sum(isinstance(e, kind) for e in session.events(timeout=0))
            report(f"{what}: session push(wait={wait}), drain, stop", count, len(frames),
                   time.perf_counter() - start)
        start = time.perf_counter()
        if what == "stitch":
            count = sum(f.mode == "placed" for f in vantix.stitch(iter(frames)).frames)
        else:
            vantix.fuse(iter(frames), kind="stack")
            count = len(frames)
        report(f"{what}: vantix.{'stitch' if what == 'stitch' else 'fuse'}", count, len(frames),
               time.perf_counter() - start)


if __name__ == "__main__":
    main()
    sessions()
