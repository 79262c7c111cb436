"""libkivcam.so through ctypes: its records, its functions and their types.

Only what the binding uses is declared. Every KIVCAM_BOOL function is wrapped
so that a failure raises the kivcam.Error subclass of the thread's last error.
"""

import ctypes
import os

from . import errors

BOOL = ctypes.c_int32
HANDLE = ctypes.c_void_p
INFINITE = 0xFFFFFFFF
UID_ANY = 0xFFFFFFFFFFFFFFFF
LIBRARY_REVISION = 10106

KIND_NAMES = {0: "IIDC", 1: "GigE", 2: "USB"}


class CameraListEntry(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("UID", ctypes.c_uint64), ("Info1002", ctypes.c_uint32), ("CameraKind", ctypes.c_uint32),
                ("LinkCode", ctypes.c_uint32), ("Vendor", ctypes.c_char * 256), ("Model", ctypes.c_char * 256)]


class OpenParam(ctypes.Structure):
    _fields_ = [("UID", ctypes.c_uint64), ("DescriptionIndex", ctypes.c_uint32), ("DeviceKey", ctypes.c_char * 16)]


class GigECameraInfo(ctypes.Structure):
    _fields_ = [("Info1002", ctypes.c_uint32), ("UID", ctypes.c_uint8 * 6), ("Info1003", ctypes.c_uint16),
                ("Info1004", ctypes.c_uint16), ("Reserved", ctypes.c_uint16), ("Info1005", ctypes.c_uint32),
                ("Vendor", ctypes.c_char * 32), ("Model", ctypes.c_char * 32),
                ("DeviceVersion", ctypes.c_char * 32), ("ManufacturerInfo", ctypes.c_char * 48),
                ("SerialNumber", ctypes.c_char * 16), ("UserDefinedName", ctypes.c_char * 16)]


class USBCameraInfo(ctypes.Structure):
    _fields_ = [("Info1002", ctypes.c_uint32), ("Info1003_1004", ctypes.c_uint32),
                ("Vendor", ctypes.c_char * 64), ("Model", ctypes.c_char * 64), ("FamilyName", ctypes.c_char * 64),
                ("DeviceVersion", ctypes.c_char * 64), ("ManufacturerInfo", ctypes.c_char * 64),
                ("SerialNumber", ctypes.c_char * 64), ("UserDefinedName", ctypes.c_char * 64),
                ("Info1011", ctypes.c_uint64)]


class ImageDesc(ctypes.Structure):
    _pack_ = 4
    _fields_ = [("Width", ctypes.c_uint32), ("Height", ctypes.c_uint32), ("Data", ctypes.c_void_p),
                ("DataSize", ctypes.c_uint32), ("PixelFormat", ctypes.c_uint32), ("LittleEndian", ctypes.c_uint32)]


class ImageBuffer(ctypes.Structure):
    _fields_ = [("Width", ctypes.c_uint32), ("Height", ctypes.c_uint32), ("Data", ctypes.c_void_p),
                ("PayloadSize", ctypes.c_uint32), ("PixelFormat", ctypes.c_uint32),
                ("LittleEndian", ctypes.c_uint32), ("Status", ctypes.c_int32), ("BufferSize", ctypes.c_uint32),
                ("InfoOffset", ctypes.c_uint32)]


class ImageInfoIIDC(ctypes.Structure):
    _fields_ = [("Transport", ctypes.c_uint32), ("StatusBits", ctypes.c_uint32), ("HighSeconds", ctypes.c_uint32),
                ("HighCycles", ctypes.c_uint32), ("LowSeconds", ctypes.c_uint32), ("LowCycles", ctypes.c_uint32)]


class ImageInfoGigE(ctypes.Structure):
    _fields_ = [("Transport", ctypes.c_uint32), ("Complete", ctypes.c_uint32), ("PacketInfo", ctypes.c_uint8 * 540)]


