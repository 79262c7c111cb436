// Line converters: every non-Bayer kind, pixel by pixel. One row loop per
// kind, destination form (3 or 4 bytes per pixel) and direction, so that the
// inner loops decide nothing about the format.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#ifdef __AVX2__
#include <immintrin.h>
#endif

#include "conv/converters.h"
#include "conv/pixel_format.h"

namespace kivcam::conv::KIVCONV_ISA {
namespace {

#include "conv/isa_local.h"

// Destination cursor: writes B, G, R and steps one pixel forwards or, when
// mirrored, backwards. A 32-bit pixel is written as one word whose fourth
// byte is the one the buffer held, which keeps the loops vectorisable.
template <int P, bool Mirror>
struct Out {
  static constexpr int kPixel = P;
  static constexpr bool kMirror = Mirror;
  uint8_t* d;
  void Put(uint32_t b, uint32_t g, uint32_t r) {
    if constexpr (P == 4) {
      uint32_t old;
      std::memcpy(&old, d, 4);
      const uint32_t v = (old & 0xFF000000u) | (b & 0xFF) | (g & 0xFF) << 8 | (r & 0xFF) << 16;
      std::memcpy(d, &v, 4);
    } else {
      d[0] = static_cast<uint8_t>(b);
      d[1] = static_cast<uint8_t>(g);
      d[2] = static_cast<uint8_t>(r);
    }
    d += Mirror ? -P : P;
  }
  void Grey(uint32_t v) { Put(v, v, v); }
#ifdef __AVX2__
  // Start of the destination span of N pixels in source order (its lowest
  // address), stepping past them.
  template <int N>
  uint8_t* Span() {
    uint8_t* q = Mirror ? d - (N - 1) * P : d;
    d += Mirror ? -N * P : N * P;
    return q;
  }
  // 16 pixels from channel planes, in source order.
  void Put16(__m128i b, __m128i g, __m128i r) {
    if constexpr (Mirror) {
      StorePixels<P>(Span<16>(), Reverse16(b), Reverse16(g), Reverse16(r));
    } else {
      StorePixels<P>(Span<16>(), b, g, r);
    }
  }
  // 32 pixels from channel planes whose 128-bit halves hold pixels 0-15 and
  // 16-31, in source order.
  void Put32(__m256i b, __m256i g, __m256i r) {
    if constexpr (Mirror) {
      StorePixels32<P>(Span<32>(), Reverse32(b), Reverse32(g), Reverse32(r));
    } else {
      StorePixels32<P>(Span<32>(), b, g, r);
    }
  }
  void Grey16(__m128i g) { StoreGrey<P>(Span<16>(), Mirror ? Reverse16(g) : g); }
#endif
};

// 16-bit sample reduced to 8 bits: optional byte swap, shift, low byte.
template <bool LE>
struct Word {
  uint32_t shift;
  uint32_t operator()(const uint8_t* s) const {
    uint16_t w;
    std::memcpy(&w, s, 2);
    if (!LE) w = __builtin_bswap16(w);
    return (uint32_t{w} >> shift) & 0xFF;
  }
};

inline uint32_t Clamp(int v) { return v < 0 ? 0u : v > 255 ? 255u : static_cast<uint32_t>(v); }

#ifdef __AVX2__
// YUV rule for 16 pixels: y holds their Y bytes, u8 and v8 the chroma of
// each pixel pair (8 bytes). The same sums as Yuv::Put in 16-bit lanes; the
// saturating pack is the clamp.
// The table's multipliers split for 16-bit lanes, prepared once per row.
struct YuvK {
  const int32_t* t;
  bool computed;  // entries computed from kh/kl instead of gathered from t
  __m128i kh[4], kl[4];
  YuvK(const int32_t* table, const int32_t* mul) : t(table), computed(mul != nullptr) {
    for (int c = 0; c < 4; ++c) {
      kh[c] = _mm_set1_epi16(static_cast<int16_t>(mul ? mul[c] >> 16 : 0));
      kl[c] = _mm_set1_epi16(static_cast<int16_t>(mul ? mul[c] & 0xFFFF : 0));
    }
  }
};

template <class O>
__attribute__((always_inline)) inline void YuvPlanes(O& o, __m128i y, __m128i u8, __m128i v8, const YuvK& k) {
  const int32_t* t = k.t;
  __m128i tr, tg, tb;
  if (k.computed) {
    // Entries computed in 16-bit lanes: (|i - 128| * k) >> 16 with the sign
    // of i - 128, as |i - 128| * (k >> 16) + high half of |i - 128| * (k & 0xFFFF).
    const __m128i du = _mm_sub_epi16(_mm_cvtepu8_epi16(u8), _mm_set1_epi16(128));
    const __m128i dv = _mm_sub_epi16(_mm_cvtepu8_epi16(v8), _mm_set1_epi16(128));
    const __m128i au = _mm_abs_epi16(du), av = _mm_abs_epi16(dv);
    auto entry = [&k](__m128i a, __m128i d, int c) {
      return _mm_sign_epi16(_mm_add_epi16(_mm_mullo_epi16(a, k.kh[c]), _mm_mulhi_epu16(a, k.kl[c])), d);
    };
    tr = entry(av, dv, 0);
    tg = _mm_add_epi16(entry(av, dv, 1), entry(au, du, 2));
    tb = entry(au, du, 3);
  } else {
    const __m256i u = _mm256_cvtepu8_epi32(u8), v = _mm256_cvtepu8_epi32(v8);
    auto to16 = [](__m256i a) {  // 8 table sums to 8 x i16, pair order, saturated
      return _mm_packs_epi32(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
    };
    tr = to16(_mm256_i32gather_epi32(t, v, 4));
    tg = to16(_mm256_add_epi32(_mm256_i32gather_epi32(t + 256, v, 4), _mm256_i32gather_epi32(t + 512, u, 4)));
    tb = to16(_mm256_i32gather_epi32(t + 768, u, 4));
  }
  const __m128i yl = _mm_cvtepu8_epi16(y), yh = _mm_cvtepu8_epi16(_mm_srli_si128(y, 8));
  auto chan = [&](__m128i c, bool sub) {
    const __m128i cl = _mm_unpacklo_epi16(c, c), ch = _mm_unpackhi_epi16(c, c);
    return sub ? _mm_packus_epi16(_mm_subs_epi16(yl, cl), _mm_subs_epi16(yh, ch))
               : _mm_packus_epi16(_mm_adds_epi16(yl, cl), _mm_adds_epi16(yh, ch));
  };
  o.Put16(chan(tb, false), chan(tg, true), chan(tr, false));
}

inline __m128i Load(const uint8_t* s) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(s)); }

// Two 16-byte blocks as the low and high half of one vector.
inline __m256i Load2(const uint8_t* lo, const uint8_t* hi) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(Load(lo)), Load(hi), 1);
}

