// Line converters: the decoding examples, incomplete last groups, geometry,
// untouched bytes and the serial/parallel equality for every kind.
#include <gtest/gtest.h>

#include <array>

#include "conv/pixel_format.h"
#include "helpers.h"

namespace kivcam::conv::test {
namespace {

using Bgr = std::array<int, 3>;

Bgr PixelOf(const Dst& d, uint32_t x, uint32_t y = 0) { return {d.Ch(x, y, 0), d.Ch(x, y, 1), d.Ch(x, y, 2)}; }

// Converts one row of bytes with default settings and returns its pixels.
std::vector<Bgr> Row(uint32_t kind, std::vector<uint8_t> bytes, uint32_t w, uint32_t out = 0,
                     uint32_t shift = 0, uint32_t littleEndian = 1) {
  Dst d(w, 1, out);
  EXPECT_EQ(kConvOk, ConvertInto(d, bytes.data(), kind, 0, Mode(0, out, shift), 0, littleEndian));
  EXPECT_TRUE(d.UntouchedOk());
  std::vector<Bgr> v;
  for (uint32_t x = 0; x < w; ++x) v.push_back(PixelOf(d, x));
  return v;
}

Bgr Grey(int v) { return {v, v, v}; }

TEST(Line, KnownSamplesDecodeToKnownPixels) {
  EXPECT_EQ((std::vector<Bgr>{Grey(200), Grey(50)}), Row(KIND_YUV422_UYVY, {128, 200, 128, 50}, 2));
  EXPECT_EQ((std::vector<Bgr>{{100, 29, 240}}), Row(KIND_YUV444, {128, 100, 228}, 1));
  EXPECT_EQ(255, Row(KIND_YUV444, {128, 250, 255}, 1)[0][2]);
  EXPECT_EQ(0, Row(KIND_YUV444, {255, 10, 128}, 1)[0][1] + Row(KIND_YUV444, {0, 10, 128}, 1)[0][0]);
  EXPECT_EQ(Grey(255), Row(KIND_MONO16, {0xFF, 0x0F}, 1, 0, 4)[0]);
  EXPECT_EQ(Grey(255), Row(KIND_MONO16, {0x0F, 0xFF}, 1, 0, 4, 0)[0]);
  EXPECT_EQ(Grey(0x23), Row(KIND_MONO16, {0x34, 0x12}, 1, 1, 4)[0]);  // wraps, no clamp
  EXPECT_EQ(Grey(255), Row(KIND_RGB10P32, {0xFF, 0xFF, 0xFF, 0x3F}, 1)[0]);
  EXPECT_EQ((Bgr{0x12, 0x34, 0x56}), Row(KIND_RGB10P32, {0x48, 0x40, 0x83, 0x15}, 1)[0]);
  EXPECT_EQ((Bgr{31, 63, 31}), Row(KIND_RGB565, {0xFF, 0xFF}, 1)[0]);
  EXPECT_EQ((Bgr{0x10, 0x21, 0x03}), Row(KIND_RGB565, {0x23, 0x84}, 1)[0]);  // R low, B high
  EXPECT_EQ((Bgr{0x03, 0x21, 0x10}), Row(KIND_BGR565, {0x23, 0x84}, 1)[0]);
  EXPECT_EQ((std::vector<Bgr>{Grey(0xAB), Grey(0xEF), Grey(0x11)}),
            Row(KIND_MONO12_PACKED, {0xAB, 0xCD, 0xEF, 0x11, 0x22}, 3));
  EXPECT_EQ((Bgr{3, 2, 1}), Row(KIND_RGB8, {1, 2, 3}, 1)[0]);
  EXPECT_EQ((Bgr{1, 2, 3}), Row(KIND_BGRA8, {1, 2, 3, 4}, 1)[0]);
  EXPECT_EQ((Bgr{2, 3, 4}), Row(KIND_RGB10V1_PACKED, {1, 2, 3, 4}, 1)[0]);
  EXPECT_EQ((Bgr{0x60, 0x40, 0x20}), Row(KIND_RGB16, {0, 0x20, 0, 0x40, 0, 0x60}, 1, 0, 8)[0]);
  for (uint32_t out : {0u, 1u}) {  // odd width: the last pixel takes the first-pixel rule
    EXPECT_EQ((std::vector<Bgr>{{4, 3, 1}, {9, 7, 6}, {13, 12, 10}}),
              Row(KIND_RGB12V1_PACKED, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}, 3, out));
  }
}

TEST(Line, IncompleteChromaGroupsBorrowFromThePreviousGroup) {
  // Grey chroma (128) in the first group, strong chroma in the incomplete one.
  const Bgr uHigh = Row(KIND_YUV444, {255, 100, 128}, 1)[0];
  const Bgr vHigh = Row(KIND_YUV444, {128, 100, 255}, 1)[0];
  const Bgr uHighVLow = Row(KIND_YUV444, {255, 100, 0}, 1)[0];
  EXPECT_EQ(uHigh, Row(KIND_YUV422_UYVY, {128, 1, 128, 1, 255, 100}, 3)[2]);
  EXPECT_EQ(vHigh, Row(KIND_YUV422_YUYV, {1, 128, 1, 255, 100, 128}, 3)[2]);
  EXPECT_EQ(uHigh, Row(KIND_YCBCR422, {1, 128, 1, 255, 100, 128}, 3)[2]);
  const auto six = Row(KIND_YUV411, {1, 1, 1, 128, 1, 1, 255, 100, 100}, 6);
  EXPECT_EQ(uHigh, six[4]);
  EXPECT_EQ(uHigh, six[5]);
  EXPECT_EQ(uHigh, Row(KIND_YUV411, {1, 1, 1, 128, 1, 1, 255, 100}, 5)[4]);
  EXPECT_EQ(uHighVLow, Row(KIND_YUV411, {255, 100, 100, 0, 100}, 3)[2]);
  EXPECT_EQ(uHighVLow, Row(KIND_YCBCR8, {100, 0, 255}, 1)[0]);
  Dst d(1, 1, 0);
  const uint8_t two[6] = {128, 1, 128, 1, 128, 1};
  EXPECT_EQ(kConvBadArg, ConvertInto(d, two, KIND_YUV422_UYVY, 0, Mode(0, 0)));
  Dst d2(2, 1, 0);
  EXPECT_EQ(kConvBadArg, ConvertInto(d2, two, KIND_YUV411, 0, Mode(0, 0)));
}

constexpr uint32_t kLineKinds[] = {0, 1, 2, 3, 4, 5, 6, 11, 13, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26};

// Geometry g must equal the plain conversion with pixels moved, for every
// kind, with the untouched bytes intact and every colour byte written.
TEST(Line, GeometryCanariesAndParallelForEveryKind) {
  ForEachConverterSet([] {
  for (uint32_t kind : kLineKinds) {
    for (auto [w, h] : {std::pair<uint32_t, uint32_t>{7, 5}, {10, 4}, {37, 3}}) {
      const auto src = RandomBytes(SourceRowBytes(kind, w) * h, kind * 31 + w);
      for (uint32_t out : {0u, 1u}) {
        Dst plain(w, h, out), other(w, h, out, 0x3C);
        ASSERT_EQ(kConvOk, ConvertInto(plain, src.data(), kind, 0, Mode(0, out, 2)));
        ASSERT_EQ(kConvOk, ConvertInto(other, src.data(), kind, 0, Mode(0, out, 2)));
        ASSERT_EQ(plain.Pixels(), other.Pixels()) << "kind " << kind << ": a colour byte was not written";
        ASSERT_TRUE(plain.UntouchedOk() && other.UntouchedOk(0x3C)) << kind;
        for (uint32_t geo = 1; geo < 4; ++geo) {
          Dst g(w, h, out);
          ASSERT_EQ(kConvOk, ConvertInto(g, src.data(), kind, 0, Mode(geo, out, 2)));
          for (uint32_t y = 0; y < h; ++y) {
            for (uint32_t x = 0; x < w; ++x) {
              ASSERT_EQ(PixelOf(plain, x, y), PixelOf(g, geo & 1 ? w - 1 - x : x, geo & 2 ? h - 1 - y : y))
                  << "kind " << kind << " geo " << geo;
            }
          }
          for (int threads : {1, 2}) {
            if (geo != 3) continue;  // one geometry is enough to split rows over threads
            Dst par(w, h, out);
            ASSERT_EQ(kConvOk, ConvertInto(par, src.data(), kind, 0, Mode(geo, out, 2, false, true), threads));
            ASSERT_EQ(0, std::memcmp(g.buf.get(), par.buf.get(), g.stride * h)) << kind << " " << threads;
          }
        }
      }
    }
  }
  });
}

// The vectorised loops must give the baseline bytes, for every kind, with
// widths that leave scalar tails of every length after 64-, 32- and 16-pixel
// steps, and for YUV coefficients whose table entries are computed (with and
// without unit high halves), gathered, or beyond 16 bits.
TEST(Line, VectorPathsMatchBaseline) {
  const YuvCoef coefs[] = {kDefaultYuvCoef, {{2.0, 0, 0, 0}}, {{-1.5, 0.3, 3.9, 7.5}}, {{300, 250, 260, 280}}};
  for (uint32_t kind : kLineKinds) {
    for (uint32_t w : {16u, 33u, 50u, 64u, 127u, 185u}) {
      const auto src = RandomBytes(SourceRowBytes(kind, w) * 2, kind + w);
      for (uint32_t geo = 0; geo < 4; ++geo) {
        for (uint32_t out : {0u, 1u}) {
          for (const YuvCoef& coef : coefs) {
            Dst base(w, 2, out);
            LimitConverters(ConvIsa::kBaseline);
            ASSERT_EQ(kConvOk, ConvertInto(base, src.data(), kind, 0, Mode(geo, out, 3), 0, 1, coef));
            for (ConvIsa isa : {ConvIsa::kAvx2, ConvIsa::kAvx512}) {
              Dst fast(w, 2, out);
              LimitConverters(isa);
              ASSERT_EQ(kConvOk, ConvertInto(fast, src.data(), kind, 0, Mode(geo, out, 3), 0, 1, coef));
              ASSERT_EQ(0, std::memcmp(fast.buf.get(), base.buf.get(), fast.stride * 2))
                  << kind << " w " << w << " geo " << geo << " coef " << coef.coef[0] << " isa " << int(isa);
            }
          }
        }
      }
    }
  }
  LimitConverters(ConvIsa::kAvx512);
}

TEST(Line, KindsWithoutConverterWriteNothing) {
  const uint8_t src[64] = {};
  for (uint32_t kind : {7u, 8u, 27u, uint32_t{KIND_UNSUPPORTED}}) {
    Dst d(4, 4, 0);
    EXPECT_EQ(kConvOk, ConvertInto(d, src, kind, 0, Mode(0, 0)));
    EXPECT_EQ(std::vector<uint8_t>(d.Pixels().size(), kCanary), d.Pixels());
  }
}

}  // namespace
}  // namespace kivcam::conv::test
