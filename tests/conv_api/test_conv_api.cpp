// Conversion handles through the exports: argument rules, handle life and
// refusal of stale or foreign handles, the bitmap headers, and the log.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kivcam_loader.h"
#include "diag/log_reader.h"

namespace {

using kivtest::KivCamLibrary;

constexpr uint32_t kMono8 = 0x01080001;
constexpr uint32_t kBayerRG8 = 0x01080009;
constexpr uint32_t kYUV422_8_UYVY = 0x0210001F;
constexpr uint32_t kUnsupported = 0x02200016;

KIVCAM_IMAGEDESC Image(uint32_t w, uint32_t h, const void* data, uint32_t format) {
  return KIVCAM_IMAGEDESC{w, h, data, 0, format, 1};
}

class ConvApiTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(lib_.loaded()); }
  HCTBL Create(const KIVCAM_CONVMODE* mode = nullptr) {
    HCTBL h = nullptr;
    EXPECT_EQ(lib_.KIVCAM_CreateConvHandle(&h, mode, nullptr), KIVCAM_TRUE);
    EXPECT_NE(h, nullptr);
    return h;
  }
  // The last error after a call that should have failed (~0u if it did not).
  uint32_t Err(KIVCAM_BOOL result) { return result ? ~0u : lib_.KIVCAM_GetLastError(); }
  KivCamLibrary lib_;
};

TEST_F(ConvApiTest, CreateChecksItsArguments) {
  EXPECT_EQ(Err(lib_.KIVCAM_CreateConvHandle(nullptr, nullptr, nullptr)), KIVCAM_ERR_PARAM);
  const struct {
    KIVCAM_CONVMODE mode;
    bool ok;
  } cases[] = {{{3, 8, 1, 1, 1}, true},
               {{4, 0, 0, 0, 0}, false},
               {{0, -1, 0, 0, 0}, false}};  // automatic shift is for cameras only
  for (const auto& c : cases) {
    HCTBL h = reinterpret_cast<HCTBL>(uintptr_t{0x1234});
    EXPECT_EQ(lib_.KIVCAM_CreateConvHandle(&h, &c.mode, nullptr), c.ok ? KIVCAM_TRUE : KIVCAM_FALSE);
    EXPECT_EQ(lib_.KIVCAM_GetLastError(), c.ok ? KIVCAM_ERR_NONE : KIVCAM_ERR_PARAM);
    EXPECT_EQ(h == reinterpret_cast<HCTBL>(uintptr_t{0x1234}), !c.ok);  // untouched on a refusal
  }
}

TEST_F(ConvApiTest, HandlesLiveOnTheirOwnAndStaleOnesAreRefused) {
  HCTBL a = Create(), b = Create();
  ASSERT_NE(a, b);
  uint8_t src[4] = {10, 20, 30, 40};
  uint8_t dst[16];
  KIVCAM_IMAGEDESC img = Image(2, 2, src, kMono8);

  lib_.KIVCAM_CloseConvHandle(a);
  EXPECT_EQ(lib_.KIVCAM_GetLastError(), KIVCAM_ERR_NONE);
  EXPECT_EQ(lib_.KIVCAM_ColorConvExec(b, &img, dst), KIVCAM_TRUE);
  EXPECT_EQ(Err(lib_.KIVCAM_ColorConvExec(a, &img, dst)), KIVCAM_ERR_PARAM);  // stale
  lib_.KIVCAM_CloseConvHandle(a);  // closing again is refused, nothing breaks
  EXPECT_EQ(lib_.KIVCAM_GetLastError(), KIVCAM_ERR_PARAM);

  int foreign = 0;
  EXPECT_EQ(Err(lib_.KIVCAM_ColorConvExec(reinterpret_cast<HCTBL>(&foreign), &img, dst)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_.KIVCAM_ColorConvExec(nullptr, &img, dst)), KIVCAM_ERR_PARAM);

  lib_.KIVCAM_CloseAllConvHandle();
  EXPECT_EQ(lib_.KIVCAM_ColorConvExec(b, &img, dst), KIVCAM_FALSE);
  lib_.KIVCAM_CloseAllConvHandle();  // on an empty list
  EXPECT_EQ(lib_.KIVCAM_GetLastError(), KIVCAM_ERR_NONE);
  // Handles left open are destroyed with the library (the leak checker watches).
  Create();
}

