// Loadable modules (GenTL producers).
#include "platform/platform.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <vector>

namespace kivcam::platform {

namespace {

// The directories the loader searches for a bare name on behalf of the
// object this code is linked into (LD_LIBRARY_PATH, its run path with
// $ORIGIN expanded, the system folders).
std::vector<std::string> OwnSearchPath() {
  std::vector<std::string> dirs;
  Dl_info info;
  link_map* self = nullptr;  // with glibc, a link map is also a module handle
  if (!dladdr1(reinterpret_cast<void*>(&OwnSearchPath), &info, reinterpret_cast<void**>(&self),
               RTLD_DL_LINKMAP) ||
      !self) {
    return dirs;
  }
  Dl_serinfo size_info;
  if (dlinfo(self, RTLD_DI_SERINFOSIZE, &size_info) != 0) return dirs;
  std::vector<char> buf(size_info.dls_size);
  auto* serinfo = reinterpret_cast<Dl_serinfo*>(buf.data());
  *serinfo = size_info;
  if (dlinfo(self, RTLD_DI_SERINFO, serinfo) == 0) {
    for (unsigned i = 0; i < serinfo->dls_cnt; ++i) dirs.emplace_back(serinfo->dls_serpath[i].dls_name);
  }
  return dirs;
}

// A bare name is normally found by dlopen itself. Under a sanitizer the
// runtime intercepts dlopen and the search runs on behalf of the runtime,
// which lacks our run path; this repeats the search for our own object.
void* LoadFromOwnSearchPath(const std::string& name) {
  for (const std::string& dir : OwnSearchPath()) {
    const std::string candidate = PathAppend(dir, name);
    struct stat st;
    if (stat(candidate.c_str(), &st) != 0) continue;
    if (void* handle = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL)) return handle;
  }
  return nullptr;
}

}  // namespace

struct Module::Impl {
  void* handle = nullptr;
  std::string path;
};

std::unique_ptr<Module> Module::Load(const std::string& path, std::string* error) {
  if (path.empty()) {
    if (error) *error = "empty module path";
    return nullptr;
  }
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char* why = dlerror();
    std::string reason = why ? why : "unknown loader error";
    if (path.find('/') == std::string::npos) handle = LoadFromOwnSearchPath(path);
    if (!handle) {
      if (error) *error = reason;
      return nullptr;
    }
  }
  std::unique_ptr<Module> m(new Module);
  m->impl_.reset(new Impl);
  m->impl_->handle = handle;
  m->impl_->path = path;
  return m;
}

Module::~Module() { dlclose(impl_->handle); }

void* Module::Symbol(const char* name) const { return name ? dlsym(impl_->handle, name) : nullptr; }

const std::string& Module::path() const { return impl_->path; }

bool KeepModuleLoaded(const std::string& name) {
  // The reference taken here is never given back; RTLD_NODELETE keeps the
  // module mapped even past the last dlclose of everyone else.
  return dlopen(name.c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE) != nullptr;
}

}  // namespace kivcam::platform
