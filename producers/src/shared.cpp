#include "shared.h"

#include <cstdio>
#include <cstring>

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

namespace kivsim {

namespace {
constexpr uint32_t kMagic = 0x4B53494D;  // "KSIM"

void InitSync(SharedState& s) {
  pthread_mutexattr_t ma;
  pthread_mutexattr_init(&ma);
  pthread_mutexattr_setpshared(&ma, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&ma, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&s.mutex, &ma);
  pthread_mutexattr_destroy(&ma);
}
}  // namespace

uint64_t MonotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return uint64_t(ts.tv_sec) * 1000000000ULL + uint64_t(ts.tv_nsec);
}

bool ProcessAlive(int32_t pid) {
  if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM)) return false;
  // A killed process its parent has not collected yet still answers: its
  // state in /proc says it is a zombie.
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  FILE* f = std::fopen(path, "r");
  if (!f) return true;
  char line[256] = {};
  const bool read = std::fgets(line, sizeof line, f) != nullptr;
  std::fclose(f);
  const char* paren = read ? std::strrchr(line, ')') : nullptr;
  return !(paren && paren[1] == ' ' && (paren[2] == 'Z' || paren[2] == 'X'));
}

bool SharedMap::Open(const std::string& name, void (*init)(SharedState&, void*), void* ctx, std::string* err) {
  name_ = name;
  const size_t size = sizeof(SharedState);
  bool created = false;
  int fd = -1;
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd >= 0) {
      created = true;
      if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        close(fd);
        shm_unlink(name.c_str());
        *err = "cannot size the shared state";
        return false;
      }
      break;
    }
    if (errno != EEXIST) break;
    fd = shm_open(name.c_str(), O_RDWR, 0600);
    if (fd >= 0) {
      struct stat stt;
      // The creator may not have sized it yet; try again shortly.
      if (fstat(fd, &stt) != 0 || static_cast<size_t>(stt.st_size) < size) {
        close(fd);
        fd = -1;
        sched_yield();
      }
    }
  }
  if (fd < 0) {
    *err = "cannot open the shared state " + name + ": " + std::strerror(errno);
    return false;
  }
  void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (p == MAP_FAILED) {
    *err = "cannot map the shared state";
    return false;
  }
  st_ = static_cast<SharedState*>(p);
  if (created) {
    std::memset(st_, 0, size);
    InitSync(*st_);
    init(*st_, ctx);
    st_->magic = kMagic;
    __atomic_store_n(&st_->ready, 1u, __ATOMIC_RELEASE);
  } else {
    // Initialisation by the creating process takes microseconds.
    while (!__atomic_load_n(&st_->ready, __ATOMIC_ACQUIRE)) sched_yield();
  }
  SharedLock lock(st_);
  attached_ = true;
  const int32_t me = getpid();
  for (auto& u : st_->user_pids)
    if (u == 0 || !ProcessAlive(u)) {
      u = me;
      break;
    }
  return true;
}

void SharedMap::Detach() {
  if (!st_ || !attached_) return;
  attached_ = false;
  // Users that died without closing do not keep the state alive.
  SharedLock lock(st_);
  const int32_t me = getpid();
  bool mine = false, last = true;
  for (auto& u : st_->user_pids) {
    if (u == me && !mine) {
      u = 0;
      mine = true;
    } else if (u != 0 && !ProcessAlive(u)) {
      u = 0;
    }
    if (u != 0) last = false;
  }
  if (last) shm_unlink(name_.c_str());
}

void SharedMap::Close() {
  if (!st_) return;
  Detach();
  munmap(st_, sizeof(SharedState));
  st_ = nullptr;
}

SharedLock::SharedLock(SharedState* s) : s_(s) {
  if (pthread_mutex_lock(&s_->mutex) == EOWNERDEAD) pthread_mutex_consistent(&s_->mutex);
}
SharedLock::~SharedLock() {
  pthread_mutex_unlock(&s_->mutex);
  WakePending();
}

void SharedLock::WakePending() {
  if (!pending_) return;
  syscall(SYS_futex, &s_->wake_word, FUTEX_WAKE_BITSET, INT32_MAX, nullptr, nullptr, pending_);
  pending_ = 0;
}

void SharedLock::Wait(uint64_t deadline_ns, uint32_t wake_on) {
  // The word is read under the mutex, so a Notify after this point changes it
  // and the futex wait returns at once.
  const uint32_t seen = __atomic_load_n(&s_->wake_word, __ATOMIC_ACQUIRE);
  for (unsigned b = 0; b < 32; ++b)
    if (wake_on & (1u << b)) s_->sleepers[b]++;
  pthread_mutex_unlock(&s_->mutex);
  WakePending();
  timespec ts;
  ts.tv_sec = static_cast<time_t>(deadline_ns / 1000000000ULL);
  ts.tv_nsec = static_cast<long>(deadline_ns % 1000000000ULL);
  syscall(SYS_futex, &s_->wake_word, FUTEX_WAIT_BITSET, seen, deadline_ns ? &ts : nullptr, nullptr, wake_on);
  if (pthread_mutex_lock(&s_->mutex) == EOWNERDEAD) pthread_mutex_consistent(&s_->mutex);
  for (unsigned b = 0; b < 32; ++b)
    if ((wake_on & (1u << b)) && s_->sleepers[b] > 0) s_->sleepers[b]--;
}

void SharedLock::Notify(uint32_t wake) {
  s_->generation++;
  __atomic_add_fetch(&s_->wake_word, 1u, __ATOMIC_RELEASE);
  // A waiter counts itself under the mutex before it sleeps, so one that is
  // not counted now will read the new word and not sleep.
  for (unsigned b = 0; b < 32; ++b)
    if ((wake & (1u << b)) && s_->sleepers[b] > 0) pending_ |= 1u << b;
}

}  // namespace kivsim
