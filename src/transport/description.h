// Device descriptions: read from the device (plain or ZIP) or from the data
// folder, optionally extended by an additional file, and loaded into a new
// node map.
#pragma once

#include <cstdint>
#include <memory>

#include "kivgenapi/KivGenApi.h"
#include "kivgentl/gentl.h"

namespace kivcam::transport {

class CGenTL;

// Open parameter meaning "look for a copy in the data folder first".
constexpr uint32_t kDescriptionDataFolderFirst = 0xFFFFFFFFu;

// The description that `index` selects (a port URL index, or
// kDescriptionDataFolderFirst), loaded. Null only when the data folder was to
// be searched first and holds no copy. Raises Error with the loader's text
// ("URL Error", "Local File Error", "XML Data Read Error", "Memory Alloc
// Error", "xml File Not Found Error", or the producer's own).
std::unique_ptr<KivGenApi::CNodeMapRef> LoadDeviceDescription(CGenTL* producer, PORT_HANDLE port,
                                                              uint32_t index);

}  // namespace kivcam::transport
