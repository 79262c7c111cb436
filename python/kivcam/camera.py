"""Cameras: the list, opening, features by name and registers."""

import ctypes

from . import _lib, errors
from .stream import CallbackStream, Stream, _ms

# Feature types (kivcam_features.h KIVCAMF_TYPE_*), access modes and visibility by number.
TYPES = {0: "Value", 2: "Integer", 3: "Boolean", 4: "Command", 5: "Float", 6: "String", 7: "Register",
         8: "Category", 9: "Enumeration", 10: "EnumEntry", 11: "Port"}
ACCESS = {0: "NI", 1: "NA", 2: "WO", 3: "RO", 4: "RW"}
VISIBILITY = {0: "Beginner", 1: "Expert", 2: "Guru", 3: "Invisible"}
_T_INTEGER, _T_BOOLEAN, _T_COMMAND, _T_FLOAT, _T_STRING, _T_CATEGORY, _T_ENUMERATION = 2, 3, 4, 5, 6, 8, 9
_TEXT_DISPLAYNAME, _TEXT_TOOLTIP, _TEXT_DESCRIPTION, _TEXT_UNIT = 0, 1, 2, 3


def _text(field):
    return bytes(field).split(b"\0", 1)[0].decode("utf-8", "replace")


def _ip(value):
    return ".".join(str((value >> s) & 255) for s in (24, 16, 8, 0))


def _mac(uid):
    return ":".join("%02X" % ((uid >> s) & 255) for s in (40, 32, 24, 16, 8, 0))


def _read_text(fn, *args):
    """A text out of a KIVCAMF_ text function: a first try, then the size it asked for."""
    size = ctypes.c_uint32(256)
    buf = ctypes.create_string_buffer(size.value)
    while True:
        code = _lib.lib().ok(fn, *args, buf, ctypes.byref(size))
        if code == 0:
            return buf.value.decode("utf-8", "replace")
        if code != errors.BufferSizeError.code:
            raise _lib.lib().error(fn, code)
        buf = ctypes.create_string_buffer(size.value)


def cameras(details=True):
    """Every camera on the machine as a dict: uid, kind, vendor, model, link and,
    for GigE, the MAC address. With `details`, each camera no other program
    holds is opened briefly for its serial number, version and user name and,
    for GigE, its IP address (cameras held elsewhere have None there)."""
    lib = _lib.lib()
    head = ctypes.c_uint32(0)
    lib.call("KIVCAM_GetList", ctypes.byref(head))
    count = head.value
    if count == 0:
        return []
    raw = ctypes.create_string_buffer(4 + 532 * count)
    ctypes.c_uint32.from_buffer(raw).value = count
    lib.call("KIVCAM_GetList", raw)
    count = min(count, ctypes.c_uint32.from_buffer(raw).value)
    out = []
    for i in range(count):
        e = _lib.CameraListEntry.from_buffer(raw, 4 + 532 * i)
        kind = _lib.KIND_NAMES.get(e.CameraKind, str(e.CameraKind))
        cam = {"uid": e.UID, "kind": kind, "vendor": _text(e.Vendor), "model": _text(e.Model),
               "link": e.LinkCode, "serial": None, "version": None, "user_name": None}
        if kind == "GigE":
            cam.update(mac=_mac(e.UID), ip=None)
        if details:
            try:
                with open(e.UID) as c:
                    cam.update(c.details())
            except errors.Error:
                pass  # held by another program, or gone meanwhile
        out.append(cam)
    return out


def open(uid="first", key=None, watch=False):
    """Opens a camera: by UID (an int or its decimal text), "first" for the first
    camera no other program holds, or by its user-defined name `key`. With
    `watch`, in watch mode (reading a stream another program controls).
    The result closes when used as a context manager."""
    lib = _lib.lib()
    handle = _lib.HANDLE()
    if key is not None:
        if watch:
            raise errors.ParamError(1, "kivcam.open", "watch mode opens by UID only")
        param = _lib.OpenParam(_lib.UID_ANY, 0, key.encode())
        # The key may name a GigE or a USB camera.
        code = lib.ok("KIVCAM_OpenGigE", ctypes.byref(param), ctypes.byref(handle))
        if code:
            lib.call("KIVCAM_OpenUSB", ctypes.byref(param), ctypes.byref(handle))
    else:
        value = _lib.UID_ANY if uid == "first" else int(uid)
        lib.call("KIVCAM_WatchOpen" if watch else "KIVCAM_Open", value, ctypes.byref(handle))
    return Camera(handle.value, watch)


