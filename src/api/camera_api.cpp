// Camera handles: opening, closing, presence, and the library-level reset and
// re-detection.
#include <cstring>

#include "api/frame.h"
#include "camera/camera.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"
#include "transport/ids.h"
#include "transport/interface.h"

using kivcam::api::CameraLock;
using kivcam::api::CameraOf;
using kivcam::api::Frame;
using kivcam::api::Require;
using kivcam::api::Run;
using kivcam::api::RunBool;
using kivcam::core::CKivCamDLL;
using kivcam::platform::LockGuard;
using kivcam::transport::DeviceMatch;

namespace {

constexpr size_t kKeyBytes = 16;

// KIVCAM_OpenGigE and KIVCAM_OpenUSB: by UID, else by key, else the first free one.
void OpenByParam(CKivCamDLL& lib, const KIVCAM_OPENPARAM* param, HCAMERA* camera, int32_t kind) {
  Require(param);
  Require(camera);
  const bool uid_given = param->UID != KIVCAM_UID_ANY;
  const size_t key_length = strnlen(param->DeviceKey, kKeyBytes);
  if (uid_given && key_length != 0) Require(nullptr);
  // A GigE key must leave room for its terminator.
  if (kind == kivcam::transport::kKindGigE && !uid_given && key_length >= kKeyBytes) Require(nullptr);
  *camera = nullptr;
  DeviceMatch match;
  if (uid_given) {
    match.kind = DeviceMatch::kUid;
    match.uid = param->UID;
  } else if (key_length != 0) {
    match.kind = DeviceMatch::kKey;
    match.key.assign(param->DeviceKey, key_length);
  }
  LockGuard api(lib.api_lock());
  *camera = lib.OpenCamera(match, param->DescriptionIndex, kind, 0);
}

}  // namespace

namespace {

// A camera's stream thread ends before the API lock is taken: its callback
// may be inside an export that takes that lock.
void StopCallback(kivcam::camera::CCamera& c) {
  try {
    CameraLock g(c);
    if (!c.watch()) c.StopImageCallBack();
  } catch (const kivcam::Error&) {
    // Closed meanwhile: nothing to stop.
  }
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_Open(uint64_t uid, HCAMERA* camera) {
  const Frame f = Frame::OpenUid("KIVCAM_Open", uid, reinterpret_cast<const void* const*>(camera));
  return RunBool(f, [&](CKivCamDLL& lib) {
    Require(camera);
    *camera = nullptr;
    if (uid == 0) Require(nullptr);
    DeviceMatch match;
    if (uid != KIVCAM_UID_ANY) {
      match.kind = DeviceMatch::kUid;
      match.uid = uid;
    }
    LockGuard api(lib.api_lock());
    *camera = lib.OpenCamera(match, 0, 0, 0);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_OpenGigE(const KIVCAM_OPENPARAM* param, HCAMERA* camera) {
  return RunBool(Frame::Plain("KIVCAM_OpenGigE"), [&](CKivCamDLL& lib) {
    OpenByParam(lib, param, camera, kivcam::transport::kKindGigE);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_OpenUSB(const KIVCAM_OPENPARAM* param, HCAMERA* camera) {
  return RunBool(Frame::Plain("KIVCAM_OpenUSB"), [&](CKivCamDLL& lib) {
    OpenByParam(lib, param, camera, kivcam::transport::kKindUSB);
  });
}


KIVCAM_API KIVCAM_BOOL KIVCAM_Close(HCAMERA camera) {
  return RunBool(Frame::Camera("KIVCAM_Close", camera), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    c->PreCall();
    StopCallback(*c);
    LockGuard api(lib.api_lock());
    // Closed meanwhile (its interface went away): as stale as any other.
    if (c->closed()) Require(nullptr);
    if (c->watch()) throw kivcam::Error(KIVCAM_ERR_MODE);
    lib.Close(*c);
  });
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
