// Pixel-format table: turns a PFNC code into the conversion kind, the Bayer
// phase and the bit count that the converters run on.
#pragma once

#include <cstdint>

namespace kivcam::conv {

enum ConvKind : uint32_t {
  KIND_MONO8 = 0,
  KIND_YUV411 = 1,
  KIND_YUV422_UYVY = 2,
  KIND_YUV444 = 3,
  KIND_RGB8 = 4,
  KIND_MONO16 = 5,
  KIND_RGB16 = 6,
  KIND_BAYER8 = 9,
  KIND_BAYER16 = 10,
  KIND_MONO12_PACKED = 11,
  KIND_BAYER12_PACKED = 12,
  KIND_MONO10_PACKED = 13,
  KIND_BAYER10_PACKED = 14,
  KIND_BGR8 = 15,
  KIND_BGR16 = 16,
  KIND_RGBA8 = 17,
  KIND_BGRA8 = 18,
  KIND_RGB10V1_PACKED = 19,
  KIND_RGB10P32 = 20,
  KIND_RGB12V1_PACKED = 21,
  KIND_RGB565 = 22,
  KIND_BGR565 = 23,
  KIND_YUV422_YUYV = 24,
  KIND_YCBCR8 = 25,
  KIND_YCBCR422 = 26,
  KIND_UNSUPPORTED = 0xFFFFFFFFu,
};

// Colour of the top-left 2x2 cell, read row by row.
enum BayerPhase : uint32_t { PHASE_RG = 0, PHASE_GB = 1, PHASE_GR = 2, PHASE_BG = 3 };

struct PixelFormatEntry {
  uint32_t code;
  uint32_t kind;
  uint32_t phase;
  uint32_t bits;
};

// Sets phase to 0, then for a known code sets bits (and the phase of Bayer
// codes) and returns the kind; any other code gives KIND_UNSUPPORTED and
// leaves bits as it was.
uint32_t PixelFormatToConvKind(uint32_t code, uint32_t* phase, uint32_t* bits);

// Some cameras report small enumeration values instead of PFNC codes. Values
// below 0x01000000 go through the legacy table; unknown ones stay unchanged.
uint32_t TranslateLegacyPixelFormat(uint32_t value);

// The whole table, for tests and tools.
const PixelFormatEntry* PixelFormatTable(uint32_t* count);

inline bool IsMonoKind(uint32_t k) {
  return k == KIND_MONO8 || k == KIND_MONO16 || k == KIND_MONO12_PACKED || k == KIND_MONO10_PACKED;
}
inline bool IsBayerKind(uint32_t k) {
  return k == KIND_BAYER8 || k == KIND_BAYER16 || k == KIND_BAYER12_PACKED || k == KIND_BAYER10_PACKED;
}
inline bool IsYuvKind(uint32_t k) {
  return k == KIND_YUV411 || k == KIND_YUV422_UYVY || k == KIND_YUV444 || k == KIND_YUV422_YUYV ||
         k == KIND_YCBCR8 || k == KIND_YCBCR422;
}

// Bytes of one source row of a line (non-Bayer) kind; 0 for a kind without a
// line converter.
uint64_t SourceRowBytes(uint32_t kind, uint32_t width);

}  // namespace kivcam::conv
