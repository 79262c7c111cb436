// Extracts the first entry of a ZIP archive held in memory.
#pragma once

#include <cstddef>
#include <string>

namespace KivGenApi {
namespace detail {

// Throws RuntimeException when the data is not a readable archive.
std::string UnzipFirstEntry(const void* data, size_t size);
std::string ReadWholeFile(const std::string& path);

}  // namespace detail
}  // namespace KivGenApi
