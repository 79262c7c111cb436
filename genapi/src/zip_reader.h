// Whole files and ZIP archives as the loader reads them.
#pragma once

#include <cstddef>
#include <string>

#include "kivgenapi/Zip.h"

namespace KivGenApi {
namespace detail {

std::string ReadWholeFile(const std::string& path);

}  // namespace detail
}  // namespace KivGenApi
