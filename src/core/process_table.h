// The machine-wide list of processes that have the library loaded. The
// library only adds and removes its own id; the list is for outside readers.
#pragma once

#include <cstdint>

#include "kivcam/kivcam.h"

namespace kivcam::core {

using ProcessTable = KIVCAM_PROCESSTABLE;
constexpr uint32_t kProcessTableCapacity = KIVCAM_PROCESS_TABLE_ENTRIES;
constexpr uint32_t kProcessTableSize = sizeof(ProcessTable);  // 1028

// At load: opens the table's objects and enters this process (unless full).
void RegisterProcess();
// At unload: removes this process (if present) and closes the objects; the
// table's view stays mapped while the process ends (see CloseCallLog).
void UnregisterProcess(bool process_ending);

}  // namespace kivcam::core
