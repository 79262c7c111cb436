// Camera information: identity records, the node map and the command timeout.
#include "api/frame.h"
#include "camera/camera.h"
#include "core/base.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"

using kivcam::api::Frame;
using kivcam::api::Require;
using kivcam::api::Run;
using kivcam::camera::CCamera;
using kivcam::core::CKivCamDLL;
using kivcam::platform::LockGuard;

namespace {

constexpr uint32_t kTimeoutMin = 500;
constexpr uint32_t kTimeoutMax = 600000;

// A camera export's common steps: the handle is a camera, `out` is given and
// the camera is of class Kind (else `wrong_kind`); then, under the camera
// lock, the camera must be present before `work` runs.
template <typename Kind, typename Work>
KIVCAM_BOOL OnCamera(const char* name, HCAMERA handle, const void* out, uint32_t wrong_kind, Work&& work) {
  return Run(Frame::Camera(name, handle), [&](CKivCamDLL& lib) {
    CCamera* c = kivcam::core::FindLive<CCamera>(handle);
    if (!Require(lib, c) || !Require(lib, out)) return false;
    Kind* k = dynamic_cast<Kind*>(c);
    if (!k) {
      lib.SetErrorCode(wrong_kind);
      return false;
    }
    c->PreCall();
    LockGuard g(c->lock());
    if (!c->visible()) {
      lib.SetErrorCode(KIVCAM_ERR_NO_CAMERA);
      return false;
    }
    return work(*k);
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_CameraInfo(HCAMERA camera, CameraListEntry* info) {
  return OnCamera<CCamera>("KIVCAM_CameraInfo", camera, info, 0,
                           [&](CCamera& c) { return c.CameraInfo(info); });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_CameraInfoGigE(HCAMERA camera, GigECameraInfo* info) {
  return OnCamera<kivcam::camera::CCameraGigE>("KIVCAM_CameraInfoGigE", camera, info, KIVCAM_ERR_NOT_GIGE,
                                               [&](kivcam::camera::CCameraGigE& c) { return c.CameraInfo(info); });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_CameraInfoUSB(HCAMERA camera, USBCameraInfo* info) {
  return OnCamera<kivcam::camera::CCameraUSB>("KIVCAM_CameraInfoUSB", camera, info, KIVCAM_ERR_NOT_USB,
                                              [&](kivcam::camera::CCameraUSB& c) { return c.CameraInfo(info); });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_GetNodeMap(HCAMERA camera, void** node_map) {
  return OnCamera<CCamera>("KIVCAM_GetNodeMap", camera, node_map, 0, [&](CCamera& c) {
    *node_map = c.node_map();
    return true;
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_SetCmdTimeOut(HCAMERA camera, uint32_t milliseconds) {
  return Run(Frame::Camera("KIVCAM_SetCmdTimeOut", camera), [&](CKivCamDLL& lib) {
    if (kivcam::core::StructVersion() < KIVCAM_STRUCT_VERSION_CMDTIMEOUT) {
      lib.SetErrorCode(KIVCAM_ERR_VERSION);
      return false;
    }
    CCamera* c = kivcam::core::FindLive<CCamera>(camera);
    if (!Require(lib, c)) return false;
    if (milliseconds != 0 && (milliseconds < kTimeoutMin || milliseconds > kTimeoutMax)) {
      return Require(lib, nullptr);
    }
    c->PreCall();
    LockGuard g(c->lock());
    if (c->watch()) {
      lib.SetErrorCode(KIVCAM_ERR_MODE);
      return false;
    }
    return c->SetCmdTimeOut(milliseconds);
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

}  // extern "C"
