// Text rules for device IDs, link codes and description URLs.
#pragma once

#include <cstdint>
#include <string>

namespace kivcam::transport {

// Transport kinds of the producer table.
constexpr int32_t kKindIIDC = 1;
constexpr int32_t kKindGigE = 2;
constexpr int32_t kKindUSB = 3;

// Device UID: the decimal number after the first "::" (or from the second
// character when there is none).
uint64_t ParseUid(const char* device_id);
// Link code of a raw information-1001 value by producer kind.
uint32_t LinkCode(int32_t kind, uint32_t raw);
// CameraKind of the records (0 IIDC, 1 GigE, 2 USB); false for other kinds.
bool CameraKindOf(int32_t kind, uint32_t* out);

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
