#!/usr/bin/python3
"""The Python binding's cost, side by side with the same work done in C:

  frames():  per frame, Stream.frames() against a C loop of KIVCAM_ImageReq /
             KIVCAM_ImageComplete on the same camera at 64 x 64 Mono8, the
             virtual camera delivering as fast as buffers are queued;
  .bgr():    per conversion, Frame.bgr() against a C loop of
             KIVCAM_ImageConvExec on the same frame at 1920 x 1200 BayerRG8.

Repetitions of the cases are interleaved and medians reported.

  bench/python/bench_binding.py [--build build-bench] [--reps 9]
"""

import argparse
import ctypes
import os
import statistics
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
os.environ.setdefault("KIVCAM_IPC_NAMESPACE", "_bench_py%d" % os.getpid())
sys.path.insert(0, os.path.join(HERE, "..", "..", "python"))

parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
parser.add_argument("--build", default=os.path.join(HERE, "..", "..", "build-bench"))
parser.add_argument("--reps", type=int, default=9)
parser.add_argument("--frames", type=int, default=3000, help="frames per repetition")
parser.add_argument("--converts", type=int, default=40, help="conversions per repetition")
args = parser.parse_args()
os.environ.setdefault("KIVCAM_LIBRARY", os.path.join(args.build, "lib", "libkivcam.so"))

import numpy as np  # noqa: E402

import kivcam  # noqa: E402
from kivcam import _lib  # noqa: E402

USB1 = 0x4B49560000000001
loops = ctypes.CDLL(os.path.join(args.build, "benchlib", "libkivbench_loops.so"))
loops.bench_request_loop.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_uint32]
loops.bench_request_loop.restype = ctypes.c_uint32
loops.bench_convert_loop.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_uint32]
loops.bench_convert_loop.restype = ctypes.c_uint32

sim = ctypes.CDLL(os.path.join(os.path.dirname(kivcam.library_path()), "KivUSBGenTL.cti"),
                  mode=os.RTLD_NOLOAD | os.RTLD_LOCAL)
sim.kivsim_free_run.argtypes = [ctypes.c_uint32, ctypes.c_double]


def per_item(seconds, n):
    return seconds / n * 1e6  # microseconds


def c_frames(cam, n):
    with cam.stream(buffers=4) as s:
        table = (ctypes.POINTER(_lib.ImageBuffer) * len(s._buffers))(*s._buffers)
        assert loops.bench_request_loop(cam.handle, table, len(table), 100) == 0  # warm
        t0 = time.perf_counter()
        assert loops.bench_request_loop(cam.handle, table, len(table), n) == 0
        return per_item(time.perf_counter() - t0, n)


def py_frames(cam, n, info):
    with cam.stream(buffers=4) as s:
        for _ in s.frames(100, info=info):  # warm
            pass
        t0 = time.perf_counter()
        for _ in s.frames(n, info=info):
            pass
        return per_item(time.perf_counter() - t0, n)


def conversions(cam, n, parallel):
    """Median microseconds of the C loop, bgr(out=...) and bgr()."""
    with cam.stream(buffers=2, parallel=parallel) as s:
        frame = next(s.frames(1, timeout=5.0))
        dst = np.empty(s._bitmap_bytes, np.uint8)
        times = {"c": [], "out": [], "alloc": []}
        for _ in range(args.reps):
            for case in sorted(times, key=lambda _: np.random.random()):
                t0 = time.perf_counter()
                if case == "c":
                    assert loops.bench_convert_loop(cam.handle, frame._buffer, dst.ctypes.data, n) == 0
                elif case == "out":
                    for _ in range(n):
                        frame.bgr(out=dst)
                else:
                    for _ in range(n):
                        frame.bgr()
                times[case].append(per_item(time.perf_counter() - t0, n))
        return {k: statistics.median(v) for k, v in times.items()}


def main():
    with kivcam.open(USB1) as cam:
        index = sim.kivsim_camera_index(("KivU3V::%d" % USB1).encode())
        sim.kivsim_free_run(index, 0.0)
        cam.Width, cam.Height, cam.PixelFormat = 64, 64, "Mono8"
        times = {"c": [], "py": [], "py_noinfo": []}
        for _ in range(args.reps):
            for case in sorted(times, key=lambda _: np.random.random()):
                if case == "c":
                    times[case].append(c_frames(cam, args.frames))
                else:
                    times[case].append(py_frames(cam, args.frames, case == "py"))
        med = {k: statistics.median(v) for k, v in times.items()}

        cam.Width, cam.Height, cam.PixelFormat = 1920, 1200, "BayerRG8"
        conv = {p: conversions(cam, args.converts, p) for p in (False, True)}
        sim.kivsim_free_run(index, 30.0)

    print("frames() at 64 x 64 Mono8, %d frames x %d repetitions, medians per frame:" % (args.frames, args.reps))
    print("| loop | µs per frame | over C |")
    print("|---|---|---|")
    print("| C: KIVCAM_ImageReq + KIVCAM_ImageComplete | %.2f | |" % med["c"])
    print("| Python: `frames()`, ImageInfo kept per frame | %.2f | %+.2f µs |" % (med["py"], med["py"] - med["c"]))
    print("| Python: `frames(info=False)` | %.2f | %+.2f µs |" % (med["py_noinfo"], med["py_noinfo"] - med["c"]))
    for parallel in (False, True):
        c = conv[parallel]
        print()
        print("bgr() at 1920 x 1200 BayerRG8 to 24 bits, %s, %d conversions x %d repetitions, medians:"
              % ("a team of threads" if parallel else "one thread", args.converts, args.reps))
        print("| conversion | µs | ratio to C |")
        print("|---|---|---|")
        print("| C: KIVCAM_ImageConvExec | %.0f | 1.000 |" % c["c"])
        print("| Python: `frame.bgr(out=...)` | %.0f | %.3f |" % (c["out"], c["out"] / c["c"]))
        print("| Python: `frame.bgr()` | %.0f | %.3f |" % (c["alloc"], c["alloc"] / c["c"]))


if __name__ == "__main__":
    main()
