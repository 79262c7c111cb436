// `kivcam grab` against the virtual cameras (grab_env.h): frames come only
// as fast as the tool queues buffers, or a counted number on demand, so every
// saved file can be checked against the test pattern of a known frame.
#include <signal.h>

#include <string>
#include <vector>

#include "cli_run.h"
#include "grab_env.h"

namespace {

using namespace clitest;

TEST_F(GrabTest, EachFormatHoldsTheTestPatternOfConsecutiveFrames) {
  const uint32_t w = 64, h = 32;
  const char* formats[] = {"png", "bmp", "raw"};
  for (const char* format : formats) {
    const uint64_t first = gige_.NextFrame(0);
    Result r = Kivcam("grab " + kMonoUid + " -n 3 --format " + format + " --out " + dir_ +
                      " --set Width=64 Height=32");
    ASSERT_EQ(r.code, 0) << format << "\n" << r.out;
    EXPECT_TRUE(Has(r, "camera    KivSim-GC1920M, UID " + kMonoUid + ", 64x32 Mono8\n")) << r.out;
    EXPECT_TRUE(Has(r, "grabbed   3 of 3 frames in ")) << r.out;
    EXPECT_TRUE(Has(r, "problems  0 incomplete, 0 errors\n")) << r.out;
    for (int i = 1; i <= 3; ++i) {
      const std::string path = File(kMonoUid, "KivSim-GC1920M", i, format);
      const std::vector<uint8_t> pattern = Mono8(w, h, first + i - 1);
      uint32_t fw = 0, fh = 0;
      if (std::string(format) == "raw") {
        EXPECT_EQ(Diff(ReadFile(path), pattern), "") << path;
        continue;
      }
      std::vector<uint8_t> rgb = std::string(format) == "png" ? DecodePng(path, &fw, &fh) : DecodeBmp(path, &fw, &fh);
      ASSERT_FALSE(rgb.empty()) << path << " does not decode";
      EXPECT_EQ(fw, w);
      EXPECT_EQ(fh, h);
      EXPECT_EQ(Diff(rgb, GreyToRgb(pattern)), "") << path;
    }
    EXPECT_FALSE(fs::exists(File(kMonoUid, "KivSim-GC1920M", 4, format)));
  }
  EXPECT_TRUE(PartFiles().empty());
}

// Bayer frames, both ways of receiving them, 24- and 32-bit conversion, one
// thread or a team: the file equals the library's conversion of the
// recomputed raw frame.
TEST_F(GrabTest, ColourFramesEqualTheConversionOfThePattern) {
  const uint32_t w = 64, h = 32;
  struct Case {
    std::string uid;
    const char* model;
    Producer* producer;
    uint32_t camera;
    const char* options;
    uint32_t output;
  } cases[] = {
      {kColourUid, "KivSim-GC1920C", &gige_, 1, "--mode request --bits 32 --parallel", KIVCAM_OUTPUT_BGRX32},
      {kUsbUid, "KivSim-UC1920C", &usb_, 0, "--mode callback --buffers 2", KIVCAM_OUTPUT_BGR24},
  };
  for (const Case& c : cases) {
    const uint64_t first = c.producer->NextFrame(c.camera);
    Result r = Kivcam("grab " + c.uid + " -n 4 " + c.options + " -o " + dir_ + " --set Width=64 Height=32");
    ASSERT_EQ(r.code, 0) << c.options << "\n" << r.out;
    EXPECT_TRUE(Has(r, "64x32 BayerRG8\n")) << r.out;
    for (int i = 1; i <= 4; ++i) {
      const std::string path = File(c.uid, c.model, i, "png");
      uint32_t fw = 0, fh = 0;
      std::vector<uint8_t> rgb = DecodePng(path, &fw, &fh);
      ASSERT_FALSE(rgb.empty()) << path << " does not decode";
      std::vector<uint8_t> want = ConvertedRgb(BayerRG8(w, h, first + i - 1), w, h, c.output);
      ASSERT_FALSE(want.empty());
      EXPECT_EQ(Diff(rgb, want), "") << path;
    }
  }
}

// Ctrl-C while the tool waits for a frame that never comes (two delivered,
// more wanted): it stops, cleans up, says so and keeps what it wrote.
TEST_F(GrabTest, CtrlCStopsCleanlyAndKeepsTheWrittenFiles) {
  for (const char* mode : {"request", "callback"}) {
    SCOPED_TRACE(mode);
    fs::remove_all(dir_);
    const uint64_t first = gige_.NextFrame(0);
    ASSERT_EQ(gige_.deliver(0, 2), 0);  // on demand: two frames, then none
    Background c({"grab", kMonoUid, "-n", "10", "--mode", mode, "--timeout", "inf", "-v", "-o", dir_, "--set",
                  "Width=64", "Height=32"});
    ASSERT_TRUE(c.started);
    ASSERT_TRUE(c.ReadUntil(File(kMonoUid, "KivSim-GC1920M", 2, "png"))) << c.text;
    kill(c.pid, SIGINT);
    EXPECT_EQ(c.Wait(), 128 + SIGINT) << c.text;
    EXPECT_TRUE(c.Has("grabbed   2 of 10 frames in ")) << c.text;
    EXPECT_TRUE(c.Has("stopped   by Ctrl-C (SIGINT); the files written are complete\n")) << c.text;
    for (int i = 1; i <= 2; ++i) {
      uint32_t fw = 0, fh = 0;
      std::vector<uint8_t> rgb = DecodePng(File(kMonoUid, "KivSim-GC1920M", i, "png"), &fw, &fh);
      EXPECT_EQ(Diff(rgb, GreyToRgb(Mono8(64, 32, first + i - 1))), "") << i;
    }
    EXPECT_FALSE(fs::exists(File(kMonoUid, "KivSim-GC1920M", 3, "png")));
    EXPECT_TRUE(PartFiles().empty());
    // The camera was given back: the next run opens it.
    ASSERT_EQ(gige_.free_run(0, 0), 0);
    EXPECT_EQ(Kivcam("grab " + kMonoUid + " -n 1 -o " + dir_).code, 0);
  }
}

TEST_F(GrabTest, NoFrameInTimeMissingCameraAndUsageErrors) {
  ASSERT_EQ(gige_.deliver(0, 0), 0);  // on demand, and nothing demanded
  Result late = Kivcam("grab " + kMonoUid + " -n 1 --timeout 50 -o " + dir_);
  EXPECT_EQ(late.code, 1) << late.out;
  EXPECT_TRUE(Has(late, "kivcam: no frame within 50 ms")) << late.out;
  EXPECT_TRUE(Has(late, "grabbed   0 of 1 frames")) << late.out;

  Result missing = Kivcam("grab 12345 -o " + dir_);
  EXPECT_EQ(missing.code, 1) << missing.out;
  EXPECT_TRUE(Has(missing, "KIVCAM_Open failed: error 5, KIVCAM_ERR_NO_CAMERA")) << missing.out;
  EXPECT_FALSE(Has(missing, "grabbed")) << missing.out;

  const std::pair<const char*, const char*> usage[] = {
      {"grab", "missing argument: CAMERA"},
      {"grab first -n abc", "-n takes a number from 0 to"},
      {"grab first -n", "option -n needs a value"},
      {"grab first --buffers 0", "--buffers takes a number from 1 to 1024"},
      {"grab first --mode push", "--mode is request or callback, not 'push'"},
      {"grab first --format gif", "--format is png, bmp or raw, not 'gif'"},
      {"grab first --bits 16", "--bits is 24 or 32, not '16'"},
      {"grab first --timeout soon", "--timeout takes a number"},
      {"grab first --set Width", "'Width' is not FEATURE=VALUE"},
      {"grab first --bogus", "unknown option '--bogus'"},
      {"grab first 12", "unexpected argument '12'"},
  };
  for (const auto& [args, reason] : usage) {
    Result r = Kivcam(args);
    EXPECT_EQ(r.code, 2) << args << "\n" << r.out;
    EXPECT_EQ(r.out.rfind(std::string("kivcam: ") + reason, 0), 0u) << args << "\n" << r.out;
    EXPECT_TRUE(Has(r, "Try 'kivcam grab --help'")) << args;
  }
  Result help = Kivcam("grab --help");
  EXPECT_EQ(help.code, 0);
  for (const char* option : {"-n, --frames N", "--mode request|callback", "--buffers K", "--timeout MS",
                             "--format png|bmp|raw", "-o, --out DIR", "--bits 24|32", "--parallel",
                             "--set FEATURE=VALUE", "Ctrl-C", "Exit codes"}) {
    EXPECT_TRUE(Has(help, option)) << option;
  }
}

// On a terminal a progress line is redrawn in place; without one, only the summary.
TEST_F(GrabTest, ProgressLineOnlyOnATerminal) {
  const std::string args = std::string(KIVCAM_CLI) + " grab " + kMonoUid + " -n 3 -o " + dir_;
  Result tty = RunLine("script -qec '" + args + "' /dev/null");
  ASSERT_EQ(tty.code, 0) << tty.out;
  EXPECT_TRUE(Has(tty, "\r\033[K3/3 frames  ")) << tty.out;
  Result plain = Kivcam("grab " + kMonoUid + " -n 3 -o " + dir_);
  ASSERT_EQ(plain.code, 0) << plain.out;
  EXPECT_FALSE(Has(plain, "\033[K")) << plain.out;
  EXPECT_TRUE(Has(plain, "grabbed   3 of 3 frames")) << plain.out;
}

}  // namespace
