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

// Team size for a parallel conversion (1 when not parallel).
int TeamSize(const ConvParams& p);

}  // namespace kivcam::conv
