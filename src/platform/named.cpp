// Machine-wide named objects: shared mappings, mutexes and auto-reset events.
#include "platform/platform.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vector>

namespace kivcam::platform {

namespace {

// Where glibc keeps POSIX shared memory; the FIFOs of named events live
// beside the mappings so that every machine-wide name is in one place.
constexpr char kShmDir[] = "/dev/shm";

// One pipe page: a single read then always takes every pending byte, so any
// number of Sets is consumed by one waiter.
constexpr int kEventPipeBytes = 4096;

// Who may use the objects this process creates: the owner and a group by
// default. KIVCAM_IPC_ACCESS=owner|group|all narrows or widens that, and
// KIVCAM_IPC_GROUP names the group (else the creator's own), so the users of
// a shared camera machine can meet in one group of their choice.
void ApplyAccess(int fd) {
  const char* access = std::getenv("KIVCAM_IPC_ACCESS");
  mode_t mode = 0660;
  if (access && std::strcmp(access, "owner") == 0) mode = 0600;
  if (access && std::strcmp(access, "all") == 0) mode = 0666;
  if (const char* group = std::getenv("KIVCAM_IPC_GROUP"); group && *group) {
    struct group g, *found = nullptr;
    char buf[4096];
    if (getgrnam_r(group, &g, buf, sizeof buf, &found) == 0 && found) {
      (void)!fchown(fd, static_cast<uid_t>(-1), found->gr_gid);  // refused unless we are a member
    }
  }
  fchmod(fd, mode);  // the umask must not decide who may open it
}

struct ShmView {
  int fd = -1;
  void* data = nullptr;
  bool existed = false;
};

// Creates the object (existed=false, zero-filled) or opens the existing one,
// and maps `size` bytes of it read-write. Without `create` only an existing
// object of at least `size` bytes is mapped.
bool OpenShm(const std::string& os_name, size_t size, ShmView* out, bool create = true) {
  if (size == 0 || size > static_cast<size_t>(INT64_MAX)) return false;
  int fd = -1;
  bool existed = !create;
  if (!create) fd = shm_open(os_name.c_str(), O_RDWR | O_CLOEXEC, 0);
  // The object can vanish between a failed exclusive create and the open.
  for (int attempt = 0; create && attempt < 4 && fd < 0; ++attempt) {
    fd = shm_open(os_name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    existed = false;
    if (fd < 0 && errno == EEXIST) {
      fd = shm_open(os_name.c_str(), O_RDWR | O_CLOEXEC, 0);
      existed = true;
    }
    if (fd < 0 && errno != ENOENT) break;
  }
  if (fd < 0) return false;
  if (!existed) ApplyAccess(fd);
  // The creator sizes the object right after creating it. An opener that
  // comes in between sizes it itself (everyone asks for the documented size),
  // so nobody maps past the end of the object. A mere opener never grows it.
  struct stat st;
  if (fstat(fd, &st) != 0 || (static_cast<size_t>(st.st_size) < size &&
                              (!create || ftruncate(fd, static_cast<off_t>(size)) != 0))) {
    close(fd);
    return false;
  }
  // The memory behind a new object is taken now, as a page-file-backed
  // section is committed when it is made: touching it later can then never
  // fault (SIGBUS) because the shared-memory file system ran out of room.
  if (!existed && posix_fallocate(fd, 0, static_cast<off_t>(size)) != 0) {
    close(fd);
    shm_unlink(os_name.c_str());
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

std::vector<std::string> ListMachineWideNames() {
  std::vector<std::string> names;
  DIR* dir = opendir(kShmDir);
  if (!dir) return names;
  const char* ns = std::getenv("KIVCAM_IPC_NAMESPACE");
  const std::string suffix = ns ? ns : "";
  while (dirent* e = readdir(dir)) {
    std::string name = e->d_name;
    if (name == "." || name == ".." || name.size() <= suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
      continue;
    }
    names.push_back(name.substr(0, name.size() - suffix.size()));
  }
  closedir(dir);
  return names;
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
  return Make(name, size, true);
}

std::unique_ptr<SharedMapping> SharedMapping::Open(const std::string& name, size_t size) {
  return Make(name, size, false);
}

std::unique_ptr<SharedMapping> SharedMapping::Make(const std::string& name, size_t size, bool create) {
  ShmView view;
  if (!OpenShm(MachineWideName(name), size, &view, create)) return nullptr;
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

// The shared-memory object of a named mutex. It holds integers only, so
// whatever another process writes into it can cost a wait, never a stray
// pointer; all zero is a free mutex, so a new object needs no set-up.
//
// The owner is named in one word, taken and given back with one atomic
// operation: bits 0-21 its thread id (Linux ids stay below 2^22), bits 22-30
// a stamp of that thread's start time (1 to 511, never 0, so a word without
// a stamp names nobody), bit 31 set while someone may sleep on the word. The
// stamp tells a live owner from a later thread that got the same id.
struct MutexBlock {
  std::atomic<uint32_t> word;
  uint32_t reserved[3];
};
static_assert(std::atomic<uint32_t>::is_always_lock_free, "shared atomics must be lock-free");

constexpr uint32_t kWaiters = 0x80000000u;
constexpr uint32_t kTidMask = 0x003FFFFFu;
constexpr int kStampShift = 22;
constexpr uint32_t kStampMask = 0x1FFu;
// A waiter looks at the owner once per slice: a holder that ended (or an
// owner word that names nobody) is found within this time.
constexpr uint32_t kSliceMs = 50;

uint32_t Stamp(uint64_t start) {
  return 1 + static_cast<uint32_t>(((start + 1) * 0x9E3779B97F4A7C15ull) >> 40) % kStampMask;
}

uint32_t Stamped(uint32_t tid, uint64_t start) { return tid | Stamp(start) << kStampShift; }

// True when the owner the word names is no live thread: no stamp, no thread
// of that id, or a thread of that id that started at another time.
bool OwnerGone(uint32_t word) {
  const uint32_t tid = word & kTidMask, stamp = (word >> kStampShift) & kStampMask;
  if (stamp == 0 || ThreadGone(tid, 0)) return true;
  uint64_t start = ThreadStartTime(tid);
  // Unreadable (another user's thread under hidepid): it exists, so it lives.
  return start != 0 && Stamp(start) != stamp;
}

// Re-entrancy is counted by the owning thread itself, never in the shared
// block, so a scribbled block cannot make a holder keep the mutex forever.
struct Held {
  uint64_t dev, ino;
  uint32_t depth;
};
constexpr int kMaxHeld = 16;
thread_local Held t_held[kMaxHeld];

Held* FindHeld(uint64_t dev, uint64_t ino) {
  for (Held& h : t_held) {
    if (h.depth && h.dev == dev && h.ino == ino) return &h;
  }
  return nullptr;
}

Held* FreeHeld() {
  for (Held& h : t_held) {
    if (!h.depth) return &h;
  }
  return nullptr;
}

// This thread's owner word, made once per thread; kept with the id it was
// made for, since a forked child inherits the parent thread's copy.
thread_local uint32_t t_self_tid = 0;
thread_local uint32_t t_self_word = 0;

uint32_t SelfWord() {
  const uint32_t me = ThreadId();
  if (t_self_tid != me) {
    t_self_word = Stamped(me, ThreadStartTime(me));
    t_self_tid = me;
  }
  return t_self_word;
}

uint64_t MonotonicMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

}  // namespace

struct NamedMutex::Impl {
  MutexBlock* block = nullptr;
  uint64_t dev = 0, ino = 0;  // which object, whatever handle names it
};

std::unique_ptr<NamedMutex> NamedMutex::CreateOrOpen(const std::string& name) {
  return Make(name, true);
}

std::unique_ptr<NamedMutex> NamedMutex::Open(const std::string& name) { return Make(name, false); }

std::unique_ptr<NamedMutex> NamedMutex::Make(const std::string& name, bool create) {
  ShmView view;
  if (!OpenShm(MachineWideName(name), sizeof(MutexBlock), &view, create)) return nullptr;
  struct stat st;
  int r = fstat(view.fd, &st);
  close(view.fd);
  if (r != 0) {
    munmap(view.data, sizeof(MutexBlock));
    return nullptr;
  }
  std::unique_ptr<NamedMutex> m(new NamedMutex);
  m->impl_.reset(new Impl);
  m->impl_->block = static_cast<MutexBlock*>(view.data);
  m->impl_->dev = static_cast<uint64_t>(st.st_dev);
  m->impl_->ino = static_cast<uint64_t>(st.st_ino);
  return m;
}

NamedMutex::~NamedMutex() { munmap(impl_->block, sizeof(MutexBlock)); }

MutexWait NamedMutex::Wait(uint32_t timeout_ms) {
  MutexBlock* b = impl_->block;
  const uint32_t me = SelfWord();
  if (Held* h = FindHeld(impl_->dev, impl_->ino)) {
    if ((b->word.load(std::memory_order_relaxed) & ~kWaiters) == me) {
      ++h->depth;
      return MutexWait::kAcquired;
    }
    h->depth = 0;  // someone took it from us: the count is stale
  }
  Held* slot = FreeHeld();
  if (!slot) return MutexWait::kFailed;

  const uint64_t deadline = timeout_ms == kInfinite ? 0 : MonotonicMs() + timeout_ms;
  uint32_t waiters = 0;  // once we have slept, others may be asleep too
  uint32_t watched = 0;  // the owner word seen at the previous look
  MutexWait result = MutexWait::kAcquired;
  for (;;) {
    uint32_t w = b->word.load(std::memory_order_relaxed);
    uint32_t owner = w & ~kWaiters;
    if (owner == 0) {
      if (b->word.compare_exchange_weak(w, me | waiters | (w & kWaiters), std::memory_order_acquire)) break;
      continue;
    }
    // The same owner for a whole slice (or a wait that must not block): take
    // the mutex over when that owner is gone. This thread named as owner
    // without a hold it counted is nobody's hold either.
    if (owner == watched || timeout_ms == 0 || (owner & kTidMask) == (me & kTidMask)) {
      if (((owner & kTidMask) == (me & kTidMask) || OwnerGone(owner)) &&
          b->word.compare_exchange_strong(w, me | waiters | (w & kWaiters), std::memory_order_acquire)) {
        result = MutexWait::kAbandoned;
        break;
      }
    }
    watched = owner;
    uint32_t slice = kSliceMs;
    if (timeout_ms != kInfinite) {
      uint64_t now = MonotonicMs();
      if (now >= deadline) return MutexWait::kTimeout;
      if (deadline - now < slice) slice = static_cast<uint32_t>(deadline - now);
    }
    if (!(w & kWaiters) && !b->word.compare_exchange_weak(w, w | kWaiters, std::memory_order_relaxed)) {
      continue;
    }
    timespec rel{0, static_cast<long>(slice) * 1000000L};
    Futex(&b->word, FUTEX_WAIT, w | kWaiters, &rel);
    waiters = kWaiters;
  }
  *slot = Held{impl_->dev, impl_->ino, 1};
  return result;
}

void NamedMutex::Release() {
  MutexBlock* b = impl_->block;
  Held* h = FindHeld(impl_->dev, impl_->ino);
  if (!h) return;  // like ReleaseMutex by a non-owner: refused
  if (--h->depth > 0) return;
  const uint32_t me = SelfWord();
  uint32_t w = b->word.load(std::memory_order_relaxed);
  // Only our own ownership is given up; one taken from us stays with its taker.
  while ((w & ~kWaiters) == me) {
    if (b->word.compare_exchange_weak(w, 0, std::memory_order_release)) {
      if (w & kWaiters) Futex(&b->word, FUTEX_WAKE, 1, nullptr);
      return;
    }
  }
}

// ---- NamedEvent --------------------------------------------------------------

// A FIFO opened for reading and writing without blocking: a Set writes a byte
// that stays in the pipe while nobody waits, the FIFO is readable exactly
// while the event is set, and one read takes the signal for one waiter.
struct NamedEvent::Impl {
  int fd = -1;
};

std::unique_ptr<NamedEvent> NamedEvent::CreateOrOpen(const std::string& name) {
  return Make(name, true);
}

std::unique_ptr<NamedEvent> NamedEvent::Open(const std::string& name) { return Make(name, false); }

std::unique_ptr<NamedEvent> NamedEvent::Make(const std::string& name, bool create) {
  const std::string path = kShmDir + MachineWideName(name);
  bool created = create && mkfifo(path.c_str(), 0600) == 0;
  if (create && !created && errno != EEXIST) return nullptr;
  // Never through a link someone planted under the name.
  int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return nullptr;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) {
    close(fd);
    return nullptr;
  }
  if (created) ApplyAccess(fd);
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

bool NamedEvent::TryAcquire() { return Take() > 0; }

// Every pending byte stands for one Set.
uint32_t NamedEvent::Take() {
  char buf[kEventPipeBytes];
  ssize_t r;
  do {
    r = read(impl_->fd, buf, sizeof buf);
  } while (r < 0 && errno == EINTR);
  return r > 0 ? static_cast<uint32_t>(r) : 0;
}

uint32_t NamedEvent::WaitCount(uint32_t timeout_ms) {
  const uint64_t deadline = timeout_ms == kInfinite ? 0 : MonotonicMs() + timeout_ms;
  for (;;) {
    if (uint32_t n = Take()) return n;
    int wait_ms = -1;
    if (timeout_ms != kInfinite) {
      uint64_t now = MonotonicMs();
      if (now >= deadline) return 0;
      wait_ms = static_cast<int>(deadline - now);
    }
    pollfd p{impl_->fd, POLLIN, 0};
    if (poll(&p, 1, wait_ms) < 0 && errno != EINTR) return 0;
  }
}

}  // namespace kivcam::platform
