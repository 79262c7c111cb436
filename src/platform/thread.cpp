// Threads, ids, clocks.
#include "platform/platform.h"

#include <cerrno>
#include <ctime>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vector>

namespace kivcam::platform {

namespace {

struct StartArgs {
  Thread::Proc proc;
  void* arg;
};

void* Trampoline(void* p) {
  StartArgs args = *static_cast<StartArgs*>(p);
  delete static_cast<StartArgs*>(p);
  args.proc(args.arg);
  return nullptr;
}

}  // namespace

struct Thread::Impl {
  pthread_t handle;
  bool joinable = true;
};

std::unique_ptr<Thread> Thread::Start(Proc proc, void* arg) {
  if (!proc) return nullptr;
  auto* args = new StartArgs{proc, arg};
  pthread_t handle;
  if (pthread_create(&handle, nullptr, Trampoline, args) != 0) {
    delete args;
    return nullptr;
  }
  std::unique_ptr<Thread> t(new Thread);
  t->impl_.reset(new Impl);
  t->impl_->handle = handle;
  return t;
}

Thread::~Thread() { Detach(); }

void Thread::Join() {
  if (!impl_->joinable) return;
  pthread_join(impl_->handle, nullptr);
  impl_->joinable = false;
}

bool Thread::IsCurrent() const { return impl_->joinable && pthread_equal(impl_->handle, pthread_self()); }

void Thread::Detach() {
  if (!impl_->joinable) return;
  pthread_detach(impl_->handle);
  impl_->joinable = false;
}

namespace {
// Raw: it must outlive the static destructors, which may run before the
// unload that joins these threads.
pthread_mutex_t g_retired_lock = PTHREAD_MUTEX_INITIALIZER;
std::vector<Thread*>* g_retired = nullptr;
}  // namespace

void RetireThread(std::unique_ptr<Thread> thread) {
  if (!thread) return;
  pthread_mutex_lock(&g_retired_lock);
  if (!g_retired) g_retired = new std::vector<Thread*>;
  g_retired->push_back(thread.release());
  pthread_mutex_unlock(&g_retired_lock);
}

void JoinRetiredThreads() {
  for (;;) {
    Thread* t = nullptr;
    pthread_mutex_lock(&g_retired_lock);
    if (g_retired && !g_retired->empty()) {
      t = g_retired->back();
      g_retired->pop_back();
    } else {
      // Called at unload: nothing may stay behind.
      delete g_retired;
      g_retired = nullptr;
    }
    pthread_mutex_unlock(&g_retired_lock);
    if (!t) return;
    t->Join();
    delete t;
  }
}

void Thread::SetTimeCritical() {
  // Only meaningful while the thread can still be named; an ordinary user
  // gets EPERM here, which leaves the priority as it was.
  if (!impl_->joinable) return;
  sched_param param{};
  param.sched_priority = sched_get_priority_max(SCHED_FIFO);
  pthread_setschedparam(impl_->handle, SCHED_FIFO, &param);
}

void SleepMs(uint32_t ms) {
  timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

// Every export asks for the thread id (the error map is keyed by it), so the
// ids are cached; a fork child starts with its own ids.
namespace {

// Initial-exec: read on every export, without a call into the loader.
__attribute__((tls_model("initial-exec"))) thread_local uint32_t t_thread_id = 0;
uint32_t g_process_id = 0;  // written only before threads exist or in a fork child

void ForgetIdsInChild() {
  t_thread_id = 0;
  g_process_id = 0;
}

void EnsureForkHandler() {
  static const bool registered = pthread_atfork(nullptr, nullptr, ForgetIdsInChild) == 0;
  (void)registered;
}

}  // namespace

uint32_t ProcessId() {
  EnsureForkHandler();
  uint32_t id = __atomic_load_n(&g_process_id, __ATOMIC_RELAXED);
  if (id == 0) {
    id = static_cast<uint32_t>(getpid());
    __atomic_store_n(&g_process_id, id, __ATOMIC_RELAXED);
  }
  return id;
}

uint32_t ThreadId() {
  EnsureForkHandler();
  if (t_thread_id == 0) t_thread_id = static_cast<uint32_t>(syscall(SYS_gettid));
  return t_thread_id;
}

namespace {
uint32_t Milliseconds(clockid_t clock) {
  timespec ts;
  clock_gettime(clock, &ts);
  uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
  return static_cast<uint32_t>(ms);
}
}  // namespace

uint32_t TickCount() { return Milliseconds(CLOCK_MONOTONIC); }

uint32_t CoarseTickCount() { return Milliseconds(CLOCK_MONOTONIC_COARSE); }

LocalTime GetLocalTime() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  tm parts;
  localtime_r(&ts.tv_sec, &parts);
  return LocalTime{parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                   parts.tm_min,         parts.tm_sec,     static_cast<int>(ts.tv_nsec / 1000000L)};
}

}  // namespace kivcam::platform
