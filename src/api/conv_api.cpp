// Conversion handles and the exports that need no camera: free-standing
// engines, their conversions and the bitmap headers that describe them.
#include "api/frame.h"
#include "camera/camera.h"
#include "conv/bmpinfo.h"
#include "conv/conv.h"
#include "core/conv_handle.h"
#include "kivcam/kivcam.h"

using kivcam::api::CameraLock;
using kivcam::api::CameraOf;
using kivcam::api::Frame;
using kivcam::api::Require;
using kivcam::api::Run;
using kivcam::api::RunBool;
using kivcam::core::CConvHandle;
using kivcam::core::CKivCamDLL;
namespace conv = kivcam::conv;

// The application's records go straight to the engine.
static_assert(sizeof(KIVCAM_IMAGEDESC) == sizeof(conv::ImageDesc), "image description layout");
static_assert(sizeof(KIVCAM_CONVMODE) == sizeof(conv::ConvMode), "conversion mode layout");
static_assert(sizeof(KIVCAM_YUVCOEF) == sizeof(conv::YuvCoef), "YUV coefficient layout");

namespace {

const conv::ImageDesc& Desc(const KIVCAM_IMAGEDESC* image) {
  return *reinterpret_cast<const conv::ImageDesc*>(image);
}

// The engine behind a conversion handle, or Error (1).
std::shared_ptr<CConvHandle> Handle(CKivCamDLL& lib, HCTBL h) {
  std::shared_ptr<CConvHandle> handle = lib.FindConvHandle(h);
  Require(handle.get());
  return handle;
}

// Engine result codes are the library's error numbers.
void Result(int code) {
  if (code != conv::kConvOk) throw kivcam::Error(static_cast<uint32_t>(code));
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_CreateConvHandle(HCTBL* out, const KIVCAM_CONVMODE* mode,
                                               const KIVCAM_YUVCOEF* coef) {
  return RunBool(Frame::Plain("KIVCAM_CreateConvHandle"), [&](CKivCamDLL& lib) {
    conv::ConvMode m = mode ? *reinterpret_cast<const conv::ConvMode*>(mode) : conv::kDefaultHandleMode;
    conv::YuvCoef c = coef ? *reinterpret_cast<const conv::YuvCoef*>(coef) : conv::kDefaultYuvCoef;
    Require(out);
    if (!conv::IsValidConvMode(m, /*cameraEngine=*/false)) Require(nullptr);
    *out = nullptr;
    kivcam::platform::LockGuard api(lib.api_lock());
    *out = lib.AddConvHandle(std::make_shared<CConvHandle>(m, c));
  });
}

KIVCAM_API void KIVCAM_CloseConvHandle(HCTBL h) {
  // No result: a refused handle leaves error 1 and the End line.
  Run(Frame::Conv("KIVCAM_CloseConvHandle", h), [&](CKivCamDLL& lib) {
    Handle(lib, h);
    kivcam::platform::LockGuard api(lib.api_lock());
    lib.ReleaseConvHandle(h);
  }, /*always_end=*/true);
}

KIVCAM_API void KIVCAM_CloseAllConvHandle(void) {
  Run(Frame::Plain("KIVCAM_CloseAllConvHandle"), [&](CKivCamDLL& lib) {
    kivcam::platform::LockGuard api(lib.api_lock());
    lib.ReleaseAllConvHandles();
  }, /*always_end=*/true);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ColorConvExec(HCTBL h, const KIVCAM_IMAGEDESC* image, void* dst) {
  // Verbose: conversions run per image. No lock: handles convert concurrently,
  // and the reference keeps the engine alive against a concurrent close.
  return RunBool(Frame::Conv("KIVCAM_ColorConvExec", h, /*verbose=*/true), [&](CKivCamDLL& lib) {
    auto handle = Handle(lib, h);
    Require(image);
    Require(dst);
    Result(handle->engine.Exec(Desc(image), dst));
  });
}

// Set and Get describe the same thing: the bitmap the handle writes.
static KIVCAM_BOOL HandleBitmapInfo(const char* name, HCTBL h, const KIVCAM_IMAGEDESC* image,
                                    KIVCAM_BITMAPINFO* info) {
  return RunBool(Frame::Conv(name, h), [&](CKivCamDLL& lib) {
    auto handle = Handle(lib, h);
    Require(image);
    Require(info);
    Result(conv::HandleBmpInfo(handle->engine, Desc(image), info));
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ColorConvSetBMPINFO(HCTBL h, const KIVCAM_IMAGEDESC* image,
                                                  KIVCAM_BITMAPINFO* info) {
  return HandleBitmapInfo("KIVCAM_ColorConvSetBMPINFO", h, image, info);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ColorConvGetBMPINFO(HCTBL h, const KIVCAM_IMAGEDESC* image,
                                                  KIVCAM_BITMAPINFO* info) {
  return HandleBitmapInfo("KIVCAM_ColorConvGetBMPINFO", h, image, info);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_MonoBMPINFO(const KIVCAM_IMAGEDESC* image, KIVCAM_BITMAPINFO_GRAY* info) {
  return RunBool(Frame::Plain("KIVCAM_MonoBMPINFO"), [&](CKivCamDLL&) {
    Require(image);
    Require(info);
    Result(conv::MonoBmpInfo(Desc(image), info));
  });
}

// ---- camera-bound conversion --------------------------------------------------

KIVCAM_API KIVCAM_BOOL KIVCAM_ConvMode(HCAMERA camera, const KIVCAM_CONVMODE* mode, const KIVCAM_YUVCOEF* coef) {
  return RunBool(Frame::Camera("KIVCAM_ConvMode", camera), [&](CKivCamDLL& lib) {
    conv::ConvMode m = mode ? *reinterpret_cast<const conv::ConvMode*>(mode) : conv::kDefaultCameraMode;
    conv::YuvCoef c = coef ? *reinterpret_cast<const conv::YuvCoef*>(coef) : conv::kDefaultYuvCoef;
    auto cam = CameraOf(lib, camera);
    if (!conv::IsValidConvMode(m, /*cameraEngine=*/true)) Require(nullptr);
    cam->PreCall();
    CameraLock g(*cam);
    if (!cam->visible()) throw kivcam::Error(KIVCAM_ERR_NO_CAMERA);
    cam->ConvMode(m, c);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ImageConvExec(HCAMERA camera, const ImageBuffer* image, void* dst) {
  return RunBool(Frame::Camera("KIVCAM_ImageConvExec", camera, /*verbose=*/true), [&](CKivCamDLL& lib) {
    auto cam = CameraOf(lib, camera);
    if (!lib.IsImageBuffer(image)) Require(nullptr);
    Require(dst);
    cam->PreCall();
    // The conversion lock alone: conversions run beside the camera's exports.
    cam->ImageConvExec(image, dst);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_BufferConvExec(HCAMERA camera, const void* src, void* dst) {
  return RunBool(Frame::Camera("KIVCAM_BufferConvExec", camera, /*verbose=*/true), [&](CKivCamDLL& lib) {
    auto cam = CameraOf(lib, camera);
    Require(src);
    Require(dst);
    cam->BufferConvExec(src, dst);
  });
}

// Set and Get describe the same thing: the bitmap the camera's conversions write.
static KIVCAM_BOOL CameraBitmapInfo(const char* name, HCAMERA camera, KIVCAM_BITMAPINFO* info, uint32_t* size,
                                    uint32_t mono) {
  return RunBool(Frame::Camera(name, camera), [&](CKivCamDLL& lib) {
    auto cam = CameraOf(lib, camera);
    Require(size);
    if (*size != 0) Require(info);
    cam->PreCall();
    CameraLock g(*cam);
    cam->BmpInfo(info, size, mono != 0);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAM_SetBMPINFO(HCAMERA camera, KIVCAM_BITMAPINFO* info, uint32_t* size, uint32_t mono) {
  return CameraBitmapInfo("KIVCAM_SetBMPINFO", camera, info, size, mono);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_GetBMPINFO(HCAMERA camera, KIVCAM_BITMAPINFO* info, uint32_t* size, uint32_t mono) {
  return CameraBitmapInfo("KIVCAM_GetBMPINFO", camera, info, size, mono);
}

}  // extern "C"
