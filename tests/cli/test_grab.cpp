// `kivcam grab` against the virtual cameras. This process holds the producers
// open too, so the cameras' machine-wide state (delivery mode, frame counter)
// lives across the tool's runs and is steered from here: frames come only as
// fast as the tool queues buffers, or a counted number on demand, so every
// saved file can be checked against the test pattern of a known frame.
#include <gtest/gtest.h>
#include <dlfcn.h>
#include <png.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cli_run.h"
#include "kivcam/kivcam.h"
#include "kivgentl/gentl.h"
#include "kivsim/kivsim.h"

extern char** environ;

namespace {

using namespace clitest;
namespace fs = std::filesystem;

const std::string kMonoUid = "690264997889";    // KivSim-GC1920M, GigE camera 0, Mono8
const std::string kColourUid = "690264997890";  // KivSim-GC1920C, GigE camera 1, BayerRG8
const std::string kUsbUid = "5424961784144461825";  // KivSim-UC1920C, USB camera 0, BayerRG8

// The control interface of one virtual producer, loaded and initialised here.
class Producer {
 public:
  explicit Producer(const char* file) {
    const std::string dir = fs::path(KIVCAM_LIB).parent_path().string();
    module_ = dlopen((dir + "/" + file).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module_) return;
    init_ = reinterpret_cast<PGCInitLib>(dlsym(module_, "GCInitLib"));
    close_ = reinterpret_cast<PGCCloseLib>(dlsym(module_, "GCCloseLib"));
    deliver = reinterpret_cast<decltype(deliver)>(dlsym(module_, "kivsim_deliver"));
    free_run = reinterpret_cast<decltype(free_run)>(dlsym(module_, "kivsim_free_run"));
    counters_ = reinterpret_cast<decltype(counters_)>(dlsym(module_, "kivsim_get_counters"));
    ok_ = init_ && close_ && deliver && free_run && counters_ && init_() == GC_ERR_SUCCESS;
  }
  ~Producer() {
    if (ok_) close_();
    if (module_) dlclose(module_);
  }
  bool ok() const { return ok_; }
  // Frames the camera has produced so far: the number of the next one.
  uint64_t NextFrame(uint32_t camera) {
    kivsim_counters c{};
    return counters_(camera, &c) == 0 ? c.frames_produced : ~0ull;
  }
  decltype(&kivsim_deliver) deliver = nullptr;
  decltype(&kivsim_free_run) free_run = nullptr;

 private:
  void* module_ = nullptr;
  PGCInitLib init_ = nullptr;
  PGCCloseLib close_ = nullptr;
  decltype(&kivsim_get_counters) counters_ = nullptr;
  bool ok_ = false;
};

// The virtual cameras' pattern: 8-bit value of component c at (x, y) of frame f.
uint8_t Pattern8(uint32_t x, uint32_t y, uint64_t f, uint32_t c) {
  return static_cast<uint8_t>((x + (y + 2 * (f % 128)) % 256 + 85 * c) % 256);
}

std::vector<uint8_t> Mono8(uint32_t w, uint32_t h, uint64_t f) {
  std::vector<uint8_t> v;
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) v.push_back(Pattern8(x, y, f, 0));
  return v;
}

// BayerRG8: R on even rows' even columns, B on odd rows' odd columns, G elsewhere.
std::vector<uint8_t> BayerRG8(uint32_t w, uint32_t h, uint64_t f) {
  std::vector<uint8_t> v;
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) v.push_back(Pattern8(x, y, f, (x % 2) + (y % 2)));
  return v;
}

// R, G, B per pixel, as a PNG decodes.
std::vector<uint8_t> GreyToRgb(const std::vector<uint8_t>& grey) {
  std::vector<uint8_t> rgb;
  for (uint8_t v : grey) rgb.insert(rgb.end(), {v, v, v});
  return rgb;
}

