// Bitmap information blocks (BITMAPINFOHEADER plus colour table) describing
// what the converters write.
//
// Forms: 32-bit (output selector 0) and 24-bit (selector 1) colour, 44 bytes
// with one zero colour entry; 8-bit grey, 1064 bytes with 256 grey entries.
// The camera-bound grey form pads rows to 4 bytes; the stand-alone mono form
// does not (stride = width).
#pragma once

#include <cstdint>

#include "conv/conv_types.h"

namespace kivcam::conv {

class CConv;

constexpr uint32_t kColorBmpInfoSize = 40 + 4;
constexpr uint32_t kMonoBmpInfoSize = 40 + 256 * 4;

// Row stride of the destination for an output selector (0: 32-bit, 1: 24-bit).
inline uint64_t DestStride(uint32_t outputSelector, uint32_t width) {
  return outputSelector == 1 ? ((uint64_t{width} * 3 + 3) & ~uint64_t{3}) : uint64_t{width} * 4;
}

// Fills the 44-byte colour form. biSizeImage wraps in 32 bits like the field.
void FillColorBmpInfo(void* info, uint32_t width, uint32_t height, uint32_t outputSelector);

// Fills the 1064-byte grey form; padRows selects the camera-bound row rule.
void FillMonoBmpInfo(void* info, uint32_t width, uint32_t height, bool padRows);

// The camera-bound size protocol: *size 0 asks for the required size; a
// smaller size is refused with kConvBufferSmall and left unchanged. The grey
// form is chosen when mono is set and the kind is a mono kind. hasEngine and
// outputSelector describe the camera's engine (24-bit only with an engine
// whose selector is 1). Returns kConvUnsupported for an unsupported kind.
int CameraBmpInfo(void* info, uint32_t* size, bool mono, uint32_t kind, uint32_t width,
                  uint32_t height, bool hasEngine, uint32_t outputSelector);

// Handle-bound: the colour form of the handle's output selector for the image.
// kConvUnsupported for an unknown pixel format, kConvBadArg for a byte-order
// field above 1.
int HandleBmpInfo(const CConv& conv, const ImageDesc& image, void* info);

// Stand-alone grey form with unpadded rows. An unknown pixel format is
// kConvBadArg here, a colour format kConvUnsupported.
int MonoBmpInfo(const ImageDesc& image, void* info);

}  // namespace kivcam::conv
