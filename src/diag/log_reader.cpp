#include "diag/log_reader.h"

#include <cstring>

#include "diag/call_log.h"
#include "platform/platform.h"

namespace kivcam::diag {

namespace {
const char kInstanceMutex[] = "KIVCAMMonitorInstance_Orvanta";
constexpr uint32_t kReadWaitMs = 1000;

bool Owned(platform::MutexWait w) {
  return w == platform::MutexWait::kAcquired || w == platform::MutexWait::kAbandoned;
}
}  // namespace

struct LogReader::Impl {
  std::unique_ptr<platform::NamedMutex> mutex;
  std::unique_ptr<platform::NamedEvent> event;
  std::unique_ptr<platform::SharedMapping> mapping;
  LogArea* area = nullptr;
};

LogReader::LogReader() : impl_(std::make_unique<Impl>()) {}
LogReader::~LogReader() = default;

bool LogReader::Open() {
  impl_->mutex = platform::NamedMutex::CreateOrOpen(KIVCAM_LOG_MUTEX_NAME);
  impl_->event = platform::NamedEvent::CreateOrOpen(KIVCAM_LOG_EVENT_NAME);
  impl_->mapping = platform::SharedMapping::CreateOrOpen(KIVCAM_LOG_MAPPING_NAME, kLogAreaSize);
  if (!impl_->mutex || !impl_->event || !impl_->mapping || !impl_->mapping->data()) return false;
  impl_->area = static_cast<LogArea*>(impl_->mapping->data());
  return true;
}

uint32_t LogReader::Level() const {
  return impl_->area ? __atomic_load_n(&impl_->area->Level, __ATOMIC_RELAXED) : 0;
}

void LogReader::SetLevel(uint32_t level) {
  if (impl_->area) __atomic_store_n(&impl_->area->Level, level, __ATOMIC_RELAXED);
}

std::vector<std::string> LogReader::Take() { return Read(true); }
std::vector<std::string> LogReader::Peek() { return Read(false); }

std::vector<std::string> LogReader::Read(bool take) {
  std::vector<std::string> lines;
  // Bounded: a holder that never lets go (or a scribbled mutex object) costs
  // one round of lines, never the reader itself.
  if (!impl_->area || !Owned(impl_->mutex->Wait(kReadWaitMs))) return lines;
  LogArea* area = impl_->area;
  uint32_t pending = area->Pending;
  if (pending > kLogSlots) pending = kLogSlots;
  lines.reserve(pending);
  for (uint32_t i = 0; i < pending; ++i) {
    const char* slot = area->Line[i];
    lines.emplace_back(slot, strnlen(slot, kLogSlotSize));
  }
  if (take) area->Pending = 0;
  impl_->mutex->Release();
  return lines;
}

bool LogReader::Wait(uint32_t timeout_ms) { return impl_->event && impl_->event->Wait(timeout_ms); }

struct MonitorInstance::Impl {
  std::unique_ptr<platform::NamedMutex> mutex;
  bool held = false;
};

MonitorInstance::MonitorInstance() : impl_(std::make_unique<Impl>()) {
  impl_->mutex = platform::NamedMutex::CreateOrOpen(kInstanceMutex);
}

MonitorInstance::~MonitorInstance() {
  if (impl_->held) impl_->mutex->Release();
}

bool MonitorInstance::ok() const { return impl_->mutex != nullptr; }

bool MonitorInstance::TryAcquire() {
  if (!impl_->mutex) return false;
  if (!impl_->held) impl_->held = Owned(impl_->mutex->Wait(0));
  return impl_->held;
}

uint32_t CurrentProcessId() { return platform::ProcessId(); }

bool AnnounceMonitor(std::string* build_date) {
  auto shared = platform::SharedMapping::CreateOrOpen(KIVCAM_SHARED_DATA_NAME, kSharedDataSize);
  if (!shared || !shared->data()) return false;
  auto* data = static_cast<SharedData*>(shared->data());
  __atomic_store_n(&data->MonitorProcessId, platform::ProcessId(), __ATOMIC_RELAXED);
  // Anyone may have written there: the date is read within its field.
  build_date->assign(data->BuildDate, strnlen(data->BuildDate, sizeof data->BuildDate));
  return true;
}

}  // namespace kivcam::diag