// PairMultipliers in 256-bit vectors. Only for tables with multipliers.
template <bool ULow>
struct YuvK32 {
  __m256i hBR, lBR, hG, lG;
  bool unit;
  explicit YuvK32(const int32_t* mul) {
    const PairMul m = PairMultipliers(mul, ULow);
    hBR = _mm256_set1_epi32(int32_t(m.hBR));
    lBR = _mm256_set1_epi32(int32_t(m.lBR));
    hG = _mm256_set1_epi32(int32_t(m.hG));
    lG = _mm256_set1_epi32(int32_t(m.lG));
    unit = m.unit;
  }
};

// YUV rule on 16 pixels in 16-bit lanes: y their Y, c the chroma bytes of
// their pairs. The same entries and saturating sums as YuvPlanes; each
// pair's entries are copied to both of its lanes with shifts and masks,
// which keeps the shuffle unit free for the stores.
template <bool ULow>
__attribute__((always_inline)) inline void YuvLanes(__m256i y, __m256i c, const YuvK32<ULow>& k, __m256i& b, __m256i& g,
                                                    __m256i& r) {
  const __m256i dc = _mm256_sub_epi16(c, _mm256_set1_epi16(128)), ac = _mm256_abs_epi16(dc);
  const __m256i br = _mm256_sign_epi16(_mm256_add_epi16(_mm256_mullo_epi16(ac, k.hBR), _mm256_mulhi_epu16(ac, k.lBR)), dc);
  const __m256i gg = _mm256_sign_epi16(_mm256_add_epi16(_mm256_mullo_epi16(ac, k.hG), _mm256_mulhi_epu16(ac, k.lG)), dc);
  const __m256i tg = _mm256_add_epi16(gg, _mm256_or_si256(_mm256_slli_epi32(gg, 16), _mm256_srli_epi32(gg, 16)));
  const __m256i lo = _mm256_set1_epi32(0xFFFF);
  const __m256i first = _mm256_or_si256(_mm256_and_si256(br, lo), _mm256_slli_epi32(br, 16));
  const __m256i second = _mm256_or_si256(_mm256_andnot_si256(lo, br), _mm256_srli_epi32(br, 16));
  b = _mm256_adds_epi16(y, ULow ? first : second);
  g = _mm256_subs_epi16(y, tg);
  r = _mm256_adds_epi16(y, ULow ? second : first);
}

// For 24-bit rows the entries are not copied: with e the entries of each
// pair's two lanes, y + e gives one channel of each pixel and the Y values
// swapped within the pair, plus e, the other; the interleave masks pick
// every byte from where it lands. p1 = y + e, p2 = swapped y + e, g = G.
inline __m256i SwapPairs(__m256i v) {
  return _mm256_shuffle_epi8(v, _mm256_setr_epi8(2, 3, 0, 1, 6, 7, 4, 5, 10, 11, 8, 9, 14, 15, 12, 13, 2, 3, 0, 1, 6, 7,
                                                 4, 5, 10, 11, 8, 9, 14, 15, 12, 13));
}

