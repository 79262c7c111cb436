// Pixel formats the virtual cameras can deliver and the test pattern they carry.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kivsim {

struct PixelFormatInfo {
  uint32_t code;       // 32-bit pixel-format code
  const char* name;    // enumeration entry name in the description
  uint32_t kind;       // memory layout family (see pattern.cpp)
  uint32_t phase;      // Bayer phase: 0 RG, 1 GB, 2 GR, 3 BG
  uint32_t bits;       // significant bits per sample (per pixel for packed RGB)
  uint32_t legacy;     // small-integer value of the legacy description variant, 0 if none
};

// Every format the cameras know, in table order.
const std::vector<PixelFormatInfo>& AllPixelFormats();
const PixelFormatInfo* FindPixelFormat(uint32_t code);
const PixelFormatInfo* FindPixelFormatByName(const std::string& name);
const PixelFormatInfo* FindPixelFormatByLegacy(uint32_t legacy);

bool IsBayer(const PixelFormatInfo& f);
bool IsMono(const PixelFormatInfo& f);

// Bytes of one row of `width` pixels; rows are contiguous without padding.
size_t RowBytes(const PixelFormatInfo& f, uint32_t width);
inline size_t PayloadBytes(const PixelFormatInfo& f, uint32_t w, uint32_t h) { return RowBytes(f, w) * h; }

// The pattern scrolls up by two rows per frame and repeats after 128 frames, so
// it is rendered once (height + 254 rows) and each frame is one contiguous copy.
class PatternImage {
 public:
  PatternImage(const PixelFormatInfo& f, uint32_t w, uint32_t h);
  size_t payload() const { return payload_; }
  // Start of frame `frame`'s image: payload() contiguous bytes.
  const uint8_t* frame(uint64_t frame) const { return data_.data() + row_ * (2 * (frame % 128)); }

 private:
  size_t row_, payload_;
  std::vector<uint8_t> data_;
};

// Rendered patterns are shared and cached per (format, width, height).
std::shared_ptr<const PatternImage> GetPattern(uint32_t code, uint32_t w, uint32_t h);

// 8-bit value of colour component c (0 R/Y/raw, 1 G/U/Cb, 2 B/V/Cr) at (x, y) of frame f.
inline uint32_t PatternValue8(uint32_t x, uint32_t y, uint64_t f, uint32_t c) {
  uint32_t r = static_cast<uint32_t>((y + 2 * (f % 128)) & 0xFF);
  return (x + r + 85 * c) & 0xFF;
}
// N-bit sample (N > 8): the 8-bit value in the top bits, low bits from x XOR row phase.
inline uint32_t PatternSample(uint32_t x, uint32_t y, uint64_t f, uint32_t c, uint32_t bits) {
  uint32_t v8 = PatternValue8(x, y, f, c);
  if (bits <= 8) return v8 >> (8 - bits);
  uint32_t r = static_cast<uint32_t>((y + 2 * (f % 128)) & 0xFF);
  return (v8 << (bits - 8)) | ((x ^ r) & ((1u << (bits - 8)) - 1));
}

}  // namespace kivsim
