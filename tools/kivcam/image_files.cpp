#include "image_files.h"

#include <png.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>

namespace kivcli {

namespace {

std::string Reason(int err) { return std::strerror(err); }

// A file written as PATH.part and renamed to PATH by Commit; dropped when
// not committed.
class PartFile {
 public:
  explicit PartFile(const std::string& path) : path_(path), part_(path + ".part") {
    file_ = std::fopen(part_.c_str(), "wb");
    open_errno_ = errno;
  }
  PartFile(const PartFile&) = delete;
  PartFile& operator=(const PartFile&) = delete;
  ~PartFile() {
    if (file_) std::fclose(file_);
    if (!committed_) std::remove(part_.c_str());
  }
  bool Opened(std::string* error) const {
    if (!file_) *error = "cannot create " + part_ + ": " + Reason(open_errno_);
    return file_ != nullptr;
  }
  FILE* get() const { return file_; }
  bool Write(const void* data, size_t size) { return size == 0 || std::fwrite(data, 1, size, file_) == size; }
  bool Commit(std::string* error) {
    bool ok = std::fflush(file_) == 0 && !std::ferror(file_);
    int err = errno;
    if (std::fclose(file_) != 0 && ok) {
      ok = false;
      err = errno;
    }
    file_ = nullptr;
    if (!ok) {
      *error = "cannot write " + part_ + ": " + Reason(err);
      return false;
    }
    if (std::rename(part_.c_str(), path_.c_str()) != 0) {
      *error = "cannot rename " + part_ + " to " + path_ + ": " + Reason(errno);
      return false;
    }
    committed_ = true;
    return true;
  }

 private:
  std::string path_, part_;
  FILE* file_ = nullptr;
  int open_errno_ = 0;
  bool committed_ = false;
};

struct PngFailure {
  char text[256];
};

void OnPngError(png_structp png, png_const_charp message) {
  auto* failure = static_cast<PngFailure*>(png_get_error_ptr(png));
  std::snprintf(failure->text, sizeof failure->text, "%s", message);
  png_longjmp(png, 1);
}

void OnPngWarning(png_structp, png_const_charp) {}

// libpng reports errors by longjmp, so this holds no object with a destructor.
bool PngRows(png_structp png, png_infop info, FILE* file, const BgrImage& image) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_init_io(png, file);
  png_set_IHDR(png, info, image.width, image.height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  // Frames come fast: the quickest compression and one cheap filter.
  png_set_compression_level(png, 1);
  png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
  png_write_info(png, info);
  png_set_bgr(png);
  if (image.bytes_per_pixel == 4) png_set_filler(png, 0, PNG_FILLER_AFTER);
  for (uint32_t y = 0; y < image.height; ++y) {
    png_write_row(png, const_cast<png_bytep>(image.pixels + y * image.stride));
  }
  png_write_end(png, nullptr);
  return true;
}

void Put16(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

void Put32(uint8_t* p, uint32_t v) {
  Put16(p, v & 0xFFFF);
  Put16(p + 2, v >> 16);
}

}  // namespace

bool WritePng(const std::string& path, const BgrImage& image, std::string* error) {
  PartFile file(path);
  if (!file.Opened(error)) return false;
  PngFailure failure{};
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &failure, OnPngError, OnPngWarning);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  bool ok = info && PngRows(png, info, file.get(), image);
  png_destroy_write_struct(&png, &info);
  if (!ok) {
    *error = "cannot write " + path + ": " + (failure.text[0] ? failure.text : "libpng failed");
    return false;
  }
  return file.Commit(error);
}

bool WriteBmp(const std::string& path, const void* info, uint32_t info_size, const BgrImage& image,
              std::string* error) {
  constexpr uint32_t kFileHeader = 14;
  const size_t row = (size_t{image.width} * image.bytes_per_pixel + 3) / 4 * 4;
  if (row > image.stride) {
    *error = "cannot write " + path + ": rows of " + std::to_string(image.stride) + " bytes hold no bitmap row";
    return false;
  }
  uint8_t header[kFileHeader] = {'B', 'M'};
  Put32(header + 2, static_cast<uint32_t>(kFileHeader + info_size + row * image.height));
  Put32(header + 10, kFileHeader + info_size);  // where the pixels start
  PartFile file(path);
  if (!file.Opened(error)) return false;
  bool ok = file.Write(header, sizeof header) && file.Write(info, info_size);
  for (uint32_t y = image.height; ok && y > 0; --y) ok = file.Write(image.pixels + (y - 1) * image.stride, row);
  if (!ok) {
    *error = "cannot write " + path + ".part: " + Reason(errno);
    return false;
  }
  return file.Commit(error);
}

bool WriteRaw(const std::string& path, const void* data, size_t size, std::string* error) {
  PartFile file(path);
  if (!file.Opened(error)) return false;
  if (!file.Write(data, size)) {
    *error = "cannot write " + path + ".part: " + Reason(errno);
    return false;
  }
  return file.Commit(error);
}

}  // namespace kivcli
