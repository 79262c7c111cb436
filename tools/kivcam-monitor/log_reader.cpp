#include "log_reader.h"

#include <cstring>

namespace kivcam::monitor {

bool LogReader::Open() {
  mutex_ = platform::NamedMutex::CreateOrOpen(KIVCAM_LOG_MUTEX_NAME);
  event_ = platform::NamedEvent::CreateOrOpen(KIVCAM_LOG_EVENT_NAME);
  mapping_ = platform::SharedMapping::CreateOrOpen(KIVCAM_LOG_MAPPING_NAME, diag::kLogAreaSize);
  if (!mutex_ || !event_ || !mapping_ || !mapping_->data()) return false;
  area_ = static_cast<diag::LogArea*>(mapping_->data());
  return true;
}

void LogReader::SetLevel(uint32_t level) { area_->Level = level; }

std::vector<std::string> LogReader::Take() { return Read(true); }
std::vector<std::string> LogReader::Peek() { return Read(false); }

std::vector<std::string> LogReader::Read(bool take) {
  std::vector<std::string> lines;
  // Bounded: a holder that never lets go (or a scribbled mutex object) costs
  // one round of lines, never the reader itself.
  platform::MutexWait w = mutex_->Wait(kWaitMs);
  if (w != platform::MutexWait::kAcquired && w != platform::MutexWait::kAbandoned) return lines;
  uint32_t pending = area_->Pending;
  if (pending > diag::kLogSlots) pending = diag::kLogSlots;
  lines.reserve(pending);
  for (uint32_t i = 0; i < pending; ++i) {
    const char* slot = area_->Line[i];
    lines.emplace_back(slot, strnlen(slot, diag::kLogSlotSize));
  }
  if (take) area_->Pending = 0;
  mutex_->Release();
  return lines;
}

bool LogReader::Wait(uint32_t timeout_ms) { return event_->Wait(timeout_ms); }

}  // namespace kivcam::monitor
