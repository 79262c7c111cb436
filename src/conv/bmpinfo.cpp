#include "conv/bmpinfo.h"

#include <cstring>

#include "conv/conv.h"
#include "conv/pixel_format.h"

namespace kivcam::conv {
namespace {

// The caller's block need not be aligned, so it is built here and copied.
void WriteHeader(void* info, uint32_t width, uint32_t height, uint16_t bits, uint32_t sizeImage,
                 uint32_t clrUsed) {
  BitmapInfoHeader h{};
  h.biSize = 40;
  h.biWidth = static_cast<int32_t>(width);
  h.biHeight = static_cast<int32_t>(height);
  h.biPlanes = 1;
  h.biBitCount = bits;
  h.biCompression = 0;
  h.biSizeImage = sizeImage;
  h.biClrUsed = clrUsed;
  std::memcpy(info, &h, sizeof h);
}

}  // namespace

void FillColorBmpInfo(void* info, uint32_t width, uint32_t height, uint32_t outputSelector) {
  uint32_t sizeImage;
  uint16_t bits;
  if (outputSelector == 1) {
    bits = 24;
    sizeImage = ((width * 3 + 3) / 4) * height * 4;
  } else {
    bits = 32;
    sizeImage = width * height * 4;
  }
  WriteHeader(info, width, height, bits, sizeImage, 0);
  std::memset(static_cast<uint8_t*>(info) + 40, 0, 4);
}

void FillMonoBmpInfo(void* info, uint32_t width, uint32_t height, bool padRows) {
  const uint32_t stride = padRows ? ((width + 3) & ~3u) : width;
  WriteHeader(info, width, height, 8, stride * height, 256);
  uint8_t* pal = static_cast<uint8_t*>(info) + 40;
  for (int i = 0; i < 256; ++i) {
    pal[4 * i + 0] = pal[4 * i + 1] = pal[4 * i + 2] = static_cast<uint8_t>(i);
    pal[4 * i + 3] = 0;
  }
}

int CameraBmpInfo(void* info, uint32_t* size, bool mono, uint32_t kind, uint32_t width,
                  uint32_t height, bool hasEngine, uint32_t outputSelector) {
  if (kind == KIND_UNSUPPORTED) return kConvUnsupported;
  const bool grey = mono && IsMonoKind(kind);
  const uint32_t required = grey ? kMonoBmpInfoSize : kColorBmpInfoSize;
  if (*size == 0) {
    *size = required;
    return kConvOk;
  }
  if (*size < required) return kConvBufferSmall;
  *size = required;
  if (grey) {
    FillMonoBmpInfo(info, width, height, true);
  } else {
    FillColorBmpInfo(info, width, height, hasEngine && outputSelector == 1 ? 1 : 0);
  }
  return kConvOk;
}

int HandleBmpInfo(const CConv& conv, const ImageDesc& image, void* info) {
  uint32_t phase, bits;
  if (PixelFormatToConvKind(image.pixelFormat, &phase, &bits) == KIND_UNSUPPORTED) {
    return kConvUnsupported;
  }
  if (image.byteOrder > 1) return kConvBadArg;
  FillColorBmpInfo(info, image.width, image.height, conv.OutputSelector());
  return kConvOk;
}

int MonoBmpInfo(const ImageDesc& image, void* info) {
  uint32_t phase, bits;
  const uint32_t kind = PixelFormatToConvKind(image.pixelFormat, &phase, &bits);
  if (kind == KIND_UNSUPPORTED) return kConvBadArg;
  if (!IsMonoKind(kind)) return kConvUnsupported;
  if (image.byteOrder > 1) return kConvBadArg;
  FillMonoBmpInfo(info, image.width, image.height, false);
  return kConvOk;
}

}  // namespace kivcam::conv
