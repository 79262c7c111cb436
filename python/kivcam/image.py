"""Pixel conversion of numpy arrays and image files (PNG and BMP) without Pillow."""

import ctypes
import re
import struct
import threading
import zlib

import numpy as np

from . import _lib
from .pixel_formats import code_of, name_of

_OUTPUT = {32: 0, 24: 1}  # KIVCAM_OUTPUT_BGRX32, KIVCAM_OUTPUT_BGR24
_handles = {}
_handles_lock = threading.Lock()


def output_of(bits):
    try:
        return _OUTPUT[bits]
    except KeyError:
        raise ValueError("bits must be 24 or 32, not %r" % (bits,)) from None


def bgr_view(flat, width, height, bits):
    """An H x W x 3 (or 4) view of a bitmap pixel array: rows padded to 4
    bytes, first row on top."""
    channels = bits // 8
    stride = (width * channels + 3) & ~3
    return np.ndarray((height, width, channels), np.uint8, flat, 0, (stride, channels, 1))


def new_bitmap(width, height, bits):
    """A zeroed pixel array and its H x W x 3 (or 4) view."""
    channels = bits // 8
    stride = (width * channels + 3) & ~3
    flat = np.zeros(stride * height, np.uint8)
    return flat, bgr_view(flat, width, height, bits)


def check_out(out, width, height, bits):
    """`out` as the pixel array of a bitmap of this size, or an error."""
    channels = bits // 8
    stride = (width * channels + 3) & ~3
    if not isinstance(out, np.ndarray) or out.dtype != np.uint8 or out.nbytes < stride * height \
            or not out.flags.c_contiguous:
        raise ValueError("out must be a contiguous uint8 array of at least %d bytes" % (stride * height))
    flat = out.reshape(-1)
    return flat, bgr_view(flat, width, height, bits)


def auto_shift(pixel_format):
    """The right shift a camera's engine picks for 16-bit samples: the
    significant bits above 8 of a Mono, Bayer or RGB container format."""
    m = re.match(r"^(Mono|Bayer[A-Z]{2}|RGB|BGR)(10|12|16)$", name_of(code_of(pixel_format)))
    return int(m.group(2)) - 8 if m else 0


def _handle(bits, parallel, shift=0):
    key = (bits, bool(parallel), shift)
    with _handles_lock:
        h = _handles.get(key)
        if h is None:
            if not 0 <= shift <= 8:
                raise ValueError("shift must be 0 to 8, not %r" % (shift,))
            mode = _lib.ConvMode(0, shift, output_of(bits), 0, 1 if parallel else 0)
            out = _lib.HANDLE()
            _lib.lib().call("KIVCAM_CreateConvHandle", ctypes.byref(out), ctypes.byref(mode), None)
            h = _handles[key] = out.value
        return h


def _describe(raw, pixel_format, width, height, little_endian):
    if not isinstance(raw, np.ndarray) or not raw.flags.c_contiguous:
        raw = np.ascontiguousarray(raw)
    if width is None or height is None:
        if raw.ndim < 2:
            raise ValueError("give width and height for a one-dimensional raw image")
        height, width = raw.shape[0], raw.shape[1]
    desc = _lib.ImageDesc(int(width), int(height), raw.ctypes.data, raw.nbytes, code_of(pixel_format),
                          1 if little_endian else 0)
    return raw, desc


def convert(raw, pixel_format, bits=24, parallel=True, width=None, height=None, little_endian=True, out=None,
            shift=None):
    """Converts raw pixels (a numpy array, H x W or H x W x C, or one-dimensional
    with width and height given) of `pixel_format` (name or code) into an
    H x W x 3 (bits=24) or x 4 (bits=32) BGR array, with a conversion handle
    of the library. 16-bit samples are shifted right by `shift` (None: as a
    camera's engine does, by the format's bits above 8). `out` may give the
    bitmap's pixel memory to reuse."""
    raw, desc = _describe(raw, pixel_format, width, height, little_endian)
    h = _handle(bits, parallel, auto_shift(pixel_format) if shift is None else int(shift))
    if out is None:
        flat, view = new_bitmap(desc.Width, desc.Height, bits)
    else:
        flat, view = check_out(out, desc.Width, desc.Height, bits)
    _lib.lib().call("KIVCAM_ColorConvExec", h, ctypes.byref(desc), flat.ctypes.data)
    return view