template <bool ULow, bool Unit>
__attribute__((always_inline)) inline void YuvLanesSwapped(__m256i y, __m256i c, const YuvK32<ULow>& k, __m256i& p1,
                                                           __m256i& p2, __m256i& g) {
  const __m256i dc = _mm256_sub_epi16(c, _mm256_set1_epi16(128)), ac = _mm256_abs_epi16(dc);
  __m256i br, gg;
  if constexpr (Unit) {
    br = _mm256_sign_epi16(_mm256_add_epi16(ac, _mm256_mulhi_epu16(ac, k.lBR)), dc);
    gg = _mm256_sign_epi16(_mm256_mulhi_epu16(ac, k.lG), dc);
  } else {
    br = _mm256_sign_epi16(_mm256_add_epi16(_mm256_mullo_epi16(ac, k.hBR), _mm256_mulhi_epu16(ac, k.lBR)), dc);
    gg = _mm256_sign_epi16(_mm256_add_epi16(_mm256_mullo_epi16(ac, k.hG), _mm256_mulhi_epu16(ac, k.lG)), dc);
  }
  p1 = _mm256_adds_epi16(y, br);
  p2 = _mm256_adds_epi16(SwapPairs(y), br);
  g = _mm256_subs_epi16(y, _mm256_add_epi16(gg, SwapPairs(gg)));
}

// The 24-bit path packs its 16-bit results so that each output block needs
// as few sources as possible; per 16 pixels: X = p1 of pixels 0-7 then G of
// 0-7, Y = p2 of 0-7 then p1 of 8-15, Z = G of 8-15 then p2 of 8-15.
// YuvMask picks, for 24-bit output block blk of 16 pixels (reversed when
// mirrored), the bytes that come from vector v (0 = X, 1 = Y, 2 = Z). The
// even lane of a pair carries B when ULow, else R.
constexpr Bytes16 YuvMask(int blk, int v, bool mirror, bool uLow) {
  Bytes16 m{};
  for (int i = 0; i < 16; ++i) {
    const int j = 16 * blk + i, ch = j % 3, q = j / 3, px = mirror ? 15 - q : q;
    int plane = 2, at = px;  // plane 0 = p1, 1 = p2, 2 = G
    if (ch != 1) {
      const bool evenChannel = (ch == 0) == uLow;
      const bool own = (px % 2 == 0) == evenChannel;  // the pixel's own lane holds it in p1
      plane = own ? 0 : 1;
      at = own ? px : px % 2 ? px - 1 : px + 1;
    }
    const int from = at < 8 ? (plane == 1 ? 1 : 0) : (plane == 0 ? 1 : 2);
    const int pos = plane == 2 ? (at < 8 ? 8 + at : at - 8) : at;
    m.b[i] = static_cast<int8_t>(from == v ? pos : -128);
  }
  return m;
}

constexpr bool Used(const Bytes16& m) {
  for (int8_t b : m.b) {
    if (b >= 0) return true;
  }
  return false;
}

template <bool Mirror, bool ULow>
struct YuvMasks {
  static constexpr Bytes16 m[3][3] = {
      {YuvMask(0, 0, Mirror, ULow), YuvMask(0, 1, Mirror, ULow), YuvMask(0, 2, Mirror, ULow)},
      {YuvMask(1, 0, Mirror, ULow), YuvMask(1, 1, Mirror, ULow), YuvMask(1, 2, Mirror, ULow)},
      {YuvMask(2, 0, Mirror, ULow), YuvMask(2, 1, Mirror, ULow), YuvMask(2, 2, Mirror, ULow)}};
};

// One 24-bit output block: the bytes of the vectors that contribute to it.
template <class M, int Blk>
__attribute__((always_inline)) inline __m256i YuvBlock(__m256i x, __m256i y, __m256i z) {
  __m256i v = _mm256_setzero_si256();
  if constexpr (Used(M::m[Blk][0])) v = _mm256_shuffle_epi8(x, Broadcast(M::m[Blk][0]));
  if constexpr (Used(M::m[Blk][1])) v = _mm256_or_si256(v, _mm256_shuffle_epi8(y, Broadcast(M::m[Blk][1])));
  if constexpr (Used(M::m[Blk][2])) v = _mm256_or_si256(v, _mm256_shuffle_epi8(z, Broadcast(M::m[Blk][2])));
  return v;
}

// 32 pixels from two halves in 16-bit lanes: a holds pixels 0-7 and 16-23,
// b pixels 8-15 and 24-31, so the byte packs come out in pixel order. Unit:
// the B and R multipliers' high halves are 1 and the G ones' 0 (true for
// the default coefficients), which spares the low multiplies.
template <bool ULow, bool Unit, class O>
__attribute__((always_inline)) inline void Yuv32(O& o, __m256i ya, __m256i ca, __m256i yb, __m256i cb,
                                                 const YuvK32<ULow>& k) {
  if constexpr (O::kPixel == 3) {
    __m256i p1a, p2a, ga, p1b, p2b, gb;
    YuvLanesSwapped<ULow, Unit>(ya, ca, k, p1a, p2a, ga);
    YuvLanesSwapped<ULow, Unit>(yb, cb, k, p1b, p2b, gb);
    const __m256i x = _mm256_packus_epi16(p1a, ga), y = _mm256_packus_epi16(p2a, p1b), z = _mm256_packus_epi16(gb, p2b);
    using M = YuvMasks<O::kMirror, ULow>;
    const __m256i v[3] = {YuvBlock<M, 0>(x, y, z), YuvBlock<M, 1>(x, y, z), YuvBlock<M, 2>(x, y, z)};
    uint8_t* lo = O::kMirror ? o.d - 45 : o.d;  // pixels 0-15
    uint8_t* hi = O::kMirror ? o.d - 93 : o.d + 48;  // pixels 16-31
    for (int blk = 0; blk < 3; ++blk) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(lo + 16 * blk), _mm256_castsi256_si128(v[blk]));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(hi + 16 * blk), _mm256_extracti128_si256(v[blk], 1));
    }
    o.d += O::kMirror ? -96 : 96;
  } else {
    __m256i ba, ga, ra, bb, gb, rb;
    YuvLanes(ya, ca, k, ba, ga, ra);
    YuvLanes(yb, cb, k, bb, gb, rb);
    o.Put32(_mm256_packus_epi16(ba, bb), _mm256_packus_epi16(ga, gb), _mm256_packus_epi16(ra, rb));
  }
}

