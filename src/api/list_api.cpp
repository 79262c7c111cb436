// The camera list.
#include "api/frame.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"

using kivcam::api::Frame;
using kivcam::api::Require;
using kivcam::api::Run;
using kivcam::core::CKivCamDLL;

extern "C" KIVCAM_API KIVCAM_BOOL KIVCAM_GetList(CameraList* list) {
  return Run(Frame::Plain("KIVCAM_GetList"), [&](CKivCamDLL& lib) {
    if (!Require(lib, list)) return false;
    kivcam::platform::LockGuard api(lib.api_lock());
    return lib.GetList(list);
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}
