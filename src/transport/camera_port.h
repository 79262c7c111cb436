// Port-only device object: a device opened for register access alone, with
// no node map, no streams and no camera object.
#pragma once

#include <cstdint>
#include <string>

#include "core/base.h"
#include "kivcam/kivcam.h"
#include "kivgentl/gentl.h"
#include "platform/platform.h"

namespace kivcam::transport {

class CGenTL;
class CInterface;

// Root of the port-only family; a live handle like every object the
// application holds.
class CBasePort : public core::CBase {
 public:
  ~CBasePort() override = default;
};

class CCameraPort : public CBasePort {
 public:
  // Takes the device's remote port; raises the producer's text on failure.
  CCameraPort(CGenTL* producer, CInterface* owner, const std::string& device_id, DEV_HANDLE device);
  ~CCameraPort() override;

  platform::RecursiveLock& lock() { return lock_; }
  CGenTL* producer() const { return producer_; }
  CInterface* owner() const { return owner_; }
  PORT_HANDLE port() const { return port_; }
  bool CameraInfo(CameraListEntry* info);

 private:
  platform::RecursiveLock lock_;
  CGenTL* producer_;
  CInterface* owner_;
  std::string device_id_;
  DEV_HANDLE device_;
  PORT_HANDLE port_ = nullptr;
};

// Takes the object out of the live set, then destroys it.
void DestroyPort(CCameraPort* port);

// Reads or writes registers for an export: a negative producer result is
// error 7, otherwise the size moved is written back.
bool PortTransfer(CGenTL* producer, PORT_HANDLE port, bool write, uint32_t address, void* buffer,
                  uint32_t* size, uint32_t* error);

}  // namespace kivcam::transport
