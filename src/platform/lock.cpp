#include "platform/platform.h"

#include <pthread.h>

namespace kivcam::platform {

struct RecursiveLock::Impl {
  pthread_mutex_t mutex;
};

RecursiveLock::RecursiveLock() : impl_(new Impl) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&impl_->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

RecursiveLock::~RecursiveLock() { pthread_mutex_destroy(&impl_->mutex); }

void RecursiveLock::Lock() { pthread_mutex_lock(&impl_->mutex); }

void RecursiveLock::Unlock() { pthread_mutex_unlock(&impl_->mutex); }

bool RecursiveLock::TryLock() { return pthread_mutex_trylock(&impl_->mutex) == 0; }

}  // namespace kivcam::platform
