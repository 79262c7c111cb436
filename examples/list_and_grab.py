"""Lists the cameras, then grabs three frames from the first free one and
saves the last as PNG and BMP."""
import kivcam

for cam in kivcam.cameras():
    print("%(uid)-20d %(kind)-4s %(vendor)s %(model)s serial %(serial)s" % cam)

with kivcam.open("first") as cam:
    cam.Width, cam.Height = 640, 480
    print("opened %s, %d x %d %s" % (cam.DeviceModelName, cam.Width, cam.Height, cam.PixelFormat))
    with cam.stream(buffers=4) as stream:
        for frame in stream.frames(n=3, timeout=2.0):
            print("frame %d: raw %s %s, mean %.1f" % (frame.index, frame.raw.shape, frame.raw.dtype,
                                                     frame.raw.mean()))
        image = frame.bgr()  # H x W x 3, blue-green-red
        frame.save("first.png")
        frame.save("first.bmp")
print("saved first.png and first.bmp, %d x %d x %d" % image.shape)