// Byte shuffle mask from a list; -1 clears the byte.
inline __m128i Mask(std::initializer_list<int> l) {
  alignas(16) int8_t m[16];
  int i = 0;
  for (int v : l) m[i++] = static_cast<int8_t>(v);
  while (i < 16) m[i++] = -1;
  return _mm_load_si128(reinterpret_cast<const __m128i*>(m));
}

// 16 pixels of a pair kind (UYVY, YUYV, YCbCr422) from 32 bytes.
template <int Y0, int Y1, int U, int V, class O>
__attribute__((always_inline)) inline void Yuv422x16(O& o, const uint8_t* s, const YuvK& k) {
  static const __m128i my = Mask({Y0, Y1, Y0 + 4, Y1 + 4, Y0 + 8, Y1 + 8, Y0 + 12, Y1 + 12});
  static const __m128i mu = Mask({U, U + 4, U + 8, U + 12}), mv = Mask({V, V + 4, V + 8, V + 12});
  const __m128i lo = Load(s), hi = Load(s + 16);
  const __m128i y = _mm_unpacklo_epi64(_mm_shuffle_epi8(lo, my), _mm_shuffle_epi8(hi, my));
  const __m128i u8 = _mm_unpacklo_epi32(_mm_shuffle_epi8(lo, mu), _mm_shuffle_epi8(hi, mu));
  const __m128i v8 = _mm_unpacklo_epi32(_mm_shuffle_epi8(lo, mv), _mm_shuffle_epi8(hi, mv));
  YuvPlanes(o, y, u8, v8, k);
}

// 16 pixels of YUV411 from 24 bytes: four groups U Y0 Y1 V Y2 Y3, each
// group's chroma serving two pixel pairs.
template <class O>
__attribute__((always_inline)) inline void Yuv411x16(O& o, const uint8_t* s, const YuvK& k) {
  static const __m128i myl = Mask({1, 2, 4, 5, 7, 8, 10, 11}), myh = Mask({5, 6, 8, 9, 11, 12, 14, 15});
  static const __m128i mul_ = Mask({0, 0, 6, 6}), muh = Mask({4, 4, 10, 10});
  static const __m128i mvl = Mask({3, 3, 9, 9}), mvh = Mask({7, 7, 13, 13});
  const __m128i lo = Load(s), hi = Load(s + 8);
  const __m128i y = _mm_unpacklo_epi64(_mm_shuffle_epi8(lo, myl), _mm_shuffle_epi8(hi, myh));
  const __m128i u8 = _mm_unpacklo_epi32(_mm_shuffle_epi8(lo, mul_), _mm_shuffle_epi8(hi, muh));
  const __m128i v8 = _mm_unpacklo_epi32(_mm_shuffle_epi8(lo, mvl), _mm_shuffle_epi8(hi, mvh));
  YuvPlanes(o, y, u8, v8, k);
}

// 32 pixels of a pair kind from 64 bytes; YLow: Y is the even byte.
template <bool YLow, bool ULow, bool Unit, class O>
__attribute__((always_inline)) inline void Yuv422x32(O& o, const uint8_t* s, const YuvK32<ULow>& k) {
  const __m256i a = Load2(s, s + 32), b = Load2(s + 16, s + 48), ff = _mm256_set1_epi16(0xFF);
  auto even = [&ff](__m256i v) { return _mm256_and_si256(v, ff); };
  auto odd = [](__m256i v) { return _mm256_srli_epi16(v, 8); };
  if constexpr (YLow) {
    Yuv32<ULow, Unit>(o, even(a), odd(a), even(b), odd(b), k);
  } else {
    Yuv32<ULow, Unit>(o, odd(a), even(a), odd(b), even(b), k);
  }
}

