// Line converters: every non-Bayer kind, pixel by pixel. One row loop per
// kind, destination form (3 or 4 bytes per pixel) and direction, so that the
// inner loops decide nothing about the format.
#include <cstddef>
#include <cstdint>

#include "conv/converters.h"
#include "conv/pixel_format.h"

namespace kivcam::conv::KIVCONV_ISA {
namespace {

// Destination row stride; kept local so that this file, built once per
// instruction set, shares no inline code with the rest of the library.
template <int P>
uint64_t RowStride(uint32_t w) {
  return P == 3 ? (uint64_t{w} * 3 + 3) & ~uint64_t{3} : uint64_t{w} * 4;
}

// Destination cursor: writes B, G, R and steps one pixel forwards or, when
// mirrored, backwards. The fourth byte of a 32-bit pixel is never touched.
template <int P, bool Mirror>
struct Out {
  uint8_t* d;
  void Put(uint32_t b, uint32_t g, uint32_t r) {
    d[0] = static_cast<uint8_t>(b);
    d[1] = static_cast<uint8_t>(g);
    d[2] = static_cast<uint8_t>(r);
    d += Mirror ? -P : P;
  }
  void Grey(uint32_t v) { Put(v, v, v); }
};

// 16-bit sample reduced to 8 bits: optional byte swap, shift, low byte.
template <bool LE>
struct Word {
  uint32_t shift;
  uint32_t operator()(const uint8_t* s) const {
    const uint32_t w = LE ? (s[0] | uint32_t{s[1]} << 8) : (s[1] | uint32_t{s[0]} << 8);
    return (w >> shift) & 0xFF;
  }
};

inline uint32_t Clamp(int v) { return v < 0 ? 0u : v > 255 ? 255u : static_cast<uint32_t>(v); }

struct Yuv {
  const int32_t* t;
  template <class O>
  void Put(O& o, int y, int u, int v) const {
    o.Put(Clamp(y + t[768 + u]), Clamp(y - (t[256 + v] + t[512 + u])), Clamp(y + t[v]));
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
        for (uint32_t x = 0; x < w; ++x) o.Grey(w16(s + 2 * x));
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
  const Yuv yuv{p.table};
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
        for (; x + 1 < w; x += 2, s += 3) {
          o.Grey(s[0]);
          o.Grey(s[2]);
        }
        if (x < w) o.Grey(s[0]);
      });
    case KIND_RGB8:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 3) o.Put(s[2], s[1], s[0]);
      });
    case KIND_BGR8:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 3) o.Put(s[0], s[1], s[2]);
      });
    case KIND_RGBA8:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 4) o.Put(s[2], s[1], s[0]);
      });
    case KIND_BGRA8:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 4) o.Put(s[0], s[1], s[2]);
      });
    case KIND_RGB10V1_PACKED:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 4) o.Put(s[1], s[2], s[3]);
      });
    case KIND_RGB10P32:
      return RunRows<P, Mirror>(p, r, [](const uint8_t* s, auto& o, uint32_t w) {
        for (uint32_t x = 0; x < w; ++x, s += 4) {
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
      return RunRows<P, Mirror>(p, r, [yuv](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = 0;
        for (; x + 1 < w; x += 2, s += 4) {
          yuv.Put(o, s[1], s[0], s[2]);
          yuv.Put(o, s[3], s[0], s[2]);
        }
        if (x < w) yuv.Put(o, s[1], s[0], s[-2]);
      });
    case KIND_YUV422_YUYV:
      return RunRows<P, Mirror>(p, r, [yuv](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = 0;
        for (; x + 1 < w; x += 2, s += 4) {
          yuv.Put(o, s[0], s[1], s[3]);
          yuv.Put(o, s[2], s[1], s[3]);
        }
        if (x < w) yuv.Put(o, s[0], s[1], s[-1]);
      });
    case KIND_YCBCR422:
      return RunRows<P, Mirror>(p, r, [yuv](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = 0;
        for (; x + 1 < w; x += 2, s += 4) {
          yuv.Put(o, s[0], s[3], s[1]);
          yuv.Put(o, s[2], s[3], s[1]);
        }
        if (x < w) yuv.Put(o, s[0], s[-1], s[1]);
      });
    case KIND_YUV411:
      // Groups of 4 pixels in 6 bytes: U Y0 Y1 V Y2 Y3.
      return RunRows<P, Mirror>(p, r, [yuv](const uint8_t* s, auto& o, uint32_t w) {
        uint32_t x = 0;
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
