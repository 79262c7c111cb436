// Watch mode: receiving a GigE camera's multicast stream that another
// application controls. The counterparts of open, close, resources and
// start/stop for cameras opened read-only.
#include "api/frame.h"
#include "api/open_close.h"
#include "camera/camera.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"
#include "transport/ids.h"

using kivcam::api::CameraLock;
using kivcam::api::CameraOf;
using kivcam::api::Frame;
using kivcam::api::OnCamera;
using kivcam::api::Require;
using kivcam::api::RunBool;
using kivcam::camera::CCamera;
using kivcam::core::CKivCamDLL;
namespace cam = kivcam::camera;

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_WatchOpen(uint64_t uid, HCAMERA* camera) {
  const Frame f = Frame::OpenUid("KIVCAM_WatchOpen", uid, reinterpret_cast<const void* const*>(camera));
  return RunBool(f, [&](CKivCamDLL& lib) { kivcam::api::OpenByUid(lib, uid, camera, 1); });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_WatchOpenGigE(const KIVCAM_OPENPARAM* param, HCAMERA* camera) {
  return RunBool(Frame::Plain("KIVCAM_WatchOpenGigE"), [&](CKivCamDLL& lib) {
    kivcam::api::OpenByParam(lib, param, camera, kivcam::transport::kKindGigE, 1);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_WatchClose(HCAMERA camera) {
  return RunBool(Frame::Camera("KIVCAM_WatchClose", camera),
                 [&](CKivCamDLL& lib) { kivcam::api::CloseCamera(lib, camera, /*watch=*/true); });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_WatchCamera(HCAMERA camera, uint32_t* state) {
  return RunBool(Frame::Camera("KIVCAM_WatchCamera", camera), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    Require(state);
    c->PreCall();
    CameraLock g(*c);
    c->CheckState(cam::kStateVisible | cam::kStateWatch);
    *state = c->CheckMulticast() ? 1 : 0;
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_WatchAlloc(HCAMERA camera) {
  return OnCamera(Frame::Camera("KIVCAM_WatchAlloc", camera), camera, [&](CCamera& c) {
    // The multicast flag is the one the last KIVCAM_WatchCamera left.
    c.CheckState(cam::kStateVisible | cam::kStateWatch | cam::kStateNotAllocated | cam::kStateMulticast);
    c.AllocResources();
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_WatchRelease(HCAMERA camera) {
  return OnCamera(Frame::Camera("KIVCAM_WatchRelease", camera), camera, [&](CCamera& c) {
    c.CheckState(cam::kStateVisible | cam::kStateWatch | cam::kStateAllocated | cam::kStateStopped);
    c.ReleaseResources();
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_WatchStart(HCAMERA camera) {
  return OnCamera(Frame::Camera("KIVCAM_WatchStart", camera), camera, [&](CCamera& c) {
    c.CheckState(cam::kStateVisible | cam::kStateWatch | cam::kStateAllocated | cam::kStateStopped);
    c.ImageStart();
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_WatchStop(HCAMERA camera) {
  return OnCamera(Frame::Camera("KIVCAM_WatchStop", camera), camera, [&](CCamera& c) {
    c.CheckState(cam::kStateWatch | cam::kStateAllocated);
    c.ImageStop();
  });
}

}  // extern "C"