// Lane masks for 8 pixels of YUV411 starting at byte `base` of a 16-byte
// block: their Y bytes, and U, V of each pixel pair.
constexpr Bytes16 Yuv411Mask(int base, bool chroma) {
  Bytes16 m{};
  constexpr int yAt[4] = {1, 2, 4, 5};
  for (int l = 0; l < 8; ++l) {
    const int at = chroma ? 6 * (l / 4) + (l % 2 ? 3 : 0) : 6 * (l / 4) + yAt[l % 4];
    m.b[2 * l] = static_cast<int8_t>(base + at);
    m.b[2 * l + 1] = -128;
  }
  return m;
}
constexpr Bytes16 kYuv411[2][2] = {{Yuv411Mask(0, false), Yuv411Mask(0, true)},
                                   {Yuv411Mask(4, false), Yuv411Mask(4, true)}};

// 32 pixels of YUV411 from 48 bytes. Pixels 0-7 and 16-23 start blocks at
// bytes 0 and 24; pixels 8-15 and 24-31 start 4 bytes into blocks at 8 and
// 32, which keeps every load inside the 48 bytes.
template <bool Unit, class O>
__attribute__((always_inline)) inline void Yuv411x32(O& o, const uint8_t* s, const YuvK32<true>& k) {
  const __m256i a = Load2(s, s + 24), b = Load2(s + 8, s + 32);
  Yuv32<true, Unit>(o, _mm256_shuffle_epi8(a, Broadcast(kYuv411[0][0])), _mm256_shuffle_epi8(a, Broadcast(kYuv411[0][1])),
        _mm256_shuffle_epi8(b, Broadcast(kYuv411[1][0])), _mm256_shuffle_epi8(b, Broadcast(kYuv411[1][1])), k);
}

// 16 grey pixels from 16-bit words: swap, shift, low byte.
template <bool LE, class O>
inline void Mono16x16(O& o, const uint8_t* s, uint32_t shift) {
  __m128i lo = Load(s), hi = Load(s + 16);
  if constexpr (!LE) {
    static const __m128i sw = Mask({1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14});
    lo = _mm_shuffle_epi8(lo, sw);
    hi = _mm_shuffle_epi8(hi, sw);
  }
  const __m128i n = _mm_cvtsi32_si128(static_cast<int>(shift)), ff = _mm_set1_epi16(0xFF);
  const __m128i g = _mm_packus_epi16(_mm_and_si128(_mm_srl_epi16(lo, n), ff), _mm_and_si128(_mm_srl_epi16(hi, n), ff));
  o.Grey16(g);
}

// 16 grey pixels from 8 packed pairs (24 bytes): bytes 0 and 2 of each.
template <class O>
inline void MonoPackedx16(O& o, const uint8_t* s) {
  static const __m128i ml = Mask({0, 2, 3, 5, 6, 8, 9, 11}), mh = Mask({4, 6, 7, 9, 10, 12, 13, 15});
  const __m128i g = _mm_unpacklo_epi64(_mm_shuffle_epi8(Load(s), ml), _mm_shuffle_epi8(Load(s + 8), mh));
  o.Grey16(g);
}

// 16 pixels of 3-byte triples (48 bytes) split into planes of byte 0, 1, 2.
constexpr Bytes16 PlaneMask(int c, int blk) {
  Bytes16 m{};
  for (int i = 0; i < 16; ++i) {
    const int j = 3 * i + c - 16 * blk;  // byte of pixel i, plane c, within this block
    m.b[i] = static_cast<int8_t>(j >= 0 && j < 16 ? j : -128);
  }
  return m;
}
constexpr Bytes16 kPlanes[3][3] = {{PlaneMask(0, 0), PlaneMask(0, 1), PlaneMask(0, 2)},
                                   {PlaneMask(1, 0), PlaneMask(1, 1), PlaneMask(1, 2)},
                                   {PlaneMask(2, 0), PlaneMask(2, 1), PlaneMask(2, 2)}};

inline void Planes3(const uint8_t* s, __m128i* p) {
  const __m128i b0 = Load(s), b1 = Load(s + 16), b2 = Load(s + 32);
  for (int c = 0; c < 3; ++c) {
    p[c] = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(b0, MaskOf(kPlanes[c][0])), _mm_shuffle_epi8(b1, MaskOf(kPlanes[c][1]))),
                        _mm_shuffle_epi8(b2, MaskOf(kPlanes[c][2])));
  }
}

// Triples to pixels without planes, when rows run forwards: 5 pixels per
// 16-byte store into 24-bit rows (the 16th byte is the next pixel's, which
// the next step rewrites), 4 per store into 32-bit rows. Swap exchanges
// bytes 0 and 2 of each triple. Needs 6 pixels left in the row.
template <int P, bool Swap>
inline uint32_t TriplesForward(const uint8_t*& s, uint8_t*& d, uint32_t x, uint32_t w) {
  if constexpr (P == 3) {
    const __m128i m = Swap ? _mm_setr_epi8(2, 1, 0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, 15)
                           : _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    for (; x + 6 <= w; x += 5, s += 15, d += 15) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_shuffle_epi8(Load(s), m));
    }
  } else {
    const __m128i m = Swap ? _mm_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1)
                           : _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    const __m128i keep = _mm_set1_epi32(int32_t(0xFF000000u));
    for (; x + 6 <= w; x += 4, s += 12, d += 16) {
      __m128i* q = reinterpret_cast<__m128i*>(d);
      _mm_storeu_si128(q, _mm_or_si128(_mm_and_si128(_mm_loadu_si128(q), keep), _mm_shuffle_epi8(Load(s), m)));
    }
  }
  return x;
}

