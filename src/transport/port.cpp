#include "transport/port.h"

#include "diag/error.h"
#include "transport/device.h"
#include "transport/gentl.h"

namespace kivcam::transport {

void CPort::Read(void* buffer, int64_t address, int64_t length) {
  device_->SetVisibleFlag();
  if (device_->visible()) {
    size_t size = static_cast<size_t>(length);
    GC_ERROR rc = device_->producer()->fn().GCReadPort(device_->port(), static_cast<uint64_t>(address),
                                                       buffer, &size);
    if (rc >= 0 && size == static_cast<size_t>(length)) return;
  }
  // Tell the next caller whether the camera went away during the access.
  device_->SetVisibleFlag();
  throw Error(KIVCAM_ERR_ACCESS, "Unable to Read Register");
}

void CPort::Write(const void* buffer, int64_t address, int64_t length) {
  device_->SetVisibleFlag();
  if (device_->visible()) {
    size_t size = static_cast<size_t>(length);
    if (device_->producer()->fn().GCWritePort(device_->port(), static_cast<uint64_t>(address), buffer,
                                              &size) >= 0) {
      return;
    }
  }
  device_->SetVisibleFlag();
  throw Error(KIVCAM_ERR_ACCESS, "Unable to Write Register");
}

}  // namespace kivcam::transport