TEST_F(ConvApiTest, ColorConvExecConvertsWithTheHandlesModeAndCoefficientsAndRefusesWhatItCannot) {
  KIVCAM_CONVMODE mode24{1, 0, 1, 0, 0};  // mirrored, 24-bit
  HCTBL h = Create(&mode24);
  uint8_t src[6] = {1, 2, 3, 4, 5, 6};     // 3 x 2 Mono8
  std::vector<uint8_t> dst(2 * 12, 0xEE);  // 24-bit rows of 12 bytes: 9 + 3 padding
  KIVCAM_IMAGEDESC img = Image(3, 2, src, kMono8);
  ASSERT_EQ(lib_.KIVCAM_ColorConvExec(h, &img, dst.data()), KIVCAM_TRUE);
  const uint8_t row0[12] = {3, 3, 3, 2, 2, 2, 1, 1, 1, 0xEE, 0xEE, 0xEE};
  EXPECT_EQ(std::memcmp(dst.data(), row0, 12), 0);

  KIVCAM_IMAGEDESC bad = Image(3, 2, src, kUnsupported);
  EXPECT_EQ(Err(lib_.KIVCAM_ColorConvExec(h, &bad, dst.data())), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_.KIVCAM_ColorConvExec(h, &img, nullptr)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_.KIVCAM_ColorConvExec(h, nullptr, dst.data())), KIVCAM_ERR_PARAM);
  KIVCAM_IMAGEDESC tiny = Image(1, 4, src, kBayerRG8);  // a Bayer image needs a 2 x 2 cell
  EXPECT_EQ(Err(lib_.KIVCAM_ColorConvExec(h, &tiny, dst.data())), KIVCAM_ERR_PARAM);

  // A handle's own YUV coefficients: V to R doubled, nothing else.
  KIVCAM_YUVCOEF coef{2.0, 0.0, 0.0, 0.0};
  HCTBL yuv = nullptr;
  ASSERT_EQ(lib_.KIVCAM_CreateConvHandle(&yuv, nullptr, &coef), KIVCAM_TRUE);
  uint8_t uyvy[4] = {128, 100, 200, 100};  // U, Y0, V, Y1: V - 128 = 72
  img = Image(2, 1, uyvy, kYUV422_8_UYVY);
  ASSERT_EQ(lib_.KIVCAM_ColorConvExec(yuv, &img, dst.data()), KIVCAM_TRUE);
  EXPECT_EQ(dst[0], 100);  // B = Y
  EXPECT_EQ(dst[1], 100);  // G = Y
  EXPECT_EQ(dst[2], 244);  // R = Y + 2 * 72
}

// The header arithmetic is the engine's; here: each handle's own form, and
// which refusal becomes which code.
TEST_F(ConvApiTest, BitmapHeadersOfHandlesAndOfMonoImages) {
  KIVCAM_CONVMODE mode24{0, 0, 1, 0, 0};
  HCTBL h24 = Create(&mode24), h32 = Create();
  uint8_t src[1] = {};
  KIVCAM_IMAGEDESC img = Image(5, 3, src, kBayerRG8);
  KIVCAM_BITMAPINFO info;
  ASSERT_EQ(lib_.KIVCAM_ColorConvSetBMPINFO(h24, &img, &info), KIVCAM_TRUE);
  EXPECT_EQ(info.bmiHeader.biBitCount, 24);
  EXPECT_EQ(info.bmiHeader.biSizeImage, 16u * 3);
  ASSERT_EQ(lib_.KIVCAM_ColorConvGetBMPINFO(h32, &img, &info), KIVCAM_TRUE);
  EXPECT_EQ(info.bmiHeader.biBitCount, 32);
  KIVCAM_IMAGEDESC unsupported = Image(5, 3, src, kUnsupported);
  EXPECT_EQ(Err(lib_.KIVCAM_ColorConvSetBMPINFO(h24, &unsupported, &info)), KIVCAM_ERR_FORMAT);

  KIVCAM_BITMAPINFO_GRAY grey;
  KIVCAM_IMAGEDESC mono = Image(5, 3, src, kMono8);
  ASSERT_EQ(lib_.KIVCAM_MonoBMPINFO(&mono, &grey), KIVCAM_TRUE);
  EXPECT_EQ(grey.bmiHeader.biBitCount, 8);
  EXPECT_EQ(grey.bmiColors[200].rgbRed, 200);
  EXPECT_EQ(Err(lib_.KIVCAM_MonoBMPINFO(&img, &grey)), KIVCAM_ERR_FORMAT);  // colour format
  EXPECT_EQ(Err(lib_.KIVCAM_MonoBMPINFO(&unsupported, &grey)), KIVCAM_ERR_PARAM);  // unknown: 1, not 21
}

