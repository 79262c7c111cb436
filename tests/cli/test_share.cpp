// Frames shared beyond one kivcam process, end to end with the programs a
// user runs: `kivcam grab --multicast` controls a camera while `kivcam watch`
// receives its stream, `kivcam grab --filter` publishes to `kivcam-view`,
// and a camera unplugged during a grab. The cameras deliver on demand from
// here (grab_env.h), so every process waits for a line of the others, never
// for time to pass.
#include <signal.h>

#include <string>
#include <vector>

#include "cli_run.h"
#include "grab_env.h"

namespace {

using namespace clitest;

// The tool's exit codes for a camera lost and a watched stream that ended.
constexpr int kLost = 3, kStreamEnded = 4;

const char kMono[] = "KivSim-GC1920M";
const char kColour[] = "KivSim-GC1920C";

class ShareTest : public GrabTest {
 protected:
  std::string Sub(const char* name) { return dir_ + "/" + name; }
  std::string FileIn(const std::string& dir, const std::string& uid, const char* model, int n, const char* ext) {
    char name[128];
    std::snprintf(name, sizeof name, "/%s-%s-%06d.%s", model, uid.c_str(), n, ext);
    return dir + name;
  }
};

// The controller streams five frames to a group; the watcher, waiting before
// the controller starts, saves the same five, then ends with the stream.
TEST_F(ShareTest, WatchReceivesTheFramesGrabStreamsToAGroup) {
  for (const char* mode : {"request", "callback"}) {
    SCOPED_TRACE(mode);
    fs::remove_all(dir_);
    ASSERT_EQ(gige_.deliver(0, 0), 0);  // on demand, nothing yet
    const uint64_t first = gige_.NextFrame(0);
    const std::string watched = Sub("watched"), grabbed = Sub("grabbed");
    Background watcher({"watch", kMonoUid, "--mode", mode, "--buffers", "8", "--save", watched, "--format", "raw",
                        "-v"});
    ASSERT_TRUE(watcher.started);
    ASSERT_TRUE(watcher.ReadUntil("waiting   for a multicast stream from KivSim-GC1920M, UID " + kMonoUid +
                                  ": no program streams from it yet (`kivcam grab " + kMonoUid +
                                  " --multicast 239.1.1.1` does)\n"))
        << watcher.text;
    // Eight buffers each: the five frames come in one burst.
    Background controller({"grab", kMonoUid, "-n", "0", "--buffers", "8", "--multicast", "239.1.1.1", "--timeout",
                           "inf", "--format", "raw", "-o", grabbed, "-v", "--set", "Width=64", "Height=32"});
    ASSERT_TRUE(controller.started);
    ASSERT_TRUE(controller.ReadUntil("streaming frames to the multicast group 239.1.1.1\n")) << controller.text;
    ASSERT_TRUE(watcher.ReadUntil("receiving frames from the multicast group 239.1.1.1\n")) << watcher.text;
    ASSERT_EQ(gige_.deliver(0, 5), 0);
    ASSERT_TRUE(watcher.ReadUntil(FileIn(watched, kMonoUid, kMono, 5, "raw"))) << watcher.text;
    ASSERT_TRUE(controller.ReadUntil(FileIn(grabbed, kMonoUid, kMono, 5, "raw"))) << controller.text;
    kill(controller.pid, SIGINT);
    EXPECT_EQ(controller.Wait(), 128 + SIGINT) << controller.text;
    EXPECT_EQ(watcher.Wait(), kStreamEnded) << watcher.text;
    EXPECT_TRUE(watcher.Has("kivcam: the watched stream ended: the controlling program stopped streaming, or ended\n"))
        << watcher.text;
    EXPECT_TRUE(watcher.Has("camera    KivSim-GC1920M, UID " + kMonoUid + ", 64x32 Mono8\n")) << watcher.text;
    EXPECT_TRUE(watcher.Has("watched   5 frames in ")) << watcher.text;
    for (int i = 1; i <= 5; ++i) {
      const std::vector<uint8_t> got = ReadFile(FileIn(watched, kMonoUid, kMono, i, "raw"));
      EXPECT_EQ(Diff(got, ReadFile(FileIn(grabbed, kMonoUid, kMono, i, "raw"))), "") << i;
      EXPECT_EQ(Diff(got, Mono8(64, 32, first + i - 1)), "") << i;
    }
    EXPECT_FALSE(fs::exists(FileIn(watched, kMonoUid, kMono, 6, "raw")));
  }
}

// A controller that streams to its own address only leaves the watcher
// waiting, saying so; when that controller ends, so does the watcher. Ctrl-C
// ends a wait too.
TEST_F(ShareTest, WatchWaitsThroughAUnicastStreamAndEndsWithIt) {
  ASSERT_EQ(gige_.deliver(0, 0), 0);
  Background watcher({"watch", kMonoUid});
  ASSERT_TRUE(watcher.started);
  ASSERT_TRUE(watcher.ReadUntil("no program streams from it yet")) << watcher.text;
  Background controller({"grab", kMonoUid, "-n", "0", "--timeout", "inf", "-o", dir_});
  ASSERT_TRUE(controller.started);
  ASSERT_TRUE(watcher.ReadUntil(": it streams to 192.168.2.1 only (unicast), which only its controlling program "
                                "receives")) << watcher.text;
  kill(controller.pid, SIGINT);
  EXPECT_EQ(controller.Wait(), 128 + SIGINT) << controller.text;
  EXPECT_EQ(watcher.Wait(), kStreamEnded) << watcher.text;
  EXPECT_TRUE(watcher.Has("kivcam: the watched stream ended: the controlling program stopped streaming without "
                          "streaming to a multicast group\n"))
      << watcher.text;
  EXPECT_FALSE(watcher.Has("\nwatched   ")) << watcher.text;

  Background waiting({"watch", "first", "--save", dir_});
  ASSERT_TRUE(waiting.started);
  ASSERT_TRUE(waiting.ReadUntil("waiting   for a multicast stream")) << waiting.text;
  kill(waiting.pid, SIGINT);
  EXPECT_EQ(waiting.Wait(), 128 + SIGINT) << waiting.text;
  EXPECT_TRUE(waiting.Has("stopped   by Ctrl-C (SIGINT)")) << waiting.text;
  EXPECT_FALSE(waiting.Has("failed")) << waiting.text;
}

// kivcam-view takes the first frame while the grab waits for the next: it is
// the library's conversion of that frame, as is the file saved beside it.
TEST_F(ShareTest, GrabFilterPublishesConvertedFramesForKivcamView) {
  const uint32_t w = 64, h = 32;
  ASSERT_EQ(gige_.deliver(1, 0), 0);
  const uint64_t first = gige_.NextFrame(1);
  Background grab({"grab", kColourUid, "-n", "3", "--filter", "-o", dir_, "-v", "--timeout", "inf", "--set",
                   "Width=64", "Height=32"});
  ASSERT_TRUE(grab.started);
  const std::string pid = std::to_string(grab.pid);
  ASSERT_TRUE(grab.ReadUntil("publishing frames for kivcam-view " + pid + " (64x32, 32-bit B,G,R,unused)\n"))
      << grab.text;
  ASSERT_EQ(gige_.deliver(1, 1), 0);
  ASSERT_TRUE(grab.ReadUntil(FileIn(dir_, kColourUid, kColour, 1, "png"))) << grab.text;
  const std::string seen = Sub("seen");
  fs::create_directories(seen);
  Result view = RunLine(std::string(KIVCAM_VIEW) + " " + pid + " --once --save " + seen);
  ASSERT_EQ(view.code, 0) << view.out;
  ASSERT_EQ(gige_.deliver(1, 2), 0);
  EXPECT_EQ(grab.Wait(), 0) << grab.text;
  EXPECT_TRUE(grab.Has("filter    3 frames published for kivcam-view " + pid + ": ")) << grab.text;

  const std::vector<uint8_t> want = ConvertedRgb(BayerRG8(w, h, first), w, h, KIVCAM_OUTPUT_BGRX32);
  ASSERT_FALSE(want.empty());
  uint32_t fw = 0, fh = 0;
  EXPECT_EQ(Diff(DecodePng(seen + "/frame_000001.png", &fw, &fh), want), "") << "as kivcam-view took it";
  for (int i = 1; i <= 3; ++i) {
    const std::vector<uint8_t> frame = ConvertedRgb(BayerRG8(w, h, first + i - 1), w, h, KIVCAM_OUTPUT_BGRX32);
    EXPECT_EQ(Diff(DecodePng(FileIn(dir_, kColourUid, kColour, i, "png"), &fw, &fh), frame), "") << i;
  }

  // Publishing alone saves nothing.
  ASSERT_EQ(gige_.free_run(1, 0), 0);
  const std::string here = Sub("here");
  fs::create_directories(here);
  Result alone = RunLine("cd " + here + " && " + KIVCAM_CLI + " grab " + kColourUid + " -n 2 --filter </dev/null");
  EXPECT_EQ(alone.code, 0) << alone.out;
  EXPECT_TRUE(Has(alone, "files     none (--out DIR saves the frames)\n")) << alone.out;
  EXPECT_TRUE(fs::is_empty(here));
}

// Unplugged during a grab, in either mode: the tool says the camera is gone
// and ends with its own code, the frames before the loss kept.
TEST_F(ShareTest, UnplugDuringGrabEndsWithTheLoss) {
  for (const char* mode : {"request", "callback"}) {
    SCOPED_TRACE(mode);
    fs::remove_all(dir_);
    ASSERT_EQ(gige_.deliver(0, 2), 0);
    Background grab({"grab", kMonoUid, "-n", "10", "--mode", mode, "--timeout", "inf", "-v", "-o", dir_});
    ASSERT_TRUE(grab.started);
    ASSERT_TRUE(grab.ReadUntil(FileIn(dir_, kMonoUid, kMono, 2, "png"))) << grab.text;
    ASSERT_EQ(gige_.plug(0, 0), 0);
    const int code = grab.Wait();
    ASSERT_EQ(gige_.plug(0, 1), 0);
    EXPECT_EQ(code, kLost) << grab.text;
    EXPECT_TRUE(grab.Has("kivcam: the camera is gone: unplugged, or it no longer answers")) << grab.text;
    EXPECT_TRUE(grab.Has("grabbed   2 of 10 frames in ")) << grab.text;
    EXPECT_FALSE(grab.Has(" failed: ")) << grab.text;
    EXPECT_TRUE(fs::exists(FileIn(dir_, kMonoUid, kMono, 2, "png")));
    // Plugged in again, it is there for the next run.
    ASSERT_EQ(gige_.free_run(0, 0), 0);
    EXPECT_EQ(Kivcam("grab " + kMonoUid + " -n 1 -o " + dir_).code, 0);
  }
}

TEST_F(ShareTest, WrongGroupsCamerasAndOptionsAreRefused) {
  const std::pair<const char*, const char*> usage[] = {
      {"grab first --multicast 10.0.0.1", "--multicast takes a multicast group 239.0-127.1-255.x"},
      {"grab first --multicast 239.128.1.1", "--multicast takes a multicast group"},
      {"grab first --multicast 239.1.0.1", "--multicast takes a multicast group"},
      {"grab first --multicast 239.1.1", "--multicast takes a multicast group"},
      {"grab first --filter --bits 24", "--filter publishes 32-bit pixels"},
      {"watch first --set Width=64", "kivcam watch leaves the camera's settings to the controlling program"},
      {"watch first --multicast 239.1.1.1", "kivcam watch receives the group"},
      {"watch", "missing argument: CAMERA"},
  };
  for (const auto& [args, reason] : usage) {
    Result r = Kivcam(args);
    EXPECT_EQ(r.code, 2) << args << "\n" << r.out;
    EXPECT_EQ(r.out.rfind(std::string("kivcam: ") + reason, 0), 0u) << args << "\n" << r.out;
  }
  Result usb = Kivcam("grab " + kUsbUid + " --multicast 239.1.1.1 -o " + dir_);
  EXPECT_EQ(usb.code, 1) << usb.out;
  EXPECT_TRUE(Has(usb, "kivcam: --multicast needs a GigE camera; KivSim-UC1920C (UID " + kUsbUid +
                           ") is a USB camera\n"))
      << usb.out;
  Result watch_usb = Kivcam("watch " + kUsbUid);
  EXPECT_EQ(watch_usb.code, 1) << watch_usb.out;
  EXPECT_TRUE(Has(watch_usb, "kivcam: UID " + kUsbUid + " is a USB camera: only GigE cameras can be watched\n"))
      << watch_usb.out;
  Result help = Kivcam("watch --help");
  EXPECT_EQ(help.code, 0);
  for (const char* text : {"usage: kivcam watch CAMERA", "--save DIR", "--timeout MS", "--filter", "Exit codes"}) {
    EXPECT_TRUE(Has(help, text)) << text;
  }
}

}  // namespace
