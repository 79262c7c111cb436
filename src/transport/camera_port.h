// Port-only device object: a device opened for register access alone, with
// no node map, no streams and no camera object.
#pragma once

#include <cstdint>
#include <string>

#include "kivcam/kivcam.h"
#include "kivgentl/gentl.h"
#include "platform/platform.h"
#include "transport/device.h"

namespace kivcam::transport {

class CCameraPort : public CDevice {
 public:
  // Takes the device's remote port; raises the producer's text on failure.
  CCameraPort(CGenTL* producer, CInterface* owner, const std::string& device_id, DeviceHandle device)
      : CDevice(producer, owner, device_id, std::move(device)) {}

  platform::RecursiveLock& lock() { return lock_; }
  // Raises Error (99) when a query fails; its text is logged.
  void CameraInfo(CameraListEntry* info);

 protected:
  // A transfer still running finishes before the device closes.
  void ReleaseDevice() override { platform::LockGuard g(lock_); }

 private:
  platform::RecursiveLock lock_;
};

// Reads or writes registers for an export; a negative producer result
// raises Error (7), otherwise the size moved is written back.
void PortTransfer(CGenTL* producer, PORT_HANDLE port, bool write, uint32_t address, void* buffer,
                  uint32_t* size);

}  // namespace kivcam::transport
