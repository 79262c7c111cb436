// IIDC cameras: the cycle-time fields of each image.
#include "camera/camera.h"

namespace kivcam::camera {

void CCameraIIDC::GetImageInfo(const uint8_t*, uint32_t status, uint32_t value, ImageInfo* info) {
  KIVCAM_IMAGEINFO_IIDC& i = info->IIDC;
  // Each 16-bit half of the value is an IEEE 1394 cycle-time stamp: three
  // bits of seconds over thirteen of cycles; a high half of 0xFFFF has none.
  const bool no_high = (value >> 16) == 0xFFFF;
  i.Transport = KIVCAM_CAMERAKIND_IIDC;
  i.StatusBits = (status >> 5) & 0x7;
  i.HighSeconds = no_high ? 0xFFFFFFFFu : (value >> 29) & 0x7;
  i.HighCycles = no_high ? 0xFFFFFFFFu : (value >> 16) & 0x1FFF;
  i.LowSeconds = (value >> 13) & 0x7;
  i.LowCycles = value & 0x1FFF;
}

}  // namespace kivcam::camera
