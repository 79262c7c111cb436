"""Acquisition: by request and completion (Stream.frames) or by callback."""

import collections
import ctypes
import sys

import numpy as np

from . import _lib, errors, image
from .pixel_formats import name_of

_TIMEOUT = errors.TimeoutError.code


def _ms(timeout):
    """Seconds (None: no limit) as the library's milliseconds."""
    if timeout is None:
        return _lib.INFINITE
    return max(0, min(int(round(timeout * 1000)), _lib.INFINITE - 1))


def info_dict(info):
    """The ImageInfo record as a dict, by the variant the library filled."""
    if info is None:
        return None
    t = info.Transport
    if t == 1:
        g = info.GigE
        return {"transport": "GigE", "complete": bool(g.Complete), "packet_info": bytes(g.PacketInfo)}
    if t == 2:
        u = info.USB
        return {"transport": "USB", "complete": bool(u.Complete), "payload_type": u.PayloadType,
                "block_id": u.BlockID, "timestamp": u.Timestamp, "valid_payload_size": u.ValidPayloadSize,
                "pixel_format": u.PixelFormat, "size_x": u.SizeX, "size_y": u.SizeY, "offset_x": u.OffsetX,
                "offset_y": u.OffsetY, "padding_x": u.PaddingX, "trailer_size_y": u.TrailerSizeY,
                "chunk_layout_id": u.ChunkLayoutID}
    if t == 0:
        i = info.IIDC
        return {"transport": "IIDC", "status_bits": i.StatusBits, "high_seconds": i.HighSeconds,
                "high_cycles": i.HighCycles, "low_seconds": i.LowSeconds, "low_cycles": i.LowCycles}
    return {"transport": t}


