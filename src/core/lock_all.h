// Every interface lock, taken in list order under the library lock, and
// given back in reverse order whatever happens in between.
#pragma once

#include <vector>

#include "platform/platform.h"

namespace kivcam::core {

class LockAllGuard {
 public:
  LockAllGuard(platform::RecursiveLock& library_lock, const std::vector<platform::RecursiveLock*>& locks)
      : locks_(locks) {
    platform::LockGuard g(library_lock);
    for (platform::RecursiveLock* l : locks_) l->Lock();
  }
  // Without the library lock: taking it here, behind the interface locks,
  // would invert the order they were taken in. The list only changes under
  // the API lock, which every user of the guard holds.
  ~LockAllGuard() {
    for (auto it = locks_.rbegin(); it != locks_.rend(); ++it) (*it)->Unlock();
  }
  LockAllGuard(const LockAllGuard&) = delete;
  LockAllGuard& operator=(const LockAllGuard&) = delete;

 private:
  const std::vector<platform::RecursiveLock*>& locks_;
};

}  // namespace kivcam::core
