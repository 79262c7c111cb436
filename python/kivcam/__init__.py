"""KivCam from Python: cameras, features, acquisition and conversion.

    import kivcam
    print(kivcam.cameras())
    with kivcam.open("first") as cam:
        cam.Width = 640
        cam["PixelFormat"] = "Mono8"
        with cam.stream(buffers=4) as s:
            for frame in s.frames(n=10, timeout=1.0):
                print(frame.index, frame.raw.mean(), frame.bgr().shape)

Pure ctypes over libkivcam.so (found through KIVCAM_LIBRARY, the build tree
of this checkout, or the loader path) and numpy. Every library failure
raises a kivcam.Error subclass named after its error code.
"""

from . import errors
from ._lib import INFINITE, UID_ANY
from .camera import Camera, Feature, cameras, open
from .errors import *  # noqa: F401,F403 - the error classes belong to the package's namespace
from .errors import Error
from .frame_channel import FrameChannel, FrameChannelError
from .image import convert, load_png, save
from .pixel_formats import PIXEL_FORMATS, code_of, name_of
from .stream import CallbackStream, Frame, Stream


def library_revision():
    """The interface revision of the loaded library."""
    from ._lib import lib
    return lib().KIVCAM_GetLibraryRevision()


def library_path():
    """The file of the loaded library."""
    from ._lib import lib
    return lib().path


__all__ = ["Camera", "Feature", "Frame", "Stream", "CallbackStream", "cameras", "open", "convert", "save",
           "load_png", "code_of", "name_of", "PIXEL_FORMATS", "Error", "INFINITE", "UID_ANY", "errors",
           "library_revision", "library_path", "FrameChannel", "FrameChannelError"] + [c.__name__ for c in errors.BY_CODE.values()]
