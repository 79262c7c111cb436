// The handles the application holds: values that stand for a live camera,
// port-only object or conversion handle. A value is never issued twice in
// the life of the table (they come from reserved address space), so a handle
// whose object is gone stays refused whatever the allocator reuses, and no
// foreign pointer is ever mistaken for one. The table holds its objects
// weakly: an object that its owner destroyed is gone for the table too.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/platform.h"

namespace kivcam::core {

enum class HandleKind : uint8_t { kCamera = 1, kPort, kConv };

class HandleTable {
 public:
  // `capacity` handles can be issued in the table's life.
  explicit HandleTable(size_t capacity = size_t(1) << 26);

  // A new handle for `object`; null when no value is left.
  void* Add(HandleKind kind, const std::shared_ptr<void>& object);
  // The live object of that kind behind `handle`, else null.
  std::shared_ptr<void> Find(const void* handle, HandleKind kind);
  void Remove(const void* handle);
  size_t size();

  template <typename T>
  std::shared_ptr<T> Get(const void* handle, HandleKind kind) {
    return std::static_pointer_cast<T>(Find(handle, kind));
  }

 private:
  static constexpr uintptr_t kStride = 16;
  struct Entry {
    HandleKind kind;
    std::weak_ptr<void> object;
  };
  void SweepExpired();  // mutex_ held

  std::mutex mutex_;
  std::unique_ptr<platform::AddressReservation> space_;
  uintptr_t next_ = 0;
  size_t adds_since_sweep_ = 0;
  std::unordered_map<uintptr_t, Entry> live_;
};

}  // namespace kivcam::core