// 8 pixels of RGB10p32 (32 bytes) as 32-bit B, G, R, 0 words: the top 8
// bits of each 10-bit field moved into place with shifts and masks.
inline __m256i Rgb10p32Words(const uint8_t* s) {
  const __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
  return _mm256_or_si256(_mm256_or_si256(_mm256_and_si256(_mm256_srli_epi32(d, 2), _mm256_set1_epi32(0xFF)),
                                         _mm256_and_si256(_mm256_srli_epi32(d, 4), _mm256_set1_epi32(0xFF00))),
                         _mm256_and_si256(_mm256_srli_epi32(d, 6), _mm256_set1_epi32(0xFF0000)));
}

// Runs of 8 RGB10p32 pixels straight from words, no channel planes. 32-bit
// rows: one read-modify-write per run. 24-bit rows: each half's 4 pixels
// packed to 12 bytes and stored as 16, the extra 4 bytes landing where the
// next store (or the row's remaining pixels) writes afterwards; needs 2
// pixels beyond the run. Mirrored 24-bit stores put the extra bytes in front.
template <int P, bool Mirror>
inline uint32_t Rgb10p32Runs(const uint8_t*& s, uint8_t*& d, uint32_t x, uint32_t w) {
  if constexpr (P == 4) {
    const __m256i keep = _mm256_set1_epi32(int32_t(0xFF000000u)), rev = _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0);
    for (; x + 8 <= w; x += 8, s += 32) {
      __m256i v = Rgb10p32Words(s);
      __m256i* q = reinterpret_cast<__m256i*>(Mirror ? d - 28 : d);
      if constexpr (Mirror) v = _mm256_permutevar8x32_epi32(v, rev);
      _mm256_storeu_si256(q, _mm256_or_si256(_mm256_and_si256(_mm256_loadu_si256(q), keep), v));
      d += Mirror ? -32 : 32;
    }
  } else {
    const __m256i m = Mirror ? _mm256_setr_epi8(-1, -1, -1, -1, 12, 13, 14, 8, 9, 10, 4, 5, 6, 0, 1, 2, -1, -1, -1, -1, 12,
                                                13, 14, 8, 9, 10, 4, 5, 6, 0, 1, 2)
                             : _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0, 1, 2, 4, 5, 6,
                                                8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    for (; x + 10 <= w; x += 8, s += 32) {
      const __m256i v = _mm256_shuffle_epi8(Rgb10p32Words(s), m);
      if constexpr (Mirror) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d - 13), _mm256_castsi256_si128(v));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d - 25), _mm256_extracti128_si256(v, 1));
        d -= 24;
      } else {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(v));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 12), _mm256_extracti128_si256(v, 1));
        d += 24;
      }
    }
  }
  return x;
}

#endif

// Moves the cursor past n pixels that an AVX-512 loop wrote; returns n.
template <class O>
uint32_t Skip(O& o, uint32_t n) {
  o.d += O::kMirror ? -int64_t{O::kPixel} * n : int64_t{O::kPixel} * n;
  return n;
}

// Hands a 32-bit row of a kind with 4-byte source pixels to the AVX-512
// loops, which need not read the destination; returns the pixels done.
template <class O>
uint32_t WideWords32(bool wide, uint32_t kind, const uint8_t* s, O& o, uint32_t w) {
#ifdef __AVX2__
  if (O::kPixel == 4 && wide) return Skip(o, avx512::Words32Pixels(kind, O::kMirror, s, o.d, w));
#endif
  (void)wide, (void)kind, (void)s, (void)o, (void)w;
  return 0;
}

struct Yuv {
  const int32_t* t;
  const int32_t* mul;
  bool wide;  // 24-bit rows may go to the AVX-512 loops (with mul)
  template <class O>
  void Put(O& o, int y, int u, int v) const {
    o.Put(Clamp(y + t[768 + u]), Clamp(y - (t[256 + v] + t[512 + u])), Clamp(y + t[v]));
  }
};

// Row of a pair kind: 4 bytes per 2 pixels with Y0, Y1, U and V at the given
// byte offsets. The incomplete pair of an odd width holds only bytes 0 and 1;
// a chroma byte beyond them comes from the previous pair.
template <int Y0, int Y1, int U, int V>
struct PairRow {
  Yuv yuv;
  uint32_t kind;
  template <class O>
  void operator()(const uint8_t* s, O& o, uint32_t w) const {
    uint32_t x = 0;
#ifdef __AVX2__
    if (O::kPixel == 3 && yuv.wide && yuv.mul) {
      x = Skip(o, avx512::Yuv24Pixels(kind, O::kMirror, s, o.d, w, yuv.mul));
      s += 2 * x;
    }
    if (yuv.mul) {
      const YuvK32<(U < V)> k32(yuv.mul);
      if (k32.unit) {
        for (; x + 32 <= w; x += 32, s += 64) Yuv422x32<Y0 == 0, (U < V), true>(o, s, k32);
      } else {
        for (; x + 32 <= w; x += 32, s += 64) Yuv422x32<Y0 == 0, (U < V), false>(o, s, k32);
      }
    }
    const YuvK k(yuv.t, yuv.mul);
    for (; x + 16 <= w; x += 16, s += 32) Yuv422x16<Y0, Y1, U, V>(o, s, k);
#endif
    for (; x + 1 < w; x += 2, s += 4) {
      yuv.Put(o, s[Y0], s[U], s[V]);
      yuv.Put(o, s[Y1], s[U], s[V]);
    }
    if (x < w) yuv.Put(o, s[Y0], s[U < 2 ? U : U - 4], s[V < 2 ? V : V - 4]);
  }
};

