// The reader's side of the shared call log: the monitor and the tests take
// lines exactly as any outside reader has to (under the log mutex, resetting
// the pending count).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "diag/call_log.h"
#include "platform/platform.h"

namespace kivcam::monitor {

class LogReader {
 public:
  // Creates or opens the log objects. False when one of them is missing.
  bool Open();
  diag::LogArea* area() const { return area_; }
  platform::NamedEvent* event() const { return event_.get(); }

  void SetLevel(uint32_t level);
  // Every pending line, in slot order; the pending count is reset to 0.
  std::vector<std::string> Take();
  // The pending lines without taking them.
  std::vector<std::string> Peek();
  // Waits for the log event; true when it fired.
  bool Wait(uint32_t timeout_ms);

 private:
  static constexpr uint32_t kWaitMs = 1000;
  std::vector<std::string> Read(bool take);

  std::unique_ptr<platform::NamedMutex> mutex_;
  std::unique_ptr<platform::NamedEvent> event_;
  std::unique_ptr<platform::SharedMapping> mapping_;
  diag::LogArea* area_ = nullptr;
};

}  // namespace kivcam::monitor
