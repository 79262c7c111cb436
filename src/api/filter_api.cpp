// The output filter's exports: Start line, the operation, End line (also for
// -1) or an Error line carrying the status. They need no library object (they
// work after KIVCAM_FreeLibrary), take no library lock and leave the caller's
// last error alone.
#include "api/frame.h"
#include "diag/output_filter.h"
#include "kivcam/kivcam.h"

namespace {

namespace diag = kivcam::diag;

template <typename Work>
int32_t RunFilter(const char* name, bool verbose, Work&& work) {
  kivcam::core::ArmExitDetection();
  const kivcam::api::Frame f = kivcam::api::Frame::Plain(name, verbose);
  f.Start();
  int32_t status;
  try {
    status = work();
  } catch (...) {
    status = KIVCAMFILTER_ERROR;
  }
  if (status == KIVCAMFILTER_OK || status == KIVCAMFILTER_NEWEST_SLOT) {
    f.End();
  } else {
    f.Error(static_cast<uint32_t>(status));
  }
  return status;
}

}  // namespace

extern "C" {

KIVCAM_API int32_t KIVCAMFILTER_Alloc(uint32_t width, uint32_t height, uint32_t user_value) {
  return RunFilter("KIVCAMFILTER_Alloc", false, [&] { return diag::FilterAlloc(width, height, user_value); });
}

// Called once per frame: its lines are verbose.
KIVCAM_API int32_t KIVCAMFILTER_OutPut(const void* frame) {
  return RunFilter("KIVCAMFILTER_OutPut", true, [&] { return diag::FilterOutPut(frame); });
}

KIVCAM_API int32_t KIVCAMFILTER_GetAddr(void** slot) {
  return RunFilter("KIVCAMFILTER_GetAddr", true, [&] { return diag::FilterGetAddr(slot); });
}

KIVCAM_API int32_t KIVCAMFILTER_Flush(void) {
  return RunFilter("KIVCAMFILTER_Flush", false, [] { return diag::FilterFlush(); });
}

KIVCAM_API int32_t KIVCAMFILTER_Purge(void) {
  return RunFilter("KIVCAMFILTER_Purge", false, [] { return diag::FilterPurge(); });
}

KIVCAM_API int32_t KIVCAMFILTER_Free(void) {
  return RunFilter("KIVCAMFILTER_Free", false, [] { return diag::FilterFree(); });
}

}  // extern "C"
