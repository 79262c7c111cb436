// Bilinear Bayer demosaicing. Conceptually every sample is stored in its own
// channel at its output position and the missing channels are interpolated
// from those stored samples: interior, then border, then optional green
// smoothing in place.
//
// Apart from smoothing, every output byte is a function of the samples
// alone. Interior rows are therefore computed straight from the three source
// rows around them (mirroring and flipping only change which source byte is
// read), with no row depending on another: rows split freely over threads,
// and nothing but the destination is written. Border pixels are computed the
// same way, with each row; smoothing runs last and serially, because each
// site reads neighbours already smoothed above and to the left.
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include <omp.h>

#ifdef __AVX2__
#include <immintrin.h>
#endif

#include "conv/converters.h"
#include "conv/pixel_format.h"

namespace kivcam::conv::KIVCONV_ISA {
namespace {

#include "conv/isa_local.h"

// Channel offsets within a destination pixel.
enum : uint8_t { CB = 0, CG = 1, CR = 2 };

// Colour of pixel (x & 1, y & 1) for each phase, [phase][y][x].
constexpr uint8_t kPattern[4][2][2] = {
    {{CR, CG}, {CG, CB}},  // RG
    {{CG, CB}, {CR, CG}},  // GB
    {{CG, CR}, {CB, CG}},  // GR
    {{CB, CG}, {CG, CR}},  // BG
};

// Interpolation sites: R, B, G in an R row (R left/right), G in a B row.
enum Site { SR, SB, SGR, SGB };

inline bool IsRRow(uint32_t phase, uint32_t y) {
  return kPattern[phase][y & 1][0] == CR || kPattern[phase][y & 1][1] == CR;
}

inline Site SiteAt(uint32_t phase, uint32_t x, uint32_t y) {
  const uint8_t c = kPattern[phase][y & 1][x & 1];
  if (c == CR) return SR;
  if (c == CB) return SB;
  return IsRRow(phase, y) ? SGR : SGB;
}

// The mosaic seen in destination coordinates: mirroring an even width or
// flipping an even height moves the 2x2 cell by one pixel.
uint32_t OutputPhase(uint32_t phase, uint32_t geometry, uint32_t w, uint32_t h) {
  if ((geometry & 1) && w % 2 == 0) phase ^= 2;
  if ((geometry & 2) && h % 2 == 0) phase ^= 1;
  return phase;
}

// Sample readers: the 8-bit value of source pixel x of a row.
struct Read8 {
  static uint64_t RowBytes(uint32_t w) { return w; }
  uint32_t At(const uint8_t* s, uint32_t x) const { return s[x]; }
};

template <bool LE>
struct Read16 {
  uint32_t shift;
  static uint64_t RowBytes(uint32_t w) { return uint64_t{w} * 2; }
  uint32_t At(const uint8_t* s, uint32_t x) const {
    s += 2 * size_t{x};
    const uint32_t v = LE ? (s[0] | uint32_t{s[1]} << 8) : (s[1] | uint32_t{s[0]} << 8);
    return (v >> shift) & 0xFF;
  }
};

// Pairs of pixels in 3 bytes; the middle byte holds the low bits.
struct ReadPacked {
  static uint64_t RowBytes(uint32_t w) { return (uint64_t{w} * 3 + 1) / 2; }
  uint32_t At(const uint8_t* s, uint32_t x) const { return s[(x >> 1) * 3 + (x & 1) * 2]; }
};

// The sample that lands at output column x: the reader, mirrored or not.
template <class Reader, bool Mirror>
struct Acc {
  Reader rd;
  uint32_t last;  // width - 1
  uint32_t operator()(const uint8_t* s, uint32_t x) const { return rd.At(s, Mirror ? last - x : x); }
};

struct Image {
  const uint8_t* src;
  uint64_t srcRow;
  uint8_t* dst;
  ptrdiff_t stride;
  uint32_t w, h;
  uint32_t outPhase;
  uint32_t geometry;
  // Source row that lands at output row y.
  const uint8_t* SrcRow(uint32_t y) const { return src + ((geometry & 2) ? h - 1 - y : y) * srcRow; }
};

// Every sample of output row y in its own channel (the border rows).
template <int P, class A>
void OwnRow(const Image& im, const A& a, uint32_t y) {
  const uint8_t* s = im.SrcRow(y);
  const uint8_t c0 = kPattern[im.outPhase][y & 1][0], c1 = kPattern[im.outPhase][y & 1][1];
  uint8_t* d = im.dst + y * im.stride;
  uint32_t x = 0;
  for (; x + 1 < im.w; x += 2, d += 2 * P) {
    d[c0] = static_cast<uint8_t>(a(s, x));
    d[P + c1] = static_cast<uint8_t>(a(s, x + 1));
  }
  if (x < im.w) d[c0] = static_cast<uint8_t>(a(s, x));
}

// One interior pixel straight from the three source rows around it: its own
// sample and both interpolated channels.
template <int P, Site S, class A>
inline void Pixel(uint8_t* d, const A& a, const uint8_t* su, const uint8_t* sc, const uint8_t* sd,
                  uint32_t x) {
  const uint32_t c = a(sc, x);
  const uint32_t hz = a(sc, x - 1) + a(sc, x + 1), vt = a(su, x) + a(sd, x);
  if constexpr (S == SR || S == SB) {
    const uint32_t diag = a(su, x - 1) + a(su, x + 1) + a(sd, x - 1) + a(sd, x + 1);
    d[S == SR ? CR : CB] = static_cast<uint8_t>(c);
    d[CG] = static_cast<uint8_t>((hz + vt) >> 2);
    d[S == SR ? CB : CR] = static_cast<uint8_t>(diag >> 2);
  } else {
    d[CG] = static_cast<uint8_t>(c);
    d[S == SGR ? CR : CB] = static_cast<uint8_t>(hz >> 1);
    d[S == SGR ? CB : CR] = static_cast<uint8_t>(vt >> 1);
  }
}

// Columns 1..w-2 of interior row y: S1 at odd x, S2 at even x.
#ifdef __AVX2__
// 16 interior pixels of 8-bit samples from x (odd) on: the same sums as
// Pixel(), in 16-bit lanes, then the choice per lane parity.
// Vector loaders: samples x..x+15 of a row as 16-bit lanes.
struct VecRead8 {
  __m256i operator()(const uint8_t* s, uint32_t x) const { return Load16(s + x); }
};

template <bool LE>
struct VecRead16 {
  __m128i count;  // the shift
  __m256i operator()(const uint8_t* s, uint32_t x) const {
    __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 2 * size_t{x}));
    if constexpr (!LE) {
      w = _mm256_shuffle_epi8(w, _mm256_setr_epi8(1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14, 1, 0, 3, 2,
                                                  5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14));
    }
    return _mm256_and_si256(_mm256_srl_epi16(w, count), _mm256_set1_epi16(0xFF));
  }
};

