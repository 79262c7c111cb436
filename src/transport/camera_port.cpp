#include "transport/camera_port.h"

#include <cstring>

#include "core/failure.h"
#include "transport/device_info.h"
#include "transport/gentl.h"
#include "transport/interface.h"

namespace kivcam::transport {

CCameraPort::CCameraPort(CGenTL* producer, CInterface* owner, const std::string& device_id,
                         DEV_HANDLE device)
    : producer_(producer), owner_(owner), device_id_(device_id), device_(device) {
  if (producer_->fn().DevGetPort(device_, &port_) != GC_ERR_SUCCESS) producer_->RaiseLastError();
}

CCameraPort::~CCameraPort() {
  producer_->fn().DevClose(device_);
  owner_->RemovePort(this);
}

void DestroyPort(CCameraPort* port) {
  core::registry::Remove(port);
  {
    platform::LockGuard g(port->owner()->lock());
    port->owner()->RemovePort(port);
  }
  delete port;
}

bool CCameraPort::CameraInfo(CameraListEntry* info) {
  return FillEntryFromDevice(producer_, device_, "CCameraPort::CameraInfo", info);
}

bool DeviceInfoReader::Query(int32_t command, size_t capacity) {
  std::memset(buf_, 0, sizeof buf_);
  INFO_DATATYPE type = 0;
  got_ = capacity < kBytes ? capacity : kBytes;
  if (producer_->fn().DevGetInfo(device_, command, &type, buf_, &got_) == GC_ERR_SUCCESS) return true;
  producer_->LogLastError(op_);
  return false;
}

bool FillEntryFromDevice(CGenTL* producer, DEV_HANDLE device, const char* op, CameraListEntry* info) {
  std::memset(info, 0, sizeof *info);
  DeviceInfoReader r(producer, device, op);
  if (!r.Query(DEVICE_INFO_ID)) return false;
  info->UID = ParseUid(r.text());
  if (!r.Text(DEVICE_INFO_VENDOR, info->Vendor, sizeof info->Vendor)) return false;
  if (!r.Text(DEVICE_INFO_MODEL, info->Model, sizeof info->Model)) return false;
  if (!r.Query(1002)) return false;
  info->Info1002 = r.Word();
  if (!r.Query(1001)) return false;
  info->LinkCode = LinkCode(producer->kind(), r.Word());
  uint32_t kind;
  if (CameraKindOf(producer->kind(), &kind)) info->CameraKind = kind;
  return true;
}

bool PortTransfer(CGenTL* producer, PORT_HANDLE port, bool write, uint32_t address, void* buffer,
                  uint32_t* size, uint32_t* error) {
  size_t n = *size;
  GC_ERROR rc = write ? producer->fn().GCWritePort(port, address, buffer, &n)
                      : producer->fn().GCReadPort(port, address, buffer, &n);
  if (rc < 0) {
    *error = KIVCAM_ERR_ACCESS;
    return false;
  }
  *size = static_cast<uint32_t>(n);
  return true;
}

}  // namespace kivcam::transport