class ImageInfoUSB(ctypes.Structure):
    _pack_ = 4
    _fields_ = [("Transport", ctypes.c_uint32), ("Complete", ctypes.c_uint32), ("PayloadType", ctypes.c_uint32),
                ("BlockID", ctypes.c_uint64), ("Timestamp", ctypes.c_uint64), ("ValidPayloadSize", ctypes.c_uint64),
                ("PixelFormat", ctypes.c_uint32), ("SizeX", ctypes.c_uint32), ("SizeY", ctypes.c_uint32),
                ("OffsetX", ctypes.c_uint32), ("OffsetY", ctypes.c_uint32), ("PaddingX", ctypes.c_uint16),
                ("Reserved", ctypes.c_uint16), ("TrailerSizeY", ctypes.c_uint32), ("ChunkLayoutID", ctypes.c_uint32)]


class ImageInfo(ctypes.Union):
    _fields_ = [("Transport", ctypes.c_uint32), ("IIDC", ImageInfoIIDC), ("GigE", ImageInfoGigE),
                ("USB", ImageInfoUSB)]


class BitmapInfoHeader(ctypes.Structure):
    _fields_ = [("biSize", ctypes.c_uint32), ("biWidth", ctypes.c_int32), ("biHeight", ctypes.c_int32),
                ("biPlanes", ctypes.c_uint16), ("biBitCount", ctypes.c_uint16), ("biCompression", ctypes.c_uint32),
                ("biSizeImage", ctypes.c_uint32), ("biXPelsPerMeter", ctypes.c_int32),
                ("biYPelsPerMeter", ctypes.c_int32), ("biClrUsed", ctypes.c_uint32),
                ("biClrImportant", ctypes.c_uint32)]


class BitmapInfo(ctypes.Structure):
    _fields_ = [("bmiHeader", BitmapInfoHeader), ("bmiColors", ctypes.c_uint8 * 4)]


class ConvMode(ctypes.Structure):
    _fields_ = [("Geometry", ctypes.c_uint32), ("Shift", ctypes.c_int32), ("Output", ctypes.c_uint32),
                ("GreenSmoothing", ctypes.c_uint32), ("Parallel", ctypes.c_uint32)]


class FeatureInfo(ctypes.Structure):
    _fields_ = [("Type", ctypes.c_uint32), ("Access", ctypes.c_uint32), ("Visibility", ctypes.c_uint32),
                ("Representation", ctypes.c_uint32), ("IncMode", ctypes.c_uint32), ("HasRange", ctypes.c_uint32),
                ("EntryCount", ctypes.c_uint32), ("ChildCount", ctypes.c_uint32), ("IntMin", ctypes.c_int64),
                ("IntMax", ctypes.c_int64), ("IntInc", ctypes.c_int64), ("FloatMin", ctypes.c_double),
                ("FloatMax", ctypes.c_double), ("FloatInc", ctypes.c_double), ("MaxLength", ctypes.c_int64)]


# Sizes the header pins; a mismatch here means a wrong declaration above.
for _record, _size in ((CameraListEntry, 532), (OpenParam, 32), (GigECameraInfo, 196), (USBCameraInfo, 464),
                       (ImageDesc, 28), (ImageBuffer, 40), (ImageInfo, 548), (ImageInfoUSB, 68),
                       (BitmapInfo, 44), (ConvMode, 20), (FeatureInfo, 88)):
    assert ctypes.sizeof(_record) == _size, _record.__name__

IMAGE_CALLBACK = ctypes.CFUNCTYPE(None, HANDLE, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_uint32,
                                  ctypes.c_uint32, ctypes.POINTER(ImageInfo), ctypes.c_void_p)

P = ctypes.POINTER
_u32, _u64, _i64, _dbl, _str = ctypes.c_uint32, ctypes.c_uint64, ctypes.c_int64, ctypes.c_double, ctypes.c_char_p
_H = HANDLE

