// Parts of the description loader that are pure text work.
#pragma once

#include <cstdint>
#include <string>

namespace kivcam::transport {

// scheme ":" location [";" address ";" length ...]
struct DescriptionUrl {
  bool valid = false;    // false: no ':' in the URL
  std::string scheme;    // up to and including ':', upper case
  std::string location;  // file name
  uint64_t address = 0;  // hexadecimal in the URL
  uint64_t length = 0;
  bool zip = false;      // ".ZIP" anywhere in the location, any case
};

DescriptionUrl ParseDescriptionUrl(const std::string& url);
// Name of the additional description: the location without its last four
// characters and without dots, plus "_KIVADD.xml".
std::string AdditionalFileName(const std::string& location);

}  // namespace kivcam::transport
