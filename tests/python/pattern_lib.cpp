// The virtual cameras' test pattern for the Python tests: the same
// recomputation the C++ tests use, behind one C function for ctypes.
#include <cstdint>
#include <cstring>

#include "pixfmt.h"

extern "C" __attribute__((visibility("default"))) int64_t kivtest_pattern(uint32_t code, uint32_t width,
                                                                          uint32_t height, uint64_t frame,
                                                                          void* out, uint64_t size) {
  auto pattern = kivsim::GetPattern(code, width, height);
  if (!pattern) return -1;
  if (out && size >= pattern->payload()) std::memcpy(out, pattern->frame(frame), pattern->payload());
  return static_cast<int64_t>(pattern->payload());
}
