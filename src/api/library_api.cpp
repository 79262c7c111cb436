// Library-level exports: structure version, revision, unloading the library
// object, last error, the bus-event callback and the monitor's entry.
#include "api/frame.h"
#include "core/kivcam_dll.h"
#include "diag/call_log.h"
#include "kivcam/kivcam.h"

using kivcam::api::Frame;
using kivcam::api::Run;
using kivcam::core::CKivCamDLL;

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_SetStructVersion(uint32_t version) {
  const Frame f = Frame::Plain("KIVCAM_SetStructVersion");
  // A refused version leaves an Error line (written under the API lock) and
  // then the End line, so the frame always ends with End.
  return Run(f, [&](CKivCamDLL& lib) {
    kivcam::platform::LockGuard api(lib.api_lock());
    uint32_t current = kivcam::core::StructVersion();
    if (version > KIVCAM_LIBRARY_REVISION || version < current) {
      lib.SetErrorCode(KIVCAM_ERR_VERSION);
      f.Error(KIVCAM_ERR_VERSION);
      throw kivcam::Error(KIVCAM_ERR_VERSION);
    }
    if (version > current) {
      kivcam::core::SetStructVersionValue(version);
      kivcam::platform::LockGuard library(lib.library_lock());
      lib.CreateDrvList();
    }
  }, /*always_end=*/true) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

KIVCAM_API uint32_t KIVCAM_GetLibraryRevision(void) {
  if (CKivCamDLL* lib = kivcam::core::Library()) lib->SetErrorCode(0);
  return KIVCAM_LIBRARY_REVISION;
}

// Also from the library's own callback: the object then ends on that thread
// once the application's function returns; exports fail from now on.
KIVCAM_API void KIVCAM_FreeLibrary(void) { kivcam::core::DestroyLibrary(); }

KIVCAM_API uint32_t KIVCAM_GetLastError(void) {
  CKivCamDLL* lib = kivcam::core::Library();
  return lib ? lib->GetErrorCode() : 0;
}

KIVCAM_API void KIVCAM_SetCallBack(void* context, KIVCAM_CALLBACK function) {
  Run(Frame::Plain("KIVCAM_SetCallBack"), [&](CKivCamDLL& lib) {
    kivcam::platform::LockGuard api(lib.api_lock());
    lib.SetCallBack(reinterpret_cast<kivcam::core::BusEventCallback>(function), context);
  }, /*always_end=*/true);
}

KIVCAM_API void KIVCAM_LogCommonAreaGet(uint32_t monitor_process_id, void** build_date) {
  kivcam::diag::SharedData* shared = kivcam::diag::CurrentSharedData();
  if (shared) {
    __atomic_store_n(&shared->MonitorProcessId, monitor_process_id, __ATOMIC_RELAXED);
    if (build_date) *build_date = shared->BuildDate;
  } else if (build_date) {
    *build_date = nullptr;
  }
  // The monitor runs no camera machinery and no callback thread.
  kivcam::core::DestroyLibrary();
}

}  // extern "C"
