"""This process's frame channel (the output filter): frames published for a
reader in another process (kivcam-view, or a program on libkivcamreader)."""

import numpy as np

from . import _lib, errors

OK, NEWEST_SLOT, NO_PENDING, ERROR, EXISTS = 0, -1, 1, 2, 3


class FrameChannelError(errors.Error):
    """A KIVCAMFILTER_ function failed; `.code` is its status (2 or 3)."""


class FrameChannel:
    """The channel of width x height B, G, R, X frames; a context manager that
    frees it. One per process."""

    def __init__(self, width, height, user_value=0):
        self._lib = _lib.lib()
        status = self._lib.KIVCAMFILTER_Alloc(width, height, user_value)
        if status != OK:
            raise FrameChannelError(status, "KIVCAMFILTER_Alloc",
                                    "KIVCAMFILTER_Alloc failed: status %d (%s)"
                                    % (status, "a channel exists" if status == EXISTS else "error"))
        self.width, self.height = width, height
        self._open = True

    def put(self, image):
        """Publishes an H x W x 4 uint8 frame (H x W x 3 gets a fourth byte).
        True when the reader held the other slot and the newest frame was
        overwritten."""
        image = np.asarray(image, np.uint8)
        if image.shape[:2] != (self.height, self.width) or image.ndim != 3 or image.shape[2] not in (3, 4):
            raise ValueError("expected a %d x %d x 4 (or 3) uint8 array" % (self.height, self.width))
        if image.shape[2] == 3:
            image = np.concatenate([image, np.zeros(image.shape[:2] + (1,), np.uint8)], axis=2)
        image = np.ascontiguousarray(image)
        status = self._lib.KIVCAMFILTER_OutPut(image.ctypes.data)
        if status not in (OK, NEWEST_SLOT):
            raise FrameChannelError(status, "KIVCAMFILTER_OutPut", "KIVCAMFILTER_OutPut failed: status %d" % status)
        return status == NEWEST_SLOT

    def close(self):
        if self._open:
            self._open = False
            self._lib.KIVCAMFILTER_Free()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False
