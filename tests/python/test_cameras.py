"""The binding's cameras: listing, opening, features both ways, registers,
errors, and cleanup that holds when the caller's code fails."""

import pytest

import kivcam
from conftest import GIGE1, GIGE2, USB1, open_fds


def test_listing_describes_every_virtual_camera():
    cams = {c["uid"]: c for c in kivcam.cameras()}
    assert set(cams) == {GIGE1, GIGE2, USB1}
    g = cams[GIGE2]
    assert (g["kind"], g["model"], g["serial"], g["user_name"]) == ("GigE", "KivSim-GC1920C", "KG01002", "cam2")
    # A GigE camera's UID is its MAC.
    assert g["mac"] == "00:A0:B7:00:00:02" and g["ip"].count(".") == 3
    u = cams[USB1]
    assert (u["kind"], u["family"], u["serial"]) == ("USB", "KivSim", "KU01001")
    # A camera held elsewhere is listed without details.
    with kivcam.open(USB1):
        held = {c["uid"]: c for c in kivcam.cameras()}[USB1]
    assert held["model"] == "KivSim-UC1920C" and held["serial"] is None


def test_open_by_uid_first_and_key():
    with kivcam.open(GIGE2) as cam:
        assert cam.info()["uid"] == GIGE2 and cam.present
        with kivcam.open("first") as other:  # the first one no one holds
            assert other.info()["uid"] == GIGE1
    with kivcam.open(key="cam2") as cam:
        assert cam.DeviceModelName == "KivSim-GC1920C"
    assert cam.closed
    with pytest.raises(kivcam.ParamError):
        cam.Width  # a closed camera's handle is refused


def test_features_as_attributes_and_items_reach_the_camera():
    with kivcam.open(GIGE2) as cam:
        cam.Width = 320
        assert cam.read_register(0xA000) == 320  # GigE registers are big-endian
        cam["Height"] = 200
        assert cam["Height"] == 200 and cam.Height == 200
        cam.ExposureTime = 1234.0
        assert cam.ExposureTime == 1230.0  # 10 us steps
        cam.GevGVCPHeartbeatDisable = True
        assert cam.GevGVCPHeartbeatDisable is True
        cam.DeviceUserID = "probe"
        assert cam.DeviceUserID == "probe"
        cam.PixelFormat = "Mono8"
        assert cam.PixelFormat == "Mono8"
        cam.PixelFormat = kivcam.code_of("BayerRG8")  # by value
        assert cam["PixelFormat"] == "BayerRG8"
        cam.TriggerMode = "On"
        cam.TriggerSoftware()  # a command reads as a function that executes it
        cam.execute("TriggerSoftware", timeout=0.5)

        cam.write_register(0xA004, 120)
        assert cam.read_register(0xA004) == 120
        assert not hasattr(cam, "NoSuchFeature")
        with pytest.raises(AttributeError):
            cam.NoSuchFeature


def test_feature_descriptions():
    with kivcam.open(USB1) as cam:
        w = cam.feature("Width")
        assert (w.type, w.access, w.range, w.tooltip) == ("Integer", "RW", (8, 1920, 4),
                                                          "Width of the image in pixels.")
        assert cam.feature("ExposureTime").unit == "us"
        pf = cam.feature("PixelFormat")
        assert pf.value == "BayerRG8" and ("Mono8", 0x01080001, True) in pf.entries
        every = {f.name: f for f in cam.features()}
        assert {"Width", "PixelFormat", "AcquisitionStart", "DeviceControl"} <= set(every)
        assert every["Width"].category == ["Root", "ImageFormatControl"]
        assert every["FrameCounter"].access == "RO" and isinstance(every["FrameCounter"].value, int)
        # USB3 Vision registers are little-endian.
        cam.Width = 256
        assert cam.read_register(0xA000) == 256
        cam.write_register(0xA004, 120)
        assert cam.read_register(0xA004, count=2) == [120, 0]


def test_failures_raise_the_error_of_their_code():
    with kivcam.open(GIGE1) as cam:
        with pytest.raises(kivcam.ParamError) as e:
            cam.Width = 322  # off the increment
        assert (e.value.code, e.value.call) == (1, "KIVCAMF_SetInt")
        assert isinstance(e.value, kivcam.Error) and isinstance(e.value, ValueError)
        assert "322" in e.value.reason and e.value.reason in str(e.value)  # the library's words
        with pytest.raises(kivcam.ParamError) as e:
            cam.PixelFormat = "BayerRG8"  # a mono camera
        assert "BayerRG8" in str(e.value)
        with pytest.raises(kivcam.AccessError):
            cam.FrameCounter = 3
        with pytest.raises(kivcam.AlreadyOpenError):
            kivcam.open(GIGE1)
        with cam.stream():
            with pytest.raises(kivcam.AccessError):
                cam.Width = 320  # the image format is locked while resources are held
    with pytest.raises(kivcam.NoCameraError) as e:
        kivcam.open(12345)
    assert e.value.call == "KIVCAM_Open"


def test_context_managers_clean_up_when_the_body_fails():
    with pytest.raises(RuntimeError):
        with kivcam.open(GIGE1) as cam:
            with cam.stream(buffers=3) as s:
                next(s.frames(1, timeout=5.0))
                raise RuntimeError("the caller's own failure")
    with kivcam.open(GIGE1) as cam:  # closed, and so free again
        cam.Width = 320  # resources released
        with cam.stream(buffers=2) as s:
            assert next(s.frames(1, timeout=5.0)).width == 320


def test_thousand_open_close_cycles_leak_no_handles():
    with kivcam.open(USB1):
        pass
    fds = open_fds()
    for _ in range(1000):
        with kivcam.open(USB1) as cam:
            pass
    assert open_fds() == fds
    assert cam.closed
    with kivcam.open(USB1) as cam:
        assert cam.Width > 0
