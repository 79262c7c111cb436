// The camera list: every device of every interface, under every interface lock.
#include <cstring>

#include "core/kivcam_dll.h"
#include "core/lock_all.h"
#include "diag/error.h"
#include "transport/gentl.h"
#include "transport/ids.h"
#include "transport/interface.h"

namespace kivcam::core {

namespace {

void CopyName(char* field, size_t field_size, const std::string& name) {
  size_t n = name.size() < field_size - 1 ? name.size() : field_size - 1;
  std::memcpy(field, name.data(), n);
  field[n] = '\0';
}
}  // namespace

void CKivCamDLL::GetList(CameraList* list) {
  LockAllGuard all(library_lock_, interface_locks_);
  for (const auto& p : producers_) {
    for (const auto& i : p->interfaces()) i->UpdateDeviceList();
  }
  uint32_t total = 0;
  for (const auto& p : producers_) {
    for (const auto& i : p->interfaces()) total += i->GetDevCount();
  }
  if (list->Count == 0) {
    list->Count = total;
  } else if (list->Count < total) {
    throw Error(KIVCAM_ERR_BUFFER_SIZE);
  } else {
    list->Count = total;
    uint32_t filled = 0;
    for (const auto& p : producers_) {
      for (const auto& i : p->interfaces()) {
        std::string id;
        if (!i->GetFirstDevID(&id)) continue;  // no devices, or the first can't be read
        for (uint32_t index = 0; filled < list->Count; ++index) {
          if (index > 0) {
            if (index >= i->GetDevCount()) break;
            i->GetNextDevID(&id);
          }
          transport::DevInfo info;
          if (!i->GetDevInfo(id, &info)) continue;
          // The entries are packed: write through a local copy.
          CameraListEntry e;
          std::memcpy(&e, &list->Entry[filled], sizeof e);
          e.UID = info.uid;
          e.Info1002 = info.info1002;
          uint32_t kind;
          if (transport::CameraKindOf(p->kind(), &kind)) e.CameraKind = kind;
          e.LinkCode = info.link;
          CopyName(e.Vendor, sizeof e.Vendor, info.vendor);
          CopyName(e.Model, sizeof e.Model, info.model);
          std::memcpy(&list->Entry[filled], &e, sizeof e);
          ++filled;
        }
      }
    }
  }
}

}  // namespace kivcam::core