def bitmap_info(width, height, bits=24):
    """The library's 40-byte bitmap information header for a BGR image."""
    info = _lib.BitmapInfo()
    desc = _lib.ImageDesc(width, height, None, 0, code_of("BGR8"), 1)
    _lib.lib().call("KIVCAM_ColorConvGetBMPINFO", _handle(bits, False), ctypes.byref(desc), ctypes.byref(info))
    return info


def _contiguous_rows(bgr):
    """The rows of an H x W x C array as padded bottom-up bitmap rows."""
    h, w, c = bgr.shape
    stride = (w * c + 3) & ~3
    rows = np.zeros((h, stride), np.uint8)
    rows[:, :w * c] = bgr.reshape(h, w * c)
    return rows[::-1]


def save(path, bgr, info=None):
    """Writes an H x W x 3 (or 4) BGR array as PNG or BMP, chosen by the file's
    extension. A BMP gets the library's bitmap header (`info`, a BitmapInfo,
    when the caller has one) and bottom-up rows as bitmaps keep them."""
    bgr = np.asarray(bgr)
    if bgr.ndim != 3 or bgr.shape[2] not in (3, 4) or bgr.dtype != np.uint8:
        raise ValueError("expected an H x W x 3 or 4 uint8 array")
    lower = str(path).lower()
    if lower.endswith(".png"):
        _save_png(path, bgr)
    elif lower.endswith(".bmp"):
        h, w, c = bgr.shape
        if info is None:
            info = bitmap_info(w, h, c * 8)
        rows = _contiguous_rows(bgr)
        header = bytes(info)[:40]
        offset = 14 + 40
        with open(path, "wb") as f:
            f.write(b"BM" + struct.pack("<IHHI", offset + rows.nbytes, 0, 0, offset))
            f.write(header)
            f.write(rows.tobytes())
    else:
        raise ValueError("save: %s is neither .png nor .bmp" % path)


def _chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)


def _save_png(path, bgr):
    h, w, _ = bgr.shape
    rgb = np.ascontiguousarray(bgr[:, :, 2::-1])
    raw = np.zeros((h, 1 + 3 * w), np.uint8)  # filter byte 0 per row
    raw[:, 1:] = rgb.reshape(h, 3 * w)
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n")
        f.write(_chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 2, 0, 0, 0)))
        f.write(_chunk(b"IDAT", zlib.compress(raw.tobytes(), 6)))
        f.write(_chunk(b"IEND", b""))


def _unfilter(data, h, stride, bpp):
    """The PNG row filters undone (None, Sub, Up, Average, Paeth)."""
    rows = np.frombuffer(data, np.uint8).reshape(h, 1 + stride)
    out = np.zeros((h, stride), np.uint8)
    prev = np.zeros(stride, np.int32)
    for y in range(h):
        kind, cur = rows[y, 0], rows[y, 1:].astype(np.int32)
        if kind == 1:
            cur = np.cumsum(cur.reshape(-1, bpp), axis=0).reshape(-1)
        elif kind == 2:
            cur = cur + prev
        elif kind in (3, 4):
            cur = cur.copy()
            for x in range(stride):
                a = cur[x - bpp] if x >= bpp else 0
                b, c = prev[x], (prev[x - bpp] if x >= bpp else 0)
                if kind == 3:
                    cur[x] = (cur[x] + (a + b) // 2) & 255
                else:
                    p = a + b - c
                    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                    cur[x] = (cur[x] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        elif kind != 0:
            raise ValueError("unknown PNG filter %d" % kind)
        prev = cur & 255
        out[y] = prev
    return out


def load_png(path):
    """Reads an 8-bit RGB or RGBA PNG file (not interlaced) as H x W x 3 BGR."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("not a PNG file")
    pos, idat, w, h, channels = 8, b"", 0, 0, 3
    while pos < len(data):
        n, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + n]
        if kind == b"IHDR":
            w, h, depth, colour, _, _, interlace = struct.unpack(">IIBBBBB", body[:13])
            if depth != 8 or colour not in (2, 6) or interlace:
                raise ValueError("only 8-bit RGB or RGBA PNG files without interlace")
            channels = 3 if colour == 2 else 4
        elif kind == b"IDAT":
            idat += body
        pos += 12 + n
    rows = _unfilter(zlib.decompress(idat), h, w * channels, channels)
    return np.ascontiguousarray(rows.reshape(h, w, channels)[:, :, 2::-1])
