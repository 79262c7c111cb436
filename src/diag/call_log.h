// The machine-wide call log: 32 slots of 1024 bytes in named shared memory,
// taken by an outside monitor. Writers never block on the reader and never
// allocate: a full log drops lines.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "kivcam/kivcam.h"

namespace kivcam::diag {

// The layouts are public: outside readers map the same objects.
using LogArea = KIVCAM_LOGAREA;
using SharedData = KIVCAM_SHAREDDATA;
constexpr uint32_t kLogSlots = KIVCAM_LOG_SLOTS;
constexpr uint32_t kLogSlotSize = KIVCAM_LOG_SLOT_BYTES;
constexpr uint32_t kLogAreaSize = sizeof(LogArea);  // 32776
constexpr uint32_t kSharedDataSize = 4096;

// Creates or opens the log objects; on any failure the process keeps logging
// into a private area of level 0, i.e. nothing. Safe to call once at load.
void OpenCallLog();
// Closes the handles. At a dynamic unload (every library thread joined, no
// export running) the views go too, so that a host that loads and unloads
// the library again and again keeps no mapping of it; while the process
// ends, threads may still be writing lines and the views stay.
void CloseCallLog(bool process_ending);

namespace detail {
// The shared area, or a private one of level 0. Threads still logging while
// the process ends read it as the last thread switches it: atomic access.
extern LogArea* g_area;
inline LogArea* Area() { return __atomic_load_n(&g_area, __ATOMIC_ACQUIRE); }
}

inline LogArea* CurrentLogArea() { return detail::Area(); }
SharedData* CurrentSharedData();  // null when it could not be mapped

// The one test every line makes before anything else: a single memory read,
// inlined at every call site.
inline bool LogWanted(bool verbose) {
  // Read without the mutex: a new level takes effect at the next line.
  uint32_t level = __atomic_load_n(&detail::Area()->Level, __ATOMIC_RELAXED);
  return level != 0 && (!verbose || level >= 2);
}

// Formats "<local time>  " + fmt into the next slot. `fmt` is the part of the
// line after the time; pointers must be passed through Ptr() and printed
// with KIVCAM_PTR so that they read like the Windows rendering.
// Lines this process wanted to write but dropped: the log was full, or its
// mutex could not be had within a bounded wait.
uint32_t DroppedLines();

void WriteLine(bool verbose, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void WriteLineV(bool verbose, const char* fmt, va_list ap);

// 16 upper-case hexadecimal digits, zero-padded, as monitors expect.
#define KIVCAM_PTR "%016llX"
inline unsigned long long Ptr(const void* p) {
  return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p));
}

// The line families of the library.
void WriteExport(bool verbose, const char* name, const char* event);
inline void LogExport(bool verbose, const char* name, const char* event) {
  if (LogWanted(verbose)) WriteExport(verbose, name, event);
}
void WriteExportError(bool verbose, const char* name, uint32_t error);
inline void LogExportError(bool verbose, const char* name, uint32_t error) {
  if (LogWanted(verbose)) WriteExportError(verbose, name, error);
}
void WriteCamera(bool verbose, const char* name, const char* event, const void* hcamera);
inline void LogCamera(bool verbose, const char* name, const char* event, const void* hcamera) {
  if (LogWanted(verbose)) WriteCamera(verbose, name, event, hcamera);
}
void WriteCameraError(bool verbose, const char* name, uint32_t error, const void* hcamera);
inline void LogCameraError(bool verbose, const char* name, uint32_t error, const void* hcamera) {
  if (LogWanted(verbose)) WriteCameraError(verbose, name, error, hcamera);
}
void WriteConvHandle(bool verbose, const char* name, const char* event, const void* hctbl);
inline void LogConvHandle(bool verbose, const char* name, const char* event, const void* hctbl) {
  if (LogWanted(verbose)) WriteConvHandle(verbose, name, event, hctbl);
}
void WriteConvHandleError(bool verbose, const char* name, uint32_t error, const void* hctbl);
inline void LogConvHandleError(bool verbose, const char* name, uint32_t error, const void* hctbl) {
  if (LogWanted(verbose)) WriteConvHandleError(verbose, name, error, hctbl);
}
void WriteBuffer(bool verbose, const char* name, const char* event, const void* buffer,
               const void* hcamera);
inline void LogBuffer(bool verbose, const char* name, const char* event, const void* buffer,
               const void* hcamera) {
  if (LogWanted(verbose)) WriteBuffer(verbose, name, event, buffer, hcamera);
}
void WriteBufferError(bool verbose, const char* name, uint32_t error, const void* buffer,
                    const void* hcamera);
inline void LogBufferError(bool verbose, const char* name, uint32_t error, const void* buffer,
                    const void* hcamera) {
  if (LogWanted(verbose)) WriteBufferError(verbose, name, error, buffer, hcamera);
}
void WriteOpenUidStart(const char* name, uint64_t uid);
inline void LogOpenUidStart(const char* name, uint64_t uid) {
  if (LogWanted(false)) WriteOpenUidStart(name, uid);
}
void WriteOpenEnd(const char* name, const void* hcamera);
inline void LogOpenEnd(const char* name, const void* hcamera) {
  if (LogWanted(false)) WriteOpenEnd(name, hcamera);
}
// End of KIVCAM_Camera: "Connect" or "Disconnect", the handle as 32 bits.
void WriteCameraState(const char* name, const char* event, bool connected, const void* hcamera);
inline void LogCameraState(const char* name, const char* event, bool connected, const void* hcamera) {
  if (LogWanted(false)) WriteCameraState(name, event, connected, hcamera);
}
// Internal operations are named "Class::Operation".
void WriteEvent(bool verbose, const char* op, const char* text);
inline void LogEvent(bool verbose, const char* op, const char* text) {
  if (LogWanted(verbose)) WriteEvent(verbose, op, text);
}
void WriteDump(bool verbose, const char* op, const char* text, const void* value);
inline void LogDump(bool verbose, const char* op, const char* text, const void* value) {
  if (LogWanted(verbose)) WriteDump(verbose, op, text, value);
}
void WriteLoad(const char* text);
inline void LogLoad(const char* text) {
  if (LogWanted(false)) WriteLoad(text);
}  // "DLL ATTACH" / "DLL DETACH"

}  // namespace kivcam::diag
