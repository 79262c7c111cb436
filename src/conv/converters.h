// Converter entry points behind the dispatcher. line.cpp and bayer.cpp are
// compiled twice, for the baseline instruction set and for AVX2, into the
// namespaces base and avx2; bayer.cpp also for AVX-512 into avx512. The
// dispatcher picks one at run time.
#pragma once

#include "conv/conv.h"

namespace kivcam::conv {

#define KIVCONV_DECLARE_CONVERTERS(isa)                               \
  namespace isa {                                                     \
  /* Kinds 9, 10, 12 and 14; width and height at least 2. */          \
  void BayerConvert(const ConvParams& p, const ConvReq& r, bool out24); \
  /* Every other kind; kinds without a converter write nothing. */    \
  void LineConvert(const ConvParams& p, const ConvReq& r, bool out24);  \
  }
KIVCONV_DECLARE_CONVERTERS(base)
KIVCONV_DECLARE_CONVERTERS(avx2)
#undef KIVCONV_DECLARE_CONVERTERS

// AVX-512 (BW, VBMI) loops the AVX2 build hands its widest rows to, and the
// Bayer converters built for AVX-512 (BW, VL).
namespace avx512 {
void BayerConvert(const ConvParams& p, const ConvReq& r, bool out24);
// The leading multiple of 64 pixels of a row of a YUV pair kind or YUV411
// to 24-bit pixels, with entries computed from the multipliers `mul`.
// d: where the row's first pixel goes (its rightmost pixel when mirrored).
// Returns the pixels done; 0 for other kinds.
uint32_t Yuv24Pixels(uint32_t kind, bool mirror, const uint8_t* s, uint8_t* d, uint32_t w, const int32_t* mul);
// The leading multiple of 16 pixels of a row of a kind with 4-byte source
// pixels (RGBA8, BGRA8, RGB10V1 packed, RGB10p32) to 32-bit pixels, every
// fourth destination byte left as it was; d as above. 0 for other kinds.
uint32_t Words32Pixels(uint32_t kind, bool mirror, const uint8_t* s, uint8_t* d, uint32_t w);
}  // namespace avx512

// Computed-entry multipliers for 16-bit lanes that hold each pixel pair's
// two chroma bytes side by side (the U byte first when uLow), as 32-bit
// words of two 16-bit halves: BR gives the B entry on U lanes and the R
// entry on V lanes, G the two G parts; h the multipliers' high halves, l
// the low. unit: the high halves are 1 (B, R) and 0 (G), as for the default
// coefficients, so the vector loops can skip the low multiplies.
struct PairMul {
  uint32_t hBR, lBR, hG, lG;
  bool unit;
};
PairMul PairMultipliers(const int32_t* mul, bool uLow);

// Team size for a parallel conversion (1 when not parallel).
int TeamSize(const ConvParams& p);

}  // namespace kivcam::conv
