// Register access: raw port access on an open camera, and the port-only
// device objects.
#include "api/frame.h"
#include "camera/camera.h"
#include "core/base.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"
#include "transport/camera_port.h"

using kivcam::api::Frame;
using kivcam::api::Require;
using kivcam::api::Run;
using kivcam::camera::CCamera;
using kivcam::core::CKivCamDLL;
using kivcam::platform::LockGuard;
using kivcam::transport::CCameraPort;

namespace {

// The four transfer exports share one shape; `Object` says which handles they take.
template <typename Object>
KIVCAM_BOOL Transfer(const char* name, const void* handle, bool write, uint32_t address, void* buffer,
                     uint32_t* size) {
  return Run(Frame::Camera(name, handle), [&](CKivCamDLL& lib) {
    Object* o = kivcam::core::FindLive<Object>(handle);
    if (!Require(lib, o) || !Require(lib, buffer) || !Require(lib, size)) return false;
    LockGuard g(o->lock());
    uint32_t error = 0;
    if (kivcam::transport::PortTransfer(o->producer(), o->port(), write, address, buffer, size, &error)) {
      return true;
    }
    lib.SetErrorCode(error);
    return false;
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_ReadPort(HCAMERA camera, uint32_t address, void* buffer, uint32_t* size) {
  return Transfer<CCamera>("KIVCAM_ReadPort", camera, false, address, buffer, size);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_WritePort(HCAMERA camera, uint32_t address, const void* buffer,
                                        uint32_t* size) {
  return Transfer<CCamera>("KIVCAM_WritePort", camera, true, address, const_cast<void*>(buffer), size);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ReadReg(HCAMERAPORT port, uint32_t address, void* buffer, uint32_t* size) {
  return Transfer<CCameraPort>("KIVCAM_ReadReg", port, false, address, buffer, size);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_WriteReg(HCAMERAPORT port, uint32_t address, const void* buffer,
                                       uint32_t* size) {
  return Transfer<CCameraPort>("KIVCAM_WriteReg", port, true, address, const_cast<void*>(buffer), size);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_OpenReg(HCAMERAPORT* port) {
  return Run(Frame::Plain("KIVCAM_OpenReg"), [&](CKivCamDLL& lib) {
    if (!Require(lib, port)) return false;
    *port = nullptr;
    LockGuard api(lib.api_lock());
    CCameraPort* p = nullptr;
    bool ok = lib.OpenCameraPort(&p);
    if (p) *port = static_cast<HCAMERAPORT>(static_cast<kivcam::core::CBase*>(p)->handle());
    return ok;
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

KIVCAM_API KIVCAM_BOOL KIVCAM_CloseReg(HCAMERAPORT port) {
  return Run(Frame::Camera("KIVCAM_CloseReg", port), [&](CKivCamDLL& lib) {
    CCameraPort* p = kivcam::core::FindLive<CCameraPort>(port);
    if (!Require(lib, p)) return false;
    LockGuard api(lib.api_lock());
    kivcam::transport::DestroyPort(p);
    return true;
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

KIVCAM_API KIVCAM_BOOL KIVCAM_CameraRegInfo(HCAMERAPORT port, CameraListEntry* info) {
  return Run(Frame::Camera("KIVCAM_CameraRegInfo", port), [&](CKivCamDLL& lib) {
    CCameraPort* p = kivcam::core::FindLive<CCameraPort>(port);
    if (!Require(lib, p) || !Require(lib, info)) return false;
    LockGuard g(p->lock());
    if (p->CameraInfo(info)) return true;
    lib.SetErrorCode(kivcam::api::kErrOther);
    return false;
  }) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

}  // extern "C"
