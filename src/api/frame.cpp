#include "api/frame.h"

#include "camera/camera.h"

namespace kivcam::api {

void Frame::Line(const char* event, bool is_verbose) const {
  switch (kind) {
    case kPlain: diag::LogExport(is_verbose, name, event); break;
    case kCamera: diag::LogCamera(is_verbose, name, event, handle); break;
    case kConvHandle: diag::LogConvHandle(is_verbose, name, event, handle); break;
    case kBuffer: diag::LogBuffer(is_verbose, name, event, buffer_out ? *buffer_out : buffer, handle); break;
    case kOpenUid:
      if (event[0] == 'S') diag::LogOpenUidStart(name, uid);
      else diag::LogOpenEnd(name, out ? *out : nullptr);
      break;
    case kCameraState:
      if (event[0] == 'S') diag::LogCamera(is_verbose, name, event, handle);
      else diag::LogCameraState(name, event, state && *state != 0, handle);
      break;
  }
}

void Frame::Error(uint32_t code) const {
  switch (kind) {
    case kPlain:
    case kOpenUid: diag::LogExportError(verbose, name, code); break;
    case kCamera:
    case kCameraState: diag::LogCameraError(verbose, name, code, handle); break;
    case kConvHandle: diag::LogConvHandleError(verbose, name, code, handle); break;
    case kBuffer: diag::LogBufferError(verbose, name, code, buffer_out ? *buffer_out : buffer, handle); break;
  }
}

void OnFailure(core::CKivCamDLL& lib, const Frame& f, const kivcam::Error* e) {
  if (!e) {
    diag::LogEvent(false, f.name, kOtherErrorText);
    lib.SetErrorCode(KIVCAM_ERR_OTHER, kOtherErrorText);
    return;
  }
  if (e->has_text()) diag::LogEvent(false, f.name, e->what());
  lib.SetErrorCode(e->code(), e->what());
}

std::shared_ptr<camera::CCamera> CameraOf(core::CKivCamDLL& lib, const void* handle) {
  std::shared_ptr<camera::CCamera> c = lib.FindCamera(handle);
  Require(c.get());
  return c;
}

CameraLock::CameraLock(camera::CCamera& camera) : camera_(camera) {
  camera_.lock().Lock();
  if (camera_.closed()) {
    camera_.lock().Unlock();
    throw kivcam::Error(KIVCAM_ERR_PARAM);
  }
}

CameraLock::~CameraLock() { camera_.lock().Unlock(); }

}  // namespace kivcam::api
