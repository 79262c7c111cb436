#include "api/frame.h"

namespace kivcam::api {

void Frame::Line(const char* event) const {
  switch (kind) {
    case kPlain: diag::LogExport(verbose, name, event); break;
    case kCamera: diag::LogCamera(verbose, name, event, handle); break;
    case kConvHandle: diag::LogConvHandle(verbose, name, event, handle); break;
    case kBuffer: diag::LogBuffer(verbose, name, event, buffer, handle); break;
    case kOpenUid:
      if (event[0] == 'S') diag::LogOpenUidStart(name, uid);
      else diag::LogOpenEnd(name, out ? *out : nullptr);
      break;
    case kCameraState:
      if (event[0] == 'S') diag::LogCamera(verbose, name, event, handle);
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
    case kBuffer: diag::LogBufferError(verbose, name, code, buffer, handle); break;
  }
}

bool Require(core::CKivCamDLL& lib, const void* p) {
  if (p) return true;
  lib.SetErrorCode(kErrParam);
  return false;
}

void OnFailure(core::CKivCamDLL& lib, const Frame& f, const char* text) {
  diag::LogEvent(false, f.name, text ? text : "Other Error");
  lib.SetErrorCode(kErrOther);
}

}  // namespace kivcam::api
