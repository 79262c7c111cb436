// Loadable modules (GenTL producers).
#include "platform/platform.h"

#include <dlfcn.h>

namespace kivcam::platform {

struct Module::Impl {
  void* handle = nullptr;
  std::string path;
};

std::unique_ptr<Module> Module::Load(const std::string& path, std::string* error) {
  // A name without '/' is searched on the loader path (run path, LD_LIBRARY_PATH).
  void* handle = path.empty() ? nullptr : dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    if (error) {
      const char* why = path.empty() ? "empty module path" : dlerror();
      *error = why ? why : "unknown loader error";
    }
    return nullptr;
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

}  // namespace kivcam::platform
