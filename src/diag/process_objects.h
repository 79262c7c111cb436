// The machine-wide objects that belong to one process: its output-filter
// channel and the events through which other processes wake its USB and
// IIDC interfaces. They go with the process: removed at unload, and those of
// processes that ended without unloading (killed) are reclaimed by the next
// process that loads the library. Machine-wide objects shared by all stay.
#pragma once

#include <cstdint>
#include <string>

namespace kivcam::diag {

// The output filter's objects of process `pid`: the mutex
// "KIVCAMOutFilterMutex_Orvanta_<pid>_3" (made at load), the event
// "KIVCAMOutFilterEvent_Orvanta_<pid>_3", the header mapping
// "KIVCAMOutFilterFile_Orvanta_<pid>" and the data mapping
// "KIVCAMOutFilterDataFile_Orvanta_<pid>".
std::string FilterMutexName(uint32_t pid);
std::string FilterEventName(uint32_t pid);
std::string FilterHeaderName(uint32_t pid);
std::string FilterDataName(uint32_t pid);

// The process id a per-process object name carries; false for any other name.
bool ProcessOfObject(const std::string& name, uint32_t* pid);

// Removes every per-process name of `pid` (objects still open keep working).
void RemoveProcessObjects(uint32_t pid);

// Removes the per-process names of every process that no longer runs.
// Returns how many names were removed.
int ReclaimProcessObjects();

}  // namespace kivcam::diag
