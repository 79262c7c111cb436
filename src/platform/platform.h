// Operating-system services of KivCam. This is the only layer that touches the
// operating system; everything above uses these types. Machine-wide names
// given here are the documented names: the layer appends the value of
// KIVCAM_IPC_NAMESPACE itself, so test processes never meet each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kivcam::platform {

constexpr uint32_t kInfinite = 0xFFFFFFFFu;

// ---- locks -------------------------------------------------------------------
// Re-entrant by its owner, like a Windows critical section.
class RecursiveLock {
 public:
  RecursiveLock();
  ~RecursiveLock();
  RecursiveLock(const RecursiveLock&) = delete;
  RecursiveLock& operator=(const RecursiveLock&) = delete;
  void Lock();
  void Unlock();
  bool TryLock();
  // The owner gives the lock up however often it holds it, and takes it
  // back as often; for waits that must not keep others out.
  int UnlockFully();
  void Relock(int depth);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

class LockGuard {
 public:
  explicit LockGuard(RecursiveLock& l) : l_(l) { l_.Lock(); }
  ~LockGuard() { l_.Unlock(); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  RecursiveLock& l_;
};

// The reverse of LockGuard: a held lock given up (fully) for a scope.
class LockRelease {
 public:
  explicit LockRelease(RecursiveLock& l) : l_(l), depth_(l.UnlockFully()) {}
  ~LockRelease() { l_.Relock(depth_); }
  LockRelease(const LockRelease&) = delete;
  LockRelease& operator=(const LockRelease&) = delete;

 private:
  RecursiveLock& l_;
  int depth_;
};

// ---- events and waiting ------------------------------------------------------
// Anything WaitAny can wait on: unnamed events and machine-wide named events.
class Waitable {
 public:
  virtual ~Waitable() = default;
  // Internal to the platform layer: a descriptor that becomes readable when
  // the object may be signalled, and an attempt to take the signal.
  virtual int PollFd() const = 0;
  virtual bool TryAcquire() = 0;  // true: signalled (an auto-reset one is consumed)
};

// Unnamed event with Windows semantics: manual reset stays signalled until
// Reset; auto reset wakes exactly one waiter and is consumed by it only.
class Event : public Waitable {
 public:
  Event(bool manual_reset, bool initially_set);
  ~Event() override;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  bool ok() const;  // false when the kernel object could not be created
  void Set();
  void Reset();
  bool Wait(uint32_t timeout_ms);  // true: signalled within the time
  int PollFd() const override;
  bool TryAcquire() override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

enum WaitResult : int {
  kWaitTimeout = -1,
  kWaitFailed = -2,
  // 0..count-1: index of the signalled object
};

// Waits until one of the objects is signalled. The lowest signalled index
// wins; an auto-reset object is consumed only when it is the one reported.
int WaitAny(Waitable* const* objects, size_t count, uint32_t timeout_ms);

// ---- machine-wide named objects ---------------------------------------------
enum class MutexWait { kAcquired, kAbandoned, kTimeout, kFailed };

// Machine-wide mutex, re-entrant by its owning thread. A holder that ended
// (or an owner recorded in the object that is no live thread) is reported as
// kAbandoned; the caller then owns the mutex, as on Windows. Whatever is
// written into the object, a wait ends by its time limit.
class NamedMutex {
 public:
  static std::unique_ptr<NamedMutex> CreateOrOpen(const std::string& name);
  // Only an existing one (a reader must not make another process's objects).
  static std::unique_ptr<NamedMutex> Open(const std::string& name);
  ~NamedMutex();
  MutexWait Wait(uint32_t timeout_ms = kInfinite);
  void Release();

 private:
  NamedMutex() = default;
  static std::unique_ptr<NamedMutex> Make(const std::string& name, bool create);
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Machine-wide auto-reset event that takes part in WaitAny.
class NamedEvent : public Waitable {
 public:
  static std::unique_ptr<NamedEvent> CreateOrOpen(const std::string& name);
  static std::unique_ptr<NamedEvent> Open(const std::string& name);  // only an existing one
  ~NamedEvent() override;
  void Set();
  bool Wait(uint32_t timeout_ms);
  // Waits like Wait and tells how many Sets the signal taken stood for
  // (0: none within the time), up to a few thousand.
  uint32_t WaitCount(uint32_t timeout_ms);
  int PollFd() const override;
  bool TryAcquire() override;

 private:
  NamedEvent() = default;
  static std::unique_ptr<NamedEvent> Make(const std::string& name, bool create);
  uint32_t Take();
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Machine-wide shared memory, zero-filled when new, mapped read-write.
// Machine-wide objects are made for their owner and a group (see
// KIVCAM_IPC_ACCESS and KIVCAM_IPC_GROUP in the README). A new one has its
// memory reserved when it is made, so using it never faults for want of
// space; a request the machine cannot hold fails here instead.
class SharedMapping {
 public:
  static std::unique_ptr<SharedMapping> CreateOrOpen(const std::string& name, size_t size);
  // Only an existing object at least `size` bytes long.
  static std::unique_ptr<SharedMapping> Open(const std::string& name, size_t size);
  ~SharedMapping();  // closes the handle; see Detach
  void* data() const;
  size_t size() const;
  bool already_existed() const;
  // Closes the handle but leaves the view mapped until the process ends,
  // so late readers of the pointer never touch unmapped memory.
  void* Detach();

