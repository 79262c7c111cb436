// Reads the producer's device information on an open device handle, one
// command at a time, into a scratch buffer that the records copy from.
#pragma once

#include <cstdint>
#include <cstring>

#include "kivcam/kivcam.h"
#include "kivgentl/gentl.h"

namespace kivcam::transport {

class CGenTL;

class DeviceInfoReader {
 public:
  static constexpr size_t kBytes = 1024;
  // Failures are logged under `op`.
  DeviceInfoReader(CGenTL* producer, DEV_HANDLE device, const char* op)
      : producer_(producer), device_(device), op_(op) {}

  bool Query(int32_t command, size_t capacity = kBytes);
  // Copies min(answer size, field size) bytes: a field the answer fills
  // completely keeps no terminator.
  bool Text(int32_t command, char* field, size_t field_size) {
    if (!Query(command)) return false;
    std::memcpy(field, buf_, got_ < field_size ? got_ : field_size);
    return true;
  }
  const char* text() const { return buf_; }
  uint32_t Word() const {
    uint32_t v;
    std::memcpy(&v, buf_, sizeof v);
    return v;
  }
  uint64_t Quad() const {
    uint64_t v;
    std::memcpy(&v, buf_, sizeof v);
    return v;
  }

 private:
  CGenTL* producer_;
  DEV_HANDLE device_;
  const char* op_;
  char buf_[kBytes + 1] = {};
  size_t got_ = 0;
};

// Fills a list-entry record: UID, vendor, model, information 1002, link code
// and kind, stopping at the first failing query.
bool FillEntryFromDevice(CGenTL* producer, DEV_HANDLE device, const char* op, CameraListEntry* info);

}  // namespace kivcam::transport
