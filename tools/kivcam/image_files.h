// Image files of `kivcam grab`. Each is written under a temporary name beside
// its final one and renamed when complete, so an interrupted or failed write
// never leaves a truncated file under the final name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kivcli {

// A converted image: rows of 8-bit B, G, R (and an unused fourth byte when
// bytes_per_pixel is 4), `stride` bytes apart, first row on top.
struct BgrImage {
  const uint8_t* pixels = nullptr;
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t bytes_per_pixel = 3;
  size_t stride = 0;
};

// Each returns false with the reason in *error.
bool WritePng(const std::string& path, const BgrImage& image, std::string* error);
// A Windows bitmap file: the file header, then `info` (a bitmap information
// block, `info_size` bytes, describing `image`), then the rows bottom row
// first, as bitmaps keep them, each padded to 4 bytes.
bool WriteBmp(const std::string& path, const void* info, uint32_t info_size, const BgrImage& image,
              std::string* error);
bool WriteRaw(const std::string& path, const void* data, size_t size, std::string* error);

}  // namespace kivcli
