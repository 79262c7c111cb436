// Machine-wide named objects: shared mappings, mutexes and auto-reset events.
#include "platform/platform.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#if defined(__SANITIZE_THREAD__)
#define KIVCAM_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KIVCAM_TSAN 1
#endif
#endif
#ifdef KIVCAM_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace kivcam::platform {

namespace {

// Where glibc keeps POSIX shared memory; the FIFOs of named events live
// beside the mappings so that every machine-wide name is in one place.
constexpr char kShmDir[] = "/dev/shm";

// One pipe page: a single read then always takes every pending byte, so any
// number of Sets is consumed by one waiter.
constexpr int kEventPipeBytes = 4096;

struct ShmView {
  int fd = -1;
  void* data = nullptr;
  bool existed = false;
};

// Creates the object (existed=false, zero-filled) or opens the existing one,
// and maps `size` bytes of it read-write.
bool OpenShm(const std::string& os_name, size_t size, ShmView* out) {
  if (size == 0) return false;
  int fd = -1;
  bool existed = false;
  // The object can vanish between a failed exclusive create and the open.
  for (int attempt = 0; attempt < 4 && fd < 0; ++attempt) {
    fd = shm_open(os_name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    existed = false;
    if (fd < 0 && errno == EEXIST) {
      fd = shm_open(os_name.c_str(), O_RDWR | O_CLOEXEC, 0);
      existed = true;
    }
    if (fd < 0 && errno != ENOENT) break;
  }
  if (fd < 0) return false;
  if (!existed) fchmod(fd, 0666);  // the umask must not lock other users' processes out
  // The creator sizes the object right after creating it. An opener that
  // comes in between sizes it itself (everyone asks for the documented size),
  // so nobody maps past the end of the object.
  struct stat st;
  if (fstat(fd, &st) != 0 ||
      (static_cast<size_t>(st.st_size) < size && ftruncate(fd, static_cast<off_t>(size)) != 0)) {
    close(fd);
    return false;
  }
  void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    close(fd);
    return false;
  }
  out->fd = fd;
  out->data = p;
  out->existed = existed;
  return true;
}

long Futex(std::atomic<uint32_t>* word, int op, uint32_t value, const timespec* timeout) {
  return syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), op, value, timeout, nullptr, 0);
}

}  // namespace

std::string MachineWideName(const std::string& name) {
  std::string os_name = "/" + name;
  if (const char* ns = std::getenv("KIVCAM_IPC_NAMESPACE")) os_name += ns;
  for (size_t i = 1; i < os_name.size(); ++i) {
    if (os_name[i] == '/') os_name[i] = '_';
  }
  return os_name;
}

void RemoveMachineWideName(const std::string& name) {
  const std::string os_name = MachineWideName(name);
  shm_unlink(os_name.c_str());
  unlink((kShmDir + os_name).c_str());
}

// ---- SharedMapping -----------------------------------------------------------

struct SharedMapping::Impl {
  ShmView view;
  size_t size = 0;
  bool detached = false;
};

std::unique_ptr<SharedMapping> SharedMapping::CreateOrOpen(const std::string& name, size_t size) {
  ShmView view;
  if (!OpenShm(MachineWideName(name), size, &view)) return nullptr;
  std::unique_ptr<SharedMapping> m(new SharedMapping);
  m->impl_.reset(new Impl);
  m->impl_->view = view;
  m->impl_->size = size;
  return m;
}

SharedMapping::~SharedMapping() {
  if (impl_->view.fd >= 0) close(impl_->view.fd);
  if (!impl_->detached) munmap(impl_->view.data, impl_->size);
}

void* SharedMapping::data() const { return impl_->view.data; }
size_t SharedMapping::size() const { return impl_->size; }
bool SharedMapping::already_existed() const { return impl_->view.existed; }

void* SharedMapping::Detach() {
  if (impl_->view.fd >= 0) close(impl_->view.fd);
  impl_->view.fd = -1;
  impl_->detached = true;
  return impl_->view.data;
}

// ---- NamedMutex --------------------------------------------------------------

