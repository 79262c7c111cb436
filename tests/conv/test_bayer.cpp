// Bayer converters against a plain per-pixel model of the demosaicing rules,
// plus the concrete cases and the serial/parallel equality.
#include <gtest/gtest.h>

#include <array>
#include <tuple>

#include "conv/pixel_format.h"
#include "helpers.h"

namespace kivcam::conv::test {
namespace {

enum { B = 0, G = 1, R = 2 };

// Colour of source pixel (x, y) for a phase, derived from the phase's name.
int SourceColour(uint32_t phase, uint32_t x, uint32_t y) {
  static const char* names[4] = {"RGGB", "GBRG", "GRBG", "BGGR"};
  const char c = names[phase][(y & 1) * 2 + (x & 1)];
  return c == 'R' ? R : c == 'G' ? G : B;
}

// The model: samples and colours placed at their output positions, then each
// missing channel from the neighbours that exist, then the green smoothing,
// rows top to bottom. Returns B, G, R per pixel.
std::vector<uint8_t> Model(const std::vector<int>& sample, uint32_t w, uint32_t h, uint32_t phase,
                           uint32_t geo, bool smooth) {
  std::vector<int> M(w * h), C(w * h);
  for (uint32_t y = 0; y < h; ++y) {
    for (uint32_t x = 0; x < w; ++x) {
      const uint32_t xo = geo & 1 ? w - 1 - x : x, yo = geo & 2 ? h - 1 - y : y;
      M[yo * w + xo] = sample[y * w + x];
      C[yo * w + xo] = SourceColour(phase, x, y);
    }
  }
  std::vector<uint8_t> out(w * h * 3);
  auto in = [&](int x, int y) { return x >= 0 && y >= 0 && x < int(w) && y < int(h); };
  auto avg = [&](std::initializer_list<std::pair<int, int>> pts) {
    int s = 0, n = 0;
    for (auto [x, y] : pts) {
      if (in(x, y)) s += M[y * w + x], ++n;
    }
    return n == 4 ? s >> 2 : n == 2 ? s >> 1 : s;
  };
  for (int y = 0; y < int(h); ++y) {
    for (int x = 0; x < int(w); ++x) {
      uint8_t* o = &out[(y * w + x) * 3];
      const int c = C[y * w + x];
      o[c] = M[y * w + x];
      const bool top = y == 0 || y == int(h) - 1, side = x == 0 || x == int(w) - 1;
      if (c != G) {
        const int xn = x == 0 ? 1 : x - 1, yn = y == 0 ? 1 : y - 1;
        o[G] = !top && !side ? avg({{x - 1, y}, {x + 1, y}, {x, y - 1}, {x, y + 1}})
               : top && side ? (M[y * w + xn] + M[yn * w + x]) >> 1
               : top         ? avg({{x - 1, y}, {x + 1, y}})
                             : avg({{x, y - 1}, {x, y + 1}});
        o[R + B - c] = avg({{x - 1, y - 1}, {x + 1, y - 1}, {x - 1, y + 1}, {x + 1, y + 1}});
      } else {
        const int hc = C[y * w + (x == 0 ? 1 : x - 1)];
        o[hc] = avg({{x - 1, y}, {x + 1, y}});
        o[R + B - hc] = avg({{x, y - 1}, {x, y + 1}});
      }
    }
  }
  // Phase GR at the output, odd width: the last column's G sites in rows
  // 2, 4, ... H-2 copy R from the pixel above.
  if (C[0] == G && w > 1 && C[1] == R && (w & 1)) {
    for (uint32_t y = 2; y + 2 <= h; y += 2) out[(y * w + w - 1) * 3 + R] = out[((y - 1) * w + w - 1) * 3 + R];
  }
  if (smooth) {
    for (uint32_t r1 = 1; r1 + 1 < h; r1 += 2) {
      for (uint32_t c1 = 1; c1 + 1 < w; c1 += 2) {
        for (uint32_t y : {r1, r1 + 1}) {
          for (uint32_t x : {c1, c1 + 1}) {
            if (y + 1 >= h || x + 1 >= w || C[y * w + x] != G) continue;
            auto g = [&](uint32_t xx, uint32_t yy) { return out[(yy * w + xx) * 3 + G]; };
            const int d = g(x - 1, y - 1) + g(x + 1, y - 1) + g(x - 1, y + 1) + g(x + 1, y + 1);
            out[(y * w + x) * 3 + G] = static_cast<uint8_t>((d >> 3) + (g(x, y) >> 1));
          }
        }
      }
    }
  }
  return out;
}

// One source image in each reader's encoding, with the 8-bit samples it means.
struct Source {
  uint32_t kind;
  uint32_t littleEndian = 1;
  uint32_t shift = 0;
  std::vector<uint8_t> bytes;
  std::vector<int> samples;
};

Source MakeSource(int reader, uint32_t w, uint32_t h, uint32_t seed) {
  Source s;
  const auto rnd = RandomBytes(size_t{w} * h * 2, seed);
  s.samples.resize(w * h);
  if (reader == 0) {
    s.kind = KIND_BAYER8;
    s.bytes.assign(rnd.begin(), rnd.begin() + w * h);
    for (size_t i = 0; i < s.samples.size(); ++i) s.samples[i] = s.bytes[i];
  } else if (reader <= 2) {  // 16-bit, little- then big-endian, shift 3
    s.kind = KIND_BAYER16;
    s.littleEndian = reader == 1;
    s.shift = 3;
    s.bytes = rnd;
    for (size_t i = 0; i < s.samples.size(); ++i) {
      const int lo = rnd[2 * i + (s.littleEndian ? 0 : 1)], hi = rnd[2 * i + (s.littleEndian ? 1 : 0)];
      s.samples[i] = ((hi << 8 | lo) >> 3) & 0xFF;
    }
  } else {  // packed: 3 bytes per pair, high bytes first and last
    s.kind = reader == 3 ? KIND_BAYER12_PACKED : KIND_BAYER10_PACKED;
    const size_t row = (size_t{w} * 3 + 1) / 2;
    s.bytes.assign(rnd.begin(), rnd.begin() + row * h);
    for (uint32_t y = 0; y < h; ++y) {
      for (uint32_t x = 0; x < w; ++x) s.samples[y * w + x] = s.bytes[y * row + x / 2 * 3 + (x & 1) * 2];
    }
  }
  return s;
}

TEST(Bayer, MatchesModelForEveryPhaseGeometryFormAndReader) {
  ForEachConverterSet([] {
  // Wide rows too, so that vector loops and their scalar tails both run.
  const std::array<std::pair<uint32_t, uint32_t>, 12> sizes{
      {{2, 2}, {3, 2}, {2, 3}, {3, 3}, {4, 4}, {5, 4}, {7, 6}, {6, 7}, {7, 7}, {10, 9}, {35, 4}, {50, 5}}};
  uint32_t seed = 1;
  for (auto [w, h] : sizes) {
    for (int reader = 0; reader < 5; ++reader) {
      const Source s = MakeSource(reader, w, h, seed++);
      for (uint32_t phase = 0; phase < 4; ++phase) {
        for (uint32_t geo = 0; geo < 4; ++geo) {
          for (bool smooth : {false, true}) {
            const auto want = Model(s.samples, w, h, phase, geo, smooth);
            for (uint32_t out : {0u, 1u}) {
              Dst d(w, h, out);
              ASSERT_EQ(kConvOk, ConvertInto(d, s.bytes.data(), s.kind, phase, Mode(geo, out, s.shift, smooth),
                                     0, s.littleEndian));
              ASSERT_EQ(want, d.Pixels()) << w << "x" << h << " reader " << reader << " phase "
                                          << phase << " geo " << geo << " smooth " << smooth
                                          << " out " << out;
              ASSERT_TRUE(d.UntouchedOk());
            }
          }
        }
      }
    }
  }
  });
}

// M(x, y) = 10y + x: every sample tells where it came from.
std::vector<uint8_t> Ramp(uint32_t w, uint32_t h) {
  std::vector<uint8_t> v(w * h);
  for (uint32_t y = 0; y < h; ++y) {
    for (uint32_t x = 0; x < w; ++x) v[y * w + x] = static_cast<uint8_t>(10 * y + x);
  }
  return v;
}

TEST(Bayer, RampPixelsAverageTheirNeighbours) {
  const auto m = Ramp(6, 6);
  Dst d(6, 6, 0);
  ASSERT_EQ(kConvOk, ConvertInto(d, m.data(), KIND_BAYER8, PHASE_RG, Mode(0, 0)));
  EXPECT_EQ((std::array<int, 3>{11, 11, 11}), (std::array<int, 3>{d.Ch(1, 1, R), d.Ch(1, 1, G), d.Ch(1, 1, B)}));
  EXPECT_EQ((std::array<int, 3>{0, 5, 11}), (std::array<int, 3>{d.Ch(0, 0, R), d.Ch(0, 0, G), d.Ch(0, 0, B)}));
  EXPECT_EQ((std::array<int, 3>{44, 49, 55}), (std::array<int, 3>{d.Ch(5, 5, R), d.Ch(5, 5, G), d.Ch(5, 5, B)}));
  EXPECT_EQ(1, d.Ch(1, 0, R));  // (M(0,0) + M(2,0)) >> 1
  EXPECT_EQ(11, d.Ch(1, 0, B));

  Dst gb(6, 6, 1);  // phase GB: the bottom row is an R row and keeps its samples
  ASSERT_EQ(kConvOk, ConvertInto(gb, m.data(), KIND_BAYER8, PHASE_GB, Mode(0, 1)));
  for (uint32_t x = 0; x < 6; x += 2) EXPECT_EQ(50 + int(x), gb.Ch(x, 5, R));

  const auto m7 = Ramp(7, 6);  // phase GR, odd width: the last column's exception
  Dst gr(7, 6, 0);
  ASSERT_EQ(kConvOk, ConvertInto(gr, m7.data(), KIND_BAYER8, PHASE_GR, Mode(0, 0)));
  EXPECT_EQ(15, gr.Ch(6, 1, R));
  EXPECT_EQ(15, gr.Ch(6, 2, R));
  EXPECT_EQ(5, gr.Ch(6, 0, R));
  EXPECT_EQ(35, gr.Ch(6, 4, R));
}

TEST(Bayer, MirrorOfEvenWidthInterpolatesAsSwappedPhase) {
  for (uint32_t w : {6u, 7u}) {
    const auto m = RandomBytes(w * 5, w);
    std::vector<uint8_t> mirrored(m.size());
    for (uint32_t y = 0; y < 5; ++y) {
      for (uint32_t x = 0; x < w; ++x) mirrored[y * w + w - 1 - x] = m[y * w + x];
    }
    Dst a(w, 5, 0), b(w, 5, 0);
    ASSERT_EQ(kConvOk, ConvertInto(a, m.data(), KIND_BAYER8, PHASE_RG, Mode(1, 0)));
    ASSERT_EQ(kConvOk, ConvertInto(b, mirrored.data(), KIND_BAYER8, w % 2 ? PHASE_RG : PHASE_GR, Mode(0, 0)));
    EXPECT_EQ(a.Pixels(), b.Pixels()) << w;
  }
}

TEST(Bayer, UniformMosaicIsGrey) {
  for (int v : {0, 100, 255}) {
    const std::vector<uint8_t> m(9 * 8, static_cast<uint8_t>(v));
    for (uint32_t phase = 0; phase < 4; ++phase) {
      for (uint32_t geo = 0; geo < 4; ++geo) {
        for (bool smooth : {false, true}) {
          Dst d(9, 8, 1);
          ASSERT_EQ(kConvOk, ConvertInto(d, m.data(), KIND_BAYER8, phase, Mode(geo, 1, 0, smooth)));
          for (uint32_t y = 0; y < 8; ++y) {
            for (uint32_t x = 0; x < 9; ++x) {
              const bool smoothedG = smooth && x > 0 && y > 0 && x < 8 && y < 7 &&
                                     SourceColour(phase, geo & 1 ? 8 - x : x, geo & 2 ? 7 - y : y) == G;
              ASSERT_EQ(smoothedG ? ((4 * v) >> 3) + (v >> 1) : v, d.Ch(x, y, G));
              ASSERT_EQ(v, d.Ch(x, y, R));
              ASSERT_EQ(v, d.Ch(x, y, B));
            }
          }
        }
      }
    }
  }
}

TEST(Bayer, SmoothingOfSevenBySevenTouchesOnlyInteriorGreen) {
  const auto m = RandomBytes(49, 77);
  Dst plain(7, 7, 0), smooth(7, 7, 0);
  ASSERT_EQ(kConvOk, ConvertInto(plain, m.data(), KIND_BAYER8, PHASE_BG, Mode(0, 0)));
  ASSERT_EQ(kConvOk, ConvertInto(smooth, m.data(), KIND_BAYER8, PHASE_BG, Mode(0, 0, 0, true)));
  int changed = 0;
  for (uint32_t y = 0; y < 7; ++y) {
    for (uint32_t x = 0; x < 7; ++x) {
      const bool interiorG = x > 0 && y > 0 && x < 6 && y < 6 && SourceColour(PHASE_BG, x, y) == G;
      for (int c = 0; c < 3; ++c) {
        if (c != G || !interiorG) {
          ASSERT_EQ(plain.Ch(x, y, c), smooth.Ch(x, y, c)) << x << "," << y;
        }
      }
      changed += plain.Ch(x, y, G) != smooth.Ch(x, y, G);
    }
  }
  EXPECT_GT(changed, 0);
}

TEST(Bayer, SixteenBitWrapsAndPackedUsesHighBytes) {
  const uint8_t words[8] = {0x34, 0x12, 0x34, 0x12, 0x34, 0x12, 0x34, 0x12};  // 0x1234 each
  Dst d(2, 2, 0);
  ASSERT_EQ(kConvOk, ConvertInto(d, words, KIND_BAYER16, PHASE_RG, Mode(0, 0, 4)));
  EXPECT_EQ(0x23, d.Ch(0, 0, R));
  const uint8_t packed[6] = {0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF};
  Dst p(2, 2, 0);
  ASSERT_EQ(kConvOk, ConvertInto(p, packed, KIND_BAYER12_PACKED, PHASE_RG, Mode(0, 0)));
  EXPECT_EQ(0xAB, p.Ch(0, 0, R));  // first pixel of the pair
  EXPECT_EQ(0xEF, p.Ch(1, 1, B));  // second pixel of the second row's pair
}

TEST(Bayer, TooSmallImagesAreRefusedAndEmptyOnesSucceed) {
  const uint8_t m[4] = {1, 2, 3, 4};
  Dst one(1, 4, 0), flat(4, 1, 1), none(4, 0, 0);
  EXPECT_EQ(kConvBadArg, ConvertInto(one, m, KIND_BAYER8, 0, Mode(0, 0)));
  EXPECT_EQ(kConvBadArg, ConvertInto(flat, m, KIND_BAYER8, 0, Mode(0, 1)));
  EXPECT_EQ(kConvOk, ConvertInto(none, m, KIND_BAYER8, 0, Mode(0, 0)));
  EXPECT_EQ(kCanary, one.buf[0]);
}

// Parallel runs must give the serial bytes, smoothing included, for block
// splits that leave threads with no rows, one row pair, or an odd tail.
TEST(Bayer, ParallelEqualsSerial) {
  const std::array<std::pair<uint32_t, uint32_t>, 6> sizes{{{2, 2}, {5, 3}, {8, 5}, {9, 9}, {33, 20}, {64, 47}}};
  uint32_t seed = 100;
  for (auto [w, h] : sizes) {
    for (int reader : {0, 2, 4}) {
      const Source s = MakeSource(reader, w, h, seed++);
      for (uint32_t phase = 0; phase < 4; ++phase) {
        for (uint32_t geo = 0; geo < 4; ++geo) {
          for (uint32_t out : {0u, 1u}) {
            for (bool smooth : {false, true}) {
              Dst serial(w, h, out);
              ASSERT_EQ(kConvOk, ConvertInto(serial, s.bytes.data(), s.kind, phase, Mode(geo, out, s.shift, smooth),
                                     1, s.littleEndian));
              // Heights 2 and 3 leave the first of two threads without a row pair.
              Dst par(w, h, out);
              ASSERT_EQ(kConvOk, ConvertInto(par, s.bytes.data(), s.kind, phase, Mode(geo, out, s.shift, smooth, true),
                                             2, s.littleEndian));
              ASSERT_EQ(0, std::memcmp(serial.buf.get(), par.buf.get(), serial.stride * h))
                  << w << "x" << h << " phase " << phase << " geo " << geo;
            }
          }
        }
      }
    }
  }
}

// Random sizes and settings with buffers of exactly the image's size, so that
// the sanitizer builds catch any read or write outside them. Bayer results
// are checked against the model, line kinds for their untouched bytes.
TEST(Conversion, RandomSizesStayInsideTheirBuffers) {
  std::mt19937 rng(2024);
  const uint32_t kinds[] = {0, 1, 2, 3, 4, 5, 6, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26};
  for (int i = 0; i < 300; ++i) {
    const uint32_t kind = kinds[rng() % std::size(kinds)];
    const uint32_t w = 3 + rng() % 70, h = 2 + rng() % 9;
    const uint32_t geo = rng() % 4, out = rng() % 2, phase = rng() % 4;
    const bool smooth = rng() % 2, parallel = rng() % 2;
    Dst d(w, h, out);
    if (IsBayerKind(kind)) {
      const int reader = kind == KIND_BAYER8 ? 0 : kind == KIND_BAYER16 ? 1 + int(rng() % 2) : kind == KIND_BAYER12_PACKED ? 3 : 4;
      const Source s = MakeSource(reader, w, h, i);
      ASSERT_EQ(kConvOk, ConvertInto(d, s.bytes.data(), s.kind, phase, Mode(geo, out, s.shift, smooth, parallel),
                                     2, s.littleEndian));
      ASSERT_EQ(Model(s.samples, w, h, phase, geo, smooth), d.Pixels()) << w << "x" << h << " kind " << kind;
    } else {
      const auto src = RandomBytes(SourceRowBytes(kind, w) * h, i);
      ASSERT_EQ(kConvOk, ConvertInto(d, src.data(), kind, 0, Mode(geo, out, rng() % 9, false, parallel), 2,
                                     rng() % 2));
    }
    ASSERT_TRUE(d.UntouchedOk()) << "kind " << kind;
  }
}

}  // namespace
}  // namespace kivcam::conv::test
