"""The binding's acquisition: every pixel format grabbed through frames() holds
the recomputed test pattern and converts as the library converts that
pattern; the callback form, timeouts, ImageInfo and image files."""

import struct
import threading

import numpy as np
import pytest

import kivcam
from conftest import GIGE1, USB1, pattern


def frame_number(frame):
    return frame.info["block_id"] - 1  # the camera's frames count from block 1


def test_every_pixel_format_grabs_the_pattern_and_converts_like_the_library(usb_sim):
    with kivcam.open(USB1) as cam:
        cam.Width, cam.Height = 64, 8
        formats = [(s, v) for s, v, available in cam.feature("PixelFormat").entries if available]
        assert len(formats) >= 60
        converted = 0
        for symbol, code in formats:
            cam.PixelFormat = symbol
            with cam.stream(buffers=2) as s:
                frame = next(s.frames(1, timeout=5.0))
                assert (frame.pixel_format, frame.width, frame.height) == (code, 64, 8), symbol
                assert frame.info["size_x"] == 64 and frame.info["pixel_format"] == code
                expected = pattern(code, 64, 8, frame_number(frame))
                assert np.array_equal(frame.raw.reshape(-1).view(np.uint8), expected), symbol
                try:
                    reference = kivcam.convert(expected, code, width=64, height=8, parallel=False)
                except kivcam.ParamError:
                    with pytest.raises(kivcam.Error):  # a format the converters don't know
                        frame.bgr()
                    continue
                assert np.array_equal(frame.bgr(), reference), symbol
                converted += 1
        assert converted >= 55


def test_converted_images_stay_while_held():
    with kivcam.open(GIGE1) as cam:
        with cam.stream(buffers=2) as s:
            held, copies = [], []
            for frame in s.frames(6, timeout=5.0):
                image = frame.bgr()
                copies.append(image.copy())
                if frame.index % 2 == 0:
                    held.append(image[1:])  # a part keeps the whole bitmap
            assert all(np.array_equal(h, copies[2 * i][1:]) for i, h in enumerate(held))
            assert not np.array_equal(copies[0], copies[1])  # the pattern moved


def test_mono8_converts_to_grey_of_the_pattern_formula():
    with kivcam.open(GIGE1) as cam:
        cam.Width, cam.Height = 32, 6
        with cam.stream(buffers=3, bits=32) as s:
            frames = [(f.bgr().copy(), f.raw.copy()) for f in s.frames(3, timeout=5.0)]
    y, x = np.mgrid[0:6, 0:32]
    for bgr, raw in frames:
        assert bgr.shape == (6, 32, 4)
        # The pattern scrolls two rows per frame: find this frame's phase from its first pixel.
        r0 = int(raw[0, 0])
        v8 = (x + y + r0) % 256
        assert np.array_equal(raw, v8)
        assert np.array_equal(bgr[:, :, 0], v8) and np.array_equal(bgr[:, :, 2], v8)


def test_callback_form_delivers_frames_on_the_stream_thread(usb_sim):
    index = usb_sim.index("KivU3V::%d" % USB1)
    got, arrived = [], threading.Semaphore(0)

    def on_frame(frame):
        got.append((frame.raw.copy(), frame.bgr().copy(), frame.info["block_id"]))
        arrived.release()

    with kivcam.open(USB1) as cam:
        cam.Width, cam.Height, cam.PixelFormat = 64, 8, "BayerRG8"
        usb_sim.deliver(index, 0)  # on demand from here on: one frame at a time, none lost
        try:
            with cam.on_frame(on_frame, buffers=3, info=True):
                for _ in range(5):
                    usb_sim.deliver(index, 1)
                    assert arrived.acquire(timeout=10.0)
        finally:
            usb_sim.free_run(index, 30.0)
    code = kivcam.code_of("BayerRG8")
    assert len(got) == 5 and len({block for _, _, block in got}) == 5
    for raw, bgr, block in got:
        expected = pattern(code, 64, 8, block - 1)
        assert np.array_equal(raw.reshape(-1), expected)
        assert np.array_equal(bgr, kivcam.convert(expected, code, width=64, height=8))


def test_callback_exceptions_come_back_at_stop(usb_sim):
    index = usb_sim.index("KivU3V::%d" % USB1)
    seen = threading.Event()

    def failing(frame):
        seen.set()
        raise KeyError("inside the callback")

    with kivcam.open(USB1) as cam:
        usb_sim.deliver(index, 0)
        try:
            cb = cam.on_frame(failing, buffers=2)
            usb_sim.deliver(index, 1)
            assert seen.wait(10.0)
            with pytest.raises(KeyError):
                cb.stop()
        finally:
            usb_sim.free_run(index, 30.0)
        with cam.stream() as s:  # everything was released
            next(s.frames(1, timeout=5.0))


def test_a_timed_out_wait_keeps_its_buffer_for_the_next_frame():
    with kivcam.open(GIGE1) as cam:
        cam.TriggerMode = "On"
        with cam.stream(buffers=1) as s:
            with pytest.raises(kivcam.TimeoutError) as e:
                next(s.frames(1, timeout=0.05))  # no trigger, no frame
            assert e.value.call == "KIVCAM_ImageComplete" and isinstance(e.value, TimeoutError)
            cam.execute("TriggerSoftware")
            frame = next(s.frames(1, timeout=5.0))
            assert frame.info["transport"] == "GigE" and frame.info["complete"]


def test_frames_save_as_png_and_bmp(tmp_path):
    with kivcam.open(USB1) as cam:
        cam.Width, cam.Height, cam.PixelFormat = 36, 6, "RGB8"  # rows of 108 bytes: padding in the bitmap
        with cam.stream(buffers=2) as s:
            frame = next(s.frames(1, timeout=5.0))
            bgr = frame.bgr().copy()
            raw = frame.raw.copy()
            frame.save(tmp_path / "f.png")
            frame.save(tmp_path / "f.bmp")
    assert np.array_equal(kivcam.load_png(tmp_path / "f.png"), bgr)
    data = (tmp_path / "f.bmp").read_bytes()
    assert data[:2] == b"BM" and struct.unpack_from("<I", data, 2)[0] == len(data)
    offset, = struct.unpack_from("<I", data, 10)
    width, height, planes, bits = struct.unpack_from("<iiHH", data, 18)
    assert (offset, width, height, bits) == (54, 36, 6, 24)
    rows = np.frombuffer(data[offset:], np.uint8).reshape(6, 108)
    assert np.array_equal(rows[::-1].reshape(6, 36, 3), bgr)  # bottom-up, as bitmaps are
    # RGB8 becomes the same components in B, G, R order.
    assert raw.shape == (6, 36, 3) and np.array_equal(bgr, raw[..., ::-1])


def test_convert_takes_names_codes_and_bit_depths():
    raw = (np.arange(8 * 16) % 256).astype(np.uint8).reshape(8, 16)
    grey24 = kivcam.convert(raw, "Mono8")
    grey32 = kivcam.convert(raw, 0x01080001, bits=32, parallel=False)
    assert grey24.shape == (8, 16, 3) and grey32.shape == (8, 16, 4)
    assert np.array_equal(grey24[..., 1], raw) and np.array_equal(grey32[..., :3], grey24)
    reuse = np.zeros(8 * 16 * 3, np.uint8)
    assert np.array_equal(kivcam.convert(raw, "Mono8", out=reuse), grey24)
    with pytest.raises(ValueError):
        kivcam.convert(raw, "NoSuchFormat")
    with pytest.raises(kivcam.ParamError):
        kivcam.convert(raw[:1, :1], "BayerRG8")  # narrower than a Bayer cell
