#include "diag/call_log.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "platform/platform.h"

namespace kivcam::diag {

namespace {
LogArea g_dummy_area{};
}  // namespace

namespace detail {
LogArea* g_area = &g_dummy_area;
}  // namespace detail
using detail::g_area;

namespace {

// Level 0: a process whose log objects are missing writes nothing.
SharedData* g_shared = nullptr;

// Raw pointers on purpose: at process exit the C++ static destructors run
// before the library's own shut-down, which still writes its last line.
platform::NamedMutex* g_mutex = nullptr;
platform::NamedEvent* g_event = nullptr;
platform::SharedMapping* g_mapping = nullptr;
platform::SharedMapping* g_shared_mapping = nullptr;

// The mutex guards one line at a time: only a holder that is stuck (or an
// object someone scribbled on) makes a line wait this long, and then the
// line is dropped rather than the caller held up.
constexpr uint32_t kLogWaitMs = 500;
std::atomic<uint32_t> g_dropped{0};

}  // namespace

void OpenCallLog() {
  __atomic_store_n(&g_area, &g_dummy_area, __ATOMIC_RELEASE);
  g_mutex = platform::NamedMutex::CreateOrOpen(KIVCAM_LOG_MUTEX_NAME).release();
  g_event = platform::NamedEvent::CreateOrOpen(KIVCAM_LOG_EVENT_NAME).release();
  g_mapping = platform::SharedMapping::CreateOrOpen(KIVCAM_LOG_MAPPING_NAME, kLogAreaSize).release();
  if (g_mutex && g_event && g_mapping && g_mapping->data()) {
    __atomic_store_n(&g_area, static_cast<LogArea*>(g_mapping->data()), __ATOMIC_RELEASE);
  }

  g_shared_mapping =
      platform::SharedMapping::CreateOrOpen(KIVCAM_SHARED_DATA_NAME, kSharedDataSize).release();
  if (g_shared_mapping && g_shared_mapping->data()) {
    g_shared = static_cast<SharedData*>(g_shared_mapping->data());
    // Also when a monitor made the mapping before any library was loaded.
    if (!g_shared_mapping->already_existed() || g_shared->BuildDate[0] == '\0') {
      // The compiler's date form, e.g. "Nov 22 2026".
      std::snprintf(g_shared->BuildDate, sizeof g_shared->BuildDate, "%s", __DATE__);
    }
  }
}

void CloseCallLog(bool process_ending) {
  // The area pointer falls back to level 0 first so no line races the close.
  __atomic_store_n(&g_area, &g_dummy_area, __ATOMIC_RELEASE);
  if (process_ending) {
    // A late line from another thread must not fault.
    if (g_mapping) g_mapping->Detach();
    if (g_shared_mapping) g_shared_mapping->Detach();
  } else {
    g_shared = nullptr;
  }
  delete g_mapping;
  delete g_shared_mapping;
  delete g_mutex;
  delete g_event;
  g_mapping = g_shared_mapping = nullptr;
  g_mutex = nullptr;
  g_event = nullptr;
}

SharedData* CurrentSharedData() { return g_shared; }

uint32_t DroppedLines() { return g_dropped.load(std::memory_order_relaxed); }

void WriteLineV(bool verbose, const char* fmt, va_list ap) {
  if (!LogWanted(verbose) || !g_mutex) return;
  platform::MutexWait w = g_mutex->Wait(kLogWaitMs);
  if (w != platform::MutexWait::kAcquired) {
    // An owner that died mid-line: drop this line, leave the mutex usable.
    if (w == platform::MutexWait::kAbandoned) g_mutex->Release();
    g_dropped.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  LogArea* area = detail::Area();
  uint32_t pending = area->Pending;
  bool monitor = g_shared && __atomic_load_n(&g_shared->MonitorProcessId, __ATOMIC_RELAXED) ==
                                 platform::ProcessId();
  if (monitor || pending >= kLogSlots) {
    g_mutex->Release();
    if (!monitor) g_dropped.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  char* slot = area->Line[pending];
  platform::LocalTime t = platform::GetLocalTime();
  int n = std::snprintf(slot, kLogSlotSize, "%04d/%02d/%02d %02d:%02d:%02d'%03d  ", t.year, t.month,
                        t.day, t.hour, t.minute, t.second, t.millisecond);
  if (n > 0 && static_cast<uint32_t>(n) < kLogSlotSize) {
    std::vsnprintf(slot + n, kLogSlotSize - n, fmt, ap);
  }
  area->Pending = pending + 1;
  g_event->Set();
  g_mutex->Release();
}

void WriteLine(bool verbose, const char* fmt, ...) {
  if (!LogWanted(verbose)) return;
  va_list ap;
  va_start(ap, fmt);
  WriteLineV(verbose, fmt, ap);
  va_end(ap);
}

#define KIVCAM_IDS "ThreadID=%d, ProcessID=%d\n"
#define KIVCAM_ID_ARGS static_cast<int>(platform::ThreadId()), static_cast<int>(platform::ProcessId())

void WriteExport(bool verbose, const char* name, const char* event) {
  WriteLine(verbose, "%-28s %s " KIVCAM_IDS, name, event, KIVCAM_ID_ARGS);
}

void WriteExportError(bool verbose, const char* name, uint32_t error) {
  WriteLine(verbose, "%-28s Error=%d, " KIVCAM_IDS, name, static_cast<int>(error), KIVCAM_ID_ARGS);
}

void WriteCamera(bool verbose, const char* name, const char* event, const void* hcamera) {
  WriteLine(verbose, "%-28s %s HCAMERA=0x" KIVCAM_PTR ", " KIVCAM_IDS, name, event, Ptr(hcamera),
            KIVCAM_ID_ARGS);
}

void WriteCameraError(bool verbose, const char* name, uint32_t error, const void* hcamera) {
  WriteLine(verbose, "%-28s Error=%d, HCAMERA=0x" KIVCAM_PTR ", " KIVCAM_IDS, name,
            static_cast<int>(error), Ptr(hcamera), KIVCAM_ID_ARGS);
}

void WriteConvHandle(bool verbose, const char* name, const char* event, const void* hctbl) {
  WriteLine(verbose, "%-28s %s HCTBL=0x" KIVCAM_PTR ", " KIVCAM_IDS, name, event, Ptr(hctbl),
            KIVCAM_ID_ARGS);
}

void WriteConvHandleError(bool verbose, const char* name, uint32_t error, const void* hctbl) {
  WriteLine(verbose, "%-28s Error=%d, HCTBL=0x" KIVCAM_PTR ", " KIVCAM_IDS, name,
            static_cast<int>(error), Ptr(hctbl), KIVCAM_ID_ARGS);
}

void WriteBuffer(bool verbose, const char* name, const char* event, const void* buffer,
               const void* hcamera) {
  WriteLine(verbose, "%-28s %s Buffer=0x" KIVCAM_PTR ", HCAMERA=0x" KIVCAM_PTR ", " KIVCAM_IDS, name,
            event, Ptr(buffer), Ptr(hcamera), KIVCAM_ID_ARGS);
}

void WriteBufferError(bool verbose, const char* name, uint32_t error, const void* buffer,
                    const void* hcamera) {
  WriteLine(verbose,
            "%-28s Error=%d, Buffer=0x" KIVCAM_PTR ", HCAMERA=0x" KIVCAM_PTR ", " KIVCAM_IDS, name,
            static_cast<int>(error), Ptr(buffer), Ptr(hcamera), KIVCAM_ID_ARGS);
}

void WriteOpenUidStart(const char* name, uint64_t uid) {
  WriteLine(false, "%-28s Start Req UID=0x%08X %08X, " KIVCAM_IDS, name,
            static_cast<unsigned>(uid >> 32), static_cast<unsigned>(uid & 0xFFFFFFFFu),
            KIVCAM_ID_ARGS);
}

void WriteOpenEnd(const char* name, const void* hcamera) {
  WriteLine(false, "%-28s End HCAMERA=0x" KIVCAM_PTR ", " KIVCAM_IDS, name, Ptr(hcamera),
            KIVCAM_ID_ARGS);
}

void WriteCameraState(const char* name, const char* event, bool connected, const void* hcamera) {
  WriteLine(false, "%-34s %s %s, HCAMERA=0x%08X, " KIVCAM_IDS, name, event,
            connected ? "Connect" : "Disconnect", static_cast<unsigned>(Ptr(hcamera) & 0xFFFFFFFFu),
            KIVCAM_ID_ARGS);
}

void WriteEvent(bool verbose, const char* op, const char* text) {
  WriteLine(verbose, "%-34s %s " KIVCAM_IDS, op, text, KIVCAM_ID_ARGS);
}

void WriteDump(bool verbose, const char* op, const char* text, const void* value) {
  WriteLine(verbose, "%-34s %s DUMP=0x" KIVCAM_PTR ", " KIVCAM_IDS, op, text, Ptr(value),
            KIVCAM_ID_ARGS);
}

void WriteLoad(const char* text) {
  WriteLine(false, "%s ProcessID=%d\n", text, static_cast<int>(platform::ProcessId()));
}

}  // namespace kivcam::diag
