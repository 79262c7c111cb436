#include "transport/port.h"

#include <stdexcept>

#include "camera/camera.h"
#include "transport/gentl.h"

namespace kivcam::transport {

void CPort::Read(void* buffer, int64_t address, int64_t length) {
  camera_->SetVisibleFlag();
  if (camera_->visible()) {
    size_t size = static_cast<size_t>(length);
    GC_ERROR rc = producer_->fn().GCReadPort(port_, static_cast<uint64_t>(address), buffer, &size);
    if (rc >= 0 && size == static_cast<size_t>(length)) return;
  }
  // Tell the next caller whether the camera went away during the access.
  camera_->SetVisibleFlag();
  throw std::runtime_error("Unable to Read Register");
}

void CPort::Write(const void* buffer, int64_t address, int64_t length) {
  camera_->SetVisibleFlag();
  if (camera_->visible()) {
    size_t size = static_cast<size_t>(length);
    if (producer_->fn().GCWritePort(port_, static_cast<uint64_t>(address), buffer, &size) >= 0) return;
  }
  camera_->SetVisibleFlag();
  throw std::runtime_error("Unable to Write Register");
}

}  // namespace kivcam::transport