# name: argument types, for the KIVCAM_BOOL functions (checked).
_CHECKED = {
    "KIVCAM_SetStructVersion": [_u32],
    "KIVCAM_GetList": [ctypes.c_void_p],
    "KIVCAM_Open": [_u64, P(_H)],
    "KIVCAM_OpenGigE": [P(OpenParam), P(_H)],
    "KIVCAM_OpenUSB": [P(OpenParam), P(_H)],
    "KIVCAM_Close": [_H],
    "KIVCAM_Camera": [_H, P(_u32)],
    "KIVCAM_WatchOpen": [_u64, P(_H)],
    "KIVCAM_WatchClose": [_H],
    "KIVCAM_WatchCamera": [_H, P(_u32)],
    "KIVCAM_WatchAlloc": [_H],
    "KIVCAM_WatchRelease": [_H],
    "KIVCAM_WatchStart": [_H],
    "KIVCAM_WatchStop": [_H],
    "KIVCAM_ReadPort": [_H, _u32, ctypes.c_void_p, P(_u32)],
    "KIVCAM_WritePort": [_H, _u32, ctypes.c_void_p, P(_u32)],
    "KIVCAM_CameraInfo": [_H, P(CameraListEntry)],
    "KIVCAM_CameraInfoGigE": [_H, P(GigECameraInfo)],
    "KIVCAM_CameraInfoUSB": [_H, P(USBCameraInfo)],
    "KIVCAM_ResourceAlloc": [_H],
    "KIVCAM_ResourceRelease": [_H],
    "KIVCAM_ImageAlloc": [_H, P(P(ImageBuffer))],
    "KIVCAM_ImageFreeAll": [_H],
    "KIVCAM_ImageStart": [_H],
    "KIVCAM_ImageStop": [_H],
    "KIVCAM_ImageReq": [_H, P(ImageBuffer)],
    "KIVCAM_ImageComplete": [_H, P(ImageBuffer), _u32, P(ImageInfo)],
    "KIVCAM_ImageReqAbortAll": [_H],
    "KIVCAM_SetImageCallBack": [_H, ctypes.c_void_p, IMAGE_CALLBACK, _u32, _u32],
    "KIVCAM_GetBMPINFO": [_H, ctypes.c_void_p, P(_u32), _u32],
    "KIVCAM_ColorConvGetBMPINFO": [_H, P(ImageDesc), ctypes.c_void_p],
    "KIVCAM_ConvMode": [_H, P(ConvMode), ctypes.c_void_p],
    "KIVCAM_ImageConvExec": [_H, P(ImageBuffer), ctypes.c_void_p],
    "KIVCAM_BufferConvExec": [_H, ctypes.c_void_p, ctypes.c_void_p],
    "KIVCAM_CreateConvHandle": [P(_H), P(ConvMode), ctypes.c_void_p],
    "KIVCAM_ColorConvExec": [_H, P(ImageDesc), ctypes.c_void_p],
    "KIVCAMF_GetInt": [_H, _str, P(_i64)],
    "KIVCAMF_SetInt": [_H, _str, _i64],
    "KIVCAMF_GetFloat": [_H, _str, P(_dbl)],
    "KIVCAMF_SetFloat": [_H, _str, _dbl],
    "KIVCAMF_GetBool": [_H, _str, P(BOOL)],
    "KIVCAMF_SetBool": [_H, _str, BOOL],
    "KIVCAMF_GetString": [_H, _str, ctypes.c_char_p, P(_u32)],
    "KIVCAMF_SetString": [_H, _str, _str],
    "KIVCAMF_GetEnum": [_H, _str, ctypes.c_char_p, P(_u32)],
    "KIVCAMF_SetEnum": [_H, _str, _str],
    "KIVCAMF_GetEnumInt": [_H, _str, P(_i64)],
    "KIVCAMF_SetEnumInt": [_H, _str, _i64],
    "KIVCAMF_ToString": [_H, _str, ctypes.c_char_p, P(_u32)],
    "KIVCAMF_FromString": [_H, _str, _str],
    "KIVCAMF_Execute": [_H, _str, _u32],
    "KIVCAMF_IsDone": [_H, _str, P(BOOL)],
    "KIVCAMF_GetInfo": [_H, _str, P(FeatureInfo)],
    "KIVCAMF_GetInfoText": [_H, _str, _u32, ctypes.c_char_p, P(_u32)],
    "KIVCAMF_GetEntry": [_H, _str, _u32, P(_i64), P(_u32), ctypes.c_char_p, P(_u32)],
    "KIVCAMF_GetChild": [_H, _str, _u32, ctypes.c_char_p, P(_u32)],
}

