// The library's open searches: every interface lock held, device lists
// refreshed, then producers and interfaces tried in list order.
#include "camera/camera.h"
#include "core/kivcam_dll.h"
#include "transport/camera_port.h"
#include "transport/gentl.h"
#include "transport/interface.h"

namespace kivcam::core {

namespace {
constexpr uint32_t kNotSupported = 3;
}

template <typename Try>
bool CKivCamDLL::Search(int32_t kind, bool any_kind, uint32_t start, bool by_uid_or_key, Try&& attempt) {
  LockAll();
  for (transport::CGenTL* p : producers_) {
    for (transport::CInterface* i : p->interfaces()) i->UpdateDeviceList();
  }
  uint32_t rc = start;
  bool opened = false;
  for (transport::CGenTL* p : producers_) {
    if (!any_kind && p->kind() != kind) continue;
    rc = transport::kOpenNone;
    for (transport::CInterface* i : p->interfaces()) {
      rc = attempt(p, i);
      if (rc == transport::kOpenDone) break;
      if (by_uid_or_key && (rc == kNotSupported || rc == transport::kOpenBusy)) break;
    }
    if (rc == transport::kOpenDone) {
      opened = true;
      break;
    }
    if (by_uid_or_key && (rc == kNotSupported || rc == transport::kOpenBusy)) break;
  }
  UnlockAll();
  if (opened) {
    // Work done while opening (a stream test) leaves no code behind.
    SetErrorCode(0);
  } else {
    SetErrorCode(rc == kNotSupported || rc == transport::kOpenBusy ? rc : transport::kOpenNone);
  }
  return opened;
}

bool CKivCamDLL::OpenCamera(camera::CCamera** out, uint32_t param, int32_t kind, uint8_t read_only) {
  *out = nullptr;
  return Search(kind, kind == 0, transport::kOpenNone, false,
                [&](transport::CGenTL* p, transport::CInterface* i) {
                  // USB cameras have no watch mode.
                  if (read_only == 1 && p->kind() == transport::kKindUSB) return transport::kOpenNone;
                  return i->OpenCamera(out, param, read_only != 0);
                });
}

bool CKivCamDLL::OpenCamera(camera::CCamera** out, uint64_t uid, uint32_t param, int32_t kind,
                            uint8_t read_only) {
  *out = nullptr;
  return Search(kind, kind == 0, kNotSupported, true,
                [&](transport::CGenTL* p, transport::CInterface* i) {
                  if (read_only == 1 && p->kind() == transport::kKindUSB) return kNotSupported;
                  return i->OpenCamera(out, uid, param, read_only != 0);
                });
}

bool CKivCamDLL::OpenCamera(camera::CCamera** out, const std::string& key, uint32_t param, int32_t kind,
                            uint8_t read_only) {
  *out = nullptr;
  return Search(kind, false, kNotSupported, true,
                [&](transport::CGenTL* p, transport::CInterface* i) {
                  if (read_only == 1 && p->kind() == transport::kKindUSB) return transport::kOpenNone;
                  return i->OpenCamera(out, key, param, read_only != 0);
                });
}

bool CKivCamDLL::OpenCameraPort(transport::CCameraPort** out) {
  *out = nullptr;
  return Search(0, true, transport::kOpenNone, false,
                [&](transport::CGenTL*, transport::CInterface* i) { return i->OpenCameraPort(out); });
}

}  // namespace kivcam::core
