// Pixel-format table, bitmap headers and the engine's own state: YUV table,
// shift rules, mode checks and request checks.
#include <gtest/gtest.h>

#include "conv/pixel_format.h"
#include "helpers.h"

namespace kivcam::conv::test {
namespace {

// Every format of the table converts: every colour byte of the bitmap is
// written, whatever the destination held before.
TEST(PixelFormat, EveryFormatWritesTheWholeBitmap) {
  uint32_t n = 0;
  const PixelFormatEntry* t = PixelFormatTable(&n);
  ASSERT_GT(n, 0u);
  for (uint32_t i = 0; i < n; ++i) {
    const auto src = RandomBytes(4 * 3 * 6, i);
    Dst a(4, 3, 1, 0x00), b(4, 3, 1, 0xFF);
    CConv conv(Mode(0, 1));
    const ImageDesc img{4, 3, src.data(), 0, t[i].code, 1};
    ASSERT_EQ(kConvOk, conv.Exec(img, a.buf.get()));
    ASSERT_EQ(kConvOk, conv.Exec(img, b.buf.get()));
    EXPECT_EQ(a.Pixels(), b.Pixels()) << std::hex << t[i].code;
  }
}

TEST(PixelFormat, UnknownAndLegacyCodes) {
  uint32_t phase = 7, bits = 1234;
  EXPECT_EQ(KIND_UNSUPPORTED, PixelFormatToConvKind(0x02200016, &phase, &bits));  // PFNC RGBa8
  EXPECT_EQ(0u, phase);
  EXPECT_EQ(1234u, bits);
  EXPECT_EQ(17u, PixelFormatToConvKind(0x02180016, &phase, &bits));
  EXPECT_EQ(3u, (PixelFormatToConvKind(0x010C0052, &phase, &bits), phase));
  EXPECT_EQ(10u, bits);
  EXPECT_EQ(24u, PixelFormatToConvKind(TranslateLegacyPixelFormat(44), &phase, &bits));
  EXPECT_EQ(0x010C002Du, TranslateLegacyPixelFormat(25));
  EXPECT_EQ(7u, TranslateLegacyPixelFormat(7));
  EXPECT_EQ(0x01000001u, TranslateLegacyPixelFormat(0x01000001));
}

BitmapInfoHeader Header(const std::vector<uint8_t>& block) {
  BitmapInfoHeader h;
  std::memcpy(&h, block.data(), sizeof h);
  return h;
}

TEST(BitmapInfo, SizeProtocolAndForms) {
  std::vector<uint8_t> block(2000, 0xEE);
  uint32_t size = 0;
  EXPECT_EQ(kConvOk, CameraBmpInfo(nullptr, &size, true, KIND_MONO16, 5, 2, true, 1));
  EXPECT_EQ(1064u, size);
  size = 0;
  EXPECT_EQ(kConvOk, CameraBmpInfo(nullptr, &size, false, KIND_MONO8, 5, 2, true, 1));
  EXPECT_EQ(44u, size);
  size = 43;
  EXPECT_EQ(kConvBufferSmall, CameraBmpInfo(block.data(), &size, false, KIND_BAYER8, 5, 2, true, 1));
  EXPECT_EQ(43u, size);
  EXPECT_EQ(0xEE, block[0]);
  EXPECT_EQ(kConvUnsupported, CameraBmpInfo(block.data(), &size, false, KIND_UNSUPPORTED, 5, 2, true, 1));

  size = 2000;  // 24-bit colour: rows of 16 bytes for width 5
  ASSERT_EQ(kConvOk, CameraBmpInfo(block.data(), &size, true, KIND_BAYER8, 5, 3, true, 1));
  EXPECT_EQ(44u, size);
  BitmapInfoHeader h = Header(block);
  EXPECT_EQ(40u, h.biSize);
  EXPECT_EQ(5, h.biWidth);
  EXPECT_EQ(3, h.biHeight);
  EXPECT_EQ(1, h.biPlanes);
  EXPECT_EQ(24, h.biBitCount);
  EXPECT_EQ(16u * 3, h.biSizeImage);
  EXPECT_EQ(0u, h.biClrUsed);
  EXPECT_EQ(std::vector<uint8_t>(4, 0), std::vector<uint8_t>(block.begin() + 40, block.begin() + 44));
  EXPECT_EQ(0xEE, block[44]);

  // Without an engine a camera describes 32-bit pixels.
  ASSERT_EQ(kConvOk, CameraBmpInfo(block.data(), &size, false, KIND_RGB8, 5, 3, false, 1));
  EXPECT_EQ(32, Header(block).biBitCount);
  EXPECT_EQ(5u * 3 * 4, Header(block).biSizeImage);

  size = 1064;  // grey, camera-bound: padded rows
  ASSERT_EQ(kConvOk, CameraBmpInfo(block.data(), &size, true, KIND_MONO12_PACKED, 5, 3, true, 0));
  h = Header(block);
  EXPECT_EQ(8, h.biBitCount);
  EXPECT_EQ(8u * 3, h.biSizeImage);
  EXPECT_EQ(256u, h.biClrUsed);
  for (int i : {0, 1, 128, 255}) {
    EXPECT_EQ((std::vector<uint8_t>{uint8_t(i), uint8_t(i), uint8_t(i), 0}),
              std::vector<uint8_t>(block.begin() + 40 + 4 * i, block.begin() + 44 + 4 * i));
  }
  EXPECT_EQ(0xEE, block[1064]);
}

TEST(BitmapInfo, HandleAndMonoForms) {
  std::vector<uint8_t> block(1100, 0xEE);
  CConv c24(Mode(0, 1));
  ImageDesc img{5, 3, nullptr, 0, 0x01080001, 1};
  EXPECT_EQ(kConvOk, HandleBmpInfo(c24, img, block.data()));
  EXPECT_EQ(24, Header(block).biBitCount);
  EXPECT_EQ(48u, Header(block).biSizeImage);
  EXPECT_EQ(0xEE, block[44]);
  EXPECT_EQ(kConvOk, MonoBmpInfo(img, block.data()));
  EXPECT_EQ(15u, Header(block).biSizeImage);  // unpadded rows
  EXPECT_EQ(0xEE, block[1064]);
  img.byteOrder = 2;
  EXPECT_EQ(kConvBadArg, HandleBmpInfo(c24, img, block.data()));
  EXPECT_EQ(kConvBadArg, MonoBmpInfo(img, block.data()));
  img.byteOrder = 0;
  img.pixelFormat = 0x02200016;
  EXPECT_EQ(kConvUnsupported, HandleBmpInfo(c24, img, block.data()));
  EXPECT_EQ(kConvBadArg, MonoBmpInfo(img, block.data()));
  img.pixelFormat = 0x02180014;
  EXPECT_EQ(kConvUnsupported, MonoBmpInfo(img, block.data()));
}

TEST(Engine, YuvTableEntries) {
  CConv def;
  const int32_t* t = def.YuvTable();
  EXPECT_EQ(-179, t[0]);
  EXPECT_EQ(178, t[255]);
  EXPECT_EQ(0, t[3 * 256 + 128]);
  EXPECT_EQ(-226, t[3 * 256]);
  CConv two(kDefaultHandleMode, YuvCoef{{2.0, 0, 0, 0}});
  t = two.YuvTable();
  EXPECT_EQ(-256, t[0]);
  EXPECT_EQ(254, t[255]);
  EXPECT_EQ(0, t[256 + 255]);
  EXPECT_EQ(t, two.YuvTable());  // built once
}

TEST(Engine, ShiftRulesAndModeChecks) {
  struct Case { uint32_t kind, bits; int32_t want; };
  for (auto c : {Case{KIND_MONO16, 12, 4}, Case{KIND_RGB16, 30, 2}, Case{KIND_BAYER16, 16, 8},
                 Case{KIND_BGR16, 36, 4}}) {
    CConv cam(kDefaultCameraMode);
    cam.ResolveShift(c.kind, c.bits);
    EXPECT_EQ(c.want, cam.Shift()) << c.kind;
  }
  CConv fixed(Mode(0, 0, 3));
  fixed.ResolveShift(KIND_MONO16, 12);
  EXPECT_EQ(3, fixed.Shift());
  EXPECT_FALSE(IsValidConvMode(Mode(0, 0, 9), true));
  EXPECT_FALSE(IsValidConvMode(Mode(0, 0, uint32_t(-2)), true));
  EXPECT_TRUE(IsValidConvMode(Mode(0, 0, uint32_t(-1)), true));
  EXPECT_FALSE(IsValidConvMode(Mode(0, 0, uint32_t(-1)), false));
  EXPECT_FALSE(IsValidConvMode(Mode(4, 0), false));
  EXPECT_FALSE(IsValidConvMode(Mode(0, 2), false));
  EXPECT_TRUE(IsValidConvMode(ConvMode{3, 8, 1, 7, 9}, false));
}

TEST(Engine, ExecChecksTheDescription) {
  const uint8_t px[16] = {};
  Dst d(2, 2, 0);
  CConv conv;
  EXPECT_EQ(kConvBadArg, conv.Exec(ImageDesc{2, 2, px, 0, 0x02200016, 1}, d.buf.get()));
  EXPECT_EQ(kConvBadArg, conv.Exec(ImageDesc{2, 2, px, 0, 0x01080001, 2}, d.buf.get()));
  EXPECT_EQ(kConvBadArg, conv.Exec(ImageDesc{2, 2, nullptr, 0, 0x01080001, 1}, d.buf.get()));
  EXPECT_EQ(kConvBadArg, conv.Exec(ImageDesc{2, 2, px, 0, 0x01080001, 1}, nullptr));
  EXPECT_EQ(kConvOk, conv.Exec(ImageDesc{2, 0, px, 0, 0x01080009, 1}, d.buf.get()));
  EXPECT_TRUE(d.Pixels() == std::vector<uint8_t>(12, kCanary));
  // Big-endian flag reaches the converter: 0x0F 0xFF read as 0x0FFF.
  CConv shift4(Mode(0, 0, 4));
  const uint8_t be[2] = {0x0F, 0xFF};
  Dst one(1, 1, 0);
  EXPECT_EQ(kConvOk, shift4.Exec(ImageDesc{1, 1, be, 0, 0x01100005, 0}, one.buf.get()));
  EXPECT_EQ(255, one.Ch(0, 0, 1));
}

}  // namespace
}  // namespace kivcam::conv::test
