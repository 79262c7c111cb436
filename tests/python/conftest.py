"""Shared set-up of the binding's tests: machine-wide names of this process's
own (before the library loads), the virtual cameras' control interface and
the recomputed test pattern."""

import ctypes
import glob
import os
import time

import numpy as np
import pytest

# Before kivcam loads the library: names no other test process or monitor uses.
NAMESPACE = "_py%d_%x" % (os.getpid(), time.monotonic_ns() & 0xFFFFFFFF)
os.environ["KIVCAM_IPC_NAMESPACE"] = NAMESPACE
os.environ.pop("KIVSIM_CONFIG", None)

import kivcam  # noqa: E402

LIB_DIR = os.path.dirname(os.environ.get("KIVCAM_LIBRARY", kivcam.library_path()))
GIGE1, GIGE2, USB1 = 0x00A0B7000001, 0x00A0B7000002, 0x4B49560000000001


def pytest_sessionfinish(session, exitstatus):
    # POSIX names outlive the process: remove this one's.
    for path in glob.glob("/dev/shm/*" + NAMESPACE + "*"):
        try:
            os.unlink(path)
        except OSError:
            pass


class Sim:
    """The control interface of the producer the library loaded."""

    def __init__(self, cti):
        kivcam.library_path()  # the library, and so the producers, are loaded
        self.dll = ctypes.CDLL(os.path.join(LIB_DIR, cti), mode=os.RTLD_NOLOAD | os.RTLD_LOCAL)
        self.dll.kivsim_camera_index.argtypes = [ctypes.c_char_p]
        self.dll.kivsim_free_run.argtypes = [ctypes.c_uint32, ctypes.c_double]

    def index(self, device_id):
        i = self.dll.kivsim_camera_index(device_id.encode())
        assert i >= 0, device_id
        return i

    def deliver(self, index, frames):
        assert self.dll.kivsim_deliver(index, frames) == 0

    def free_run(self, index, fps):
        assert self.dll.kivsim_free_run(index, fps) == 0

    def plug(self, index, plugged):
        assert self.dll.kivsim_plug(index, 1 if plugged else 0) == 0


@pytest.fixture(scope="session")
def usb_sim():
    return Sim("KivUSBGenTL.cti")


@pytest.fixture(scope="session")
def gige_sim():
    return Sim("KivGigEGenTL.cti")


_pattern = None


def pattern(code, width, height, frame):
    """The raw bytes of frame `frame` of the test pattern, or None for a
    format the cameras do not render."""
    global _pattern
    if _pattern is None:
        _pattern = ctypes.CDLL(os.environ["KIVTEST_PATTERN_LIBRARY"])
        _pattern.kivtest_pattern.restype = ctypes.c_int64
        _pattern.kivtest_pattern.argtypes = [ctypes.c_uint32, ctypes.c_uint32, ctypes.c_uint32, ctypes.c_uint64,
                                             ctypes.c_void_p, ctypes.c_uint64]
    size = _pattern.kivtest_pattern(code, width, height, frame, None, 0)
    if size < 0:
        return None
    out = np.zeros(size, np.uint8)
    _pattern.kivtest_pattern(code, width, height, frame, out.ctypes.data, size)
    return out


def open_fds():
    return len(os.listdir("/proc/self/fd"))
