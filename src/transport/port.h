// The node map's way to the camera: every feature access becomes a register
// read or write on the camera's remote device, refused while the camera is
// absent, and read-only for a camera opened in watch mode.
#pragma once

#include "kivgenapi/KivGenApi.h"
#include "kivgentl/gentl.h"

namespace kivcam::camera {
class CCamera;
}

namespace kivcam::transport {

class CGenTL;

class CPort : public KivGenApi::IPort {
 public:
  CPort(camera::CCamera* camera, CGenTL* producer, PORT_HANDLE port, bool read_only)
      : camera_(camera), producer_(producer), port_(port), read_only_(read_only) {}
  ~CPort() override = default;

  // Raise std::runtime_error ("Unable to Read Register" / "Unable to Write Register").
  void Read(void* buffer, int64_t address, int64_t length) override;
  void Write(const void* buffer, int64_t address, int64_t length) override;
  KivGenApi::EAccessMode GetAccessMode() const override {
    return read_only_ ? KivGenApi::RO : KivGenApi::RW;
  }

 private:
  camera::CCamera* camera_;
  CGenTL* producer_;
  PORT_HANDLE port_;
  bool read_only_;
};

}  // namespace kivcam::transport
