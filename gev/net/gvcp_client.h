// The host side of one GVCP control channel: one socket, one command in
// flight at a time, request IDs, retries, PENDING_ACK and batched register
// access. Used by the network producer, its tests and the benchmarks.
#pragma once
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "net.h"
#include "wire.h"

namespace kivgev {

struct GvcpResult {
  enum Kind { kOk, kTimeout, kRefused, kBadAnswer } kind = kOk;
  uint16_t status = 0;  // the device's status when refused
  uint32_t index = 0;   // WRITEREG/WRITEMEM: how far the device got
  std::string text;     // what went wrong, in words
  bool ok() const { return kind == kOk; }
};

struct GvcpCounters {
  uint64_t commands = 0, retries = 0, pending_acks = 0, stray_acks = 0;
};

class GvcpClient {
 public:
  // A channel from `local_ip` (the interface) to the device at `device_ip`.
  bool Open(uint32_t local_ip, uint32_t device_ip, std::string* error, uint16_t device_port = kGvcpPort);
  void Close() { sock_.Close(); }
  bool valid() const { return sock_.valid(); }
  uint32_t device_ip() const { return device_ip_; }

  void SetTimeout(uint32_t ms, uint32_t attempts);
  void SetConcatenation(bool on) { concatenation_ = on; }
  uint32_t timeout_ms() const { return timeout_ms_; }

  GvcpResult ReadRegs(const uint32_t* addresses, uint32_t* values, size_t n);
  GvcpResult WriteRegs(const uint32_t* addresses, const uint32_t* values, size_t n);
  GvcpResult ReadReg(uint32_t address, uint32_t* value) { return ReadRegs(&address, value, 1); }
  GvcpResult WriteReg(uint32_t address, uint32_t value) { return WriteRegs(&address, &value, 1); }
  // Any address and length: split into READMEM pieces, widened to whole words.
  GvcpResult ReadMem(uint64_t address, void* data, size_t n);
  // Whole words only (the caller merges partial words).
  GvcpResult WriteMem(uint32_t address, const void* data, size_t n);

  GvcpCounters counters() const;

 private:
  // One command and its acknowledge; `answer` receives the ack payload.
  GvcpResult Transact(uint8_t* msg, size_t n, uint16_t ack_code, std::vector<uint8_t>* answer, const char* what,
                      uint32_t address);
  uint16_t NextId();

  mutable std::mutex mu_;
  UdpSocket sock_;
  uint32_t device_ip_ = 0;
  uint16_t device_port_ = kGvcpPort;
  uint32_t timeout_ms_ = 200, attempts_ = 3;
  bool concatenation_ = false;
  uint16_t req_id_ = 0;
  GvcpCounters counters_;
};

}  // namespace kivgev
