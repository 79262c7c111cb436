#include "diag/process_objects.h"

#include <cstdio>
#include <cstring>

#include "kivcam/kivcam.h"
#include "platform/platform.h"

namespace kivcam::diag {

namespace {

// Each per-process name is a stem, the process id in decimal and a tail.
struct Pattern {
  const char* stem;
  const char* tail;
};
const Pattern kPatterns[] = {
    {KIVCAMFILTER_MUTEX_NAME "_", "_3"},
    {KIVCAMFILTER_EVENT_NAME "_", "_3"},
    {KIVCAMFILTER_HEADER_NAME "_", ""},
    {KIVCAMFILTER_DATA_NAME "_", ""},
    {KIVCAM_PROCESS_USB_EVENT_PREFIX, ""},
    {KIVCAM_PROCESS_IIDC_EVENT_PREFIX, ""},
};

std::string NameOf(const Pattern& p, uint32_t pid) { return p.stem + std::to_string(pid) + p.tail; }

}  // namespace

std::string FilterMutexName(uint32_t pid) { return NameOf(kPatterns[0], pid); }
std::string FilterEventName(uint32_t pid) { return NameOf(kPatterns[1], pid); }
std::string FilterHeaderName(uint32_t pid) { return NameOf(kPatterns[2], pid); }
std::string FilterDataName(uint32_t pid) { return NameOf(kPatterns[3], pid); }

bool ProcessOfObject(const std::string& name, uint32_t* pid) {
  for (const Pattern& p : kPatterns) {
    size_t stem = std::strlen(p.stem), tail = std::strlen(p.tail);
    if (name.size() <= stem + tail || name.compare(0, stem, p.stem) != 0 ||
        name.compare(name.size() - tail, tail, p.tail) != 0) {
      continue;
    }
    std::string digits = name.substr(stem, name.size() - stem - tail);
    if (digits.size() > 10 || digits[0] == '0' ||
        digits.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    uint64_t v = std::stoull(digits);
    if (v > 0xFFFFFFFFu) continue;
    *pid = static_cast<uint32_t>(v);
    return true;
  }
  return false;
}

void RemoveProcessObjects(uint32_t pid) {
  for (const Pattern& p : kPatterns) platform::RemoveMachineWideName(NameOf(p, pid));
}

int ReclaimProcessObjects() {
  int removed = 0;
  const uint32_t self = platform::ProcessId();
  for (const std::string& name : platform::ListMachineWideNames()) {
    uint32_t pid;
    if (!ProcessOfObject(name, &pid) || pid == self || platform::ProcessAlive(pid)) continue;
    platform::RemoveMachineWideName(name);
    ++removed;
  }
  return removed;
}

}  // namespace kivcam::diag
