"""The library's failures as exceptions: one class per error code.

Every class carries the code (`.code`) and the library function that failed
(`.call`); a code the library documents as a device's own result (a GigE
stream test) comes as the base class Error.
"""

import builtins


class Error(Exception):
    """A failed library call."""

    code = None
    name = "KIVCAM_ERR"

    def __init__(self, code, call, text=None, reason=None):
        self.code = code
        self.call = call
        self.reason = reason or ""  # the library's words for the failure, when it has them
        text = text or "%s failed: error %d (%s)" % (call, code, self.name)
        super().__init__(text + (": " + reason if reason else ""))


def _make(code, name, doc, *bases):
    return type(name, (Error,) + bases, {"__doc__": doc, "code": code, "name": "KIVCAM_ERR_" + doc.split()[0]})


ParamError = _make(1, "ParamError", "PARAM: invalid argument or handle", builtins.ValueError)
BufferSizeError = _make(2, "BufferSizeError", "BUFFER_SIZE: the buffer is too small")
NotSupportedError = _make(3, "NotSupportedError", "NOT_SUPPORTED: no loaded producer serves the request")
AlreadyOpenError = _make(4, "AlreadyOpenError", "ALREADY_OPEN: the device is already open")
NoCameraError = _make(5, "NoCameraError", "NO_CAMERA: no such camera, or the camera is not present")
ModeError = _make(6, "ModeError", "MODE: wrong open mode (watch or control)")
AccessError = _make(7, "AccessError", "ACCESS: register, port or feature access failed")
AllocatedError = _make(8, "AllocatedError", "ALLOCATED: acquisition resources already allocated")
NotAllocatedError = _make(9, "NotAllocatedError", "NOT_ALLOCATED: acquisition resources not allocated")
RunningError = _make(10, "RunningError", "RUNNING: acquisition is started")
NotRunningError = _make(11, "NotRunningError", "NOT_RUNNING: acquisition is not started")
BufferBusyError = _make(12, "BufferBusyError", "BUFFER_BUSY: the buffer or the stream is in use")
TimeoutError = _make(13, "TimeoutError", "TIMEOUT: no image within the time allowed", builtins.TimeoutError)
NoImageError = _make(14, "NoImageError", "NO_IMAGE: nothing to complete, or the image arrived with an error")
BufferError = _make(15, "BufferError", "BUFFER: the buffer does not belong to the camera")
VersionError = _make(16, "VersionError", "VERSION: structure version refused or too low")
NotGigEError = _make(17, "NotGigEError", "NOT_GIGE: the camera is not a GigE camera")
NoAddressError = _make(19, "NoAddressError", "NO_ADDRESS: no stream destination address")
NotUSBError = _make(20, "NotUSBError", "NOT_USB: the camera is not a USB camera")
FormatError = _make(21, "FormatError", "FORMAT: the pixel format is not supported")
OtherError = _make(99, "OtherError", "OTHER: unexpected failure; the call log holds the details")

BY_CODE = {cls.code: cls for cls in (
    ParamError, BufferSizeError, NotSupportedError, AlreadyOpenError, NoCameraError, ModeError, AccessError,
    AllocatedError, NotAllocatedError, RunningError, NotRunningError, BufferBusyError, TimeoutError, NoImageError,
    BufferError, VersionError, NotGigEError, NoAddressError, NotUSBError, FormatError, OtherError)}


def from_code(code, call, text=None, reason=None):
    """The exception for `code` raised by `call`."""
    cls = BY_CODE.get(code)
    if cls is None:
        return Error(code, call, text or "%s failed: device code %d" % (call, code), reason)
    return cls(code, call, text, reason)
