// Records of the conversion engine. Their layouts match the public records
// byte for byte, so the exports can hand the application's records straight
// through without copying field by field.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kivcam/kivcam.h"

namespace kivcam::conv {

#pragma pack(push, 1)

// Image description: the leading 28 bytes of an acquired image's record.
struct ImageDesc {
  uint32_t width;
  uint32_t height;
  const void* data;
  uint32_t dataSize;     // not read by the converters
  uint32_t pixelFormat;  // PFNC code
  uint32_t byteOrder;    // 1 little-endian, 0 big-endian 16-bit samples
};

// Conversion settings as the application passes them.
struct ConvMode {
  uint32_t geometry;    // 0 as is, 1 mirrored, 2 flipped, 3 rotated 180
  uint32_t shift;       // right shift of 16-bit samples; 0xFFFFFFFF = automatic
  uint32_t output;      // 0 = 32-bit pixels, 1 = 24-bit pixels
  uint32_t smoothing;   // non-zero: green smoothing of Bayer images
  uint32_t parallel;    // non-zero: rows split over a team of threads
};

// YUV coefficients: V to R, V to G, U to G, U to B.
struct YuvCoef {
  double coef[4];
};

// The request a conversion export hands to the dispatcher.
struct ConvReq {
  uint32_t width;
  uint32_t height;
  uint32_t kind;
  uint32_t phase;
  uint32_t littleEndian;
  const void* src;
  void* dst;
};

// Windows BITMAPINFOHEADER.
struct BitmapInfoHeader {
  uint32_t biSize;
  int32_t biWidth;
  int32_t biHeight;
  uint16_t biPlanes;
  uint16_t biBitCount;
  uint32_t biCompression;
  uint32_t biSizeImage;
  int32_t biXPelsPerMeter;
  int32_t biYPelsPerMeter;
  uint32_t biClrUsed;
  uint32_t biClrImportant;
};

// One colour-table entry.
struct RgbQuad {
  uint8_t blue;
  uint8_t green;
  uint8_t red;
  uint8_t reserved;
};

#pragma pack(pop)

static_assert(sizeof(ImageDesc) == 28);
static_assert(offsetof(ImageDesc, data) == 8);
static_assert(offsetof(ImageDesc, dataSize) == 16);
static_assert(offsetof(ImageDesc, pixelFormat) == 20);
static_assert(offsetof(ImageDesc, byteOrder) == 24);
static_assert(sizeof(ConvMode) == 20);
static_assert(offsetof(ConvMode, parallel) == 16);
static_assert(sizeof(YuvCoef) == 32);
static_assert(sizeof(ConvReq) == 36);
static_assert(offsetof(ConvReq, src) == 20);
static_assert(offsetof(ConvReq, dst) == 28);
static_assert(sizeof(BitmapInfoHeader) == 40);
static_assert(offsetof(BitmapInfoHeader, biPlanes) == 12);
static_assert(offsetof(BitmapInfoHeader, biBitCount) == 14);
static_assert(offsetof(BitmapInfoHeader, biSizeImage) == 20);
static_assert(offsetof(BitmapInfoHeader, biClrUsed) == 32);
static_assert(sizeof(RgbQuad) == 4);

// Result codes: the library's own error codes.
enum ConvResult : int {
  kConvOk = KIVCAM_ERR_NONE,
  kConvBadArg = KIVCAM_ERR_PARAM,              // bad pointer, value or image size
  kConvBufferSmall = KIVCAM_ERR_BUFFER_SIZE,
  kConvUnsupported = KIVCAM_ERR_FORMAT,        // pixel format not in the table
  kConvNoMemory = KIVCAM_ERR_OTHER,
};

}  // namespace kivcam::conv
