#include "core/handles.h"

namespace kivcam::core {

HandleTable::HandleTable(size_t capacity)
    : space_(platform::AddressReservation::Reserve((capacity + 1) * kStride)) {
  // The first value sits one stride in, so that no handle is the range's base.
  if (space_) next_ = space_->base() + kStride;
}

void* HandleTable::Add(HandleKind kind, const std::shared_ptr<void>& object) {
  std::lock_guard<std::mutex> g(mutex_);
  if (!space_ || next_ >= space_->base() + space_->size()) return nullptr;
  uintptr_t value = next_;
  next_ += kStride;
  live_.emplace(value, Entry{kind, object});
  // Objects destroyed by their owners (an interface that went away) leave
  // expired entries; drop them now and then.
  if (++adds_since_sweep_ >= 64) SweepExpired();
  return reinterpret_cast<void*>(value);
}

std::shared_ptr<void> HandleTable::Find(const void* handle, HandleKind kind) {
  std::lock_guard<std::mutex> g(mutex_);
  auto it = live_.find(reinterpret_cast<uintptr_t>(handle));
  if (it == live_.end() || it->second.kind != kind) return nullptr;
  std::shared_ptr<void> object = it->second.object.lock();
  if (!object) live_.erase(it);
  return object;
}

void HandleTable::Remove(const void* handle) {
  std::lock_guard<std::mutex> g(mutex_);
  live_.erase(reinterpret_cast<uintptr_t>(handle));
}

size_t HandleTable::size() {
  std::lock_guard<std::mutex> g(mutex_);
  SweepExpired();
  return live_.size();
}

void HandleTable::SweepExpired() {
  adds_since_sweep_ = 0;
  for (auto it = live_.begin(); it != live_.end();) {
    it = it->second.object.expired() ? live_.erase(it) : std::next(it);
  }
}

}  // namespace kivcam::core
