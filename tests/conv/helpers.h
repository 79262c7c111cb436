// Shared helpers of the conversion tests: destination buffers with canary
// bytes, and a conversion call that fills them.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "conv/bmpinfo.h"
#include "conv/conv.h"

namespace kivcam::conv::test {

constexpr uint8_t kCanary = 0xC3;

// A destination exactly as large as the bitmap, so ASan sees any overrun.
struct Dst {
  uint32_t w, h, out;  // out: 0 = 32-bit, 1 = 24-bit
  size_t stride;
  std::unique_ptr<uint8_t[]> buf;
  Dst(uint32_t w_, uint32_t h_, uint32_t out_, uint8_t fill = kCanary)
      : w(w_), h(h_), out(out_), stride(DestStride(out_, w_)),
        buf(new uint8_t[stride * h_ + 1]) {  // +1: never zero-sized
    std::memset(buf.get(), fill, stride * h + 1);
  }
  uint8_t* At(uint32_t x, uint32_t y) const { return buf.get() + y * stride + x * (out ? 3 : 4); }
  // Channel c (0 B, 1 G, 2 R) of pixel (x, y).
  int Ch(uint32_t x, uint32_t y, int c) const { return At(x, y)[c]; }
  // True when every byte the converters must leave alone still holds fill.
  bool UntouchedOk(uint8_t fill = kCanary) const {
    for (uint32_t y = 0; y < h; ++y) {
      const uint8_t* row = buf.get() + y * stride;
      if (out == 0) {
        for (uint32_t x = 0; x < w; ++x) {
          if (row[4 * x + 3] != fill) return false;
        }
      } else {
        for (size_t i = size_t{w} * 3; i < stride; ++i) {
          if (row[i] != fill) return false;
        }
      }
    }
    return true;
  }
  // The B, G, R bytes of every pixel, without stride or fourth byte.
  std::vector<uint8_t> Pixels() const {
    std::vector<uint8_t> v;
    for (uint32_t y = 0; y < h; ++y) {
      for (uint32_t x = 0; x < w; ++x) v.insert(v.end(), At(x, y), At(x, y) + 3);
    }
    return v;
  }
};

inline ConvMode Mode(uint32_t geometry, uint32_t out, uint32_t shift = 0, bool smooth = false,
                     bool parallel = false) {
  return ConvMode{geometry, shift, out, smooth ? 1u : 0u, parallel ? 1u : 0u};
}

// Converts through a fresh engine; returns the engine's result code.
inline int ConvertInto(Dst& d, const void* src, uint32_t kind, uint32_t phase, const ConvMode& m,
               int threads = 0, uint32_t littleEndian = 1, const YuvCoef& coef = kDefaultYuvCoef) {
  CConv conv(m, coef, threads);
  ConvReq r{d.w, d.h, kind, phase, littleEndian, src, d.buf.get()};
  return conv.Convert(r);
}

// Runs a check once with each instruction set the converters may use (those
// this machine lacks fall back to the widest it has).
template <class F>
void ForEachConverterSet(F check) {
  for (ConvIsa isa : {ConvIsa::kAvx512, ConvIsa::kAvx2, ConvIsa::kBaseline}) {
    LimitConverters(isa);
    check();
  }
  LimitConverters(ConvIsa::kAvx512);
}

inline std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> v(n);  // exact capacity, so ASan sees overreads
  for (auto& b : v) b = static_cast<uint8_t>(rng());
  return v;
}

}  // namespace kivcam::conv::test
