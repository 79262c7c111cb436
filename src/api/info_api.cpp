// Camera information: identity records, the node map and the command timeout.
#include "api/frame.h"
#include "camera/camera.h"
#include "camera/camera_gige.h"
#include "camera/camera_usb.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"

using kivcam::api::CameraLock;
using kivcam::api::CameraOf;
using kivcam::api::Frame;
using kivcam::api::Require;
using kivcam::api::RunBool;
using kivcam::camera::CCamera;
using kivcam::core::CKivCamDLL;

namespace {

constexpr uint32_t kTimeoutMin = 500;
constexpr uint32_t kTimeoutMax = 600000;

// A camera export's common steps: the handle is a camera, `out` is given and
// the camera is of class Kind (else `wrong_kind`); then, under the camera
// lock, the camera must be present before `work` runs.
template <typename Kind, typename Work>
KIVCAM_BOOL OnCamera(const char* name, HCAMERA handle, const void* out, uint32_t wrong_kind, Work&& work) {
  return RunBool(Frame::Camera(name, handle), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, handle);
    Require(out);
    Kind* k = dynamic_cast<Kind*>(c.get());
    if (!k) throw kivcam::Error(wrong_kind);
    c->PreCall();
    CameraLock g(*c);
    if (!c->visible()) throw kivcam::Error(KIVCAM_ERR_NO_CAMERA);
    work(*k);
  });
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_CameraInfo(HCAMERA camera, CameraListEntry* info) {
  return OnCamera<CCamera>("KIVCAM_CameraInfo", camera, info, KIVCAM_ERR_PARAM,
                           [&](CCamera& c) { c.CameraInfo(info); });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_CameraInfoGigE(HCAMERA camera, GigECameraInfo* info) {
  return OnCamera<kivcam::camera::CCameraGigE>("KIVCAM_CameraInfoGigE", camera, info, KIVCAM_ERR_NOT_GIGE,
                                               [&](kivcam::camera::CCameraGigE& c) { c.CameraInfo(info); });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_CameraInfoUSB(HCAMERA camera, USBCameraInfo* info) {
  return OnCamera<kivcam::camera::CCameraUSB>("KIVCAM_CameraInfoUSB", camera, info, KIVCAM_ERR_NOT_USB,
                                              [&](kivcam::camera::CCameraUSB& c) { c.CameraInfo(info); });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_GetNodeMap(HCAMERA camera, void** node_map) {
  return OnCamera<CCamera>("KIVCAM_GetNodeMap", camera, node_map, KIVCAM_ERR_PARAM,
                           [&](CCamera& c) { *node_map = c.node_map(); });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_SetCmdTimeOut(HCAMERA camera, uint32_t milliseconds) {
  return RunBool(Frame::Camera("KIVCAM_SetCmdTimeOut", camera), [&](CKivCamDLL& lib) {
    if (kivcam::core::StructVersion() < KIVCAM_STRUCT_VERSION_CMDTIMEOUT) {
      throw kivcam::Error(KIVCAM_ERR_VERSION);
    }
    auto c = CameraOf(lib, camera);
    if (milliseconds != 0 && (milliseconds < kTimeoutMin || milliseconds > kTimeoutMax)) Require(nullptr);
    c->PreCall();
    CameraLock g(*c);
    if (c->watch()) throw kivcam::Error(KIVCAM_ERR_MODE);
    c->SetCmdTimeOut(milliseconds);
  });
}

}  // extern "C"
