// The IIDC transport record: IEEE 1394 cycle-time stamps from a completion
// status and the producer's per-image value.
#pragma once

#include <cstdint>

#include "kivcam/kivcam.h"

namespace kivcam::camera {

void FillCycleTimeInfo(uint32_t status, uint32_t value, KIVCAM_IMAGEINFO_IIDC* out);

}  // namespace kivcam::camera