template <int P, bool Mirror, class RowFn>
void RunRows(const ConvParams& p, const ConvReq& r, RowFn fn) {
  const int64_t w = r.width, h = r.height;
  const uint64_t srcRow = SourceRowBytes(r.kind, r.width);
  const uint64_t stride = RowStride<P>(r.width);
  const bool flip = (p.geometry & 2) != 0;
  const uint8_t* src = static_cast<const uint8_t*>(r.src);
  uint8_t* dst = static_cast<uint8_t*>(r.dst);
  auto row = [&](int64_t y) {
    const int64_t yo = flip ? h - 1 - y : y;
    Out<P, Mirror> o{dst + yo * stride + (Mirror ? (w - 1) * P : 0)};
    fn(src + y * srcRow, o, static_cast<uint32_t>(w));
  };
  const int team = TeamSize(p);
  if (team > 1) {
#pragma omp parallel for schedule(static) num_threads(team)
    for (int64_t y = 0; y < h; ++y) row(y);
  } else {
    for (int64_t y = 0; y < h; ++y) row(y);
  }
}

template <int P, bool Mirror, bool LE>
void Kinds16(const ConvParams& p, const ConvReq& r) {
  const Word<LE> w16{p.shift & 31};
  switch (r.kind) {
    case KIND_MONO16:
      return RunRows<P, Mirror>(p, r, [w16](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = 0;
#ifdef __AVX2__
        for (; x + 16 <= w; x += 16, s += 32) Mono16x16<LE>(o, s, w16.shift);
#endif
        for (; x < w; ++x, s += 2) o.Grey(w16(s));
      });
    case KIND_RGB16:
      return RunRows<P, Mirror>(p, r, [w16](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 6) o.Put(w16(s + 4), w16(s + 2), w16(s));
      });
    case KIND_BGR16:
      return RunRows<P, Mirror>(p, r, [w16](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 6) o.Put(w16(s), w16(s + 2), w16(s + 4));
      });
    default:
      return;
  }
}

template <int P, bool Mirror>
void Kinds(const ConvParams& p, const ConvReq& r) {
  const Yuv yuv{p.table, p.tableMul, p.avx512};
  const bool wide = p.avx512;
  switch (r.kind) {
    case KIND_MONO8:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x) o.Grey(s[x]);
      });
    case KIND_MONO16:
    case KIND_RGB16:
    case KIND_BGR16:
      return r.littleEndian ? Kinds16<P, Mirror, true>(p, r) : Kinds16<P, Mirror, false>(p, r);
    case KIND_MONO12_PACKED:
    case KIND_MONO10_PACKED:
      // Pairs of pixels in 3 bytes; the middle byte holds the low bits.
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = 0;
#ifdef __AVX2__
        for (; x + 16 <= w; x += 16, s += 24) MonoPackedx16(o, s);
#endif
        for (; x + 1 < w; x += 2, s += 3) {
          o.Grey(s[0]);
          o.Grey(s[2]);
        }
        if (x < w) o.Grey(s[0]);
      });
    case KIND_RGB8:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = 0;
#ifdef __AVX2__
        if constexpr (!Mirror) {
          x = TriplesForward<P, true>(s, o.d, x, w);
        } else {
          for (; x + 16 <= w; x += 16, s += 48) {
            __m128i pl[3];
            Planes3(s, pl);
            o.Put16(pl[2], pl[1], pl[0]);
          }
        }
#endif
        for (; x < w; ++x, s += 3) o.Put(s[2], s[1], s[0]);
      });
    case KIND_BGR8:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = 0;
#ifdef __AVX2__
        if constexpr (!Mirror) {
          x = TriplesForward<P, false>(s, o.d, x, w);
        } else {
          for (; x + 16 <= w; x += 16, s += 48) {
            __m128i pl[3];
            Planes3(s, pl);
            o.Put16(pl[0], pl[1], pl[2]);
          }
        }
