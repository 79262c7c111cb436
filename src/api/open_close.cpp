#include "api/open_close.h"

#include <cstring>

#include "api/frame.h"
#include "camera/camera.h"
#include "core/kivcam_dll.h"
#include "transport/ids.h"
#include "transport/interface.h"

namespace kivcam::api {

namespace {

constexpr size_t kKeyBytes = 16;

// A camera's stream thread ends before the API lock is taken: its callback
// may be inside an export that takes that lock.
void StopCallback(camera::CCamera& c, bool watch) {
  try {
    CameraLock g(c);
    if (c.watch() == watch) c.StopImageCallBack();
  } catch (const kivcam::Error&) {
    // Closed meanwhile: nothing to stop.
  }
}

}  // namespace

void OpenByUid(core::CKivCamDLL& lib, uint64_t uid, HCAMERA* camera, uint8_t read_only) {
  Require(camera);
  *camera = nullptr;
  if (uid == 0) Require(nullptr);
  transport::DeviceMatch match;
  if (uid != KIVCAM_UID_ANY) {
    match.kind = transport::DeviceMatch::kUid;
    match.uid = uid;
  }
  platform::LockGuard api(lib.api_lock());
  *camera = lib.OpenCamera(match, 0, 0, read_only);
}

void OpenByParam(core::CKivCamDLL& lib, const KIVCAM_OPENPARAM* param, HCAMERA* camera, int32_t kind,
                 uint8_t read_only) {
  Require(param);
  Require(camera);
  const bool uid_given = param->UID != KIVCAM_UID_ANY;
  const size_t key_length = strnlen(param->DeviceKey, kKeyBytes);
  if (uid_given && key_length != 0) Require(nullptr);
  // A GigE key must leave room for its terminator.
  if (kind == transport::kKindGigE && !uid_given && key_length >= kKeyBytes) Require(nullptr);
  *camera = nullptr;
  transport::DeviceMatch match;
  if (uid_given) {
    match.kind = transport::DeviceMatch::kUid;
    match.uid = param->UID;
  } else if (key_length != 0) {
    match.kind = transport::DeviceMatch::kKey;
    match.key.assign(param->DeviceKey, key_length);
  }
  platform::LockGuard api(lib.api_lock());
  *camera = lib.OpenCamera(match, param->DescriptionIndex, kind, read_only);
}

void CloseCamera(core::CKivCamDLL& lib, HCAMERA handle, bool watch) {
  auto c = CameraOf(lib, handle);
  c->PreCall();
  StopCallback(*c, watch);
  platform::LockGuard api(lib.api_lock());
  // Closed meanwhile (its interface went away): as stale as any other.
  if (c->closed()) Require(nullptr);
  if (c->watch() != watch) throw kivcam::Error(KIVCAM_ERR_MODE);
  lib.Close(*c);
}

}  // namespace kivcam::api
