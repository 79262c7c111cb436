// Camera handles: opening, closing, presence, and the library-level reset and
// re-detection.
#include <cstring>

#include "api/frame.h"
#include "camera/camera.h"
#include "core/base.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"
#include "transport/gentl.h"

using kivcam::api::Frame;
using kivcam::api::Require;
using kivcam::api::Run;
using kivcam::camera::CCamera;
using kivcam::core::CKivCamDLL;
using kivcam::platform::LockGuard;

namespace {

constexpr size_t kKeyBytes = 16;

HCAMERA HandleOf(CCamera* c) {
  return c ? static_cast<HCAMERA>(static_cast<kivcam::core::CBase*>(c)->handle()) : nullptr;
}

// KIVCAM_OpenGigE and KIVCAM_OpenUSB: by UID, else by key, else the first free one.
bool OpenByParam(CKivCamDLL& lib, const KIVCAM_OPENPARAM* param, HCAMERA* camera, int32_t kind) {
  if (!Require(lib, param) || !Require(lib, camera)) return false;
  const bool uid_given = param->UID != KIVCAM_UID_ANY;
  const size_t key_length = strnlen(param->DeviceKey, kKeyBytes);
  if (uid_given && key_length != 0) return Require(lib, nullptr);
  // A GigE key must leave room for its terminator.
  if (kind == kivcam::transport::kKindGigE && !uid_given && key_length >= kKeyBytes) {
    return Require(lib, nullptr);
  }
  *camera = nullptr;
  LockGuard api(lib.api_lock());
  CCamera* c = nullptr;
  bool ok;
  if (uid_given) {
    ok = lib.OpenCamera(&c, param->UID, param->DescriptionIndex, kind, 0);
  } else if (key_length != 0) {
    ok = lib.OpenCamera(&c, std::string(param->DeviceKey, key_length), param->DescriptionIndex, kind, 0);
  } else {
    ok = lib.OpenCamera(&c, param->DescriptionIndex, kind, 0);
  }
  *camera = HandleOf(c);
  return ok;
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_Open(uint64_t uid, HCAMERA* camera) {
  const Frame f = Frame::OpenUid("KIVCAM_Open", uid, reinterpret_cast<const void* const*>(camera));
  return Run(f, [&](CKivCamDLL& lib) {
    if (!Require(lib, camera)) return false;
    *camera = nullptr;
    if (uid == 0) return Require(lib, nullptr);
    LockGuard api(lib.api_lock());
    CCamera* c = nullptr;
    bool ok = uid == KIVCAM_UID_ANY ? lib.OpenCamera(&c, 0, 0, 0) : lib.OpenCamera(&c, uid, 0, 0, 0);
    *camera = HandleOf(c);
    return ok;
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

KIVCAM_API KIVCAM_BOOL KIVCAM_OpenGigE(const KIVCAM_OPENPARAM* param, HCAMERA* camera) {
  return Run(Frame::Plain("KIVCAM_OpenGigE"), [&](CKivCamDLL& lib) {
    return OpenByParam(lib, param, camera, kivcam::transport::kKindGigE);
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

KIVCAM_API KIVCAM_BOOL KIVCAM_OpenUSB(const KIVCAM_OPENPARAM* param, HCAMERA* camera) {
  return Run(Frame::Plain("KIVCAM_OpenUSB"), [&](CKivCamDLL& lib) {
    return OpenByParam(lib, param, camera, kivcam::transport::kKindUSB);
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

KIVCAM_API KIVCAM_BOOL KIVCAM_Close(HCAMERA camera) {
  return Run(Frame::Camera("KIVCAM_Close", camera), [&](CKivCamDLL& lib) {
    CCamera* c = kivcam::core::FindLive<CCamera>(camera);
    if (!Require(lib, c)) return false;
    c->PreCall();
    LockGuard api(lib.api_lock());
    if (c->watch()) {
      lib.SetErrorCode(KIVCAM_ERR_MODE);
      return false;
    }
    kivcam::camera::DestroyCamera(c);
    return true;
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

KIVCAM_API void KIVCAM_CloseAll(void) {
  Run(Frame::Plain("KIVCAM_CloseAll"), [&](CKivCamDLL& lib) {
    LockGuard api(lib.api_lock());
    lib.CloseAllCameras();
    return true;
  }, /*always_end=*/true);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_Camera(HCAMERA camera, uint32_t* state) {
  return Run(Frame::CameraState("KIVCAM_Camera", camera, state), [&](CKivCamDLL& lib) {
    CCamera* c = kivcam::core::FindLive<CCamera>(camera);
    if (!Require(lib, c) || !Require(lib, state)) return false;
    c->PreCall();
    LockGuard g(c->lock());
    bool present = false;
    bool ok = c->CheckVisible(&present);
    *state = present ? 1 : 0;
    return ok;
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

KIVCAM_API KIVCAM_BOOL KIVCAM_Reset(void) {
  return Run(Frame::Plain("KIVCAM_Reset"), [&](CKivCamDLL& lib) {
    // Returns once every running library-level call has left.
    LockGuard api(lib.api_lock());
    LockGuard library(lib.library_lock());
    return true;
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

KIVCAM_API void KIVCAM_ReDetection(void) {
  Run(Frame::Plain("KIVCAM_ReDetection"), [&](CKivCamDLL& lib) {
    LockGuard api(lib.api_lock());
    LockGuard library(lib.library_lock());
    lib.CreateDrvList();
    return true;
  }, /*always_end=*/true);
}

}  // extern "C"