class Feature:
    """What a feature is: type, access, range, entries, texts; `value` when readable."""

    def __init__(self, camera, name):
        info = _lib.FeatureInfo()
        camera._lib.call("KIVCAMF_GetInfo", camera._h, name.encode(), ctypes.byref(info))
        self.name = name
        self.type = TYPES.get(info.Type, str(info.Type))
        self.access = ACCESS.get(info.Access, str(info.Access))
        self.visibility = VISIBILITY.get(info.Visibility, str(info.Visibility))
        self.readable = self.access in ("RO", "RW")
        self.writable = self.access in ("WO", "RW")
        self.range = None
        if info.HasRange and info.Type == _T_INTEGER:
            self.range = (info.IntMin, info.IntMax, info.IntInc)
        elif info.HasRange and info.Type == _T_FLOAT:
            self.range = (info.FloatMin, info.FloatMax, info.FloatInc or None)
        self.entries = []
        self.valid_values = None
        if info.Type == _T_ENUMERATION:
            for i in range(info.EntryCount):
                value, access = ctypes.c_int64(), ctypes.c_uint32()
                symbol = _read_text("KIVCAMF_GetEntry", camera._h, name.encode(), i, ctypes.byref(value),
                                    ctypes.byref(access))
                self.entries.append((symbol, value.value, ACCESS.get(access.value) not in ("NI", "NA")))
        elif info.EntryCount:
            self.valid_values = []
            for i in range(info.EntryCount):
                value = ctypes.c_int64()
                _read_text("KIVCAMF_GetEntry", camera._h, name.encode(), i, ctypes.byref(value), None)
                self.valid_values.append(value.value)
        self.children = [_read_text("KIVCAMF_GetChild", camera._h, name.encode(), i)
                         for i in range(info.ChildCount)]
        texts = [_read_text("KIVCAMF_GetInfoText", camera._h, name.encode(), which)
                 for which in (_TEXT_DISPLAYNAME, _TEXT_TOOLTIP, _TEXT_DESCRIPTION, _TEXT_UNIT)]
        self.display_name, self.tooltip, self.description, self.unit = texts
        self.value = None
        if self.readable and info.Type not in (_T_COMMAND, _T_CATEGORY):
            try:
                self.value = camera.get(name)
            except errors.Error:
                pass

    def as_dict(self):
        return dict(self.__dict__)

    def __repr__(self):
        return "<Feature %s %s %s = %r>" % (self.name, self.type, self.access, self.value)


