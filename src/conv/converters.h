// Converter entry points behind the dispatcher. line.cpp and bayer.cpp are
// compiled twice, for the baseline instruction set and for AVX2, into the
// namespaces base and avx2; the dispatcher picks one at run time.
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

// AVX-512 (BW, VBMI) loops the AVX2 build hands its widest rows to.
namespace avx512 {
// The leading multiple of 64 pixels of a row of a YUV pair kind or YUV411
// to 24-bit pixels, with entries computed from the multipliers `mul`.
// d: where the row's first pixel goes (its rightmost pixel when mirrored).
// Returns the pixels done; 0 for other kinds.
uint32_t Yuv24Pixels(uint32_t kind, bool mirror, const uint8_t* s, uint8_t* d, uint32_t w, const int32_t* mul);
}  // namespace avx512

// Team size for a parallel conversion (1 when not parallel).
int TeamSize(const ConvParams& p);

}  // namespace kivcam::conv
