// Camera handles: opening, closing, presence, and the library-level reset and
// re-detection.
#include "api/frame.h"
#include "api/open_close.h"
#include "camera/camera.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"
#include "transport/ids.h"
#include "transport/interface.h"

using kivcam::api::CameraLock;
using kivcam::api::CameraOf;
using kivcam::api::CloseCamera;
using kivcam::api::OpenByParam;
using kivcam::api::OpenByUid;
using kivcam::api::Frame;
using kivcam::api::Require;
using kivcam::api::Run;
using kivcam::api::RunBool;
using kivcam::core::CKivCamDLL;
using kivcam::platform::LockGuard;

namespace {

// A camera's stream thread ends before the API lock is taken: its callback
// may be inside an export that takes that lock.
void StopCallback(kivcam::camera::CCamera& c) {
  try {
    CameraLock g(c);
    c.StopImageCallBack();
  } catch (const kivcam::Error&) {
    // Closed meanwhile: nothing to stop.
  }
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_Open(uint64_t uid, HCAMERA* camera) {
  const Frame f = Frame::OpenUid("KIVCAM_Open", uid, reinterpret_cast<const void* const*>(camera));
  return RunBool(f, [&](CKivCamDLL& lib) { OpenByUid(lib, uid, camera, 0); });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_OpenGigE(const KIVCAM_OPENPARAM* param, HCAMERA* camera) {
  return RunBool(Frame::Plain("KIVCAM_OpenGigE"), [&](CKivCamDLL& lib) {
    OpenByParam(lib, param, camera, kivcam::transport::kKindGigE, 0);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_OpenUSB(const KIVCAM_OPENPARAM* param, HCAMERA* camera) {
  return RunBool(Frame::Plain("KIVCAM_OpenUSB"), [&](CKivCamDLL& lib) {
    OpenByParam(lib, param, camera, kivcam::transport::kKindUSB, 0);
  });
}


KIVCAM_API KIVCAM_BOOL KIVCAM_Close(HCAMERA camera) {
  return RunBool(Frame::Camera("KIVCAM_Close", camera),
                 [&](CKivCamDLL& lib) { CloseCamera(lib, camera, /*watch=*/false); });
}

KIVCAM_API void KIVCAM_CloseAll(void) {
  Run(Frame::Plain("KIVCAM_CloseAll"), [&](CKivCamDLL& lib) {
    std::vector<std::shared_ptr<kivcam::camera::CCamera>> cameras;
    {
      LockGuard api(lib.api_lock());
      cameras = lib.Cameras();
    }
    for (const auto& c : cameras) StopCallback(*c);
    LockGuard api(lib.api_lock());
    lib.CloseAllCameras();
  }, /*always_end=*/true);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_Camera(HCAMERA camera, uint32_t* state) {
  return RunBool(Frame::CameraState("KIVCAM_Camera", camera, state), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    Require(state);
    c->PreCall();
    CameraLock g(*c);
    bool query_ok = true;
    *state = c->CheckVisible(&query_ok) ? 1 : 0;
    // A presence query that failed leaves 99 behind; the call still reports.
    if (!query_ok) lib.SetErrorCode(KIVCAM_ERR_OTHER);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_Reset(void) {
  return RunBool(Frame::Plain("KIVCAM_Reset"), [&](CKivCamDLL& lib) {
    // Returns once every running library-level call has left.
    LockGuard api(lib.api_lock());
    LockGuard library(lib.library_lock());
  });
}

KIVCAM_API void KIVCAM_ReDetection(void) {
  Run(Frame::Plain("KIVCAM_ReDetection"), [&](CKivCamDLL& lib) {
    LockGuard api(lib.api_lock());
    LockGuard library(lib.library_lock());
    lib.CreateDrvList();
  }, /*always_end=*/true);
}

}  // extern "C"
