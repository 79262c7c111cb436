"""A live preview loop: grabs and converts frames as they come and prints the
frame rate once a second. Stops after --seconds (default: until Ctrl-C)."""
import argparse
import time

import kivcam

parser = argparse.ArgumentParser()
parser.add_argument("--camera", default="first")
parser.add_argument("--seconds", type=float, default=None)
args = parser.parse_args()

with kivcam.open(args.camera) as cam, cam.stream(buffers=8) as stream:
    print("%s: %d x %d %s" % (cam.DeviceModelName, cam.Width, cam.Height, cam.PixelFormat))
    start = last = time.monotonic()
    frames = 0
    try:
        for frame in stream.frames(timeout=2.0):
            image = frame.bgr()  # what a window would show
            frames += 1
            now = time.monotonic()
            if now - last >= 1.0:
                print("%.1f fps, frame %d, mean %.1f" % (frames / (now - last), frame.index, image.mean()),
                      flush=True)
                last, frames = now, 0
            if args.seconds is not None and now - start >= args.seconds:
                break
    except KeyboardInterrupt:
        pass