// The OpenMP team outlives a parallel conversion; unloading the library must
// leave it intact, and a library loaded again converts on it.
TEST_F(ConvApiTest, ParallelConversionSurvivesUnloadAndReload) {
  KIVCAM_CONVMODE parallel{0, 0, 0, 1, 1};
  std::vector<uint8_t> src(256 * 256, 7), dst(256 * 256 * 4);
  KIVCAM_IMAGEDESC img = Image(256, 256, src.data(), kBayerRG8);
  HCTBL h = Create(&parallel);
  ASSERT_EQ(lib_.KIVCAM_ColorConvExec(h, &img, dst.data()), KIVCAM_TRUE);
  ASSERT_TRUE(lib_.Unload());
  KivCamLibrary again;
  HCTBL h2 = nullptr;
  ASSERT_EQ(again.KIVCAM_CreateConvHandle(&h2, &parallel, nullptr), KIVCAM_TRUE);
  std::fill(dst.begin(), dst.end(), 0);
  ASSERT_EQ(again.KIVCAM_ColorConvExec(h2, &img, dst.data()), KIVCAM_TRUE);
  EXPECT_EQ(dst[4 * (128 * 256 + 128)], 7);  // a uniform mosaic gives uniform grey
}

class ConvApiLogTest : public ConvApiTest {
 protected:
  void SetUp() override {
    ConvApiTest::SetUp();
    ASSERT_TRUE(log_.Open());
    log_.Take();
  }
  void TearDown() override { log_.SetLevel(0); }
  // The lines of the exports (the library's callback thread starts on its own time).
  std::vector<std::string> Lines() {
    std::vector<std::string> out;
    for (auto& l : log_.Take()) {
      if (l.find("UserCallBack_Thread") == std::string::npos) out.push_back(l);
    }
    return out;
  }
  kivcam::diag::LogReader log_;
};

TEST_F(ConvApiLogTest, ExecLogsOnlyWhenVerboseAndRefusedCloseWritesNoErrorLine) {
  HCTBL h = Create();
  uint8_t src[4] = {};
  uint8_t dst[16];
  KIVCAM_IMAGEDESC img = Image(2, 2, src, kMono8);
  log_.SetLevel(1);
  ASSERT_EQ(lib_.KIVCAM_ColorConvExec(h, &img, dst), KIVCAM_TRUE);
  EXPECT_TRUE(Lines().empty());
  log_.SetLevel(2);
  ASSERT_EQ(lib_.KIVCAM_ColorConvExec(h, &img, dst), KIVCAM_TRUE);
  auto lines = Lines();
  ASSERT_EQ(lines.size(), 2u);
  char handle[32];
  std::snprintf(handle, sizeof handle, "HCTBL=0x%016llX, ",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(h)));
  EXPECT_NE(lines[0].find(std::string("KIVCAM_ColorConvExec         Start ") + handle), std::string::npos);
  EXPECT_NE(lines[1].find(std::string("KIVCAM_ColorConvExec         End   ") + handle), std::string::npos);

  log_.SetLevel(1);
  int foreign = 0;
  lib_.KIVCAM_CloseConvHandle(reinterpret_cast<HCTBL>(&foreign));
  lines = Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("KIVCAM_CloseConvHandle       Start HCTBL="), std::string::npos);
  EXPECT_NE(lines[1].find("KIVCAM_CloseConvHandle       End   HCTBL="), std::string::npos);
}

}  // namespace
