// The node map's way to the camera: every feature access becomes a register
// read or write on the device's remote port, refused while the device is
// absent, and read-only for a camera opened in watch mode.
#pragma once

#include "kivgenapi/KivGenApi.h"
#include "kivgentl/gentl.h"

namespace kivcam::transport {

class CDevice;

class CPort : public KivGenApi::IPort {
 public:
  CPort(CDevice* device, bool read_only) : device_(device), read_only_(read_only) {}
  ~CPort() override = default;

  // Raise Error (7, "Unable to Read Register" / "Unable to Write Register").
  void Read(void* buffer, int64_t address, int64_t length) override;
  void Write(const void* buffer, int64_t address, int64_t length) override;
  KivGenApi::EAccessMode GetAccessMode() const override {
    return read_only_ ? KivGenApi::RO : KivGenApi::RW;
  }

 private:
  CDevice* device_;
  bool read_only_;
};

}  // namespace kivcam::transport