// Mirrored rows: samples x..x+15 counted from the row's end, read as the 16
// bytes (or words) that end there and reversed.
template <class L>
struct VecMirror {
  L inner;
  uint32_t last;  // width - 1
  __m256i operator()(const uint8_t* s, uint32_t x) const {
    const __m256i v = inner(s, last - x - 15);
    // Reverse 16 lanes of 16 bits: swap the halves, then the lanes within each.
    const __m256i halves = _mm256_permute4x64_epi64(v, 0x4E);
    return _mm256_shuffle_epi8(halves, _mm256_setr_epi8(14, 15, 12, 13, 10, 11, 8, 9, 6, 7, 4, 5, 2, 3, 0, 1, 14, 15,
                                                        12, 13, 10, 11, 8, 9, 6, 7, 4, 5, 2, 3, 0, 1));
  }
};

// Packed pairs: sample x is byte 0 of pair x / 2, or byte 2 for odd x.
struct VecReadPacked {
  __m256i operator()(const uint8_t* s, uint32_t x) const {
    const uint8_t* b = s + size_t{x >> 1} * 3;
    auto load = [](const uint8_t* q) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(q)); };
    __m128i g;
    if (x & 1) {
      g = _mm_unpacklo_epi64(
          _mm_shuffle_epi8(load(b), _mm_setr_epi8(2, 3, 5, 6, 8, 9, 11, 12, -1, -1, -1, -1, -1, -1, -1, -1)),
          _mm_shuffle_epi8(load(b + 9), _mm_setr_epi8(5, 6, 8, 9, 11, 12, 14, 15, -1, -1, -1, -1, -1, -1, -1, -1)));
    } else {
      g = _mm_unpacklo_epi64(
          _mm_shuffle_epi8(load(b), _mm_setr_epi8(0, 2, 3, 5, 6, 8, 9, 11, -1, -1, -1, -1, -1, -1, -1, -1)),
          _mm_shuffle_epi8(load(b + 8), _mm_setr_epi8(4, 6, 7, 9, 10, 12, 13, 15, -1, -1, -1, -1, -1, -1, -1, -1)));
    }
    return _mm256_cvtepu8_epi16(g);
  }
};

