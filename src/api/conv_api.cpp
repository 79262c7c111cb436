// Conversion handles and the exports that need no camera: free-standing
// engines, their conversions and the bitmap headers that describe them.
#include "api/frame.h"
#include "conv/bmpinfo.h"
#include "conv/conv.h"
#include "core/base.h"
#include "core/conv_handle.h"
#include "kivcam/kivcam.h"

using kivcam::api::Frame;
using kivcam::api::Require;
using kivcam::api::Run;
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

// The engine behind a conversion handle, or error 1.
CConvHandle* Handle(CKivCamDLL& lib, HCTBL h) {
  CConvHandle* handle = kivcam::core::FindLive<CConvHandle>(h);
  if (!handle) lib.SetErrorCode(KIVCAM_ERR_PARAM);
  return handle;
}

// Engine result codes are the library's error numbers.
bool Result(CKivCamDLL& lib, int code) {
  if (code == conv::kConvOk) return true;
  lib.SetErrorCode(static_cast<uint32_t>(code));
  return false;
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAM_CreateConvHandle(HCTBL* out, const KIVCAM_CONVMODE* mode,
                                               const KIVCAM_YUVCOEF* coef) {
  return Run(Frame::Plain("KIVCAM_CreateConvHandle"),
             [&](CKivCamDLL& lib) {
               conv::ConvMode m =
                   mode ? *reinterpret_cast<const conv::ConvMode*>(mode) : conv::kDefaultHandleMode;
               conv::YuvCoef c =
                   coef ? *reinterpret_cast<const conv::YuvCoef*>(coef) : conv::kDefaultYuvCoef;
               if (!Require(lib, out)) return false;
               if (!conv::IsValidConvMode(m, /*cameraEngine=*/false))
                 return Result(lib, KIVCAM_ERR_PARAM);
               *out = nullptr;
               kivcam::platform::LockGuard api(lib.api_lock());
               CConvHandle* handle = new (std::nothrow) CConvHandle(m, c);
               if (!handle) return Result(lib, KIVCAM_ERR_OTHER);
               lib.AdoptConvHandle(handle);
               *out = static_cast<HCTBL>(handle->handle());
               return true;
             })
             ? KIVCAM_TRUE
             : KIVCAM_FALSE;
}

KIVCAM_API void KIVCAM_CloseConvHandle(HCTBL h) {
  // No result: a refused handle leaves error 1 and the End line.
  Run(
      Frame::Conv("KIVCAM_CloseConvHandle", h),
      [&](CKivCamDLL& lib) {
        CConvHandle* handle = Handle(lib, h);
        if (!handle) return false;
        kivcam::platform::LockGuard api(lib.api_lock());
        lib.ReleaseConvHandle(handle);  // one not in the list is left alone
        return true;
      },
      /*always_end=*/true);
}

KIVCAM_API void KIVCAM_CloseAllConvHandle(void) {
  Run(
      Frame::Plain("KIVCAM_CloseAllConvHandle"),
      [&](CKivCamDLL& lib) {
        kivcam::platform::LockGuard api(lib.api_lock());
        lib.ReleaseAllConvHandles();
        return true;
      },
      /*always_end=*/true);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ColorConvExec(HCTBL h, const KIVCAM_IMAGEDESC* image, void* dst) {
  // Verbose: conversions run per image. No lock: handles convert concurrently.
  return Run(Frame::Conv("KIVCAM_ColorConvExec", h, /*verbose=*/true),
             [&](CKivCamDLL& lib) {
               CConvHandle* handle = Handle(lib, h);
               if (!handle || !Require(lib, image) || !Require(lib, dst)) return false;
               return Result(lib, handle->engine.Exec(Desc(image), dst));
             })
             ? KIVCAM_TRUE
             : KIVCAM_FALSE;
}

// Set and Get describe the same thing: the bitmap the handle writes.
static KIVCAM_BOOL HandleBitmapInfo(const char* name, HCTBL h, const KIVCAM_IMAGEDESC* image,
                                    KIVCAM_BITMAPINFO* info) {
  return Run(Frame::Conv(name, h),
             [&](CKivCamDLL& lib) {
               CConvHandle* handle = Handle(lib, h);
               if (!handle || !Require(lib, image) || !Require(lib, info)) return false;
               return Result(lib, conv::HandleBmpInfo(handle->engine, Desc(image), info));
             })
             ? KIVCAM_TRUE
             : KIVCAM_FALSE;
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ColorConvSetBMPINFO(HCTBL h, const KIVCAM_IMAGEDESC* image,
                                                  KIVCAM_BITMAPINFO* info) {
  return HandleBitmapInfo("KIVCAM_ColorConvSetBMPINFO", h, image, info);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_ColorConvGetBMPINFO(HCTBL h, const KIVCAM_IMAGEDESC* image,
                                                  KIVCAM_BITMAPINFO* info) {
  return HandleBitmapInfo("KIVCAM_ColorConvGetBMPINFO", h, image, info);
}

KIVCAM_API KIVCAM_BOOL KIVCAM_MonoBMPINFO(const KIVCAM_IMAGEDESC* image,
                                          KIVCAM_BITMAPINFO_GRAY* info) {
  return Run(Frame::Plain("KIVCAM_MonoBMPINFO"),
             [&](CKivCamDLL& lib) {
               if (!Require(lib, image) || !Require(lib, info)) return false;
               return Result(lib, conv::MonoBmpInfo(Desc(image), info));
             })
             ? KIVCAM_TRUE
             : KIVCAM_FALSE;
}

}  // extern "C"
