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
#include <sys/eventfd.h>
#include <unistd.h>

namespace kivcam::platform {

namespace {

uint64_t MonotonicMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

bool Readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  int r;
  do {
    r = poll(&p, 1, 0);
  } while (r < 0 && errno == EINTR);
  return r > 0 && (p.revents & POLLIN);
}

// Windows allows at most this many objects in one wait; so do we, which keeps
// the poll set on the stack.
constexpr size_t kMaxWaitObjects = 64;

}  // namespace

// The eventfd counter is the state: non-zero means signalled. A read takes
// the whole counter at once, so any number of Sets is consumed by one waiter.
struct Event::Impl {
  int fd = -1;
  bool manual = false;
};

Event::Event(bool manual_reset, bool initially_set) : impl_(new Impl) {
  impl_->manual = manual_reset;
  impl_->fd = eventfd(initially_set ? 1 : 0, EFD_NONBLOCK | EFD_CLOEXEC);
}

Event::~Event() {
  if (impl_->fd >= 0) close(impl_->fd);
}

bool Event::ok() const { return impl_->fd >= 0; }

void Event::Set() {
  if (impl_->fd < 0) return;
  uint64_t one = 1;
  // EAGAIN would mean a counter near overflow: the event is set anyway.
  ssize_t r;
  do {
    r = write(impl_->fd, &one, sizeof one);
  } while (r < 0 && errno == EINTR);
}

void Event::Reset() {
  if (impl_->fd < 0) return;
  uint64_t value;
  ssize_t r;
  do {
    r = read(impl_->fd, &value, sizeof value);
  } while (r < 0 && errno == EINTR);
}

bool Event::Wait(uint32_t timeout_ms) {
  Waitable* self = this;
  return WaitAny(&self, 1, timeout_ms) == 0;
}

int Event::PollFd() const { return impl_->fd; }

bool Event::TryAcquire() {
  if (impl_->fd < 0) return false;
  if (impl_->manual) return Readable(impl_->fd);
  uint64_t value;
  ssize_t r;
  do {
    r = read(impl_->fd, &value, sizeof value);
  } while (r < 0 && errno == EINTR);
  return r == static_cast<ssize_t>(sizeof value);
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