template <int P, Site S1, Site S2, class L>
inline void Pixels16(uint8_t* d, const uint8_t* su, const uint8_t* sc, const uint8_t* sd, uint32_t x, const L& ld) {
  const __m256i c = ld(sc, x);
  const __m256i hz = _mm256_add_epi16(ld(sc, x - 1), ld(sc, x + 1));
  const __m256i vt = _mm256_add_epi16(ld(su, x), ld(sd, x));
  const __m256i diag = _mm256_add_epi16(_mm256_add_epi16(ld(su, x - 1), ld(su, x + 1)),
                                        _mm256_add_epi16(ld(sd, x - 1), ld(sd, x + 1)));
  // Lanes holding an R or B site: even lanes are odd x (S1).
  constexpr bool evenIsColour = S1 == SR || S1 == SB;
  const __m256i m = evenIsColour ? _mm256_set1_epi32(0x0000FFFF) : _mm256_set1_epi32(int32_t(0xFFFF0000u));
  const __m256i own = _mm256_blendv_epi8(_mm256_srli_epi16(hz, 1), c, m);
  const __m256i green = _mm256_blendv_epi8(c, _mm256_srli_epi16(_mm256_add_epi16(hz, vt), 2), m);
  const __m256i other = _mm256_blendv_epi8(_mm256_srli_epi16(vt, 1), _mm256_srli_epi16(diag, 2), m);
  constexpr bool rRow = S1 == SR || S1 == SGR;
  const __m128i o = Pack16(own), g = Pack16(green), t = Pack16(other);
  if constexpr (rRow) {
    StorePixels<P>(d, t, g, o);
  } else {
    StorePixels<P>(d, o, g, t);
  }
}
#endif

template <int P, Site S1, Site S2, class A>
void InteriorRowT(const Image& im, const A& a, uint32_t y) {
  const uint8_t* su = im.SrcRow(y - 1);
  const uint8_t* sc = im.SrcRow(y);
  const uint8_t* sd = im.SrcRow(y + 1);
  uint8_t* d = im.dst + y * im.stride + P;
  uint32_t x = 1;
#ifdef __AVX2__
  if constexpr (std::is_same_v<A, Acc<Read8, false>>) {
    for (; x + 17 <= im.w; x += 16, d += 16 * P) Pixels16<P, S1, S2>(d, su, sc, sd, x, VecRead8{});
  } else if constexpr (std::is_same_v<A, Acc<Read16<true>, false>> || std::is_same_v<A, Acc<Read16<false>, false>>) {
    const VecRead16<std::is_same_v<A, Acc<Read16<true>, false>>> ld{_mm_cvtsi32_si128(int(a.rd.shift))};
    for (; x + 17 <= im.w; x += 16, d += 16 * P) Pixels16<P, S1, S2>(d, su, sc, sd, x, ld);
  } else if constexpr (std::is_same_v<A, Acc<ReadPacked, false>>) {
    for (; x + 17 <= im.w; x += 16, d += 16 * P) Pixels16<P, S1, S2>(d, su, sc, sd, x, VecReadPacked{});
  } else if constexpr (std::is_same_v<A, Acc<Read8, true>>) {
    const VecMirror<VecRead8> ld{{}, im.w - 1};
    for (; x + 17 <= im.w; x += 16, d += 16 * P) Pixels16<P, S1, S2>(d, su, sc, sd, x, ld);
  } else if constexpr (std::is_same_v<A, Acc<Read16<true>, true>> || std::is_same_v<A, Acc<Read16<false>, true>>) {
    using V = VecRead16<std::is_same_v<A, Acc<Read16<true>, true>>>;
    const VecMirror<V> ld{V{_mm_cvtsi32_si128(int(a.rd.shift))}, im.w - 1};
    for (; x + 17 <= im.w; x += 16, d += 16 * P) Pixels16<P, S1, S2>(d, su, sc, sd, x, ld);
  } else if constexpr (std::is_same_v<A, Acc<ReadPacked, true>>) {
    const VecMirror<VecReadPacked> ld{{}, im.w - 1};
    for (; x + 17 <= im.w; x += 16, d += 16 * P) Pixels16<P, S1, S2>(d, su, sc, sd, x, ld);
  }
#endif
  for (; x + 2 < im.w; x += 2, d += 2 * P) {
    Pixel<P, S1>(d, a, su, sc, sd, x);
    Pixel<P, S2>(d + P, a, su, sc, sd, x + 1);
  }
  if (x + 1 < im.w) Pixel<P, S1>(d, a, su, sc, sd, x);
}

