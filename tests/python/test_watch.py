"""Watch mode and the frame channel through the binding, each with another
process: a camera that process streams to a multicast group is opened with
watch=True and its frames arrive here too (the controller is the C tests'
watch_controller program); a frame published here is taken there."""

import os
import struct
import subprocess

import numpy as np
import pytest

import kivcam
from conftest import GIGE1


class Controller:
    """The controlling process: it streams GIGE1 to 239.1.1.1 and, per
    command, makes the camera deliver one frame, answering its block ID."""

    def __init__(self):
        self.proc = subprocess.Popen([os.environ["KIVTEST_WATCH_CONTROLLER"], str(GIGE1), "239.1.1.1"],
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def answer(self):
        data = self.proc.stdout.read(8)
        return struct.unpack("<Q", data)[0] if len(data) == 8 else None

    def frame(self):
        self.proc.stdin.write(struct.pack("<Q", 1))
        self.proc.stdin.flush()
        return self.answer()

    def close(self):
        self.proc.stdin.close()
        self.proc.wait(timeout=30)


def test_watch_mode_receives_the_frames_another_process_streams():
    controller = Controller()
    try:
        assert controller.answer() == 0  # streaming
        with pytest.raises(kivcam.AlreadyOpenError):
            kivcam.open(GIGE1)
        with kivcam.open(GIGE1, watch=True) as cam:
            assert cam.present and cam.Width == 640
            with cam.stream(buffers=2) as s:
                # The buffers are queued before the controller lets a frame come.
                with pytest.raises(kivcam.TimeoutError):
                    next(s.frames(1, timeout=0.05))
                block = controller.frame()
                frame = next(s.frames(1, timeout=5.0))
                assert struct.unpack_from("<I", frame.info["packet_info"])[0] == block
                assert frame.raw.shape == (480, 640) and frame.bgr().shape == (480, 640, 3)
    finally:
        controller.close()


def test_frame_channel_publishes_to_a_reader_in_another_process(tmp_path):
    """kivcam-view, another process, takes the frame this one published."""
    view = os.path.join(os.path.dirname(os.environ["KIVTEST_WATCH_CONTROLLER"]), "kivcam-view")
    frame = np.zeros((24, 40, 3), np.uint8)
    frame[..., 0], frame[..., 1], frame[..., 2] = 10, 20, 30
    with kivcam.FrameChannel(40, 24, user_value=7) as channel:
        with pytest.raises(kivcam.FrameChannelError) as e:
            kivcam.FrameChannel(40, 24)
        assert e.value.code == 3
        assert channel.put(frame) is False
        out = subprocess.run([view, str(os.getpid()), "--once", "--save", str(tmp_path)], capture_output=True,
                             text=True, timeout=60)
        assert out.returncode == 0, out.stdout + out.stderr
    saved = [p for p in os.listdir(tmp_path) if p.endswith(".png")]
    assert len(saved) == 1
    assert np.array_equal(kivcam.load_png(tmp_path / saved[0]), frame)
    with kivcam.FrameChannel(8, 8) as again:  # freed: a new one of another size
        assert again.width == 8