#endif
        for (; x < w; ++x, s += 3) o.Put(s[0], s[1], s[2]);
      });
    case KIND_RGBA8:
      return RunRows<P, Mirror>(p, r, [wide](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = WideWords32(wide, KIND_RGBA8, s, o, w);
        for (s += 4 * x; x < w; ++x, s += 4) o.Put(s[2], s[1], s[0]);
      });
    case KIND_BGRA8:
      return RunRows<P, Mirror>(p, r, [wide](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = WideWords32(wide, KIND_BGRA8, s, o, w);
        for (s += 4 * x; x < w; ++x, s += 4) o.Put(s[0], s[1], s[2]);
      });
    case KIND_RGB10V1_PACKED:
      return RunRows<P, Mirror>(p, r, [wide](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = WideWords32(wide, KIND_RGB10V1_PACKED, s, o, w);
        for (s += 4 * x; x < w; ++x, s += 4) o.Put(s[1], s[2], s[3]);
      });
    case KIND_RGB10P32:
      return RunRows<P, Mirror>(p, r, [wide](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = WideWords32(wide, KIND_RGB10P32, s, o, w);
        s += 4 * x;
#ifdef __AVX2__
        x = Rgb10p32Runs<P, Mirror>(s, o.d, x, w);
#endif
        for (; x < w; ++x, s += 4) {
          const uint32_t d = s[0] | uint32_t{s[1]} << 8 | uint32_t{s[2]} << 16 | uint32_t{s[3]} << 24;
          o.Put((d >> 2) & 0xFF, (d >> 12) & 0xFF, (d >> 22) & 0xFF);
        }
      });
    case KIND_RGB12V1_PACKED:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = 0;
        for (; x + 1 < w; x += 2, s += 9) {
          o.Put(s[3], s[2], s[0]);
          o.Put(s[8], s[6], s[5]);
        }
        if (x < w) o.Put(s[3], s[2], s[0]);
      });
    case KIND_RGB565:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 2) {
          const uint32_t h = s[0] | uint32_t{s[1]} << 8;
          o.Put(h >> 11, (h >> 5) & 0x3F, h & 0x1F);
        }
      });
    case KIND_BGR565:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 2) {
          const uint32_t h = s[0] | uint32_t{s[1]} << 8;
          o.Put(h & 0x1F, (h >> 5) & 0x3F, h >> 11);
        }
      });
    case KIND_YUV444:
      return RunRows<P, Mirror>(p, r, [yuv](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 3) yuv.Put(o, s[1], s[0], s[2]);
      });
    case KIND_YCBCR8:
      return RunRows<P, Mirror>(p, r, [yuv](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 3) yuv.Put(o, s[0], s[2], s[1]);
      });
    // Pair kinds: an odd last pixel borrows the missing chroma byte from the
    // previous pair (width 1 is refused by the dispatcher).
    case KIND_YUV422_UYVY:
      return RunRows<P, Mirror>(p, r, PairRow<1, 3, 0, 2>{yuv, KIND_YUV422_UYVY});
    case KIND_YUV422_YUYV:
      return RunRows<P, Mirror>(p, r, PairRow<0, 2, 1, 3>{yuv, KIND_YUV422_YUYV});
    case KIND_YCBCR422:
      return RunRows<P, Mirror>(p, r, PairRow<0, 2, 3, 1>{yuv, KIND_YCBCR422});
    case KIND_YUV411:
      // Groups of 4 pixels in 6 bytes: U Y0 Y1 V Y2 Y3.
      return RunRows<P, Mirror>(p, r, [yuv](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = 0;
#ifdef __AVX2__
        if (o.kPixel == 3 && yuv.wide && yuv.mul) {
          x = Skip(o, avx512::Yuv24Pixels(KIND_YUV411, o.kMirror, s, o.d, w, yuv.mul));
          s += 3 * x / 2;
        }
        if (yuv.mul) {
          const YuvK32<true> k32(yuv.mul);
          if (k32.unit) {
            for (; x + 32 <= w; x += 32, s += 48) Yuv411x32<true>(o, s, k32);
          } else {
            for (; x + 32 <= w; x += 32, s += 48) Yuv411x32<false>(o, s, k32);
          }
        }
        const YuvK k(yuv.t, yuv.mul);
        for (; x + 16 <= w; x += 16, s += 24) Yuv411x16(o, s, k);
#endif
        for (; x + 3 < w; x += 4, s += 6) {
          yuv.Put(o, s[1], s[0], s[3]);
          yuv.Put(o, s[2], s[0], s[3]);
          yuv.Put(o, s[4], s[0], s[3]);
          yuv.Put(o, s[5], s[0], s[3]);
        }
        switch (w - x) {
          case 3:
            yuv.Put(o, s[1], s[0], s[3]);
            yuv.Put(o, s[2], s[0], s[3]);
            yuv.Put(o, s[4], s[0], s[3]);
            break;
          case 2:
            yuv.Put(o, s[1], s[0], s[-3]);
            yuv.Put(o, s[2], s[0], s[-3]);
            break;
          case 1:
            yuv.Put(o, s[1], s[0], s[-3]);
            break;
          default:
            break;
        }
      });
    default:
      return;  // no converter for this kind
  }
}

}  // namespace

void LineConvert(const ConvParams& p, const ConvReq& r, bool out24) {
  const bool mirror = (p.geometry & 1) != 0;
  if (out24) {
    mirror ? Kinds<3, true>(p, r) : Kinds<3, false>(p, r);
  } else {
    mirror ? Kinds<4, true>(p, r) : Kinds<4, false>(p, r);
  }
}

}  // namespace kivcam::conv::KIVCONV_ISA
