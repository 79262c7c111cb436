#include "kivcam_loader.h"

#include <unistd.h>

#include <climits>

namespace kivtest {

std::string BuildDir() {
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return ".";
  exe[n] = '\0';
  std::string path(exe);
  path = path.substr(0, path.rfind('/'));  // .../build/bin
  return path.substr(0, path.rfind('/'));
}

std::string LibraryPath() { return BuildDir() + "/lib/libkivcam.so"; }

KivCamLibrary::KivCamLibrary() {
  handle_ = dlopen(LibraryPath().c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle_) return;
#define KIVTEST_BIND(name) name = Get<decltype(name)>(#name);
  KIVTEST_EXPORTS(KIVTEST_BIND)
#undef KIVTEST_BIND
}

KivCamLibrary::~KivCamLibrary() { Unload(); }

bool KivCamLibrary::Unload() {
  if (!handle_) return false;
  dlclose(handle_);
  handle_ = nullptr;
  void* still = dlopen(LibraryPath().c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (still) {
    dlclose(still);
    return false;
  }
  return true;
}

}  // namespace kivtest