# The output filter returns its own status, never a last error.
_FILTER = {
    "KIVCAMFILTER_Alloc": ([_u32, _u32, _u32], ctypes.c_int32),
    "KIVCAMFILTER_OutPut": ([ctypes.c_void_p], ctypes.c_int32),
    "KIVCAMFILTER_Free": ([], ctypes.c_int32),
}


def _candidates():
    """Where libkivcam.so may be: named by KIVCAM_LIBRARY, the build tree of
    the checkout this package sits in, beside an installed package, then the
    loader's own search."""
    explicit = os.environ.get("KIVCAM_LIBRARY")
    if explicit:
        return [explicit]
    here = os.path.dirname(os.path.abspath(__file__))
    return [os.path.join(here, "..", "..", "build", "lib", "libkivcam.so"),
            os.path.join(here, "..", "..", "..", "libkivcam.so"),
            "libkivcam.so"]


class Library:
    """The loaded library: raw functions as attributes, checked ones through call()."""

    def __init__(self):
        self.path = None
        dll = None
        tried = []
        for path in _candidates():
            if os.sep in path and not os.path.exists(path):
                tried.append(path)
                continue
            try:
                dll = ctypes.CDLL(path)
                self.path = path
                break
            except OSError as e:
                tried.append("%s (%s)" % (path, e))
        if dll is None:
            raise OSError("libkivcam.so not found; set KIVCAM_LIBRARY to its path. Tried: " + ", ".join(tried))
        self.dll = dll
        self.GetLastError = dll.KIVCAM_GetLastError
        self.GetLastError.argtypes = []
        self.GetLastError.restype = ctypes.c_uint32
        self.GetLastErrorText = dll.KIVCAMF_GetLastErrorText
        self.GetLastErrorText.argtypes = [ctypes.c_char_p, ctypes.c_uint32]
        self.GetLastErrorText.restype = ctypes.c_uint32
        for name, args in _CHECKED.items():
            fn = getattr(dll, name)
            fn.argtypes = args
            fn.restype = BOOL
            setattr(self, name, fn)
        for name, (args, result) in _FILTER.items():
            fn = getattr(dll, name)
            fn.argtypes = args
            fn.restype = result
            setattr(self, name, fn)
        for name, args in (("KIVCAM_CloseConvHandle", [_H]), ("KIVCAM_FreeLibrary", [])):
            fn = getattr(dll, name)
            fn.argtypes = args
            fn.restype = None
            setattr(self, name, fn)
        self.KIVCAM_GetLibraryRevision = dll.KIVCAM_GetLibraryRevision
        self.KIVCAM_GetLibraryRevision.restype = ctypes.c_uint32

    def call(self, name, *args):
        """Calls a KIVCAM_BOOL function; raises the error of its failure."""
        if getattr(self, name)(*args):
            return
        raise self.error(name)

    def error(self, name, code=None):
        """The exception for the calling thread's last failure, in `name`, with
        the library's reason; `code` when the caller already read it."""
        if code is None:
            code = self.GetLastError()
        size = self.GetLastErrorText(None, 0)
        buf = ctypes.create_string_buffer(size)
        self.GetLastErrorText(buf, size)
        return errors.from_code(code, name, reason=buf.value.decode("utf-8", "replace"))

    def ok(self, name, *args):
        """Calls a KIVCAM_BOOL function; its last error (0 on success)."""
        return 0 if getattr(self, name)(*args) else self.GetLastError()


_library = None


def lib():
    """The library, loaded and started (producers loaded) on first use."""
    global _library
    if _library is None:
        loaded = Library()
        loaded.call("KIVCAM_SetStructVersion", LIBRARY_REVISION)
        _library = loaded
    return _library
