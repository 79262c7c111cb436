// IIDC cameras: the cycle-time fields of each image.
#include "camera/camera.h"
#include "camera/cycle_time.h"

namespace kivcam::camera {

void CCameraIIDC::GetImageInfo(const uint8_t*, uint32_t status, uint32_t value, ImageInfo* info) {
  FillCycleTimeInfo(status, value, &info->IIDC);
}

}  // namespace kivcam::camera
