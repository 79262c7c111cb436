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

#define KIVTEST_EXPORTS(X)                                                                            \
  X(KIVCAM_SetStructVersion) X(KIVCAM_GetLibraryRevision) X(KIVCAM_FreeLibrary) X(KIVCAM_GetLastError) \
  X(KIVCAM_SetCallBack) X(KIVCAM_LogCommonAreaGet) X(KIVCAM_CreateConvHandle) X(KIVCAM_CloseConvHandle)  \
  X(KIVCAM_CloseAllConvHandle) X(KIVCAM_ColorConvExec) X(KIVCAM_ColorConvSetBMPINFO)                   \
  X(KIVCAM_ColorConvGetBMPINFO) X(KIVCAM_MonoBMPINFO) X(KIVCAMFILTER_Alloc) X(KIVCAMFILTER_OutPut)         \
  X(KIVCAMFILTER_GetAddr) X(KIVCAMFILTER_Flush) X(KIVCAMFILTER_Purge) X(KIVCAMFILTER_Free)
#define KIVTEST_FN(name) decltype(&::name) name = nullptr;
  KIVTEST_EXPORTS(KIVTEST_FN)
#undef KIVTEST_FN

 private:
  void* handle_ = nullptr;
};

}  // namespace kivtest
