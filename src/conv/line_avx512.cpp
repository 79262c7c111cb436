// Line converters with AVX-512 (BW, VBMI) that the AVX2 build hands rows to.
//
// YUV pair kinds and YUV411 to 24-bit rows, 64 pixels per step: byte
// permutes over whole vectors do the de-interleaving of YUV411 and the
// 24-bit interleave, which the AVX2 loops build from many in-lane shuffles;
// the arithmetic is the AVX2 loops' (computed entries, saturating sums, the
// pack as the clamp), so the bytes are the same.
//
// 4-byte source pixels to 32-bit rows, 16 pixels per step: each pixel's
// B, G, R word is built in the register and stored under a byte mask that
// leaves every fourth destination byte alone, so the destination is never
// read (the AVX2 loops read it to keep that byte).
#include <immintrin.h>

#include <cstdint>

#include "conv/converters.h"
#include "conv/pixel_format.h"

namespace kivcam::conv::avx512 {
namespace {

struct Idx64 {
  int8_t b[64];
};

inline __m512i LoadIdx(const Idx64& m) { return _mm512_loadu_si512(m.b); }

// Results of 64 pixels, as 16-bit lanes in pixel order (a: pixels 0-31,
// b: 32-63), are packed into three vectors X = (p1a, ga), Y = (p2a, p1b),
// Z = (gb, p2b); p1 = Y + the lane's entry, p2 = the pair's other Y + the
// lane's entry, g = G. Where byte `j` of the 192 output bytes comes from.
struct Src {
  int v, pos;
};

constexpr Src SourceOf(int j, bool mirror, bool uLow) {
  const int ch = j % 3, q = j / 3, px = mirror ? 63 - q : q;
  int plane = 2, at = px;  // plane 0 = p1, 1 = p2, 2 = G
  if (ch != 1) {
    const bool evenChannel = (ch == 0) == uLow;  // the channel whose entry sits on even lanes
    const bool own = (px % 2 == 0) == evenChannel;
    plane = own ? 0 : 1;
    at = own ? px : px ^ 1;
  }
  const int e = at % 32, inPack = 16 * (e / 8) + e % 8;  // packs interleave per 128-bit lane
  if (plane == 0) return at < 32 ? Src{0, inPack} : Src{1, inPack + 8};
  if (plane == 1) return at < 32 ? Src{1, inPack} : Src{2, inPack + 8};
  return at < 32 ? Src{0, inPack + 8} : Src{2, inPack};
}

// One 64-byte output block: a two-table permute of its first two source
// vectors, and a masked permute of the third where it needs one.
struct BlockPlan {
  int first = 0, second = 0, third = 0;
  uint64_t thirdMask = 0;
  Idx64 pair{}, rest{};
};

constexpr BlockPlan Plan(int blk, bool mirror, bool uLow) {
  BlockPlan p{};
  int used = 0;
  for (int i = 0; i < 64; ++i) used |= 1 << SourceOf(64 * blk + i, mirror, uLow).v;
  int order[3] = {0, 0, 0}, n = 0;
  for (int v = 0; v < 3; ++v) {
    if (used & (1 << v)) order[n++] = v;
  }
  p.first = order[0];
  p.second = n > 1 ? order[1] : order[0];
  p.third = n > 2 ? order[2] : order[0];
  for (int i = 0; i < 64; ++i) {
    const Src s = SourceOf(64 * blk + i, mirror, uLow);
    if (s.v == p.first) {
      p.pair.b[i] = static_cast<int8_t>(s.pos);
    } else if (s.v == p.second) {
      p.pair.b[i] = static_cast<int8_t>(64 + s.pos);
    } else {
      p.rest.b[i] = static_cast<int8_t>(s.pos);
      p.thirdMask |= uint64_t{1} << i;
    }
  }
  return p;
}

template <bool Mirror, bool ULow>
struct Plans {
  static constexpr BlockPlan p[3] = {Plan(0, Mirror, ULow), Plan(1, Mirror, ULow), Plan(2, Mirror, ULow)};
};

template <class P, int Blk>
__attribute__((always_inline)) inline __m512i Block(const __m512i (&v)[3]) {
  constexpr const BlockPlan& b = P::p[Blk];
  __m512i r = _mm512_permutex2var_epi8(v[b.first], LoadIdx(b.pair), v[b.second]);
  if constexpr (b.thirdMask != 0) r = _mm512_mask_permutexvar_epi8(r, b.thirdMask, LoadIdx(b.rest), v[b.third]);
  return r;
}

// YUV411 lanes: Y of pixel 32h + l, or the chroma of its pair (U on even
// lanes, V on odd), in the low byte of 16-bit lane l, taken from the 64
// bytes that start at byte 32h of the 96-byte step.
constexpr Idx64 Yuv411Idx(int h, bool chroma) {
  Idx64 m{};
  constexpr int yAt[4] = {1, 2, 4, 5};
  for (int l = 0; l < 32; ++l) {
    const int i = 32 * h + l, g = 6 * (i / 4);
    m.b[2 * l] = static_cast<int8_t>((chroma ? g + (l % 2 ? 3 : 0) : g + yAt[i % 4]) - 32 * h);
  }
  return m;
}
constexpr Idx64 kYuv411Idx[2][2] = {{Yuv411Idx(0, false), Yuv411Idx(0, true)}, {Yuv411Idx(1, false), Yuv411Idx(1, true)}};
constexpr __mmask64 kLowBytes = 0x5555555555555555ull;

// PairMultipliers in 512-bit vectors.
struct Mul {
  __m512i hBR, lBR, hG, lG;
  bool unit;
  Mul(const int32_t* mul, bool uLow) {
    const PairMul m = PairMultipliers(mul, uLow);
    hBR = _mm512_set1_epi32(int32_t(m.hBR));
    lBR = _mm512_set1_epi32(int32_t(m.lBR));
    hG = _mm512_set1_epi32(int32_t(m.hG));
    lG = _mm512_set1_epi32(int32_t(m.lG));
    unit = m.unit;
  }
};

// The two 16-bit halves of each 32-bit word swapped (a pair's lanes).
inline __m512i SwapPairs(__m512i v) { return _mm512_rol_epi32(v, 16); }

template <bool Unit>
__attribute__((always_inline)) inline void Lanes(__m512i y, __m512i c, const Mul& k, __m512i& p1, __m512i& p2,
                                                 __m512i& g) {
  const __m512i zero = _mm512_setzero_si512();
  const __m512i dc = _mm512_sub_epi16(c, _mm512_set1_epi16(128)), ac = _mm512_abs_epi16(dc);
  const __mmask32 neg = _mm512_movepi16_mask(dc);
  __m512i br, gg;
  if constexpr (Unit) {
    br = _mm512_add_epi16(ac, _mm512_mulhi_epu16(ac, k.lBR));
    gg = _mm512_mulhi_epu16(ac, k.lG);
  } else {
    br = _mm512_add_epi16(_mm512_mullo_epi16(ac, k.hBR), _mm512_mulhi_epu16(ac, k.lBR));
    gg = _mm512_add_epi16(_mm512_mullo_epi16(ac, k.hG), _mm512_mulhi_epu16(ac, k.lG));
  }
  br = _mm512_mask_sub_epi16(br, neg, zero, br);
  gg = _mm512_mask_sub_epi16(gg, neg, zero, gg);
  p1 = _mm512_adds_epi16(y, br);
  p2 = _mm512_adds_epi16(SwapPairs(y), br);
  g = _mm512_subs_epi16(y, _mm512_add_epi16(gg, SwapPairs(gg)));
}

// Kind411: YUV411, else a pair kind with Y in the low (YLow) or high byte of
// each 16-bit word and U on even words (ULow).
template <bool Kind411, bool YLow, bool ULow, bool Mirror, bool Unit>
uint32_t Row(const uint8_t* s, uint8_t* d, uint32_t w, const Mul& k) {
  using P = Plans<Mirror, ULow>;
  uint32_t x = 0;
  for (; x + 64 <= w; x += 64) {
    __m512i ya, ca, yb, cb;
    if constexpr (Kind411) {
      const __m512i lo = _mm512_loadu_si512(s), hi = _mm512_loadu_si512(s + 32);
      ya = _mm512_maskz_permutexvar_epi8(kLowBytes, LoadIdx(kYuv411Idx[0][0]), lo);
      ca = _mm512_maskz_permutexvar_epi8(kLowBytes, LoadIdx(kYuv411Idx[0][1]), lo);
      yb = _mm512_maskz_permutexvar_epi8(kLowBytes, LoadIdx(kYuv411Idx[1][0]), hi);
      cb = _mm512_maskz_permutexvar_epi8(kLowBytes, LoadIdx(kYuv411Idx[1][1]), hi);
      s += 96;
    } else {
      const __m512i a = _mm512_loadu_si512(s), b = _mm512_loadu_si512(s + 64), ff = _mm512_set1_epi16(0xFF);
      const __m512i lowA = _mm512_and_si512(a, ff), highA = _mm512_srli_epi16(a, 8);
      const __m512i lowB = _mm512_and_si512(b, ff), highB = _mm512_srli_epi16(b, 8);
      ya = YLow ? lowA : highA;
      ca = YLow ? highA : lowA;
      yb = YLow ? lowB : highB;
      cb = YLow ? highB : lowB;
      s += 128;
    }
    __m512i p1a, p2a, ga, p1b, p2b, gb;
    Lanes<Unit>(ya, ca, k, p1a, p2a, ga);
    Lanes<Unit>(yb, cb, k, p1b, p2b, gb);
    const __m512i v[3] = {_mm512_packus_epi16(p1a, ga), _mm512_packus_epi16(p2a, p1b), _mm512_packus_epi16(gb, p2b)};
    uint8_t* q = Mirror ? d - 189 : d;  // lowest address of the 64 pixels
    _mm512_storeu_si512(q, Block<P, 0>(v));
    _mm512_storeu_si512(q + 64, Block<P, 1>(v));
    _mm512_storeu_si512(q + 128, Block<P, 2>(v));
    d += Mirror ? -192 : 192;
  }
  return x;
}

template <bool Kind411, bool YLow, bool ULow>
uint32_t ForKind(bool mirror, const uint8_t* s, uint8_t* d, uint32_t w, const int32_t* mul) {
  const Mul k(mul, ULow);
  if (mirror) {
    return k.unit ? Row<Kind411, YLow, ULow, true, true>(s, d, w, k) : Row<Kind411, YLow, ULow, true, false>(s, d, w, k);
  }
  return k.unit ? Row<Kind411, YLow, ULow, false, true>(s, d, w, k) : Row<Kind411, YLow, ULow, false, false>(s, d, w, k);
}

// Bytes 0 and 2 of every word exchanged.
constexpr Idx64 SwapRB() {
  Idx64 m{};
  for (int i = 0; i < 64; ++i) m.b[i] = static_cast<int8_t>(i % 4 == 3 || i % 4 == 1 ? i : i ^ 2);
  return m;
}
constexpr Idx64 kSwapRB = SwapRB();

template <uint32_t Kind, bool Mirror>
uint32_t Words(const uint8_t* s, uint8_t* d, uint32_t w) {
  const __mmask64 bgr = 0x7777777777777777ull;
  const __m512i rev = _mm512_setr_epi32(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
  const __m512i swapRB = LoadIdx(kSwapRB);
  const __m512i ff = _mm512_set1_epi32(0xFF);
  uint32_t x = 0;
  for (; x + 16 <= w; x += 16, s += 64) {
    __m512i v = _mm512_loadu_si512(s);
    if constexpr (Kind == KIND_RGBA8) {
      v = _mm512_shuffle_epi8(v, swapRB);
    } else if constexpr (Kind == KIND_RGB10V1_PACKED) {
      v = _mm512_srli_epi32(v, 8);  // bytes 1, 2, 3 are B, G, R
    } else if constexpr (Kind == KIND_RGB10P32) {
      // The top 8 bits of each 10-bit field.
      v = _mm512_or_si512(_mm512_or_si512(_mm512_and_si512(_mm512_srli_epi32(v, 2), ff),
                                          _mm512_slli_epi32(_mm512_and_si512(_mm512_srli_epi32(v, 12), ff), 8)),
                          _mm512_slli_epi32(_mm512_and_si512(_mm512_srli_epi32(v, 22), ff), 16));
    }
    if constexpr (Mirror) v = _mm512_permutexvar_epi32(rev, v);
    _mm512_mask_storeu_epi8(Mirror ? d - 60 : d, bgr, v);
    d += Mirror ? -64 : 64;
  }
  return x;
}

template <uint32_t Kind>
uint32_t WordsFor(bool mirror, const uint8_t* s, uint8_t* d, uint32_t w) {
  return mirror ? Words<Kind, true>(s, d, w) : Words<Kind, false>(s, d, w);
}

}  // namespace

uint32_t Words32Pixels(uint32_t kind, bool mirror, const uint8_t* s, uint8_t* d, uint32_t w) {
  switch (kind) {
    case KIND_RGBA8:
      return WordsFor<KIND_RGBA8>(mirror, s, d, w);
    case KIND_BGRA8:
      return WordsFor<KIND_BGRA8>(mirror, s, d, w);
    case KIND_RGB10V1_PACKED:
      return WordsFor<KIND_RGB10V1_PACKED>(mirror, s, d, w);
    case KIND_RGB10P32:
      return WordsFor<KIND_RGB10P32>(mirror, s, d, w);
    default:
      return 0;
  }
}

uint32_t Yuv24Pixels(uint32_t kind, bool mirror, const uint8_t* s, uint8_t* d, uint32_t w, const int32_t* mul) {
  switch (kind) {
    case KIND_YUV422_UYVY:
      return ForKind<false, false, true>(mirror, s, d, w, mul);
    case KIND_YUV422_YUYV:
      return ForKind<false, true, true>(mirror, s, d, w, mul);
    case KIND_YCBCR422:
      return ForKind<false, true, false>(mirror, s, d, w, mul);
    case KIND_YUV411:
      return ForKind<true, false, true>(mirror, s, d, w, mul);
    default:
      return 0;
  }
}

}  // namespace kivcam::conv::avx512
