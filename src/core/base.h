// Root of every object the application holds a handle to (cameras, ports,
// image buffers, conversion handles). Live objects are kept in a registry so
// that a stale, foreign or null handle is refused without reading through it.
#pragma once

namespace kivcam::core {

class CBase {
 public:
  CBase();
  virtual ~CBase();
  CBase(const CBase&) = delete;
  CBase& operator=(const CBase&) = delete;

  // The handle the application sees: the address of this base.
  void* handle() { return static_cast<void*>(this); }
};

namespace registry {
// Created at load, dropped at a dynamic unload.
void Create();
void Destroy();
// The object behind `handle` when it is a live object of the library, else null.
CBase* Find(const void* handle);
// Takes an object out before its destruction starts, so that no export can
// find a half-destroyed object.
void Remove(const CBase* object);
}  // namespace registry

// The live object of dynamic type T behind `handle`, else null.
template <typename T>
T* FindLive(const void* handle) {
  return dynamic_cast<T*>(registry::Find(handle));
}

}  // namespace kivcam::core
