// The library's open searches: every interface lock held, device lists
// refreshed, then producers and interfaces tried in list order.
#include "camera/camera.h"
#include "core/kivcam_dll.h"
#include "core/lock_all.h"
#include "diag/error.h"
#include "transport/camera_port.h"
#include "transport/gentl.h"
#include "transport/ids.h"
#include "transport/interface.h"

namespace kivcam::core {

namespace {

// What one interface, one producer or the whole search came to.
enum class Found { kOpened, kBusy, kNone, kNotSupported };

Found FromInterface(transport::OpenResult r) {
  switch (r) {
    case transport::OpenResult::kOpened: return Found::kOpened;
    case transport::OpenResult::kBusy: return Found::kBusy;
    default: return Found::kNone;  // a failed construction counts as nothing found
  }
}

bool Ends(Found f) { return f == Found::kNotSupported || f == Found::kBusy; }

}  // namespace

// `attempt(producer, interface, &object)` tries one interface. The by-UID and
// by-key searches start from "not supported" and stop at the first device
// that is already open.
template <typename Attempt>
std::shared_ptr<transport::CDevice> CKivCamDLL::Search(int32_t kind, bool any_kind, bool by_uid_or_key,
                                                       Attempt&& attempt) {
  std::shared_ptr<transport::CDevice> object;
  Found found = by_uid_or_key ? Found::kNotSupported : Found::kNone;
  {
    LockAllGuard all(library_lock_, interface_locks_);
    for (const auto& p : producers_) {
      for (const auto& i : p->interfaces()) i->UpdateDeviceList();
    }
    for (const auto& p : producers_) {
      if (!any_kind && p->kind() != kind) continue;
      found = Found::kNone;
      for (const auto& i : p->interfaces()) {
        found = attempt(p.get(), i.get(), &object);
        if (found == Found::kOpened || (by_uid_or_key && Ends(found))) break;
      }
      if (found == Found::kOpened || (by_uid_or_key && Ends(found))) break;
    }
  }
  switch (found) {
    case Found::kOpened: return object;
    case Found::kBusy: throw Error(KIVCAM_ERR_ALREADY_OPEN);
    case Found::kNotSupported: throw Error(KIVCAM_ERR_NOT_SUPPORTED);
    default: throw Error(KIVCAM_ERR_NO_CAMERA);
  }
}

HCAMERA CKivCamDLL::OpenCamera(const transport::DeviceMatch& match, uint32_t param, int32_t kind,
                               uint8_t read_only) {
  const bool by_uid = match.kind == transport::DeviceMatch::kUid;
  const bool by_key = match.kind == transport::DeviceMatch::kKey;
  auto attempt = [&](transport::CGenTL* p, transport::CInterface* i, std::shared_ptr<transport::CDevice>* out) {
    // USB cameras have no watch mode: a UID search ends there, the others pass by.
    if (read_only == 1 && p->kind() == transport::kKindUSB) return by_uid ? Found::kNotSupported : Found::kNone;
    transport::DeviceFactory make = [&](transport::DeviceHandle& device, const std::string& id) {
      return std::shared_ptr<transport::CDevice>(
          camera::CreateCamera(p, i, id, device, param, read_only != 0, &buffers_));
    };
    return FromInterface(i->OpenCamera(match, read_only != 0, make, out));
  };
  // The key search only ever looks at producers of the requested kind.
  auto object = Search(kind, kind == 0 && !by_key, by_uid || by_key, attempt);
  return static_cast<HCAMERA>(Adopt(HandleKind::kCamera, object));
}

HCAMERAPORT CKivCamDLL::OpenCameraPort() {
  auto attempt = [&](transport::CGenTL* p, transport::CInterface* i, std::shared_ptr<transport::CDevice>* out) {
    transport::DeviceFactory make = [&](transport::DeviceHandle& device, const std::string& id) {
      return std::shared_ptr<transport::CDevice>(
          std::make_shared<transport::CCameraPort>(p, i, id, std::move(device)));
    };
    return FromInterface(i->OpenCameraPort(make, out));
  };
  auto object = Search(0, true, false, attempt);
  return static_cast<HCAMERAPORT>(Adopt(HandleKind::kPort, object));
}

}  // namespace kivcam::core
