// Acquisition: resources, image buffers, start and stop, requests and
// completions, VSync tokens, the image callback and the GigE specifics.
#include "api/frame.h"
#include "camera/camera.h"
#include "camera/camera_gige.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"

using kivcam::api::CameraLock;
using kivcam::api::CameraOf;
using kivcam::api::Frame;
using kivcam::api::OnCamera;
using kivcam::api::Require;
using kivcam::api::RunBool;
using kivcam::camera::CCamera;
using kivcam::camera::CCameraGigE;
using kivcam::core::CKivCamDLL;
namespace cam = kivcam::camera;

namespace {

// A buffer export: the buffer must be a live image record (of any camera).
void RequireBuffer(CKivCamDLL& lib, const ImageBuffer* buffer) {
  if (!lib.IsImageBuffer(buffer)) Require(nullptr);
}

// A GigE export: error 17 for a camera of another kind.
CCameraGigE& GigE(CCamera& c) {
  auto* g = dynamic_cast<CCameraGigE*>(&c);
  if (!g) throw kivcam::Error(KIVCAM_ERR_NOT_GIGE);
  return *g;
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_ResourceAlloc(HCAMERA camera) {
  return OnCamera(Frame::Camera("KIVCAM_ResourceAlloc", camera), camera, [&](CCamera& c) {
    c.CheckState(cam::kStateVisible | cam::kStateControl | cam::kStateNotAllocated);
    c.AllocResources();
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ResourceRelease(HCAMERA camera) {
  return OnCamera(Frame::Camera("KIVCAM_ResourceRelease", camera), camera, [&](CCamera& c) {
    c.CheckState(cam::kStateControl | cam::kStateAllocated | cam::kStateStopped);
    c.ReleaseResources();
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ImageAlloc(HCAMERA camera, ImageBuffer** buffer) {
  const Frame f = Frame::NewBuffer("KIVCAM_ImageAlloc", reinterpret_cast<const void* const*>(buffer), camera);
  return RunBool(f, [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    Require(buffer);
    *buffer = nullptr;
    c->PreCall();
    CameraLock g(*c);
    c->CheckState(cam::kStateVisible | cam::kStateAllocated);
    *buffer = c->ImageAlloc();
    // Nothing could be made (a feature, memory): a failure without a code.
    if (!*buffer) throw kivcam::Error(KIVCAM_ERR_NONE);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ImageFree(HCAMERA camera, ImageBuffer* buffer) {
  return RunBool(Frame::Buffer("KIVCAM_ImageFree", buffer, camera, /*verbose=*/true), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    RequireBuffer(lib, buffer);
    c->PreCall();
    CameraLock g(*c);
    c->ImageFree(buffer);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ImageFreeAll(HCAMERA camera) {
  return OnCamera(Frame::Camera("KIVCAM_ImageFreeAll", camera), camera, [&](CCamera& c) {
    c.CheckState(cam::kStateStopped);
    c.ImageFreeAll();
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ImageStart(HCAMERA camera) {
  return OnCamera(Frame::Camera("KIVCAM_ImageStart", camera), camera, [&](CCamera& c) {
    c.CheckState(cam::kStateVisible | cam::kStateControl | cam::kStateAllocated | cam::kStateStopped);
    c.ImageStart();
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ImageStop(HCAMERA camera) {
  return OnCamera(Frame::Camera("KIVCAM_ImageStop", camera), camera, [&](CCamera& c) {
    c.CheckState(cam::kStateControl | cam::kStateAllocated);
    c.ImageStop();
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ImageReq(HCAMERA camera, ImageBuffer* buffer) {
  return RunBool(Frame::Buffer("KIVCAM_ImageReq", buffer, camera, /*verbose=*/true), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    RequireBuffer(lib, buffer);
    c->PreCall();
    CameraLock g(*c);
    c->CheckState(cam::kStateVisible | cam::kStateAllocated);
    c->ImageReq(buffer);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ImageComplete(HCAMERA camera, ImageBuffer* buffer, uint32_t timeout, ImageInfo* info) {
  return RunBool(Frame::Buffer("KIVCAM_ImageComplete", buffer, camera, /*verbose=*/true), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    RequireBuffer(lib, buffer);
    c->PreCall();
    CameraLock g(*c);
    c->CheckState(cam::kStateVisible | cam::kStateAllocated);
    c->ImageComplete(buffer, timeout, info);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ImageReqAbortAll(HCAMERA camera) {
  return OnCamera(Frame::Camera("KIVCAM_ImageReqAbortAll", camera), camera,
                  [&](CCamera& c) { c.ImageReqAbortAll(); });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_VSyncReq(HCAMERA camera, HVSYNC* token) {
  return RunBool(Frame::Camera("KIVCAM_VSyncReq", camera, /*verbose=*/true), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    Require(token);
    c->PreCall();
    CameraLock g(*c);
    c->CheckState(cam::kStateVisible | cam::kStateAllocated);
    *token = c->VSyncReq();
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_VSyncComplete(HCAMERA camera, HVSYNC token, uint32_t timeout) {
  return RunBool(Frame::Camera("KIVCAM_VSyncComplete", camera, /*verbose=*/true), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    Require(token);
    c->PreCall();
    CameraLock g(*c);
    c->CheckState(cam::kStateVisible | cam::kStateAllocated);
    c->VSyncComplete(token, timeout);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_SetImageCallBack(HCAMERA camera, void* context, ImageCallBack callback,
                                               uint32_t bufferCount, uint32_t passImageInfo) {
  return RunBool(Frame::Camera("KIVCAM_SetImageCallBack", camera), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    if (callback && bufferCount == 0) Require(nullptr);
    c->PreCall();
    CameraLock g(*c);
    if (!callback) {
      c->StopImageCallBack();
      return;
    }
    c->CheckState(cam::kStateVisible | cam::kStateAllocated);
    c->SetImageCallBack(context, callback, bufferCount, passImageInfo != 0);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ResourceAllocGigE(HCAMERA camera, const uint8_t* address, uint32_t flag) {
  return RunBool(Frame::Camera("KIVCAM_ResourceAllocGigE", camera), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    // A group is 239.0-127.1-255.x; no address (or 0.0.0.0) is the host's own.
    if (address && (address[0] | address[1] | address[2] | address[3]) != 0 &&
        (address[0] != 239 || address[1] > 127 || address[2] == 0)) {
      Require(nullptr);
    }
    CCameraGigE& g = GigE(*c);
    c->PreCall();
    CameraLock lock(*c);
    c->CheckState(cam::kStateVisible | cam::kStateControl | cam::kStateNotAllocated);
    g.AllocResources(address, flag != 0);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_GetGigEPktLog(HCAMERA camera, GigEPacketLog* log) {
  return RunBool(Frame::Camera("KIVCAM_GetGigEPktLog", camera), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    Require(log);
    CCameraGigE& g = GigE(*c);
    c->PreCall();
    CameraLock lock(*c);
    c->CheckState(cam::kStateVisible | cam::kStateAllocated);
    g.GetPktLog(log);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_TestStream(HCAMERA camera) {
  return RunBool(Frame::Camera("KIVCAM_TestStream", camera), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    CCameraGigE& g = GigE(*c);
    c->PreCall();
    CameraLock lock(*c);
    c->CheckState(cam::kStateVisible | cam::kStateControl | cam::kStateNotAllocated | cam::kStateStopped);
    // The camera's own result passes through unchanged.
    if (uint32_t result = g.TestStream()) throw kivcam::Error(result);
  });
}

}  // extern "C"