// The library's conversion handles, loaded once this process has its own
// machine-wide names (the test main sets them). It stays loaded until the
// process ends, as a linked library would: an unload from a static
// destructor would run while the process ends, when the library leaves its
// process-wide objects to the system.
struct Conversions {
  Conversions() {
    module = dlopen(KIVCAM_LIB, RTLD_NOW | RTLD_LOCAL);
    if (!module) return;
    create = reinterpret_cast<decltype(create)>(dlsym(module, "KIVCAM_CreateConvHandle"));
    exec = reinterpret_cast<decltype(exec)>(dlsym(module, "KIVCAM_ColorConvExec"));
    close = reinterpret_cast<decltype(close)>(dlsym(module, "KIVCAM_CloseConvHandle"));
  }
  void* module = nullptr;
  decltype(&KIVCAM_CreateConvHandle) create = nullptr;
  decltype(&KIVCAM_ColorConvExec) exec = nullptr;
  decltype(&KIVCAM_CloseConvHandle) close = nullptr;
};

// The library's own conversion of raw BayerRG8 pixels into R, G, B.
std::vector<uint8_t> ConvertedRgb(const std::vector<uint8_t>& raw, uint32_t w, uint32_t h, uint32_t output) {
  static Conversions lib;
  KIVCAM_CONVMODE mode = {0, 0, output, 0, 0};
  HCTBL conv = nullptr;
  if (!lib.create || !lib.create(&conv, &mode, nullptr)) return {};
  const size_t bpp = output == KIVCAM_OUTPUT_BGR24 ? 3 : 4, stride = bpp == 3 ? (w * 3 + 3) / 4 * 4 : w * 4;
  std::vector<uint8_t> bgr(stride * h);
  KIVCAM_IMAGEDESC desc = {w, h, raw.data(), static_cast<uint32_t>(raw.size()), 0x01080009u /* BayerRG8 */, 1};
  bool ok = lib.exec(conv, &desc, bgr.data());
  lib.close(conv);
  if (!ok) return {};
  std::vector<uint8_t> rgb;
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      const uint8_t* p = &bgr[y * stride + x * bpp];
      rgb.insert(rgb.end(), {p[2], p[1], p[0]});
    }
  return rgb;
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A PNG decoded to R, G, B, with its size; empty when it does not decode.
std::vector<uint8_t> DecodePng(const std::string& path, uint32_t* w, uint32_t* h) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return {};
  image.format = PNG_FORMAT_RGB;
  std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr)) return {};
  *w = image.width;
  *h = image.height;
  return rgb;
}

uint32_t Le32(const std::vector<uint8_t>& b, size_t at) {
  return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

// A bitmap file decoded to R, G, B, top row first; empty when it is not the
// 24-bit bottom-up bitmap the tool writes.
std::vector<uint8_t> DecodeBmp(const std::string& path, uint32_t* w, uint32_t* h) {
  std::vector<uint8_t> b = ReadFile(path);
  if (b.size() < 54 || b[0] != 'B' || b[1] != 'M' || Le32(b, 2) != b.size() || Le32(b, 14) != 40) return {};
  const uint32_t offset = Le32(b, 10), width = Le32(b, 18), height = Le32(b, 22);
  const uint32_t bits = b[28] | b[29] << 8, stride = (width * 3 + 3) / 4 * 4;
  if (bits != 24 || Le32(b, 30) != 0 || Le32(b, 34) != stride * height || offset + stride * height != b.size()) return {};
  std::vector<uint8_t> rgb;
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x) {
      const uint8_t* p = &b[offset + (height - 1 - y) * stride + x * 3];
      rgb.insert(rgb.end(), {p[2], p[1], p[0]});
    }
  *w = width;
  *h = height;
  return rgb;
}

// Where the first difference is, for a readable failure.
std::string Diff(const std::vector<uint8_t>& got, const std::vector<uint8_t>& want) {
  if (got.size() != want.size()) return "size " + std::to_string(got.size()) + " != " + std::to_string(want.size());
  for (size_t i = 0; i < got.size(); ++i)
    if (got[i] != want[i]) {
      return "byte " + std::to_string(i) + ": " + std::to_string(got[i]) + " != " + std::to_string(want[i]);
    }
  return "";
}

class GrabTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = testing::TempDir() + "kivcam_grab_" + std::to_string(getpid()) + "_" +
           testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(dir_);
    ASSERT_TRUE(gige_.ok());
    ASSERT_TRUE(usb_.ok());
    // As fast as the tool queues buffers: nothing dropped, numbers consecutive.
    ASSERT_EQ(gige_.free_run(0, 0), 0);
    ASSERT_EQ(gige_.free_run(1, 0), 0);
    ASSERT_EQ(usb_.free_run(0, 0), 0);
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string File(const std::string& uid, const char* model, int number, const char* ext) {
    char name[128];
    std::snprintf(name, sizeof name, "/%s-%s-%06d.%s", model, uid.c_str(), number, ext);
    return dir_ + name;
  }
  std::vector<std::string> PartFiles() {
    std::vector<std::string> parts;
    for (const auto& e : fs::directory_iterator(dir_))
      if (e.path().extension() == ".part") parts.push_back(e.path().string());
    return parts;
  }

  std::string dir_;
  Producer gige_{"KivGigEGenTL.cti"};
  Producer usb_{"KivUSBGenTL.cti"};
};

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

// Runs kivcam with its stdout on a pipe; the caller reads it while it runs.
struct Child {
  pid_t pid = -1;
  FILE* out = nullptr;
};

Child Start(const std::vector<std::string>& args) {
  Child c;
  int fds[2];
  if (pipe(fds) != 0) return c;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  posix_spawn_file_actions_addclose(&actions, fds[1]);
  std::vector<char*> argv;
  std::string cli = KIVCAM_CLI;
  argv.push_back(cli.data());
  std::vector<std::string> copy = args;
  for (std::string& a : copy) argv.push_back(a.data());
  argv.push_back(nullptr);
  if (posix_spawn(&c.pid, cli.c_str(), &actions, nullptr, argv.data(), environ) != 0) c.pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  c.out = fdopen(fds[0], "r");
  return c;
}

// Ctrl-C while the tool waits for a frame that never comes (two delivered,
// more wanted): it stops, cleans up, says so and keeps what it wrote.
TEST_F(GrabTest, CtrlCStopsCleanlyAndKeepsTheWrittenFiles) {
  for (const char* mode : {"request", "callback"}) {
    SCOPED_TRACE(mode);
    fs::remove_all(dir_);
    const uint64_t first = gige_.NextFrame(0);
    ASSERT_EQ(gige_.deliver(0, 2), 0);  // on demand: two frames, then none
    Child c = Start({"grab", kMonoUid, "-n", "10", "--mode", mode, "--timeout", "inf", "-v", "-o", dir_,
                     "--set", "Width=64", "Height=32"});
    ASSERT_GT(c.pid, 0);
    ASSERT_NE(c.out, nullptr);
    std::string out;
    char line[512];
    int wrote = 0;
    while (wrote < 2 && std::fgets(line, sizeof line, c.out)) {
      out += line;
      if (std::strncmp(line, "wrote ", 6) == 0) ++wrote;
    }
    ASSERT_EQ(wrote, 2) << out;
    kill(c.pid, SIGINT);
    while (std::fgets(line, sizeof line, c.out)) out += line;
    std::fclose(c.out);
    int status = 0;
    ASSERT_EQ(waitpid(c.pid, &status, 0), c.pid);
    ASSERT_TRUE(WIFEXITED(status)) << out;
    EXPECT_EQ(WEXITSTATUS(status), 128 + SIGINT) << out;
    EXPECT_TRUE(Has(Result{0, out}, "grabbed   2 of 10 frames in ")) << out;
    EXPECT_TRUE(Has(Result{0, out}, "stopped   by Ctrl-C (SIGINT); the files written are complete\n")) << out;
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