 private:
  SharedMapping() = default;
  static std::unique_ptr<SharedMapping> Make(const std::string& name, size_t size, bool create);
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The machine-wide object name as the operating system sees it: the
// documented name plus the KIVCAM_IPC_NAMESPACE suffix.
std::string MachineWideName(const std::string& name);

// The machine-wide names present in this process's namespace, as documented
// names (the KIVCAM_IPC_NAMESPACE suffix taken off). With no namespace set
// this is every name, other programs' included: callers match their own.
std::vector<std::string> ListMachineWideNames();

// Removes the machine-wide name (mapping, mutex or event) so that the next
// CreateOrOpen makes a fresh object; objects already open keep working.
// POSIX names outlive their users, so whoever made a private name (a test, a
// tool) removes it with this.
void RemoveMachineWideName(const std::string& name);

// ---- address space ------------------------------------------------------------
// A range of addresses reserved and never accessible: no allocation of the
// process is ever placed inside it, so its values name nothing else. Given
// back when dropped.
class AddressReservation {
 public:
  static std::unique_ptr<AddressReservation> Reserve(size_t bytes);
  ~AddressReservation();
  AddressReservation(const AddressReservation&) = delete;
  AddressReservation& operator=(const AddressReservation&) = delete;
  uintptr_t base() const { return base_; }
  size_t size() const { return size_; }
  static size_t PageSize();
  // Makes whole pages readable and writable (zero-filled when new), or
  // gives their memory back and makes them inaccessible again. Offsets and
  // lengths are multiples of the page size. False when the system refuses.
  bool Commit(size_t offset, size_t length);
  void Decommit(size_t offset, size_t length);

 private:
  AddressReservation(uintptr_t base, size_t size) : base_(base), size_(size) {}
  uintptr_t base_;
  size_t size_;
};

// ---- threads -----------------------------------------------------------------
class Thread {
 public:
  using Proc = void (*)(void* arg);
  // Starts proc(arg). Returns null when the thread could not be created.
  static std::unique_ptr<Thread> Start(Proc proc, void* arg);
  ~Thread();  // detaches when not joined
  void Join();
  void Detach();
  // True on the thread itself (while it has not been joined or detached).
  bool IsCurrent() const;
  // Highest real-time priority when the process may set it; silently nothing otherwise.
  void SetTimeCritical();

 private:
  Thread() = default;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// A thread that ended its owner from inside itself can't be joined there:
// it is handed over here, and joined before the code it runs is unloaded.
void RetireThread(std::unique_ptr<Thread> thread);
void JoinRetiredThreads();

void SleepMs(uint32_t ms);
uint32_t ProcessId();
uint32_t ThreadId();  // the kernel's thread id (gettid)
uint32_t TickCount();  // monotonic milliseconds, wrapping at 32 bits
// The same clock at the system tick's resolution (a few milliseconds), for
// time-outs checked on every frame: a fraction of TickCount's cost.
uint32_t CoarseTickCount();

struct LocalTime {
  int year, month, day, hour, minute, second, millisecond;
};
LocalTime GetLocalTime();

// ---- environment, files, processes -----------------------------------------
// Start time of a thread (an opaque number that differs for a later thread of
// the same id), or 0 when it cannot be read.
uint64_t ThreadStartTime(uint32_t tid);
// True when no thread of that id runs any more (ended, or ended and not yet
// reaped), or the id now belongs to a thread started at another time than
// `start` (0: any). Processes are threads: their id is their first thread's.
bool ThreadGone(uint32_t tid, uint64_t start);
bool ProcessAlive(uint32_t pid);

// The variable's value, or empty with found=false.
std::string GetEnv(const char* name, bool* found = nullptr);
// The monitor program configured for this machine (KIVCAM_MONITORPATH), or empty.
std::string MonitorPath();
// Starts a program with no arguments, detached from this process. False on failure.
bool StartProcess(const std::string& path);
// Data folder: $KIVCAM_COMMON_APPDATA (else /var/lib) + "Valdrix/KivCam".
std::string DataFolder();
// Joins a path and one more component with exactly one separator.
std::string PathAppend(const std::string& dir, const std::string& component);

// ---- modules -----------------------------------------------------------------
class Module {
 public:
  // A bare name is searched on the loader path. Null on failure; *error gets the reason.
  static std::unique_ptr<Module> Load(const std::string& path, std::string* error = nullptr);
  ~Module();  // unloads
  void* Symbol(const char* name) const;
  const std::string& path() const;

 private:
  Module() = default;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Marks a module that is already loaded (a dependency) so that it is never
// unloaded, whoever unloads what. False when it is not loaded.
bool KeepModuleLoaded(const std::string& name);

}  // namespace kivcam::platform
