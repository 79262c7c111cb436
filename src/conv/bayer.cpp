// Bilinear Bayer demosaicing in the destination buffer itself: every sample
// is first stored in its own channel at its output position (scatter), then
// the missing channels are interpolated from those stored samples, the
// interior first, the border last, and green may be smoothed in place.
//
// Except for smoothing, every output byte is a function of the stored samples
// alone, so rows can be scattered and interpolated in any order. The
// scheduler uses that: each thread scatters a contiguous block of rows and
// interpolates each row right after its lower neighbour is stored, while the
// three rows are still in cache; rows at block edges wait for a barrier.
#include <cstddef>
#include <cstdint>

#include <omp.h>

#include "conv/bmpinfo.h"
#include "conv/converters.h"
#include "conv/pixel_format.h"

namespace kivcam::conv {
namespace {

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

// Sample readers: the 8-bit value of source pixels 2j and 2j + 1 of a row.
struct Read8 {
  static uint64_t RowBytes(uint32_t w) { return w; }
  uint32_t First(const uint8_t* s, uint32_t j) const { return s[2 * j]; }
  uint32_t Second(const uint8_t* s, uint32_t j) const { return s[2 * j + 1]; }
};

template <bool LE>
struct Read16 {
  uint32_t shift;
  static uint64_t RowBytes(uint32_t w) { return uint64_t{w} * 2; }
  uint32_t Word(const uint8_t* s) const {
    const uint32_t v = LE ? (s[0] | uint32_t{s[1]} << 8) : (s[1] | uint32_t{s[0]} << 8);
    return (v >> shift) & 0xFF;
  }
  uint32_t First(const uint8_t* s, uint32_t j) const { return Word(s + 4 * j); }
  uint32_t Second(const uint8_t* s, uint32_t j) const { return Word(s + 4 * j + 2); }
};

// Pairs of pixels in 3 bytes; the middle byte holds the low bits.
struct ReadPacked {
  static uint64_t RowBytes(uint32_t w) { return (uint64_t{w} * 3 + 1) / 2; }
  uint32_t First(const uint8_t* s, uint32_t j) const { return s[3 * j]; }
  uint32_t Second(const uint8_t* s, uint32_t j) const { return s[3 * j + 2]; }
};

struct Image {
  const uint8_t* src;
  uint64_t srcRow;
  uint8_t* dst;
  ptrdiff_t stride;
  uint32_t w, h;
  uint32_t inPhase, outPhase;
  uint32_t geometry;
};

// Pass 1 for one destination row: the source row that lands there, each
// sample into the channel of its colour.
template <int P, bool Mirror, class Reader>
void ScatterRow(const Image& im, const Reader& rd, uint32_t yo) {
  const uint32_t ys = (im.geometry & 2) ? im.h - 1 - yo : yo;
  const uint8_t* s = im.src + ys * im.srcRow;
  const uint8_t c0 = kPattern[im.inPhase][ys & 1][0];
  const uint8_t c1 = kPattern[im.inPhase][ys & 1][1];
  constexpr ptrdiff_t step = Mirror ? -P : P;
  uint8_t* d = im.dst + yo * im.stride + (Mirror ? ptrdiff_t(im.w - 1) * P : 0);
  const uint32_t pairs = im.w / 2;
  for (uint32_t j = 0; j < pairs; ++j, d += 2 * step) {
    d[c0] = static_cast<uint8_t>(rd.First(s, j));
    d[step + c1] = static_cast<uint8_t>(rd.Second(s, j));
  }
  if (im.w & 1) d[c0] = static_cast<uint8_t>(rd.First(s, pairs));
}

// Pass 2 for one interior pixel.
template <int P, Site S>
inline void Interp(uint8_t* p, ptrdiff_t st) {
  if constexpr (S == SR || S == SB) {
    constexpr int D = S == SR ? CB : CR;  // the colour on the diagonals
    p[CG] = static_cast<uint8_t>((p[-st + CG] + p[st + CG] + p[-P + CG] + p[P + CG]) >> 2);
    p[D] = static_cast<uint8_t>((p[-st - P + D] + p[-st + P + D] + p[st - P + D] + p[st + P + D]) >> 2);
  } else if constexpr (S == SGR) {
    p[CR] = static_cast<uint8_t>((p[-P + CR] + p[P + CR]) >> 1);
    p[CB] = static_cast<uint8_t>((p[-st + CB] + p[st + CB]) >> 1);
  } else {
    p[CB] = static_cast<uint8_t>((p[-P + CB] + p[P + CB]) >> 1);
    p[CR] = static_cast<uint8_t>((p[-st + CR] + p[st + CR]) >> 1);
  }
}

// Pass 2 for columns 1..w-2 of one row: S1 at odd x, S2 at even x.
template <int P, Site S1, Site S2>
void InterpRowT(uint8_t* row, ptrdiff_t st, uint32_t w) {
  uint8_t* p = row + P;
  uint32_t x = 1;
  for (; x + 2 < w; x += 2, p += 2 * P) {
    Interp<P, S1>(p, st);
    Interp<P, S2>(p + P, st);
  }
  if (x + 1 < w) Interp<P, S1>(p, st);
}

template <int P>
void InterpRow(const Image& im, uint32_t y) {
  uint8_t* row = im.dst + y * im.stride;
  const Site odd = SiteAt(im.outPhase, 1, y);
  switch (odd) {
    case SR: return InterpRowT<P, SR, SGR>(row, im.stride, im.w);
    case SGR: return InterpRowT<P, SGR, SR>(row, im.stride, im.w);
    case SB: return InterpRowT<P, SB, SGB>(row, im.stride, im.w);
    case SGB: return InterpRowT<P, SGB, SB>(row, im.stride, im.w);
  }
}

// Pass 4 for one border pixel: the interior rules with only the neighbours
// that exist. O(width + height), so clarity over speed here.
template <int P>
void BorderPixel(const Image& im, uint32_t x, uint32_t y) {
  const uint32_t w = im.w, h = im.h;
  auto px = [&](uint32_t xx, uint32_t yy) { return im.dst + yy * im.stride + ptrdiff_t(xx) * P; };
  auto own = [&](uint32_t xx, uint32_t yy) -> uint32_t {
    return px(xx, yy)[kPattern[im.outPhase][yy & 1][xx & 1]];
  };
  // Average of the values that exist: one is copied, two or four averaged.
  auto avg = [](uint32_t sum, int n) -> uint8_t {
    return static_cast<uint8_t>(n == 4 ? sum >> 2 : n == 2 ? sum >> 1 : sum);
  };
  uint8_t* p = px(x, y);
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
  // take R from the B site above them, whose R is already interpolated.
  if (im.outPhase == PHASE_GR && (w & 1) && x == w - 1 && y % 2 == 0 && y >= 2 && y + 2 <= h) {
    p[CR] = px(x, y - 1)[CR];
  }
}

template <int P>
void Borders(const Image& im) {
  for (uint32_t x = 0; x < im.w; ++x) {
    BorderPixel<P>(im, x, 0);
    BorderPixel<P>(im, x, im.h - 1);
  }
  // Top to bottom: the GR exception reads the pixel above.
  for (uint32_t y = 1; y + 1 < im.h; ++y) {
    BorderPixel<P>(im, 0, y);
    BorderPixel<P>(im, im.w - 1, y);
  }
}

// Pass 3: G at interior G sites from its diagonals, in place, block rows
// (2k+1, 2k+2) top to bottom, column pairs left to right, upper row first.
// Each site reads neighbours already smoothed above and to the left, so the
// order is part of the result.
template <int P>
void Smooth(const Image& im) {
  const uint32_t w = im.w, h = im.h;
  if (w < 3 || h < 3) return;
  const ptrdiff_t st = im.stride;
  auto smooth = [st](uint8_t* p) {
    const uint32_t d = p[-st - P + CG] + p[-st + P + CG] + p[st - P + CG] + p[st + P + CG];
    p[CG] = static_cast<uint8_t>((d >> 3) + (p[CG] >> 1));
  };
  for (uint32_t r1 = 1; r1 + 1 < h; r1 += 2) {
    const uint32_t r2 = r1 + 1;
    const bool has2 = r2 + 1 < h;
    // Within each column pair, the G of row r1 sits at offset g1, row r2's at 1 - g1.
    const uint32_t g1 = kPattern[im.outPhase][r1 & 1][1] == CG ? 0 : 1;
    uint8_t* a = im.dst + r1 * st + ptrdiff_t(1 + g1) * P;
    uint8_t* b = im.dst + r2 * st + ptrdiff_t(2 - g1) * P;
    // Full blocks: both columns of the pair are interior.
    uint32_t c = 1;
    for (; c + 2 < w; c += 2, a += 2 * P, b += 2 * P) {
      smooth(a);
      if (has2) smooth(b);
    }
    // A last half pair (odd width): only column w - 2 is interior.
    if (c + 1 < w) {
      if (c + g1 + 1 < w) smooth(a);
      if (has2 && c + (1 - g1) + 1 < w) smooth(b);
    }
  }
}

template <int P, bool Mirror, class Reader>
void Run(const ConvParams& p, const Image& im, const Reader& rd) {
  auto body = [&](int t, int n, auto&& barrier) {
    // Static split of row pairs; the odd last row goes to the last block.
    const uint32_t pairs = im.h / 2;
    const uint32_t r0 = 2 * uint32_t(uint64_t{pairs} * t / n);
    const uint32_t r1 = t == n - 1 ? im.h : 2 * uint32_t(uint64_t{pairs} * (t + 1) / n);
    for (uint32_t y = r0; y < r1; ++y) {
      ScatterRow<P, Mirror>(im, rd, y);
      // Row y - 1 has both neighbours stored once row y is.
      if (y >= r0 + 2 && y - 1 + 1 < im.h) InterpRow<P>(im, y - 1);
    }
    barrier();
    // Block edge rows need the neighbouring blocks' rows.
    if (r1 > r0) {
      if (r0 >= 1 && r0 + 1 < im.h) InterpRow<P>(im, r0);
      if (r1 - 1 > r0 && r1 < im.h) InterpRow<P>(im, r1 - 1);
    }
    barrier();
    if (t == 0) {
      Borders<P>(im);
      if (p.smoothing) Smooth<P>(im);
    }
  };
  const int team = TeamSize(p);
  if (team > 1) {
#pragma omp parallel num_threads(team)
    body(omp_get_thread_num(), omp_get_num_threads(), [] {
#pragma omp barrier
    });
  } else {
    body(0, 1, [] {});
  }
}

template <int P, bool Mirror>
void Dispatch(const ConvParams& p, const ConvReq& r) {
  Image im{};
  im.src = static_cast<const uint8_t*>(r.src);
  im.dst = static_cast<uint8_t*>(r.dst);
  im.stride = static_cast<ptrdiff_t>(DestStride(P == 3 ? 1 : 0, r.width));
  im.w = r.width;
  im.h = r.height;
  im.inPhase = r.phase & 3;
  im.geometry = p.geometry & 3;
  im.outPhase = OutputPhase(im.inPhase, im.geometry, im.w, im.h);
  const uint32_t shift = p.shift & 31;
  switch (r.kind) {
    case KIND_BAYER8:
      im.srcRow = Read8::RowBytes(im.w);
      return Run<P, Mirror>(p, im, Read8{});
    case KIND_BAYER16:
      im.srcRow = Read16<true>::RowBytes(im.w);
      if (r.littleEndian) return Run<P, Mirror>(p, im, Read16<true>{shift});
      return Run<P, Mirror>(p, im, Read16<false>{shift});
    default:
      im.srcRow = ReadPacked::RowBytes(im.w);
      return Run<P, Mirror>(p, im, ReadPacked{});
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

}  // namespace kivcam::conv