class Camera:
    """An open camera. Features read and write as attributes (`cam.Width = 640`)
    or items (`cam["PixelFormat"] = "Mono8"`); names that start with an
    underscore or belong to the class are the object's own."""

    def __init__(self, handle, watch=False):
        object.__setattr__(self, "_lib", _lib.lib())
        object.__setattr__(self, "_h", handle)
        object.__setattr__(self, "_watch", watch)
        object.__setattr__(self, "_types", {})
        object.__setattr__(self, "_kind", None)

    # ---- life ----------------------------------------------------------
    @property
    def handle(self):
        return self._h

    @property
    def closed(self):
        return self._h is None

    def close(self):
        """Closes the camera (stops and frees what it still runs). Again: nothing."""
        if self._h is not None:
            h = self._h
            object.__setattr__(self, "_h", None)
            self._lib.call("KIVCAM_WatchClose" if self._watch else "KIVCAM_Close", h)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __del__(self):
        try:
            self.close()
        except Exception:
            pass

    # ---- identity ------------------------------------------------------
    def info(self):
        """The identity record: uid, kind, vendor, model, link."""
        e = _lib.CameraListEntry()
        self._lib.call("KIVCAM_CameraInfo", self._h, ctypes.byref(e))
        return {"uid": e.UID, "kind": _lib.KIND_NAMES.get(e.CameraKind, str(e.CameraKind)),
                "vendor": _text(e.Vendor), "model": _text(e.Model), "link": e.LinkCode}

    @property
    def kind(self):
        if self._kind is None:
            object.__setattr__(self, "_kind", self.info()["kind"])
        return self._kind

    def details(self):
        """Serial number, version and user name; for GigE the IP and MAC
        address, for USB the family name and the producer's information."""
        if self.kind == "GigE":
            g = _lib.GigECameraInfo()
            self._lib.call("KIVCAM_CameraInfoGigE", self._h, ctypes.byref(g))
            return {"serial": _text(g.SerialNumber), "version": _text(g.DeviceVersion),
                    "user_name": _text(g.UserDefinedName), "ip": _ip(g.Info1005),
                    "mac": ":".join("%02X" % b for b in g.UID), "manufacturer_info": _text(g.ManufacturerInfo)}
        if self.kind == "USB":
            u = _lib.USBCameraInfo()
            self._lib.call("KIVCAM_CameraInfoUSB", self._h, ctypes.byref(u))
            return {"serial": _text(u.SerialNumber), "version": _text(u.DeviceVersion),
                    "user_name": _text(u.UserDefinedName), "family": _text(u.FamilyName),
                    "manufacturer_info": _text(u.ManufacturerInfo), "usb_info1011": u.Info1011}
        return {}

    @property
    def present(self):
        state = ctypes.c_uint32()
        self._lib.call("KIVCAM_WatchCamera" if self._watch else "KIVCAM_Camera", self._h, ctypes.byref(state))
        return bool(state.value)

    # ---- features ------------------------------------------------------
    def _type(self, name):
        if self._h is None:
            raise errors.ParamError(1, "kivcam.Camera", "the camera is closed")
        t = self._types.get(name)
        if t is None:
            info = _lib.FeatureInfo()
            self._lib.call("KIVCAMF_GetInfo", self._h, name.encode(), ctypes.byref(info))
            t = self._types[name] = info.Type
        return t

    def get(self, name):
        """A feature's value as its type: int, float, bool, str (strings and
        enumeration symbols); a category gives its features' names, a command
        a function that executes it."""
        t = self._type(name)
        b = name.encode()
        if t == _T_INTEGER:
            v = ctypes.c_int64()
            self._lib.call("KIVCAMF_GetInt", self._h, b, ctypes.byref(v))
            return v.value
        if t == _T_FLOAT:
            v = ctypes.c_double()
            self._lib.call("KIVCAMF_GetFloat", self._h, b, ctypes.byref(v))
            return v.value
        if t == _T_BOOLEAN:
            v = _lib.BOOL()
            self._lib.call("KIVCAMF_GetBool", self._h, b, ctypes.byref(v))
            return bool(v.value)
        if t == _T_STRING:
            return _read_text("KIVCAMF_GetString", self._h, b)
        if t == _T_ENUMERATION:
            return _read_text("KIVCAMF_GetEnum", self._h, b)
        if t == _T_COMMAND:
            return lambda timeout=1.0: self.execute(name, timeout)
        if t == _T_CATEGORY:
            return Feature(self, name).children
        return _read_text("KIVCAMF_ToString", self._h, b)

    def set(self, name, value):
        """Sets a feature: numbers, booleans, strings; an enumeration by symbol
        (str) or value (int); any other type from text."""
        t = self._type(name)
        b = name.encode()
        if t == _T_INTEGER and not isinstance(value, str):
            self._lib.call("KIVCAMF_SetInt", self._h, b, int(value))
        elif t == _T_FLOAT and not isinstance(value, str):
            self._lib.call("KIVCAMF_SetFloat", self._h, b, float(value))
        elif t == _T_BOOLEAN and not isinstance(value, str):
            self._lib.call("KIVCAMF_SetBool", self._h, b, 1 if value else 0)
        elif t == _T_STRING:
            self._lib.call("KIVCAMF_SetString", self._h, b, str(value).encode())
        elif t == _T_ENUMERATION and isinstance(value, str):
            self._lib.call("KIVCAMF_SetEnum", self._h, b, value.encode())
        elif t == _T_ENUMERATION:
            self._lib.call("KIVCAMF_SetEnumInt", self._h, b, int(value))
        elif t in (_T_COMMAND, _T_CATEGORY):
            raise errors.ParamError(1, "KIVCAMF_FromString", "%s is a %s: it holds no value" % (name, TYPES[t]))
        else:
            self._lib.call("KIVCAMF_FromString", self._h, b, str(value).encode())

    def execute(self, name, timeout=1.0):
        """Executes a command and waits up to `timeout` seconds until it is done."""
        self._lib.call("KIVCAMF_Execute", self._h, name.encode(), _ms(timeout))

    def feature(self, name):
        """Everything about one feature (a Feature)."""
        return Feature(self, name)

    def features(self, root="Root"):
        """Every feature under `root`, depth first, as Feature objects (each
        with its category path in `.category`)."""
        out, seen = [], set()

        def walk(name, path):
            if name in seen:
                return
            seen.add(name)
            f = Feature(self, name)
            f.category = path
            out.append(f)
            for child in f.children:
                walk(child, path + [name])

        walk(root, [])
        return out[1:] if out and out[0].type == "Category" and root == "Root" else out

    def __getattr__(self, name):
        if name.startswith("_"):
            raise AttributeError(name)
        if self._h is None:
            raise errors.ParamError(1, "kivcam.Camera", "the camera is closed")
        try:
            return self.get(name)
        except errors.ParamError:
            if name not in self._types:
                raise AttributeError("the camera has no feature %r" % name) from None
            raise

    def __setattr__(self, name, value):
        if name.startswith("_") or hasattr(type(self), name):
            object.__setattr__(self, name, value)
        else:
            self.set(name, value)

    def __getitem__(self, name):
        return self.get(name)

    def __setitem__(self, name, value):
        self.set(name, value)

    # ---- registers -----------------------------------------------------
    def _big_endian(self):
        # GigE Vision registers are big-endian, USB3 Vision ones little-endian.
        return self.kind == "GigE"

    def read_register(self, address, count=None):
        """One 32-bit register (an int), or a list of `count` of them."""
        n = 1 if count is None else int(count)
        buf = ctypes.create_string_buffer(4 * n)
        size = ctypes.c_uint32(4 * n)
        self._lib.call("KIVCAM_ReadPort", self._h, int(address), buf, ctypes.byref(size))
        order = "big" if self._big_endian() else "little"
        values = [int.from_bytes(buf.raw[i:i + 4], order) for i in range(0, size.value - size.value % 4, 4)]
        return values[0] if count is None else values

    def write_register(self, address, value):
        """Writes one 32-bit register. Features whose values the node map keeps
        (cached) do not see the write."""
        data = int(value).to_bytes(4, "big" if self._big_endian() else "little")
        size = ctypes.c_uint32(4)
        self._lib.call("KIVCAM_WritePort", self._h, int(address), data, ctypes.byref(size))

    # ---- acquisition ---------------------------------------------------
    def stream(self, buffers=4, bits=24, parallel=True):
        """Acquisition by request: `with cam.stream() as s: for f in s.frames(10): ...`.
        `bits` (24 or 32) is the form Frame.bgr() converts to, `parallel`
        whether the conversion splits rows over a team of threads."""
        return Stream(self, buffers, bits, parallel)

    def on_frame(self, fn, buffers=4, bits=24, info=False, parallel=True):
        """Acquisition by callback: fn(frame) runs on the library's stream thread
        for every image until the result is stopped (it is a context manager).
        The frame and its arrays are valid only during the call."""
        return CallbackStream(self, fn, buffers, bits, info, parallel).start()
