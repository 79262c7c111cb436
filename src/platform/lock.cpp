#include "platform/platform.h"

#include <pthread.h>

namespace kivcam::platform {

struct RecursiveLock::Impl {
  pthread_mutex_t mutex;
  // How often the owner holds the lock; only the owner touches it.
  int depth = 0;
};

RecursiveLock::RecursiveLock() : impl_(new Impl) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&impl_->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

RecursiveLock::~RecursiveLock() { pthread_mutex_destroy(&impl_->mutex); }

void RecursiveLock::Lock() {
  pthread_mutex_lock(&impl_->mutex);
  ++impl_->depth;
}

void RecursiveLock::Unlock() {
  --impl_->depth;
  pthread_mutex_unlock(&impl_->mutex);
}

bool RecursiveLock::TryLock() {
  if (pthread_mutex_trylock(&impl_->mutex) != 0) return false;
  ++impl_->depth;
  return true;
}

int RecursiveLock::UnlockFully() {
  int depth = impl_->depth;
  for (int i = 0; i < depth; ++i) Unlock();
  return depth;
}

void RecursiveLock::Relock(int depth) {
  for (int i = 0; i < depth; ++i) Lock();
}

}  // namespace kivcam::platform