def raw_view(address, size, width, height, pixel_format):
    """The frame's bytes as a numpy array over the library's memory: H x W for
    8-bit mono and Bayer, H x W uint16 for 16-bit containers, H x W x C for
    8-bit RGB forms, else the plain bytes."""
    if not address or not size:
        return np.zeros(0, np.uint8)
    flat = np.ctypeslib.as_array(ctypes.cast(address, ctypes.POINTER(ctypes.c_uint8)), (size,))
    pixels = width * height
    if pixels and size == pixels:
        return flat.reshape(height, width)
    name = name_of(pixel_format)
    if pixels and size == 2 * pixels and (name.startswith("Mono") or name.startswith("Bayer")):
        return flat.view("<u2").reshape(height, width)
    if pixels and size in (3 * pixels, 4 * pixels) and name in ("RGB8", "BGR8", "RGBa8", "BGRa8"):
        return flat.reshape(height, width, size // pixels)
    return flat


class Frame:
    """One image. `raw` views the library's buffer: it holds this image until
    the buffer is requested again (the next frame of frames(), or the end of
    a callback); copy it to keep it. `info` is the image's ImageInfo as a
    dict (None when not asked for)."""

    __slots__ = ("_source", "_buffer", "_address", "_record", "width", "height", "pixel_format", "payload_size",
                 "index", "raw")

    def __init__(self, source, address, size, width, height, pixel_format, record, index, buffer=None, raw=None):
        self._source = source
        self._buffer = buffer
        self._address = address
        self._record = record  # the ImageInfo copied, made a dict when asked
        self.width = width
        self.height = height
        self.pixel_format = pixel_format
        self.payload_size = size
        self.index = index
        self.raw = raw if raw is not None else raw_view(address, size, width, height, pixel_format)

    @property
    def pixel_format_name(self):
        return name_of(self.pixel_format)

    @property
    def info(self):
        return info_dict(self._record)

    def bgr(self, out=None):
        """The image converted by the camera's engine: H x W x 3 (or x 4 when
        the stream converts to 32 bits) uint8, first row on top. `out` may
        give memory to reuse (at least the bitmap's bytes)."""
        return self._source._convert(self, out)

    def save(self, path):
        """Writes the converted image as PNG or BMP (by the extension)."""
        image.save(path, self.bgr(), self._source._bmpinfo if str(path).lower().endswith(".bmp") else None)

    def __repr__(self):
        return "<Frame %d %dx%d %s>" % (self.index, self.width, self.height, self.pixel_format_name)


class _Acquisition:
    """What both forms share: resources, the conversion mode and the bitmap."""

    def __init__(self, camera, bits, parallel):
        self._cam = camera
        self._lib = _lib.lib()
        self._bits = bits
        self._parallel = parallel
        self._output = image.output_of(bits)
        self._allocated = False
        self._started = False
        self._spares = []

    def _prepare(self):
        h = self._cam.handle
        if self._cam._watch:
            self._lib.call("KIVCAM_WatchAlloc", h)
        else:
            self._lib.call("KIVCAM_ResourceAlloc", h)
        self._allocated = True
        mode = _lib.ConvMode(0, -1, self._output, 0, 1 if self._parallel else 0)
        self._lib.call("KIVCAM_ConvMode", h, ctypes.byref(mode), None)
        info = _lib.BitmapInfo()
        size = ctypes.c_uint32(ctypes.sizeof(info))
        self._lib.call("KIVCAM_GetBMPINFO", h, ctypes.byref(info), ctypes.byref(size), 0)
        self._bmpinfo = info
        self._bitmap_bytes = info.bmiHeader.biSizeImage
        fmt = ctypes.c_int64()
        self._lib.call("KIVCAMF_GetEnumInt", h, b"PixelFormat", ctypes.byref(fmt))
        self._pixel_format = fmt.value & 0xFFFFFFFF

    def _start(self):
        self._lib.call("KIVCAM_WatchStart" if self._cam._watch else "KIVCAM_ImageStart", self._cam.handle)
        self._started = True

    def _release(self):
        """Best effort: the camera may be gone, or closed meanwhile."""
        h = self._cam.handle
        if h is None:
            return
        if self._started:
            self._lib.ok("KIVCAM_WatchStop" if self._cam._watch else "KIVCAM_ImageStop", h)
            self._started = False
        self._stop_source(h)
        if self._allocated:
            self._lib.ok("KIVCAM_WatchRelease" if self._cam._watch else "KIVCAM_ResourceRelease", h)
            self._allocated = False

    def _stop_source(self, h):
        pass

    def _target(self, out):
        if out is not None:
            return image.check_out(out, self._width, self._height, self._bits)
        # Fresh memory costs a page fault per page, as much as the conversion
        # itself at full size: reuse a bitmap no one holds any more (the
        # spares list, the loop variable and getrefcount's argument are the
        # only references then; every array made from it holds one more).
        for flat in self._spares:
            if sys.getrefcount(flat) == 3:
                return flat, image.bgr_view(flat, self._width, self._height, self._bits)
        flat, view = image.new_bitmap(self._width, self._height, self._bits)
        if len(self._spares) < 3:
            self._spares.append(flat)
        return flat, view


class Stream(_Acquisition):
    """Acquisition by request: a context manager that allocates the resources
    and `buffers` image buffers and starts acquisition; frames() yields the
    images in the order they arrive."""

    def __init__(self, camera, buffers=4, bits=24, parallel=True):
        super().__init__(camera, bits, parallel)
        if buffers < 1:
            raise ValueError("a stream needs at least one buffer")
        self._count = buffers
        self._buffers = []
        self._pending = collections.deque()
        self._idle = collections.deque()
        self._index = 0

    def __enter__(self):
        try:
            self._prepare()
            h = self._cam.handle
            for _ in range(self._count):
                b = ctypes.POINTER(_lib.ImageBuffer)()
                self._lib.call("KIVCAM_ImageAlloc", h, ctypes.byref(b))
                self._buffers.append(b)
                self._idle.append(b)
            self._width, self._height = self._buffers[0].contents.Width, self._buffers[0].contents.Height
            # Each buffer's record and pixels stay where they are while it lives.
            self._views = {}
            for b in self._buffers:
                c = b.contents
                fixed = (c.Data, c.PayloadSize, c.Width, c.Height, c.PixelFormat)
                self._views[id(b)] = (fixed, raw_view(*fixed))
            self._start()
        except BaseException:
            self._release()
            raise
        return self

    def __exit__(self, *exc):
        self._release()
        return False

    def _stop_source(self, h):
        if self._buffers:
            self._lib.ok("KIVCAM_ImageReqAbortAll", h)
            self._lib.ok("KIVCAM_ImageFreeAll", h)
            self._buffers = []
            self._pending.clear()
            self._idle.clear()

    def frames(self, n=None, timeout=1.0, info=True):
        """Yields `n` frames (None: until the loop ends), each waited for at
        most `timeout` seconds (None: no limit); a timeout raises
        kivcam.TimeoutError, an image delivered with an error status
        kivcam.NoImageError. With `info`, each frame carries its ImageInfo."""
        h, wait = self._cam.handle, _ms(timeout)
        request, complete = self._lib.KIVCAM_ImageReq, self._lib.KIVCAM_ImageComplete
        record = _lib.ImageInfo() if info else None
        record_ref = ctypes.byref(record) if info else None
        copy = _lib.ImageInfo.from_buffer_copy
        last = None
        try:
            count = 0
            while n is None or count < n:
                if last is not None:
                    self._idle.append(last)
                    last = None
                while self._idle:
                    b = self._idle.popleft()
                    if not request(h, b):
                        self._idle.appendleft(b)
                        raise self._lib.error("KIVCAM_ImageReq")
                    self._pending.append(b)
                b = self._pending.popleft()
                if not complete(h, b, wait, record_ref):
                    failure = self._lib.error("KIVCAM_ImageComplete")
                    if failure.code == _TIMEOUT:
                        self._pending.appendleft(b)  # still queued: the next wait takes it
                    else:
                        self._idle.append(b)
                    raise failure
                last = b
                fixed, raw = self._views[id(b)]
                frame = Frame(self, *fixed, copy(record) if info else None, self._index, b, raw)
                self._index += 1
                count += 1
                yield frame
        finally:
            if last is not None:
                self._idle.append(last)

    def _convert(self, frame, out):
        flat, view = self._target(out)
        self._lib.call("KIVCAM_ImageConvExec", self._cam.handle, frame._buffer, flat.ctypes.data)
        return view


class CallbackStream(_Acquisition):
    """Acquisition by callback (Camera.on_frame): the library's stream thread
    calls fn(frame) per image until stop(). An exception of fn ends nothing
    on that thread; the first one is raised again by stop()."""

    def __init__(self, camera, fn, buffers=4, bits=24, info=False, parallel=True):
        super().__init__(camera, bits, parallel)
        self._fn = fn
        self._count = buffers
        self._info = info
        self._error = None
        self.frames = 0
        self._callback = _lib.IMAGE_CALLBACK(self._on_image)
        self._installed = False

    def start(self):
        try:
            self._prepare()
            self._width = self._bmpinfo.bmiHeader.biWidth
            self._height = self._bmpinfo.bmiHeader.biHeight
            self._lib.call("KIVCAM_SetImageCallBack", self._cam.handle, None, self._callback, self._count,
                           1 if self._info else 0)
            self._installed = True
            self._start()
        except BaseException:
            self._release()
            raise
        return self

    def _on_image(self, camera, data, size, width, height, info, context):
        try:
            record = _lib.ImageInfo.from_buffer_copy(info.contents) if info else None
            frame = Frame(self, data, size, width, height, self._pixel_format, record, self.frames)
            self.frames += 1
            self._fn(frame)
        except BaseException as e:  # noqa: B902 - nothing may cross into the library's thread
            if self._error is None:
                self._error = e

    def _convert(self, frame, out):
        flat, view = self._target(out)
        self._lib.call("KIVCAM_BufferConvExec", self._cam.handle, frame._address, flat.ctypes.data)
        return view

    def _stop_source(self, h):
        if self._installed:
            self._lib.ok("KIVCAM_SetImageCallBack", h, None, _lib.IMAGE_CALLBACK(), 0, 0)
            self._installed = False

    def stop(self):
        """Stops acquisition and removes the callback; raises what fn raised."""
        self._release()
        error, self._error = self._error, None
        if error is not None:
            raise error

    def __enter__(self):
        return self

    def __exit__(self, exc_type, *exc):
        if exc_type is None:
            self.stop()
        else:
            self._release()
        return False
