#include "pixfmt.h"

#include <map>
#include <mutex>
#include <tuple>

namespace kivsim {

namespace {
// Layout families of the source data, numbered as the library's converters number them.
enum Kind : uint32_t {
  kMono8 = 0, kYuv411 = 1, kUyvy = 2, kYuv444 = 3, kRgb8 = 4, kMono16 = 5, kRgb16 = 6,
  kBayer8 = 9, kBayer16 = 10, kMono12Packed = 11, kBayer12Packed = 12, kMono10Packed = 13,
  kBayer10Packed = 14, kBgr8 = 15, kBgr16 = 16, kRgba8 = 17, kBgra8 = 18, kRgb10V1 = 19,
  kRgb10p32 = 20, kRgb12V1 = 21, kRgb565 = 22, kBgr565 = 23, kYuyv = 24, kYcbcr8 = 25,
  kYcbcr422 = 26
};

const std::vector<PixelFormatInfo> kFormats = {
    {0x01080001, "Mono8", kMono8, 0, 8, 1},
    {0x01080008, "BayerGR8", kBayer8, 2, 8, 10},
    {0x01080009, "BayerRG8", kBayer8, 0, 8, 11},
    {0x0108000A, "BayerGB8", kBayer8, 1, 8, 12},
    {0x0108000B, "BayerBG8", kBayer8, 3, 8, 13},
    {0x010C0004, "Mono10Packed", kMono10Packed, 0, 10, 0},
    {0x010C0006, "Mono12Packed", kMono12Packed, 0, 12, 6},
    {0x010C0026, "BayerGR10Packed", kBayer10Packed, 2, 10, 0},
    {0x010C0027, "BayerRG10Packed", kBayer10Packed, 0, 10, 0},
    {0x010C0028, "BayerGB10Packed", kBayer10Packed, 1, 10, 0},
    {0x010C0029, "BayerBG10Packed", kBayer10Packed, 3, 10, 0},
    {0x010C002A, "BayerGR12Packed", kBayer12Packed, 2, 12, 19},
    {0x010C002B, "BayerRG12Packed", kBayer12Packed, 0, 12, 21},
    {0x010C002C, "BayerGB12Packed", kBayer12Packed, 1, 12, 23},
    {0x010C002D, "BayerBG12Packed", kBayer12Packed, 3, 12, 25},
    {0x010C003A, "Mono10PackedB", kMono10Packed, 0, 10, 0},
    {0x010C003B, "Mono12PackedB", kMono12Packed, 0, 12, 0},
    {0x010C003C, "BayerGR10PackedB", kBayer10Packed, 2, 10, 0},
    {0x010C003D, "BayerRG10PackedB", kBayer10Packed, 0, 10, 0},
    {0x010C003E, "BayerGB10PackedB", kBayer10Packed, 1, 10, 0},
    {0x010C003F, "BayerBG10PackedB", kBayer10Packed, 3, 10, 0},
    {0x010C0040, "BayerGR12PackedB", kBayer12Packed, 2, 12, 0},
    {0x010C0041, "BayerRG12PackedB", kBayer12Packed, 0, 12, 0},
    {0x010C0042, "BayerGB12PackedB", kBayer12Packed, 1, 12, 0},
    {0x010C0043, "BayerBG12PackedB", kBayer12Packed, 3, 12, 0},
    {0x010C0046, "Mono10PackedC", kMono10Packed, 0, 10, 0},
    {0x010C0047, "Mono12p", kMono12Packed, 0, 12, 0},
    {0x010C0052, "BayerBG10PackedC", kBayer10Packed, 3, 10, 0},
    {0x010C0053, "BayerBG12p", kBayer12Packed, 3, 12, 0},
    {0x010C0054, "BayerGB10PackedC", kBayer10Packed, 1, 10, 0},
    {0x010C0055, "BayerGB12p", kBayer12Packed, 1, 12, 0},
    {0x010C0056, "BayerGR10PackedC", kBayer10Packed, 2, 10, 0},
    {0x010C0057, "BayerGR12p", kBayer12Packed, 2, 12, 0},
    {0x010C0058, "BayerRG10PackedC", kBayer10Packed, 0, 10, 0},
    {0x010C0059, "BayerRG12p", kBayer12Packed, 0, 12, 0},
    {0x01100003, "Mono10", kMono16, 0, 10, 0},
    {0x01100005, "Mono12", kMono16, 0, 12, 5},
    {0x01100007, "Mono16", kMono16, 0, 16, 0},
    {0x0110000C, "BayerGR10", kBayer16, 2, 10, 0},
    {0x0110000D, "BayerRG10", kBayer16, 0, 10, 0},
    {0x0110000E, "BayerGB10", kBayer16, 1, 10, 0},
    {0x0110000F, "BayerBG10", kBayer16, 3, 10, 0},
    {0x01100010, "BayerGR12", kBayer16, 2, 12, 18},
    {0x01100011, "BayerRG12", kBayer16, 0, 12, 20},
    {0x01100012, "BayerGB12", kBayer16, 1, 12, 22},
    {0x01100013, "BayerBG12", kBayer16, 3, 12, 24},
    {0x0110002E, "BayerGR16", kBayer16, 2, 16, 0},
    {0x0110002F, "BayerRG16", kBayer16, 0, 16, 0},
    {0x01100030, "BayerGB16", kBayer16, 1, 16, 0},
    {0x01100031, "BayerBG16", kBayer16, 3, 16, 0},
    {0x020C001E, "YUV411_8_UYYVYY", kYuv411, 0, 12, 0},
    {0x020C005A, "YCbCr411_8", kYuv411, 0, 12, 0},
    {0x0210001F, "YUV422_8_UYVY", kUyvy, 0, 16, 0},
    {0x02100032, "YUV422_8", kYuyv, 0, 16, 44},
    {0x02100035, "RGB565p", kRgb565, 0, 16, 0},
    {0x02100036, "BGR565p", kBgr565, 0, 16, 0},
    {0x0210003B, "YCbCr422_8", kYcbcr422, 0, 16, 0},
    {0x02180014, "RGB8", kRgb8, 0, 24, 0},
    {0x02180015, "BGR8", kBgr8, 0, 24, 0},
    {0x02180016, "RGBa8", kRgba8, 0, 32, 0},
    {0x02180017, "BGRa8", kBgra8, 0, 32, 0},
    {0x02180020, "YUV8_UYV", kYuv444, 0, 24, 0},
    {0x0218005B, "YCbCr8", kYcbcr8, 0, 24, 0},
    {0x0220001C, "RGB10V1Packed", kRgb10V1, 0, 30, 0},
    {0x0220001D, "RGB10p32", kRgb10p32, 0, 30, 0},
    {0x02200044, "RGB10V1PackedB", kRgb10V1, 0, 30, 0},
    {0x02240034, "RGB12V1Packed", kRgb12V1, 0, 36, 0},
    {0x02240045, "RGB12V1PackedB", kRgb12V1, 0, 36, 0},
    {0x02300018, "RGB10", kRgb16, 0, 30, 0},
    {0x02300019, "BGR10", kBgr16, 0, 30, 0},
    {0x0230001A, "RGB12", kRgb16, 0, 36, 0},
    {0x0230001B, "BGR12", kBgr16, 0, 36, 0},
    {0x02300033, "RGB16", kRgb16, 0, 48, 0},
};

// Colour component sampled by a Bayer site: 0 red, 1 green, 2 blue.
uint32_t BayerComponent(uint32_t phase, uint32_t x, uint32_t y) {
  static const uint32_t cells[4][4] = {{0, 1, 1, 2}, {1, 2, 0, 1}, {1, 0, 2, 1}, {2, 1, 1, 0}};
  return cells[phase & 3][(y & 1) * 2 + (x & 1)];
}

void Put16(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

// Two samples of `bits` (10 or 12) in three bytes: high bytes first and last, low bits in the middle.
void Pack2(uint8_t* p, uint32_t a, uint32_t b, uint32_t bits, bool second) {
  uint32_t lo = bits - 8, mask = (1u << lo) - 1;
  p[0] = static_cast<uint8_t>(a >> lo);
  if (!second) {
    p[1] = static_cast<uint8_t>(a & mask);
    return;
  }
  p[1] = static_cast<uint8_t>((a & mask) | ((b & mask) << 4));
  p[2] = static_cast<uint8_t>(b >> lo);
}

void RenderRow(const PixelFormatInfo& f, uint32_t w, uint32_t y, uint8_t* row) {
  const uint64_t fr = 0;  // rendered at frame 0; frames are offsets into the tall image
  auto v8 = [&](uint32_t x, uint32_t c) { return static_cast<uint8_t>(PatternValue8(x, y, fr, c)); };
  auto s = [&](uint32_t x, uint32_t c, uint32_t bits) { return PatternSample(x, y, fr, c, bits); };
  uint32_t cbits = f.bits;  // bits per colour sample
  if (f.bits == 30) cbits = 10;
  if (f.bits == 36) cbits = 12;
  if (f.bits == 48) cbits = 16;
  switch (f.kind) {
    case kMono8:
      for (uint32_t x = 0; x < w; ++x) row[x] = v8(x, 0);
      break;
    case kBayer8:
      for (uint32_t x = 0; x < w; ++x) row[x] = v8(x, BayerComponent(f.phase, x, y));
      break;
    case kMono16:
      for (uint32_t x = 0; x < w; ++x) Put16(row + 2 * x, s(x, 0, cbits));
      break;
    case kBayer16:
      for (uint32_t x = 0; x < w; ++x) Put16(row + 2 * x, s(x, BayerComponent(f.phase, x, y), cbits));
      break;
    case kMono10Packed:
    case kMono12Packed:
    case kBayer10Packed:
    case kBayer12Packed: {
      bool bayer = f.kind == kBayer10Packed || f.kind == kBayer12Packed;
      for (uint32_t x = 0; x < w; x += 2) {
        uint32_t a = s(x, bayer ? BayerComponent(f.phase, x, y) : 0, cbits);
        bool second = x + 1 < w;
        uint32_t b = second ? s(x + 1, bayer ? BayerComponent(f.phase, x + 1, y) : 0, cbits) : 0;
        Pack2(row + 3 * (x / 2), a, b, cbits, second);
      }
      break;
    }
    case kRgb8:
    case kBgr8:
    case kRgba8:
    case kBgra8: {
      bool bgr = f.kind == kBgr8 || f.kind == kBgra8;
      uint32_t step = (f.kind == kRgba8 || f.kind == kBgra8) ? 4 : 3;
      for (uint32_t x = 0; x < w; ++x) {
        uint8_t* p = row + step * x;
        p[bgr ? 2 : 0] = v8(x, 0);
        p[1] = v8(x, 1);
        p[bgr ? 0 : 2] = v8(x, 2);
        if (step == 4) p[3] = 0xFF;
      }
      break;
    }
    case kRgb16:
    case kBgr16: {
      bool bgr = f.kind == kBgr16;
      for (uint32_t x = 0; x < w; ++x) {
        uint8_t* p = row + 6 * x;
        Put16(p + (bgr ? 4 : 0), s(x, 0, cbits));
        Put16(p + 2, s(x, 1, cbits));
        Put16(p + (bgr ? 0 : 4), s(x, 2, cbits));
      }
      break;
    }
    case kRgb10V1:
      for (uint32_t x = 0; x < w; ++x) {
        uint32_t r = s(x, 0, 10), g = s(x, 1, 10), b = s(x, 2, 10);
        uint8_t* p = row + 4 * x;
        p[0] = static_cast<uint8_t>((b & 3) | ((g & 3) << 2) | ((r & 3) << 4));
        p[1] = static_cast<uint8_t>(b >> 2);
        p[2] = static_cast<uint8_t>(g >> 2);
        p[3] = static_cast<uint8_t>(r >> 2);
      }
      break;
    case kRgb10p32:
      for (uint32_t x = 0; x < w; ++x) {
        uint32_t d = (s(x, 0, 10) << 20) | (s(x, 1, 10) << 10) | s(x, 2, 10);
        Put16(row + 4 * x, d & 0xFFFF);
        Put16(row + 4 * x + 2, d >> 16);
      }
      break;
    case kRgb12V1:
      for (uint32_t x = 0; x < w; x += 2) {
        uint8_t* p = row + 9 * (x / 2);
        uint32_t r0 = s(x, 0, 12), g0 = s(x, 1, 12), b0 = s(x, 2, 12);
        p[0] = static_cast<uint8_t>(r0 >> 4);
        p[1] = static_cast<uint8_t>((r0 & 0xF) | ((g0 & 0xF) << 4));
        p[2] = static_cast<uint8_t>(g0 >> 4);
        p[3] = static_cast<uint8_t>(b0 >> 4);
        if (x + 1 >= w) {
          p[4] = static_cast<uint8_t>(b0 & 0xF);
          break;
        }
        uint32_t r1 = s(x + 1, 0, 12), g1 = s(x + 1, 1, 12), b1 = s(x + 1, 2, 12);
        p[4] = static_cast<uint8_t>((b0 & 0xF) | ((r1 & 0xF) << 4));
        p[5] = static_cast<uint8_t>(r1 >> 4);
        p[6] = static_cast<uint8_t>(g1 >> 4);
        p[7] = static_cast<uint8_t>((g1 & 0xF) | ((b1 & 0xF) << 4));
        p[8] = static_cast<uint8_t>(b1 >> 4);
      }
      break;
    case kRgb565:
    case kBgr565:
      for (uint32_t x = 0; x < w; ++x) {
        uint32_t r = v8(x, 0) >> 3, g = v8(x, 1) >> 2, b = v8(x, 2) >> 3;
        uint32_t h = f.kind == kRgb565 ? (r | (g << 5) | (b << 11)) : (b | (g << 5) | (r << 11));
        Put16(row + 2 * x, h);
      }
      break;
    case kYuv444:
    case kYcbcr8:
      for (uint32_t x = 0; x < w; ++x) {
        uint8_t* p = row + 3 * x;
        if (f.kind == kYuv444) {
          p[0] = v8(x, 1), p[1] = v8(x, 0), p[2] = v8(x, 2);  // U Y V
        } else {
          p[0] = v8(x, 0), p[1] = v8(x, 2), p[2] = v8(x, 1);  // Y, V-role byte, U-role byte
        }
      }
      break;
    case kUyvy:
    case kYuyv:
    case kYcbcr422:
      // Chroma of a pair is the value at its even pixel.
      for (uint32_t x = 0; x < w; x += 2) {
        uint8_t* p = row + 2 * x;
        uint8_t y0 = v8(x, 0), y1 = x + 1 < w ? v8(x + 1, 0) : 0, u = v8(x, 1), v = v8(x, 2);
        uint8_t q[4];
        if (f.kind == kUyvy) q[0] = u, q[1] = y0, q[2] = v, q[3] = y1;
        else if (f.kind == kYuyv) q[0] = y0, q[1] = u, q[2] = y1, q[3] = v;
        else q[0] = y0, q[1] = v, q[2] = y1, q[3] = u;
        for (uint32_t i = 0; i < (x + 1 < w ? 4u : 2u); ++i) p[i] = q[i];
      }
      break;
    case kYuv411:
      // Chroma of a group of four is the value at its first pixel.
      for (uint32_t x = 0; x < w; x += 4) {
        uint8_t* p = row + 6 * (x / 4);
        uint8_t q[6] = {v8(x, 1), v8(x, 0), 0, v8(x, 2), 0, 0};
        uint32_t n = w - x < 4 ? w - x : 4;
        if (n > 1) q[2] = v8(x + 1, 0);
        if (n > 2) q[4] = v8(x + 2, 0);
        if (n > 3) q[5] = v8(x + 3, 0);
        size_t bytes = RowBytes(f, x + n) - RowBytes(f, x);
        for (size_t i = 0; i < bytes && i < 6; ++i) p[i] = q[i];
      }
      break;
    default:
      break;
  }
}
}  // namespace

const std::vector<PixelFormatInfo>& AllPixelFormats() { return kFormats; }

const PixelFormatInfo* FindPixelFormat(uint32_t code) {
  for (const auto& f : kFormats)
    if (f.code == code) return &f;
  return nullptr;
}
const PixelFormatInfo* FindPixelFormatByName(const std::string& name) {
  for (const auto& f : kFormats)
    if (name == f.name) return &f;
  return nullptr;
}
const PixelFormatInfo* FindPixelFormatByLegacy(uint32_t legacy) {
  for (const auto& f : kFormats)
    if (f.legacy != 0 && f.legacy == legacy) return &f;
  return nullptr;
}

bool IsBayer(const PixelFormatInfo& f) {
  return f.kind == kBayer8 || f.kind == kBayer16 || f.kind == kBayer10Packed || f.kind == kBayer12Packed;
}
bool IsMono(const PixelFormatInfo& f) {
  return f.kind == kMono8 || f.kind == kMono16 || f.kind == kMono10Packed || f.kind == kMono12Packed;
}

size_t RowBytes(const PixelFormatInfo& f, uint32_t w) {
  size_t W = w;
  switch (f.kind) {
    case kMono8: case kBayer8: return W;
    case kYuv411: return (6 * W + 3) / 4;
    case kMono10Packed: case kMono12Packed: case kBayer10Packed: case kBayer12Packed: return (3 * W + 1) / 2;
    case kRgb12V1: return (9 * W + 1) / 2;
    case kYuv444: case kRgb8: case kBgr8: case kYcbcr8: return 3 * W;
    case kRgba8: case kBgra8: case kRgb10V1: case kRgb10p32: return 4 * W;
    case kRgb16: case kBgr16: return 6 * W;
    default: return 2 * W;  // 16-bit samples, 565, 4:2:2
  }
}

PatternImage::PatternImage(const PixelFormatInfo& f, uint32_t w, uint32_t h)
    : row_(RowBytes(f, w)), payload_(RowBytes(f, w) * h), data_(RowBytes(f, w) * (size_t(h) + 254)) {
  for (uint32_t y = 0; y < h + 254; ++y) RenderRow(f, w, y, data_.data() + row_ * y);
}

std::shared_ptr<const PatternImage> GetPattern(uint32_t code, uint32_t w, uint32_t h) {
  static std::mutex m;
  static std::map<std::tuple<uint32_t, uint32_t, uint32_t>, std::shared_ptr<const PatternImage>> cache;
  const PixelFormatInfo* f = FindPixelFormat(code);
  if (!f || w == 0 || h == 0) return nullptr;
  std::lock_guard<std::mutex> lock(m);
  auto key = std::make_tuple(code, w, h);
  auto it = cache.find(key);
  if (it != cache.end()) return it->second;
  // Keep the cache small: a camera rarely switches among more than a few geometries.
  if (cache.size() >= 16) cache.clear();
  auto img = std::make_shared<const PatternImage>(*f, w, h);
  cache.emplace(key, img);
  return img;
}

}  // namespace kivsim
