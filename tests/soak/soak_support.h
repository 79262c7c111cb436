// What the soak and fault runs need besides the camera tests' machinery: a
// watchdog over every library call, the process's resource counts, and the
// error codes each export documents.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace soak {

// Seconds from an environment variable, or the fallback.
int EnvSeconds(const char* name, int fallback);

// One thread's current library call, as the watchdog sees it.
struct CallSlot {
  std::atomic<int64_t> since_ns{0};  // 0: not in a call
  std::atomic<const char*> name{nullptr};
  int tid = 0;
};

// Looks at every registered thread's call ten times a second. A call that
// has run longer than the limit dumps every thread's stack (gdb when the
// machine has it, else what /proc tells) and ends the process: a hang must
// never be waited out, and the dump is the reproducer.
class Watchdog {
 public:
  explicit Watchdog(int limit_ms);
  ~Watchdog();
  // A slot for the calling thread; valid as long as the watchdog.
  CallSlot* Register();
  int64_t longest_ms() const { return longest_ns_.load() / 1000000; }

 private:
  void Run();
  void Trip(const CallSlot& slot, int64_t ms);
  const int limit_ms_;
  std::mutex mutex_;
  std::deque<CallSlot> slots_;
  std::atomic<int64_t> longest_ns_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Marks the calling thread as inside `name` for its lifetime.
class InCall {
 public:
  InCall(CallSlot* slot, const char* name);
  ~InCall();
  InCall(const InCall&) = delete;
  InCall& operator=(const InCall&) = delete;

 private:
  CallSlot* slot_;
};

int64_t NowNs();

// The process's resources, sampled at a quiet moment.
struct Counts {
  uint64_t heap = 0;     // bytes allocated and not freed (the sanitizer's count under ASan)
  uint64_t rss = 0;      // resident bytes
  uint32_t fds = 0;      // open file descriptors
  uint32_t threads = 0;  // threads of the process
  uint32_t maps = 0;     // mappings
  uint32_t shm = 0;      // /dev/shm names of the namespace
  uint32_t library_maps = 0;  // mappings of libkivcam or a producer
  uint32_t named_maps = 0;    // mappings of a file or a named region ([stack], [heap])
  std::vector<std::string> map_lines;  // each mapping's range, rights and file
};
Counts Sample(const std::string& ipc_namespace);
std::string Describe(const Counts& c);
// The mappings of `now` that `before` did not have, one per line.
std::string NewMappings(const Counts& before, const Counts& now);

// The codes an export documents in kivcam.h ("Errors:"), by export name.
const std::set<uint32_t>& Documented(const std::string& export_name);

}  // namespace soak