// Interior row y: its first and last samples for the border pass, the rest
// fully interpolated.
template <int P, class A>
void InteriorRow(const Image& im, const A& a, uint32_t y) {
  const uint8_t* sc = im.SrcRow(y);
  uint8_t* row = im.dst + y * im.stride;
  row[kPattern[im.outPhase][y & 1][0]] = static_cast<uint8_t>(a(sc, 0));
  const uint32_t l = im.w - 1;
  row[ptrdiff_t(l) * P + kPattern[im.outPhase][y & 1][l & 1]] = static_cast<uint8_t>(a(sc, l));
  switch (SiteAt(im.outPhase, 1, y)) {
    case SR: return InteriorRowT<P, SR, SGR>(im, a, y);
    case SGR: return InteriorRowT<P, SGR, SR>(im, a, y);
    case SB: return InteriorRowT<P, SB, SGB>(im, a, y);
    case SGB: return InteriorRowT<P, SGB, SB>(im, a, y);
  }
}

// Pass 4 for one border pixel: the interior rules with only the neighbours
// that exist, its neighbours' samples read from the source like the
// interior's, so that a row's border pixels need nothing from other rows'
// work. O(width + height), so clarity over speed here.
template <int P, class A>
void BorderPixel(const Image& im, const A& a, uint32_t x, uint32_t y) {
  const uint32_t w = im.w, h = im.h;
  auto own = [&](uint32_t xx, uint32_t yy) -> uint32_t { return a(im.SrcRow(yy), xx); };
  // Average of the values that exist: one is copied, two or four averaged.
  auto avg = [](uint32_t sum, int n) -> uint8_t {
    return static_cast<uint8_t>(n == 4 ? sum >> 2 : n == 2 ? sum >> 1 : sum);
  };
  uint8_t* p = im.dst + y * im.stride + ptrdiff_t(x) * P;
  const uint8_t c = kPattern[im.outPhase][y & 1][x & 1];
  const bool left = x > 0, right = x + 1 < w, up = y > 0, down = y + 1 < h;
  if (c != CG) {
    const bool rowEdge = !up || !down, colEdge = !left || !right;
    if (rowEdge && colEdge) {
      p[CG] = avg(own(left ? x - 1 : x + 1, y) + own(x, up ? y - 1 : y + 1), 2);
    } else if (rowEdge) {
      p[CG] = avg(own(x - 1, y) + own(x + 1, y), 2);
    } else {
      p[CG] = avg(own(x, y - 1) + own(x, y + 1), 2);
    }
    uint32_t sum = 0;
    int n = 0;
    for (int dy = -1; dy <= 1; dy += 2) {
      for (int dx = -1; dx <= 1; dx += 2) {
        if ((dx < 0 ? left : right) && (dy < 0 ? up : down)) {
          sum += own(x + dx, y + dy);
          ++n;
        }
      }
    }
    p[c == CR ? CB : CR] = avg(sum, n);
    return;
  }
  const uint8_t hc = IsRRow(im.outPhase, y) ? CR : CB;
  const uint8_t vc = hc == CR ? CB : CR;
  uint32_t hs = 0, vs = 0;
  int hn = 0, vn = 0;
  if (left) hs += own(x - 1, y), ++hn;
  if (right) hs += own(x + 1, y), ++hn;
  if (up) vs += own(x, y - 1), ++vn;
  if (down) vs += own(x, y + 1), ++vn;
  p[hc] = avg(hs, hn);
  p[vc] = avg(vs, vn);
  // Phase GR with an odd width: the last column's G sites in rows 2, 4, ...
  // take R from the B site above them, whose R is the mean of its two
  // diagonal samples on the left.
  if (im.outPhase == PHASE_GR && (w & 1) && x == w - 1 && y % 2 == 0 && y >= 2 && y + 2 <= h) {
    p[CR] = avg(own(x - 1, y - 2) + own(x - 1, y), 2);
  }
}

// Green smoothing: G at interior G sites from its diagonals, in place, block
// rows k (rows 2k+1, 2k+2) top to bottom, blocks j (columns 2j+1, 2j+2) left
// to right, the upper row's site first. Each site reads neighbours already
// smoothed above and to the left and unsmoothed ones below, so the order is
// part of the result.
inline uint32_t SmoothBlockRows(const Image& im) { return im.w < 3 || im.h < 3 ? 0 : (im.h - 1) / 2; }
inline uint32_t SmoothBlocks(const Image& im) { return (im.w - 1) / 2; }

