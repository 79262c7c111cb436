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
// Closes the handles; views stay mapped for the rest of the process.
void CloseCallLog();

LogArea* CurrentLogArea();
SharedData* CurrentSharedData();  // null when it could not be mapped

// The one test every line makes before anything else: a single memory read.
inline bool LogWanted(bool verbose) {
  // Read without the mutex: a new level takes effect at the next line.
  uint32_t level = __atomic_load_n(&CurrentLogArea()->Level, __ATOMIC_RELAXED);
  return level != 0 && (!verbose || level >= 2);
}

// Formats "<local time>  " + fmt into the next slot. `fmt` is the part of the
// line after the time; pointers must be passed through Ptr() and printed
// with kPtrFmt so that they read like the Windows rendering.
void WriteLine(bool verbose, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void WriteLineV(bool verbose, const char* fmt, va_list ap);

// 16 upper-case hexadecimal digits, zero-padded, as monitors expect.
#define KIVCAM_PTR "%016llX"
inline unsigned long long Ptr(const void* p) {
  return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p));
}

// The line families of the library.
void LogExport(bool verbose, const char* name, const char* event);
void LogExportError(bool verbose, const char* name, uint32_t error);
void LogCamera(bool verbose, const char* name, const char* event, const void* hcamera);
void LogCameraError(bool verbose, const char* name, uint32_t error, const void* hcamera);
void LogConvHandle(bool verbose, const char* name, const char* event, const void* hctbl);
void LogConvHandleError(bool verbose, const char* name, uint32_t error, const void* hctbl);
void LogBuffer(bool verbose, const char* name, const char* event, const void* buffer,
               const void* hcamera);
void LogBufferError(bool verbose, const char* name, uint32_t error, const void* buffer,
                    const void* hcamera);
void LogOpenUidStart(const char* name, uint64_t uid);
void LogOpenEnd(const char* name, const void* hcamera);
// Internal operations are named "Class::Operation".
void LogEvent(bool verbose, const char* op, const char* text);
void LogDump(bool verbose, const char* op, const char* text, const void* value);
void LogLoad(const char* text);  // "DLL ATTACH" / "DLL DETACH"

}  // namespace kivcam::diag
