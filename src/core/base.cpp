#include "core/base.h"

#include <unordered_set>

#include "platform/platform.h"

namespace kivcam::core {

namespace {

struct Registry {
  platform::RecursiveLock lock;
  std::unordered_set<const void*> live;
};

// Heap-held: it must outlive the C++ static destructors at process exit.
Registry* g_registry = nullptr;

}  // namespace

namespace registry {

void Create() {
  if (!g_registry) g_registry = new Registry;
}

void Destroy() {
  delete g_registry;
  g_registry = nullptr;
}

CBase* Find(const void* handle) {
  if (!handle || !g_registry) return nullptr;
  platform::LockGuard g(g_registry->lock);
  if (g_registry->live.count(handle) == 0) return nullptr;
  return static_cast<CBase*>(const_cast<void*>(handle));
}

void Remove(const CBase* object) {
  if (!g_registry) return;
  platform::LockGuard g(g_registry->lock);
  g_registry->live.erase(static_cast<const void*>(object));
}

}  // namespace registry

CBase::CBase() {
  if (!g_registry) return;
  platform::LockGuard g(g_registry->lock);
  g_registry->live.insert(static_cast<const void*>(this));
}

CBase::~CBase() { registry::Remove(this); }

}  // namespace kivcam::core