// Blocks [j0, j1) of block row k.
template <int P>
void SmoothRange(const Image& im, uint32_t k, uint32_t j0, uint32_t j1) {
  const ptrdiff_t st = im.stride;
  auto smooth = [st](uint8_t* p) {
    const uint32_t d = p[-st - P + CG] + p[-st + P + CG] + p[st - P + CG] + p[st + P + CG];
    p[CG] = static_cast<uint8_t>((d >> 3) + (p[CG] >> 1));
  };
  const uint32_t r1 = 2 * k + 1, r2 = r1 + 1;
  const bool has2 = r2 + 1 < im.h;
  // Within each column pair, the G of row r1 sits at offset g1, row r2's at 1 - g1.
  const uint32_t g1 = kPattern[im.outPhase][r1 & 1][1] == CG ? 0 : 1;
  uint8_t* a = im.dst + r1 * st + ptrdiff_t(2 * j0 + 1 + g1) * P;
  uint8_t* b = im.dst + r2 * st + ptrdiff_t(2 * j0 + 2 - g1) * P;
  for (uint32_t j = j0; j < j1; ++j, a += 2 * P, b += 2 * P) {
    // A last half pair (odd width) has only column w - 2 inside.
    const uint32_t c = 2 * j + 1;
    if (c + g1 + 1 < im.w) smooth(a);
    if (has2 && c + (1 - g1) + 1 < im.w) smooth(b);
  }
}

template <int P>
void Smooth(const Image& im) {
  for (uint32_t k = 0; k < SmoothBlockRows(im); ++k) SmoothRange<P>(im, k, 0, SmoothBlocks(im));
}

template <int P, class A>
void Run(const ConvParams& p, const Image& im, const A& a) {
  // A row and its border pixels: top and bottom rows are all border.
  auto row = [&](uint32_t y) {
    if (y == 0 || y + 1 == im.h) {
      OwnRow<P>(im, a, y);
      for (uint32_t x = 0; x < im.w; ++x) BorderPixel<P>(im, a, x, y);
    } else {
      InteriorRow<P>(im, a, y);
      BorderPixel<P>(im, a, 0, y);
      BorderPixel<P>(im, a, im.w - 1, y);
    }
  };
  const int team = TeamSize(p);
  const int64_t h = im.h;
  if (team > 1) {
#pragma omp parallel for schedule(static) num_threads(team)
    for (int64_t y = 0; y < h; ++y) row(static_cast<uint32_t>(y));
  } else {
    for (int64_t y = 0; y < h; ++y) row(static_cast<uint32_t>(y));
  }
  // Serial even on a team: an exact parallel order (a wavefront over block
  // rows) hands work between threads every few blocks, gained little on
  // two cores and ran many times slower whenever a thread was preempted.
  if (p.smoothing) Smooth<P>(im);
}

template <int P, bool Mirror, class Reader>
void RunWith(const ConvParams& p, Image& im, const Reader& rd) {
  im.srcRow = Reader::RowBytes(im.w);
  Run<P>(p, im, Acc<Reader, Mirror>{rd, im.w - 1});
}

template <int P, bool Mirror>
void Dispatch(const ConvParams& p, const ConvReq& r) {
  Image im{};
  im.src = static_cast<const uint8_t*>(r.src);
  im.dst = static_cast<uint8_t*>(r.dst);
  im.stride = static_cast<ptrdiff_t>(RowStride<P>(r.width));
  im.w = r.width;
  im.h = r.height;
  im.geometry = p.geometry & 3;
  im.outPhase = OutputPhase(r.phase & 3, im.geometry, im.w, im.h);
  const uint32_t shift = p.shift & 31;
  switch (r.kind) {
    case KIND_BAYER8:
      return RunWith<P, Mirror>(p, im, Read8{});
    case KIND_BAYER16:
      if (r.littleEndian) return RunWith<P, Mirror>(p, im, Read16<true>{shift});
      return RunWith<P, Mirror>(p, im, Read16<false>{shift});
    default:
      return RunWith<P, Mirror>(p, im, ReadPacked{});
  }
}

}  // namespace

void BayerConvert(const ConvParams& p, const ConvReq& r, bool out24) {
  const bool mirror = (p.geometry & 1) != 0;
  if (out24) {
    mirror ? Dispatch<3, true>(p, r) : Dispatch<3, false>(p, r);
  } else {
    mirror ? Dispatch<4, true>(p, r) : Dispatch<4, false>(p, r);
  }
}

}  // namespace kivcam::conv::KIVCONV_ISA
