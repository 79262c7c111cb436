// Loads libkivcam.so with dlopen so that each test decides when the library's
// start-up and shut-down run (and under which machine-wide names).
#pragma once

#include <dlfcn.h>

#include <string>

#include "kivcam/kivcam.h"

namespace kivtest {

std::string BuildDir();  // the build tree's root (parent of bin/)
std::string LibraryPath();

class KivCamLibrary {
 public:
  KivCamLibrary();
  ~KivCamLibrary();  // unloads unless Unload() ran
  bool loaded() const { return handle_ != nullptr; }
  // dlclose; true when the library really left the process.
  bool Unload();

  template <typename F>
  F Get(const char* name) const {
    return reinterpret_cast<F>(dlsym(handle_, name));
  }

#define KIVTEST_FN(name) decltype(&::name) name = nullptr
  KIVTEST_FN(KIVCAM_SetStructVersion);
  KIVTEST_FN(KIVCAM_GetLibraryRevision);
  KIVTEST_FN(KIVCAM_FreeLibrary);
  KIVTEST_FN(KIVCAM_GetLastError);
  KIVTEST_FN(KIVCAM_SetCallBack);
  KIVTEST_FN(KIVCAM_LogCommonAreaGet);
  KIVTEST_FN(KIVCAM_CreateConvHandle);
  KIVTEST_FN(KIVCAM_CloseConvHandle);
  KIVTEST_FN(KIVCAM_CloseAllConvHandle);
  KIVTEST_FN(KIVCAM_ColorConvExec);
  KIVTEST_FN(KIVCAM_ColorConvSetBMPINFO);
  KIVTEST_FN(KIVCAM_ColorConvGetBMPINFO);
  KIVTEST_FN(KIVCAM_MonoBMPINFO);
#undef KIVTEST_FN
  void (*RaiseEvent)(uint32_t code) = nullptr;

 private:
  void* handle_ = nullptr;
};

}  // namespace kivtest
