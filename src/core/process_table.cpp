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

bool Lock() {
  platform::MutexWait w = g_mutex->Wait(platform::kInfinite);
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
  uint32_t count = t->Count;
  if (count < kProcessTableCapacity) {
    t->ProcessId[count] = platform::ProcessId();
    t->Count = count + 1;
  }
  g_mutex->Release();
  g_event->Set();
}

void UnregisterProcess() {
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
  if (g_mapping) g_mapping->Detach();
  delete g_mapping;
  delete g_mutex;
  delete g_event;
  g_mapping = nullptr;
  g_mutex = nullptr;
  g_event = nullptr;
}

}  // namespace kivcam::core
