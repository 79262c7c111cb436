#include "camera/cycle_time.h"

namespace kivcam::camera {

void FillCycleTimeInfo(uint32_t status, uint32_t value, KIVCAM_IMAGEINFO_IIDC* out) {
  // Each 16-bit half of the value is a cycle-time stamp: three bits of
  // seconds over thirteen of cycles; a high half of 0xFFFF carries none.
  const bool no_high = (value >> 16) == 0xFFFF;
  out->Transport = KIVCAM_CAMERAKIND_IIDC;
  out->StatusBits = (status >> 5) & 0x7;
  out->HighSeconds = no_high ? 0xFFFFFFFFu : (value >> 29) & 0x7;
  out->HighCycles = no_high ? 0xFFFFFFFFu : (value >> 16) & 0x1FFF;
  out->LowSeconds = (value >> 13) & 0x7;
  out->LowCycles = value & 0x1FFF;
}

}  // namespace kivcam::camera
