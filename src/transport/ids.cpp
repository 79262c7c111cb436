// Text rules for device IDs, link codes and description URLs: no producer,
// no state, so they are tested on their own.
#include "transport/ids.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace kivcam::transport {

namespace {
uint64_t ParseHex(const std::string& s) { return std::strtoull(s.c_str(), nullptr, 16); }
}  // namespace

uint64_t ParseUid(const char* device_id) {
  if (!device_id || !*device_id) return 0;
  const char* p = std::strstr(device_id, "::");
  p = p ? p + 2 : device_id + 1;
  uint64_t uid = 0;
  while (*p >= '0' && *p <= '9') uid = uid * 10 + static_cast<uint64_t>(*p++ - '0');
  return uid;
}

uint32_t LinkCode(int32_t kind, uint32_t raw) {
  switch (kind) {
    case kKindIIDC: return raw;
    case kKindGigE: return raw == 100 ? 0 : 6;
    case kKindUSB: return raw == 0x200 ? 7 : 8;
    default: return 0;
  }
}

bool CameraKindOf(int32_t kind, uint32_t* out) {
  switch (kind) {
    case kKindIIDC: *out = 0; return true;
    case kKindGigE: *out = 1; return true;
    case kKindUSB: *out = 2; return true;
    default: return false;
  }
}

DescriptionUrl ParseDescriptionUrl(const std::string& url) {
  DescriptionUrl u;
  size_t colon = url.find(':');
  if (colon == std::string::npos) return u;
  u.valid = true;
  u.scheme = url.substr(0, colon + 1);
  for (char& c : u.scheme) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  size_t semi = url.find(';', colon + 1);
  u.location = url.substr(colon + 1, semi == std::string::npos ? std::string::npos : semi - colon - 1);
  if (semi != std::string::npos) {
    size_t second = url.find(';', semi + 1);
    u.address = ParseHex(url.substr(semi + 1, second == std::string::npos ? std::string::npos : second - semi - 1));
    if (second != std::string::npos) {
      size_t third = url.find(';', second + 1);
      u.length = ParseHex(url.substr(second + 1, third == std::string::npos ? std::string::npos : third - second - 1));
    }
  }
  std::string upper = u.location;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  u.zip = upper.find(".ZIP") != std::string::npos;
  return u;
}

std::string AdditionalFileName(const std::string& location) {
  std::string base = location.size() > 4 ? location.substr(0, location.size() - 4) : std::string();
  base.erase(std::remove(base.begin(), base.end(), '.'), base.end());
  return base + "_KIVADD.xml";
}

}  // namespace kivcam::transport
