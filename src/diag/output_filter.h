// The output filter: this process's frame channel to a reader in another
// process. A header and a ring of two frame slots in named shared memory,
// guarded by the filter mutex; the writer never hands out the slot the
// reader holds. Every operation returns a KIVCAMFILTER_ status and never
// touches the last-error code.
#pragma once

#include <cstdint>

#include "kivcam/kivcam.h"

namespace kivcam::diag {

using FilterHeader = KIVCAMFILTER_HEADER;
constexpr uint32_t kFilterHeaderSize = sizeof(FilterHeader);  // 28
constexpr uint32_t kFilterSlots = 2;
constexpr uint32_t kFilterSlotAlign = 4096;

// Frame size (width x height x 4) and slot stride (the frame size rounded up
// to 4096) of a channel; false when either does not fit the header's 32 bits.
inline bool FilterSizes(uint32_t width, uint32_t height, uint32_t* frame_size, uint32_t* stride) {
  uint64_t frame = static_cast<uint64_t>(width) * height * 4u;
  uint64_t rounded = (frame + kFilterSlotAlign - 1) / kFilterSlotAlign * kFilterSlotAlign;
  if (rounded > 0xFFFFFFFFu) return false;
  *frame_size = static_cast<uint32_t>(frame);
  *stride = static_cast<uint32_t>(rounded);
  return true;
}

// At load: the filter mutex. Without it every operation returns 2.
void OpenOutputFilter();
// At unload: the channel if it is still there, then the mutex. When the
// process is ending other threads may still be inside an operation, so
// nothing is freed then (the names go with the process's other objects).
void CloseOutputFilter(bool process_ending);

int32_t FilterAlloc(uint32_t width, uint32_t height, uint32_t user_value);
int32_t FilterOutPut(const void* frame);
int32_t FilterGetAddr(void** slot);
int32_t FilterFlush();
int32_t FilterPurge();
int32_t FilterFree();

}  // namespace kivcam::diag