namespace {

// The shared-memory object of a named mutex. The owner fields make it
// re-entrant by its owning thread, like a Windows mutex; a thread id is unique
// machine-wide only together with its process.
struct MutexBlock {
  std::atomic<uint32_t> ready;  // 0 until the creator has initialised `mutex`
  std::atomic<uint32_t> owner_pid;
  std::atomic<uint32_t> owner_tid;
  uint32_t depth;  // touched by the owner only
  pthread_mutex_t mutex;
};
static_assert(std::atomic<uint32_t>::is_always_lock_free, "shared atomics must be lock-free");

// How long an opener waits for a creator that is initialising the mutex.
constexpr uint32_t kInitWaitMs = 5000;

bool WaitUntilReady(MutexBlock* b) {
  for (uint32_t waited = 0; waited < kInitWaitMs; waited += 100) {
    if (b->ready.load(std::memory_order_acquire)) return true;
    timespec slice{0, 100 * 1000 * 1000};
    Futex(&b->ready, FUTEX_WAIT, 0, &slice);
  }
  return b->ready.load(std::memory_order_acquire) != 0;
}

bool InitMutex(MutexBlock* b) {
  pthread_mutexattr_t attr;
  if (pthread_mutexattr_init(&attr) != 0) return false;
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  int r = pthread_mutex_init(&b->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  if (r != 0) return false;
  b->ready.store(1, std::memory_order_release);
  Futex(&b->ready, FUTEX_WAKE, INT32_MAX, nullptr);
  return true;
}

bool OwnedByCaller(const MutexBlock* b) {
  return b->owner_tid.load(std::memory_order_relaxed) == ThreadId() &&
         b->owner_pid.load(std::memory_order_relaxed) == ProcessId();
}

}  // namespace

struct NamedMutex::Impl {
  MutexBlock* block = nullptr;
};

std::unique_ptr<NamedMutex> NamedMutex::CreateOrOpen(const std::string& name) {
  ShmView view;
  if (!OpenShm(MachineWideName(name), sizeof(MutexBlock), &view)) return nullptr;
  close(view.fd);
  auto* block = static_cast<MutexBlock*>(view.data);
  if (view.existed ? !WaitUntilReady(block) : !InitMutex(block)) {
    munmap(view.data, sizeof(MutexBlock));
    return nullptr;
  }
  std::unique_ptr<NamedMutex> m(new NamedMutex);
  m->impl_.reset(new Impl);
  m->impl_->block = block;
  return m;
}

NamedMutex::~NamedMutex() {
  // A mutex this thread still holds stays mapped: the kernel must find it at
  // thread exit to hand it to the next waiter as abandoned.
  if (!OwnedByCaller(impl_->block)) munmap(impl_->block, sizeof(MutexBlock));
}

MutexWait NamedMutex::Wait(uint32_t timeout_ms) {
  MutexBlock* b = impl_->block;
  if (OwnedByCaller(b)) {
    ++b->depth;
    return MutexWait::kAcquired;
  }
  int r;
  if (timeout_ms == kInfinite) {
    r = pthread_mutex_lock(&b->mutex);
  } else if (timeout_ms == 0) {
    r = pthread_mutex_trylock(&b->mutex);
    if (r == EBUSY) r = ETIMEDOUT;
  } else {
    timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += timeout_ms / 1000;
    until.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
      until.tv_sec += 1;
      until.tv_nsec -= 1000000000L;
    }
    r = pthread_mutex_timedlock(&b->mutex, &until);
#ifdef KIVCAM_TSAN
    // The race detector's timed lock does not count an abandoned mutex as
    // taken, and would then report our unlock as one of an unlocked mutex.
    if (r == EOWNERDEAD) {
      __tsan_mutex_pre_lock(&b->mutex, __tsan_mutex_try_lock);
      __tsan_mutex_post_lock(&b->mutex, __tsan_mutex_try_lock, 0);
    }
#endif
  }
  MutexWait result = MutexWait::kAcquired;
  if (r == EOWNERDEAD) {
    pthread_mutex_consistent(&b->mutex);
    result = MutexWait::kAbandoned;
  } else if (r == ETIMEDOUT) {
    return MutexWait::kTimeout;
  } else if (r != 0) {
    return MutexWait::kFailed;
  }
  b->depth = 1;
  b->owner_pid.store(ProcessId(), std::memory_order_relaxed);
  b->owner_tid.store(ThreadId(), std::memory_order_relaxed);
  return result;
}

void NamedMutex::Release() {
  MutexBlock* b = impl_->block;
  if (!OwnedByCaller(b)) return;  // like ReleaseMutex by a non-owner: refused
  if (--b->depth > 0) return;
  b->owner_tid.store(0, std::memory_order_relaxed);
  b->owner_pid.store(0, std::memory_order_relaxed);
  pthread_mutex_unlock(&b->mutex);
}

// ---- NamedEvent --------------------------------------------------------------

// A FIFO opened for reading and writing without blocking: a Set writes a byte
// that stays in the pipe while nobody waits, the FIFO is readable exactly
// while the event is set, and one read takes the signal for one waiter.
struct NamedEvent::Impl {
  int fd = -1;
};

std::unique_ptr<NamedEvent> NamedEvent::CreateOrOpen(const std::string& name) {
  const std::string path = kShmDir + MachineWideName(name);
  if (mkfifo(path.c_str(), 0666) == 0) {
    chmod(path.c_str(), 0666);  // the umask must not lock other users' processes out
  } else if (errno != EEXIST) {
    return nullptr;
  }
  int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) {
    close(fd);
    return nullptr;
  }
  // Fails harmlessly while more than a page is pending from earlier Sets.
  fcntl(fd, F_SETPIPE_SZ, kEventPipeBytes);
  std::unique_ptr<NamedEvent> e(new NamedEvent);
  e->impl_.reset(new Impl);
  e->impl_->fd = fd;
  return e;
}

NamedEvent::~NamedEvent() { close(impl_->fd); }

void NamedEvent::Set() {
  const char byte = 1;
  ssize_t r;
  // A full pipe (EAGAIN) is an event that is already set.
  do {
    r = write(impl_->fd, &byte, 1);
  } while (r < 0 && errno == EINTR);
}

bool NamedEvent::Wait(uint32_t timeout_ms) {
  Waitable* self = this;
  return WaitAny(&self, 1, timeout_ms) == 0;
}

int NamedEvent::PollFd() const { return impl_->fd; }

bool NamedEvent::TryAcquire() {
  char buf[kEventPipeBytes];
  ssize_t r;
  do {
    r = read(impl_->fd, buf, sizeof buf);
  } while (r < 0 && errno == EINTR);
  return r > 0;
}

}  // namespace kivcam::platform
