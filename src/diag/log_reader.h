// The reader's side of the shared call log, for programs outside the library
// (the monitor, tests): take lines exactly as any outside reader has to, under
// the log mutex, resetting the pending count. Standard types only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kivcam::diag {

class LogReader {
 public:
  LogReader();
  ~LogReader();
  LogReader(const LogReader&) = delete;
  LogReader& operator=(const LogReader&) = delete;

  // Creates or opens the log objects. False when one of them is missing.
  bool Open();
  uint32_t Level() const;
  void SetLevel(uint32_t level);
  // Every pending line, in slot order; the pending count is reset to 0.
  std::vector<std::string> Take();
  // The pending lines without taking them.
  std::vector<std::string> Peek();
  // Waits for the log event; true when it fired.
  bool Wait(uint32_t timeout_ms);

 private:
  std::vector<std::string> Read(bool take);
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The machine-wide lock that keeps a second monitor out.
class MonitorInstance {
 public:
  MonitorInstance();
  ~MonitorInstance();  // releases the lock when held
  MonitorInstance(const MonitorInstance&) = delete;
  MonitorInstance& operator=(const MonitorInstance&) = delete;

  // False when the lock's object can't be made.
  bool ok() const;
  // True when this process holds the lock now (also when its last holder died).
  bool TryAcquire();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// This process's id as the call log writes it.
uint32_t CurrentProcessId();

// What KIVCAM_LogCommonAreaGet does for a monitor, without the library:
// tells every process that this one is the monitor (they then write no line
// for it) and reads the library's build date. False when the shared data
// can't be opened.
bool AnnounceMonitor(std::string* build_date);

}  // namespace kivcam::diag
