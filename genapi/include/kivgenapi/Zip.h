// Description archives: the first entry of a ZIP held in memory, read the
// way _LoadXMLFromZIPData reads it, for callers that need the text itself
// (to inject a second description, say).
#pragma once

#include <cstddef>
#include <string>

#include "kivgenapi/Types.h"

namespace KivGenApi {

// Throws RuntimeException when the data is not a readable archive.
KIVGENAPI_API std::string UnzipFirstEntry(const void* zipData, size_t zipSize);

}  // namespace KivGenApi
