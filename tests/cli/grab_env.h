// What the tests of `kivcam grab` and `kivcam watch` share: the virtual
// producers' control interface, held open by the test process (so the
// cameras' machine-wide state, delivery mode and frame counter, lives across
// the tool's runs and is steered from here), the cameras' test pattern, the
// library's own conversion of it, and readers of the files the tool writes.
#pragma once

#include <gtest/gtest.h>
#include <dlfcn.h>
#include <png.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "child_process.h"
#include "kivcam/kivcam.h"
#include "kivgentl/gentl.h"
#include "kivsim/kivsim.h"

namespace clitest {

namespace fs = std::filesystem;

inline const std::string kMonoUid = "690264997889";    // KivSim-GC1920M, GigE camera 0, Mono8
inline const std::string kColourUid = "690264997890";  // KivSim-GC1920C, GigE camera 1, BayerRG8
inline const std::string kUsbUid = "5424961784144461825";  // KivSim-UC1920C, USB camera 0, BayerRG8

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
    plug = reinterpret_cast<decltype(plug)>(dlsym(module_, "kivsim_plug"));
    counters_ = reinterpret_cast<decltype(counters_)>(dlsym(module_, "kivsim_get_counters"));
    ok_ = init_ && close_ && deliver && free_run && plug && counters_ && init_() == GC_ERR_SUCCESS;
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
  decltype(&kivsim_plug) plug = nullptr;

 private:
  void* module_ = nullptr;
  PGCInitLib init_ = nullptr;
  PGCCloseLib close_ = nullptr;
  decltype(&kivsim_get_counters) counters_ = nullptr;
  bool ok_ = false;
};

// The virtual cameras' pattern: 8-bit value of component c at (x, y) of frame f.
inline uint8_t Pattern8(uint32_t x, uint32_t y, uint64_t f, uint32_t c) {
  return static_cast<uint8_t>((x + (y + 2 * (f % 128)) % 256 + 85 * c) % 256);
}

inline std::vector<uint8_t> Mono8(uint32_t w, uint32_t h, uint64_t f) {
  std::vector<uint8_t> v;
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) v.push_back(Pattern8(x, y, f, 0));
  return v;
}

// BayerRG8: R on even rows' even columns, B on odd rows' odd columns, G elsewhere.
inline std::vector<uint8_t> BayerRG8(uint32_t w, uint32_t h, uint64_t f) {
  std::vector<uint8_t> v;
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) v.push_back(Pattern8(x, y, f, (x % 2) + (y % 2)));
  return v;
}

// R, G, B per pixel, as a PNG decodes.
inline std::vector<uint8_t> GreyToRgb(const std::vector<uint8_t>& grey) {
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
inline std::vector<uint8_t> ConvertedRgb(const std::vector<uint8_t>& raw, uint32_t w, uint32_t h, uint32_t output) {
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

inline std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A PNG decoded to R, G, B, with its size; empty when it does not decode.
inline std::vector<uint8_t> DecodePng(const std::string& path, uint32_t* w, uint32_t* h) {
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

inline uint32_t Le32(const std::vector<uint8_t>& b, size_t at) {
  return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

// A bitmap file decoded to R, G, B, top row first; empty when it is not the
// 24-bit bottom-up bitmap the tool writes.
inline std::vector<uint8_t> DecodeBmp(const std::string& path, uint32_t* w, uint32_t* h) {
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
inline std::string Diff(const std::vector<uint8_t>& got, const std::vector<uint8_t>& want) {
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

// kivcam started with `args`, its output read as it runs (ReadUntil, Wait);
// killed if a failed test leaves it running.
struct Background : kivtest::Program {
  explicit Background(std::vector<std::string> args) {
    args.insert(args.begin(), KIVCAM_CLI);
    started = Start(args) && pid > 0;
  }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;
  ~Background() {
    if (started && out >= 0) {
      kill(pid, SIGKILL);
      Wait();
    }
  }
  bool Has(const std::string& s) const { return text.find(s) != std::string::npos; }
  bool started = false;
};

}  // namespace clitest
