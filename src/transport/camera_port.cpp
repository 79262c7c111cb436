#include "transport/camera_port.h"

#include <cstring>

#include "diag/error.h"
#include "transport/device_info.h"
#include "transport/gentl.h"

namespace kivcam::transport {

void CCameraPort::CameraInfo(CameraListEntry* info) {
  if (!FillEntryFromDevice(m_pGenTL, device(), "CCameraPort::CameraInfo", info)) {
    throw Error(KIVCAM_ERR_OTHER);
  }
}

void PortTransfer(CGenTL* producer, PORT_HANDLE port, bool write, uint32_t address, void* buffer,
                  uint32_t* size) {
  size_t n = *size;
  GC_ERROR rc = write ? producer->fn().GCWritePort(port, address, buffer, &n)
                      : producer->fn().GCReadPort(port, address, buffer, &n);
  if (rc < 0) throw Error(KIVCAM_ERR_ACCESS);
  *size = static_cast<uint32_t>(n);
}

}  // namespace kivcam::transport
