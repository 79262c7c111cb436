#include "core/process_table.h"

#include "platform/platform.h"

namespace kivcam::core {

namespace {

// Raw pointers: see the call log; these outlive the C++ static destructors.
platform::NamedMutex* g_mutex = nullptr;
platform::NamedEvent* g_event = nullptr;
platform::SharedMapping* g_mapping = nullptr;

ProcessTable* Table() {
  return g_mapping ? static_cast<ProcessTable*>(g_mapping->data()) : nullptr;
}

// The table is open to every process of the machine: a holder that never
// lets go costs this process its entry, never its start-up or its end.
constexpr uint32_t kTableWaitMs = 2000;

bool Lock() {
  platform::MutexWait w = g_mutex->Wait(kTableWaitMs);
  return w == platform::MutexWait::kAcquired || w == platform::MutexWait::kAbandoned;
}

}  // namespace

void RegisterProcess() {
  g_mutex = platform::NamedMutex::CreateOrOpen(KIVCAM_PROCESS_MUTEX_NAME).release();
  g_mapping = platform::SharedMapping::CreateOrOpen(KIVCAM_PROCESS_TABLE_NAME, kProcessTableSize).release();
  g_event = platform::NamedEvent::CreateOrOpen(KIVCAM_PROCESS_EVENT_NAME).release();
  ProcessTable* t = Table();
  if (!g_mutex || !g_event || !t) return;
  if (!Lock()) return;
  // Entries of processes that ended without unloading (killed) go, so the
  // table lists running processes and does not fill up with dead ones.
  const uint32_t self = platform::ProcessId();
  uint32_t count = t->Count < kProcessTableCapacity ? t->Count : kProcessTableCapacity;
  uint32_t kept = 0;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t pid = t->ProcessId[i];
    if (pid != self && platform::ProcessAlive(pid)) t->ProcessId[kept++] = pid;
  }
  if (kept < kProcessTableCapacity) t->ProcessId[kept++] = self;
  t->Count = kept;
  g_mutex->Release();
  g_event->Set();
}

void UnregisterProcess(bool process_ending) {
  ProcessTable* t = Table();
  if (g_mutex && g_event && t && Lock()) {
    uint32_t pid = platform::ProcessId();
    uint32_t count = t->Count < kProcessTableCapacity ? t->Count : kProcessTableCapacity;
    for (uint32_t i = 0; i < count; ++i) {
      if (t->ProcessId[i] != pid) continue;
      for (uint32_t j = i + 1; j < count; ++j) t->ProcessId[j - 1] = t->ProcessId[j];
      t->Count = count - 1;
      break;
    }
    g_mutex->Release();
    g_event->Set();
  }
  if (g_mapping && process_ending) g_mapping->Detach();
  delete g_mapping;
  delete g_mutex;
  delete g_event;
  g_mapping = nullptr;
  g_mutex = nullptr;
  g_event = nullptr;
}

}  // namespace kivcam::core
