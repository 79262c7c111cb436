// The call frame every export runs: Start line, last error 0, checks, one
// lock, the work, End or Error line. Exceptions never cross an export: an
// Error's code becomes the caller's last error (its text, if any, goes to
// the call log under the export's name); anything else is 99, "Other Error".
#pragma once

#include <cstdint>
#include <memory>

#include "camera/camera.h"
#include "core/kivcam_dll.h"
#include "diag/call_log.h"
#include "diag/error.h"

namespace kivcam::api {

// How an export names itself in its lines.
struct Frame {
  enum Kind { kPlain, kCamera, kConvHandle, kBuffer, kOpenUid, kCameraState };
  const char* name;
  bool verbose = false;
  Kind kind = kPlain;
  const void* handle = nullptr;  // HCAMERA or HCTBL
  const void* buffer = nullptr;
  const void* const* buffer_out = nullptr;  // kBuffer: read at each line instead of `buffer`
  bool verbose_end = false;                 // only the End line is verbose
  uint64_t uid = 0;                  // kOpenUid: the UID asked for
  const void* const* out = nullptr;  // kOpenUid: where the new handle lands
  const uint32_t* state = nullptr;   // kCameraState: the state reported

  static Frame Plain(const char* n, bool verbose = false) { return {n, verbose, kPlain}; }
  static Frame Camera(const char* n, const void* h, bool verbose = false) {
    return {n, verbose, kCamera, h};
  }
  static Frame Conv(const char* n, const void* h, bool verbose = false) {
    return {n, verbose, kConvHandle, h};
  }
  static Frame Buffer(const char* n, const void* b, const void* h, bool verbose = false) {
    return {n, verbose, kBuffer, h, b};
  }
  // A buffer the export hands out: each line shows what `out` holds then.
  static Frame NewBuffer(const char* n, const void* const* out, const void* h) {
    Frame f{n, false, kBuffer, h};
    f.buffer_out = out;
    f.verbose_end = true;
    return f;
  }

  // Open by UID: Start carries the UID, End the new handle.
  static Frame OpenUid(const char* n, uint64_t uid, const void* const* out) {
    Frame f{n, false, kOpenUid};
    f.uid = uid;
    f.out = out;
    return f;
  }
  // KIVCAM_Camera: the End line says whether the camera is connected.
  static Frame CameraState(const char* n, const void* h, const uint32_t* state) {
    Frame f{n, false, kCameraState, h};
    f.state = state;
    return f;
  }

  void Start() const { Line("Start", verbose); }
  void End() const { Line("End  ", verbose || verbose_end); }
  void Line(const char* event, bool is_verbose) const;
  void Error(uint32_t code) const;
};

// Raises Error (1) when `p` is null.
inline void Require(const void* p) {
  if (!p) throw kivcam::Error(KIVCAM_ERR_PARAM);
}

// Turns what `work` raised into the caller's last error.
void OnFailure(core::CKivCamDLL& lib, const Frame& f, const kivcam::Error* e);

// Runs `work(lib)` in the frame. `work` checks its arguments, takes its lock
// and does the operation; it raises Error on failure and returns normally on
// success. With `always_end` the End line closes the call whatever happened
// (exports without a result). False after KIVCAM_FreeLibrary.
template <typename Work>
bool Run(const Frame& f, Work&& work, bool always_end = false) {
  core::ArmExitDetection();
  core::CKivCamDLL* lib = core::Library();
  if (!lib) return false;  // after KIVCAM_FreeLibrary: nothing to call into
  f.Start();
  lib->SetErrorCode(0);
  bool ok = false;
  try {
    work(*lib);
    ok = true;
  } catch (const kivcam::Error& e) {
    OnFailure(*lib, f, &e);
  } catch (...) {
    OnFailure(*lib, f, nullptr);
  }
  if (!ok && !always_end) {
    f.Error(lib->GetErrorCode());
  } else {
    f.End();
  }
  return ok;
}

// Run for a KIVCAM_BOOL export.
template <typename Work>
KIVCAM_BOOL RunBool(const Frame& f, Work&& work) {
  return Run(f, std::forward<Work>(work)) ? KIVCAM_TRUE : KIVCAM_FALSE;
}

// The live camera behind `handle`, or Error (1).
std::shared_ptr<camera::CCamera> CameraOf(core::CKivCamDLL& lib, const void* handle);

// The camera lock, and the test that the camera was not closed while the
// caller waited for it (a closed camera's handle is as good as stale).
class CameraLock {
 public:
  explicit CameraLock(camera::CCamera& camera);
  ~CameraLock();
  CameraLock(const CameraLock&) = delete;
  CameraLock& operator=(const CameraLock&) = delete;

 private:
  camera::CCamera& camera_;
};

// A camera export's common steps: the live camera, its pre-call hook, its
// lock, then `work(camera)`.
template <typename Work>
KIVCAM_BOOL OnCamera(const Frame& f, const void* handle, Work&& work) {
  return RunBool(f, [&](core::CKivCamDLL& lib) {
    auto c = CameraOf(lib, handle);
    c->PreCall();
    CameraLock g(*c);
    work(*c);
  });
}

}  // namespace kivcam::api
