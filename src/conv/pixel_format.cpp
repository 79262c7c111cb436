#include "conv/pixel_format.h"

#include <iterator>

namespace kivcam::conv {
namespace {

// Sorted by code. The 32-bit RGBA/BGRA kinds answer to the codes with size
// field 0x18, and several 10-bit codes carry size field 0x0C: cameras in the
// field report exactly these values.
constexpr PixelFormatEntry kTable[] = {
    {0x01080001, 0, 0, 8},   {0x01080008, 9, 2, 8},   {0x01080009, 9, 0, 8},
    {0x0108000A, 9, 1, 8},   {0x0108000B, 9, 3, 8},   {0x010C0004, 13, 0, 10},
    {0x010C0006, 11, 0, 12}, {0x010C0026, 14, 2, 10}, {0x010C0027, 14, 0, 10},
    {0x010C0028, 14, 1, 10}, {0x010C0029, 14, 3, 10}, {0x010C002A, 12, 2, 12},
    {0x010C002B, 12, 0, 12}, {0x010C002C, 12, 1, 12}, {0x010C002D, 12, 3, 12},
    {0x010C003A, 13, 0, 10}, {0x010C003B, 11, 0, 12}, {0x010C003C, 14, 2, 10},
    {0x010C003D, 14, 0, 10}, {0x010C003E, 14, 1, 10}, {0x010C003F, 14, 3, 10},
    {0x010C0040, 12, 2, 12}, {0x010C0041, 12, 0, 12}, {0x010C0042, 12, 1, 12},
    {0x010C0043, 12, 3, 12}, {0x010C0046, 13, 0, 10}, {0x010C0047, 11, 0, 12},
    {0x010C0052, 14, 3, 10}, {0x010C0053, 12, 3, 12}, {0x010C0054, 14, 1, 10},
    {0x010C0055, 12, 1, 12}, {0x010C0056, 14, 2, 10}, {0x010C0057, 12, 2, 12},
    {0x010C0058, 14, 0, 10}, {0x010C0059, 12, 0, 12}, {0x01100003, 5, 0, 10},
    {0x01100005, 5, 0, 12},  {0x01100007, 5, 0, 16},  {0x0110000C, 10, 2, 10},
    {0x0110000D, 10, 0, 10}, {0x0110000E, 10, 1, 10}, {0x0110000F, 10, 3, 10},
    {0x01100010, 10, 2, 12}, {0x01100011, 10, 0, 12}, {0x01100012, 10, 1, 12},
    {0x01100013, 10, 3, 12}, {0x0110002E, 10, 2, 16}, {0x0110002F, 10, 0, 16},
    {0x01100030, 10, 1, 16}, {0x01100031, 10, 3, 16}, {0x020C001E, 1, 0, 12},
    {0x020C005A, 1, 0, 12},  {0x0210001F, 2, 0, 16},  {0x02100032, 24, 0, 16},
    {0x02100035, 22, 0, 16}, {0x02100036, 23, 0, 16}, {0x0210003B, 26, 0, 16},
    {0x02180014, 4, 0, 24},  {0x02180015, 15, 0, 24}, {0x02180016, 17, 0, 32},
    {0x02180017, 18, 0, 32}, {0x02180020, 3, 0, 24},  {0x0218005B, 25, 0, 24},
    {0x0220001C, 19, 0, 30}, {0x0220001D, 20, 0, 30}, {0x02200044, 19, 0, 30},
    {0x02240034, 21, 0, 36}, {0x02240045, 21, 0, 36}, {0x02300018, 6, 0, 30},
    {0x02300019, 16, 0, 30}, {0x0230001A, 6, 0, 36},  {0x0230001B, 16, 0, 36},
    {0x02300033, 6, 0, 48},
};

constexpr uint32_t kLegacy[][2] = {
    {1, 0x01080001},  {5, 0x01100005},  {6, 0x010C0006},  {10, 0x01080008},
    {11, 0x01080009}, {12, 0x0108000A}, {13, 0x0108000B}, {18, 0x01100010},
    {19, 0x010C002A}, {20, 0x01100011}, {21, 0x010C002B}, {22, 0x01100012},
    {23, 0x010C002C}, {24, 0x01100013}, {25, 0x010C002D}, {44, 0x02100032},
};

}  // namespace

uint32_t PixelFormatToConvKind(uint32_t code, uint32_t* phase, uint32_t* bits) {
  *phase = 0;
  size_t lo = 0, hi = std::size(kTable);
  while (lo < hi) {
    size_t mid = (lo + hi) / 2;
    if (kTable[mid].code < code) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  if (lo == std::size(kTable) || kTable[lo].code != code) return KIND_UNSUPPORTED;
  *bits = kTable[lo].bits;
  *phase = kTable[lo].phase;
  return kTable[lo].kind;
}

uint32_t TranslateLegacyPixelFormat(uint32_t value) {
  if (value >= 0x01000000u) return value;
  for (const auto& e : kLegacy) {
    if (e[0] == value) return e[1];
  }
  return value;
}

const PixelFormatEntry* PixelFormatTable(uint32_t* count) {
  *count = static_cast<uint32_t>(std::size(kTable));
  return kTable;
}

uint64_t SourceRowBytes(uint32_t kind, uint32_t width) {
  const uint64_t w = width;
  switch (kind) {
    case KIND_MONO8: return w;
    case KIND_YUV411: return (6 * w + 3) / 4;
    case KIND_YUV422_UYVY: case KIND_MONO16: case KIND_RGB565: case KIND_BGR565:
    case KIND_YUV422_YUYV: case KIND_YCBCR422:
      return 2 * w;
    case KIND_YUV444: case KIND_RGB8: case KIND_BGR8: case KIND_YCBCR8: return 3 * w;
    case KIND_RGBA8: case KIND_BGRA8: case KIND_RGB10V1_PACKED: case KIND_RGB10P32: return 4 * w;
    case KIND_RGB16: case KIND_BGR16: return 6 * w;
    case KIND_MONO12_PACKED: case KIND_MONO10_PACKED: return (3 * w + 1) / 2;
    case KIND_RGB12V1_PACKED: return (9 * w + 1) / 2;
    default: return 0;
  }
}

}  // namespace kivcam::conv
