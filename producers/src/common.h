// Helpers shared by the entry-point files.
#pragma once
#include <cstring>
#include <condition_variable>
#include <memory>
#include <string>
#include <vector>

#include "model.h"

namespace kivsim {

// Starts every entry point but GCInitLib: takes the producer lock, checks
// initialisation and applies an injected failure.
#define KIVSIM_ENTRY(name)                                                      \
  std::unique_lock<std::mutex> lock(::kivsim::g_mu);                            \
  if (!::kivsim::g_prod)                                                        \
    return ::kivsim::SetError(GC_ERR_NOT_INITIALIZED, "Library not initialised"); \
  if (GC_ERROR injected_ = ::kivsim::Injected(name)) return injected_

// Declares `var`, the module of type T behind `handle`, or fails the entry point.
#define KIVSIM_HANDLE(T, var, handle, what)                  \
  T* var = ::kivsim::Lookup<T>(handle, ::kivsim::ObjType::T); \
  if (!var) return ::kivsim::SetError(GC_ERR_INVALID_HANDLE, "Invalid " what " handle")

GC_ERROR Injected(const char* name);
// Failures injected since the module was loaded (kivsim_failures_injected).
uint64_t InjectedCount();


template <class T>
T* Lookup(void* h, ObjType t) {
  Obj* o = static_cast<Obj*>(h);
  if (BadPtr(h) || !g_prod->live.count(o) || o->type != t) return nullptr;
  return static_cast<T*>(o);
}

const char* TLTypeName();
// Device information commands, shared by IFGetDeviceInfo and DevGetInfo.
GC_ERROR DeviceInfo(uint32_t cam, DEVICE_INFO_CMD cmd, INFO_DATATYPE* t, void* b, size_t* n);

// Module teardown, used by the close functions and their cascades (lock held).
void CloseStream(Stream* s);
void CloseDevice(Device* d, std::unique_lock<std::mutex>& lock);
void CloseInterface(Interface* i, std::unique_lock<std::mutex>& lock);
void DropEvents(EventSource* src);
// Fires a non-buffer event (interface event 1000).
void PushEvent(EventSource* src, EVENT_TYPE type, const void* data, size_t n);
// Waiters to wake once the producer lock is given up: woken under it, they
// would block on it at once.
using Wakes = std::vector<std::shared_ptr<std::condition_variable>>;
// Wakes waiters of a stream's new-buffer event after a delivery, at once or,
// given `later`, by WakeAll(*later) after the lock is released.
void SignalNewBuffer(Stream* s, Wakes* later = nullptr);
void WakeAll(Wakes& later);

// Device engine thread: produces and delivers the camera's frames in this process.
void EngineMain(Device* d);
// Sends `code` to every open interface `index` in this process and to other processes.
void RaiseInterfaceEvent(uint32_t index, uint32_t code);

}  // namespace kivsim
