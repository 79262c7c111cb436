// Machine-wide state of the virtual cameras: who holds each camera, its
// register space, acquisition and frame counters. Every process that loads a
// producer maps the same object, so a second process sees what the first one
// configured (watch mode) and is refused a camera another process holds.
#pragma once
#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kivsim {

constexpr size_t kMaxCameras = 16;
constexpr size_t kMaxInterfaces = 8;
constexpr size_t kMaxReaders = 8;
constexpr uint32_t kRegSpace = 0x10000;  // register bytes mirrored per camera

enum DeliveryMode : uint32_t { kFreeRun = 0, kOnDemand = 1 };

struct SharedCamera {
  uint32_t plugged;
  int32_t owner_pid;  // process holding write access, 0 = none
  int32_t reader_pids[kMaxReaders];
  uint32_t acquiring;   // "AcquisitionStart" executed and not stopped
  uint32_t mode;        // DeliveryMode
  uint64_t credits;     // frames still to deliver on demand / by trigger
  uint64_t frames;      // frames produced so far
  uint32_t packet_size_limit;
  uint32_t stream_test_result;
  uint32_t reset_requests;
  uint32_t register_writes;
  uint32_t command_timeout;
  uint32_t heartbeat_timeout;
  uint32_t stream_destination;  // device-module value written by the controller
  uint32_t reserved;
  uint8_t regs[kRegSpace];
};

struct SharedState {
  uint32_t magic;
  volatile uint32_t ready;
  uint32_t camera_count;
  uint32_t padding_;
  int32_t user_pids[64];  // processes that have the state open
  pthread_mutex_t mutex;
  uint32_t wake_word;   // futex word: waiters sleep on it, Notify bumps it
  uint32_t reserved_;
  // Waiters per wake bit (changed under the mutex), so that a Notify nobody
  // waits for makes no system call. A waiter killed in its wait leaves its
  // count behind: that costs later Notifies a needless wake, nothing else.
  uint32_t sleepers[32];
  uint64_t generation;  // bumped on every change a waiter may care about
  uint64_t iface_event_seq[kMaxInterfaces];
  uint32_t iface_event_code[kMaxInterfaces][16];  // ring of the last codes per interface
  SharedCamera cams[kMaxCameras];
};

// One mapping per transport, named "/KivSimGigEState" or "/KivSimUSBState"
// followed by KIVCAM_IPC_NAMESPACE.
class SharedMap {
 public:
  // Maps (creating and initialising when needed) the state; `init` fills a fresh one.
  bool Open(const std::string& name, void (*init)(SharedState&, void*), void* ctx, std::string* err);
  void Close();  // Detach, then unmap
  // Gives up this process's use; the last user removes the name. The mapping
  // stays, for threads that may still touch it while the process exits.
  void Detach();
  SharedState* get() const { return st_; }

 private:
  SharedState* st_ = nullptr;
  std::string name_;
  bool attached_ = false;
};

// Whom a Notify wakes. Waiters say what they wait for, so that a frame or a
// queued buffer wakes only the engines of its camera, not every watcher and
// engine of every process (each of them would take the shared mutex).
constexpr uint32_t kWakeAll = 0xFFFFFFFFu;
constexpr uint32_t kWakeWatchers = 1u;  // interface events
inline uint32_t WakeCamera(uint32_t camera) { return 2u << camera; }  // that camera's engines
static_assert(kMaxCameras <= 31, "one wake bit per camera");

// Lock guard for the shared mutex; recovers the state of a crashed holder.
// Notify wakes nobody while the mutex is held: the waiters it wakes would
// block on that mutex at once (on one CPU, a woken engine preempted the
// notifier and switched straight back). The wake goes out when the mutex is
// given up, by Wait or by the destructor.
class SharedLock {
 public:
  explicit SharedLock(SharedState* s);
  ~SharedLock();
  SharedLock(const SharedLock&) = delete;
  SharedLock& operator=(const SharedLock&) = delete;
  // Waits for a Notify or until the absolute CLOCK_MONOTONIC deadline (ns); 0 = no limit.
  // A futex rather than a process-shared condition variable: a waiter killed
  // in its wait must not be able to block the others.
  // `wake_on`: the Notify kinds that end the wait.
  void Wait(uint64_t deadline_ns, uint32_t wake_on = kWakeAll);
  void Notify(uint32_t wake = kWakeAll);  // generation++ and wake the waiters of `wake`

 private:
  void WakePending();  // after the mutex is given up

  SharedState* s_;
  uint32_t pending_ = 0;  // wake bits with sleepers, noted by Notify
};

uint64_t MonotonicNs();
bool ProcessAlive(int32_t pid);

}  // namespace kivsim
