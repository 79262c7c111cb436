// The call frame every export runs: Start line, last error 0, checks, one
// lock, the work, End or Error line. Exceptions never cross an export.
#pragma once

#include <cstdint>

#include "core/failure.h"
#include "core/kivcam_dll.h"
#include "diag/call_log.h"

namespace kivcam::api {

// Error codes the frame itself sets.
constexpr uint32_t kErrParam = 1;
constexpr uint32_t kErrOther = 99;

// How an export names itself in its lines.
struct Frame {
  enum Kind { kPlain, kCamera, kConvHandle, kBuffer, kOpenUid, kCameraState };
  const char* name;
  bool verbose = false;
  Kind kind = kPlain;
  const void* handle = nullptr;  // HCAMERA or HCTBL
  const void* buffer = nullptr;
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

  void Start() const { Line("Start"); }
  void End() const { Line("End  "); }
  void Line(const char* event) const;
  void Error(uint32_t code) const;
};

// Sets code 1 and returns false when `p` is null; for `if (!Require(...)) return false;`.
bool Require(core::CKivCamDLL& lib, const void* p);

// Logs a failure under the export's name and leaves code 99.
void OnFailure(core::CKivCamDLL& lib, const Frame& f, const char* text);

// Runs `work(lib)` in the frame. `work` checks its arguments (code 1 and
// false on a bad one), takes its lock and does the operation; it returns
// true on success, false with the code set on failure. With `always_end`
// the End line closes the call whatever happened (exports without result).
template <typename Work>
bool Run(const Frame& f, Work&& work, bool always_end = false) {
  core::ArmExitDetection();
  core::CKivCamDLL* lib = core::Library();
  if (!lib) return false;  // after KIVCAM_FreeLibrary: nothing to call into
  f.Start();
  lib->SetErrorCode(0);
  bool ok = false;
  try {
    ok = work(*lib);
  } catch (const core::Failure& e) {
    OnFailure(*lib, f, e.text());
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

}  // namespace kivcam::api
