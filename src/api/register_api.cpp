// Register access: raw port access on an open camera, and the port-only
// device objects.
#include "api/frame.h"
#include "camera/camera.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"
#include "transport/camera_port.h"

using kivcam::api::CameraLock;
using kivcam::api::CameraOf;
using kivcam::api::Frame;
using kivcam::api::Require;
using kivcam::api::RunBool;
using kivcam::core::CKivCamDLL;
using kivcam::platform::LockGuard;
using kivcam::transport::CCameraPort;

namespace {

// The live port-only object behind `handle`, or Error (1).
std::shared_ptr<CCameraPort> PortOf(CKivCamDLL& lib, const void* handle) {
  std::shared_ptr<CCameraPort> p = lib.FindPort(handle);
  Require(p.get());
  return p;
}

// The port's lock, and the test that the object was not closed meanwhile.
class PortLock {
 public:
  explicit PortLock(CCameraPort& p) : g_(p.lock()) {
    if (p.closed()) Require(nullptr);
  }

 private:
  LockGuard g_;
};

KIVCAM_BOOL CameraTransfer(const char* name, HCAMERA handle, bool write, uint32_t address, void* buffer,
                           uint32_t* size) {
  return RunBool(Frame::Camera(name, handle), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, handle);
    Require(buffer);
    Require(size);
    CameraLock g(*c);
    kivcam::transport::PortTransfer(c->producer(), c->port(), write, address, buffer, size);
  });
}

KIVCAM_BOOL PortTransfer(const char* name, HCAMERAPORT handle, bool write, uint32_t address, void* buffer,
                         uint32_t* size) {
  return RunBool(Frame::Camera(name, handle), [&](CKivCamDLL& lib) {
    auto p = PortOf(lib, handle);
    Require(buffer);
    Require(size);
    PortLock g(*p);
    kivcam::transport::PortTransfer(p->producer(), p->port(), write, address, buffer, size);
  });
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_ReadPort(HCAMERA camera, uint32_t address, void* buffer, uint32_t* size) {
  return CameraTransfer("KIVCAM_ReadPort", camera, false, address, buffer, size);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_WritePort(HCAMERA camera, uint32_t address, const void* buffer,
                                        uint32_t* size) {
  return CameraTransfer("KIVCAM_WritePort", camera, true, address, const_cast<void*>(buffer), size);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ReadReg(HCAMERAPORT port, uint32_t address, void* buffer, uint32_t* size) {
  return PortTransfer("KIVCAM_ReadReg", port, false, address, buffer, size);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_WriteReg(HCAMERAPORT port, uint32_t address, const void* buffer,
                                       uint32_t* size) {
  return PortTransfer("KIVCAM_WriteReg", port, true, address, const_cast<void*>(buffer), size);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_OpenReg(HCAMERAPORT* port) {
  return RunBool(Frame::Plain("KIVCAM_OpenReg"), [&](CKivCamDLL& lib) {
    Require(port);
    *port = nullptr;
    LockGuard api(lib.api_lock());
    *port = lib.OpenCameraPort();
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_CloseReg(HCAMERAPORT port) {
  return RunBool(Frame::Camera("KIVCAM_CloseReg", port), [&](CKivCamDLL& lib) {
    auto p = PortOf(lib, port);
    LockGuard api(lib.api_lock());
    if (p->closed()) Require(nullptr);
    lib.Close(*p);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_CameraRegInfo(HCAMERAPORT port, CameraListEntry* info) {
  return RunBool(Frame::Camera("KIVCAM_CameraRegInfo", port), [&](CKivCamDLL& lib) {
    auto p = PortOf(lib, port);
    Require(info);
    PortLock g(*p);
    p->CameraInfo(info);
  });
}

}  // extern "C"
