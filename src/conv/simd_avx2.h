// AVX2 helpers shared by the converters. Included only into the AVX2 build,
// inside that build's anonymous namespace (after <immintrin.h>), so nothing
// here is shared with the baseline build.
#pragma once

// 16 bytes as 16-bit lanes.
inline __m256i Load16(const uint8_t* s) {
  return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)));
}

// 16-bit lanes (values below 256) back to 16 bytes in order.
inline __m128i Pack16(__m256i v) {
  return _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packus_epi16(v, v), 0xD8));
}

struct Bytes16 {
  int8_t b[16];
};

// Byte j of 48 interleaved B, G, R bytes is channel j % 3 of pixel j / 3:
// the mask that picks channel c's bytes into output block blk (c = 3: the
// same grey byte for every channel).
constexpr Bytes16 InterleaveMask(int blk, int c) {
  Bytes16 m{};
  for (int i = 0; i < 16; ++i) {
    const int j = 16 * blk + i;
    m.b[i] = static_cast<int8_t>(c == 3 || j % 3 == c ? j / 3 : -128);
  }
  return m;
}

constexpr Bytes16 kInterleave[3][4] = {
    {InterleaveMask(0, 0), InterleaveMask(0, 1), InterleaveMask(0, 2), InterleaveMask(0, 3)},
    {InterleaveMask(1, 0), InterleaveMask(1, 1), InterleaveMask(1, 2), InterleaveMask(1, 3)},
    {InterleaveMask(2, 0), InterleaveMask(2, 1), InterleaveMask(2, 2), InterleaveMask(2, 3)},
};

inline __m128i MaskOf(const Bytes16& m) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(m.b)); }

// Stores 16 pixels from channel planes: 48 bytes, or 64 bytes whose fourth
// bytes are written back with the value they held.
template <int P>
inline void StorePixels(uint8_t* d, __m128i b, __m128i g, __m128i r) {
  if constexpr (P == 4) {
    const __m128i zero = _mm_setzero_si128(), keep = _mm_set1_epi32(int32_t(0xFF000000u));
    const __m128i bgLo = _mm_unpacklo_epi8(b, g), bgHi = _mm_unpackhi_epi8(b, g);
    const __m128i rLo = _mm_unpacklo_epi8(r, zero), rHi = _mm_unpackhi_epi8(r, zero);
    const __m128i px[4] = {_mm_unpacklo_epi16(bgLo, rLo), _mm_unpackhi_epi16(bgLo, rLo),
                           _mm_unpacklo_epi16(bgHi, rHi), _mm_unpackhi_epi16(bgHi, rHi)};
    for (int k = 0; k < 4; ++k) {
#ifdef __AVX512BW__
      (void)keep;
      _mm_mask_storeu_epi8(d + 16 * k, 0x7777, px[k]);  // skips the fourth bytes, reads nothing
#else
      __m128i* q = reinterpret_cast<__m128i*>(d + 16 * k);
      _mm_storeu_si128(q, _mm_or_si128(_mm_and_si128(_mm_loadu_si128(q), keep), px[k]));
#endif
    }
  } else {
    for (int blk = 0; blk < 3; ++blk) {
      const __m128i v = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(b, MaskOf(kInterleave[blk][0])),
                                                  _mm_shuffle_epi8(g, MaskOf(kInterleave[blk][1]))),
                                     _mm_shuffle_epi8(r, MaskOf(kInterleave[blk][2])));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16 * blk), v);
    }
  }
}

// Stores 16 grey pixels.
template <int P>
inline void StoreGrey(uint8_t* d, __m128i g) {
  if constexpr (P == 4) {
    StorePixels<P>(d, g, g, g);
  } else {
    for (int blk = 0; blk < 3; ++blk) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16 * blk), _mm_shuffle_epi8(g, MaskOf(kInterleave[blk][3])));
    }
  }
}

// The 16 bytes in reverse order (mirrored rows).
inline __m128i Reverse16(__m128i v) {
  return _mm_shuffle_epi8(v, _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0));
}

inline __m256i Broadcast(const Bytes16& m) { return _mm256_broadcastsi128_si256(MaskOf(m)); }

// Stores 32 pixels from channel planes whose halves hold pixels 0-15 and
// 16-31 (96 or 128 bytes), as StorePixels does for 16.
template <int P>
inline void StorePixels32(uint8_t* d, __m256i b, __m256i g, __m256i r) {
  auto put = [](uint8_t* lo, uint8_t* hi, __m256i v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(lo), _mm256_castsi256_si128(v));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(hi), _mm256_extracti128_si256(v, 1));
  };
  if constexpr (P == 4) {
    const __m256i zero = _mm256_setzero_si256(), keep = _mm256_set1_epi32(int32_t(0xFF000000u));
    const __m256i bgLo = _mm256_unpacklo_epi8(b, g), bgHi = _mm256_unpackhi_epi8(b, g);
    const __m256i rLo = _mm256_unpacklo_epi8(r, zero), rHi = _mm256_unpackhi_epi8(r, zero);
    // Halves of px[k]: pixels 4k..4k+3 and 16+4k..16+4k+3.
    const __m256i px[4] = {_mm256_unpacklo_epi16(bgLo, rLo), _mm256_unpackhi_epi16(bgLo, rLo),
                           _mm256_unpacklo_epi16(bgHi, rHi), _mm256_unpackhi_epi16(bgHi, rHi)};
    for (int k = 0; k < 4; ++k) {
      uint8_t* lo = d + 16 * k;
      uint8_t* hi = d + 64 + 16 * k;
      const __m256i old = _mm256_inserti128_si256(
          _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(lo))),
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(hi)), 1);
      put(lo, hi, _mm256_or_si256(_mm256_and_si256(old, keep), px[k]));
    }
  } else {
    for (int blk = 0; blk < 3; ++blk) {
      const __m256i v = _mm256_or_si256(
          _mm256_or_si256(_mm256_shuffle_epi8(b, Broadcast(kInterleave[blk][0])),
                          _mm256_shuffle_epi8(g, Broadcast(kInterleave[blk][1]))),
          _mm256_shuffle_epi8(r, Broadcast(kInterleave[blk][2])));
      put(d + 16 * blk, d + 48 + 16 * blk, v);
    }
  }
}

// The 32 bytes in reverse order.
inline __m256i Reverse32(__m256i v) {
  const __m256i rev = _mm256_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0,
                                       15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
  return _mm256_permute4x64_epi64(_mm256_shuffle_epi8(v, rev), 0x4E);
}
