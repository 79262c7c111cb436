// Helpers of the converters that are built once per instruction set. This
// file is included inside each build's anonymous namespace, so none of its
// inline code is shared between the baseline and the AVX2 build.
#pragma once

// Destination row stride for 3- or 4-byte pixels.
template <int P>
uint64_t RowStride(uint32_t w) {
  return P == 3 ? (uint64_t{w} * 3 + 3) & ~uint64_t{3} : uint64_t{w} * 4;
}

#ifdef __AVX2__
#include "conv/simd_avx2.h"
#endif
