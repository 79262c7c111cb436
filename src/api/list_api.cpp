// The camera list.
#include "api/frame.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"

using kivcam::api::Frame;
using kivcam::api::Require;
using kivcam::api::RunBool;
using kivcam::core::CKivCamDLL;

extern "C" KIVCAM_API KIVCAM_BOOL KIVCAM_GetList(CameraList* list) {
  return RunBool(Frame::Plain("KIVCAM_GetList"), [&](CKivCamDLL& lib) {
    Require(list);
    kivcam::platform::LockGuard api(lib.api_lock());
    lib.GetList(list);
  });
}
