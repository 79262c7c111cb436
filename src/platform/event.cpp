// Unnamed events and the wait for any of several objects.
//
// Every waitable object exposes a descriptor that is readable exactly while
// the object is signalled, so a Set that lands between the check and the
// poll simply leaves the descriptor readable and the poll returns at once.
#include "platform/platform.h"

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace kivcam::platform {

namespace {

uint64_t MonotonicMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// Windows allows at most this many objects in one wait; so do we, which keeps
// the poll set on the stack.
constexpr size_t kMaxWaitObjects = 64;

}  // namespace

// The eventfd is readable exactly while the event is set. State and counter
// change together under a small lock, which also orders whatever the setter
// wrote before Set against what a waiter reads after its wait (a poll on a
// manual-reset event would not tell a race detector that).
struct Event::Impl {
  int fd = -1;
  bool manual = false;
  bool set = false;
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

  void Signal() {
    uint64_t one = 1;
    ssize_t r;
    do {
      r = write(fd, &one, sizeof one);
    } while (r < 0 && errno == EINTR);
    set = true;
  }
  void Clear() {
    uint64_t value;
    ssize_t r;
    do {
      r = read(fd, &value, sizeof value);
    } while (r < 0 && errno == EINTR);
    set = false;
  }
};

Event::Event(bool manual_reset, bool initially_set) : impl_(new Impl) {
  impl_->manual = manual_reset;
  impl_->fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (impl_->fd >= 0 && initially_set) impl_->Signal();
}

Event::~Event() {
  if (impl_->fd >= 0) close(impl_->fd);
  pthread_mutex_destroy(&impl_->lock);
}

bool Event::ok() const { return impl_->fd >= 0; }

void Event::Set() {
  if (impl_->fd < 0) return;
  pthread_mutex_lock(&impl_->lock);
  if (!impl_->set) impl_->Signal();  // a boolean, not a counter
  pthread_mutex_unlock(&impl_->lock);
}

void Event::Reset() {
  if (impl_->fd < 0) return;
  pthread_mutex_lock(&impl_->lock);
  if (impl_->set) impl_->Clear();
  pthread_mutex_unlock(&impl_->lock);
}

bool Event::Wait(uint32_t timeout_ms) {
  Waitable* self = this;
  return WaitAny(&self, 1, timeout_ms) == 0;
}

int Event::PollFd() const { return impl_->fd; }

bool Event::TryAcquire() {
  if (impl_->fd < 0) return false;
  pthread_mutex_lock(&impl_->lock);
  bool was_set = impl_->set;
  if (was_set && !impl_->manual) impl_->Clear();
  pthread_mutex_unlock(&impl_->lock);
  return was_set;
}

int WaitAny(Waitable* const* objects, size_t count, uint32_t timeout_ms) {
  if (!objects || count == 0 || count > kMaxWaitObjects) return kWaitFailed;
  pollfd fds[kMaxWaitObjects];
  for (size_t i = 0; i < count; ++i) {
    if (!objects[i] || objects[i]->PollFd() < 0) return kWaitFailed;
    fds[i] = pollfd{objects[i]->PollFd(), POLLIN, 0};
  }
  const uint64_t deadline = timeout_ms == kInfinite ? 0 : MonotonicMs() + timeout_ms;
  for (;;) {
    // Lowest index first, stopping at the first success, so an auto-reset
    // object behind the winner keeps its signal.
    for (size_t i = 0; i < count; ++i) {
      if (objects[i]->TryAcquire()) return static_cast<int>(i);
    }
    int wait_ms = -1;
    if (timeout_ms != kInfinite) {
      uint64_t now = MonotonicMs();
      if (now >= deadline) return kWaitTimeout;
      uint64_t left = deadline - now;
      wait_ms = left > 0x7FFFFFFFu ? 0x7FFFFFFF : static_cast<int>(left);
    }
    // Several waiters may wake for one auto-reset signal; the losers find it
    // consumed and come back here with the descriptor no longer readable.
    int r = poll(fds, count, wait_ms);
    if (r < 0 && errno != EINTR) return kWaitFailed;
    for (size_t i = 0; r > 0 && i < count; ++i) {
      if (fds[i].revents & (POLLERR | POLLNVAL)) return kWaitFailed;
    }
  }
}

}  // namespace kivcam::platform
