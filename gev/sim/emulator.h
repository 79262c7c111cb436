// A GigE Vision camera emulator: one virtual camera of the producers' model
// (same description, features and test pattern) served over real GVCP and
// GVSP on one IPv4 address. Several cameras may run in one process, each on
// its own address. `kivgev-sim` is the program around it; tests also run it
// in-process to inject faults.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kivsim {
struct CameraConfig;
}

namespace kivgev {

struct EmulatorOptions {
  double fps = -1;               // frame rate; negative: the camera model's own
  uint32_t packet_size = 0;      // initial SCPS packet size; 0: the model's (1500)
  uint32_t packet_size_limit = 0;  // largest datagram the "network" lets through; 0: any
  double loss = 0;               // share of stream packets lost on their first send
  double reorder = 0;            // share of stream packets sent after their successor
  bool extended_ids = false;     // 64-bit block IDs enabled at start
  double link_mbps = 1000;       // speed at which a block's packets leave
  uint64_t seed = 1;
  std::string first_url;         // replaces the first description URL (to offer File: or http: ones)
};

// Faults a test sets on a running camera; each counts down as it is used.
struct EmulatorFaults {
  std::atomic<uint32_t> silent{0};        // next commands get no answer at all
  std::atomic<uint32_t> pending{0};       // next commands answered with PENDING_ACK first (when enabled)
  std::atomic<uint32_t> pending_ms{150};  // how long such a command then takes
  std::atomic<uint32_t> nack{0};          // next commands refused with `nack_status`
  std::atomic<uint16_t> nack_status{0x8FFF};
  std::atomic<uint32_t> stale_acks{0};    // next acks preceded by one with a wrong ack_id
  std::atomic<uint32_t> lose_blocks{0};   // next blocks lose packets lose_first..lose_last for good
  std::atomic<uint32_t> lose_first{1}, lose_last{1};
};

struct EmulatorStats {
  uint64_t commands = 0, bad_commands = 0, discoveries = 0;
  uint64_t frames = 0, packets_sent = 0, packets_dropped = 0, resend_requests = 0, packets_resent = 0;
  uint64_t heartbeat_losses = 0, test_packets = 0;
};

class EmulatedCamera {
 public:
  EmulatedCamera(const kivsim::CameraConfig& camera, uint32_t ip, const EmulatorOptions& options);
  ~EmulatedCamera();
  EmulatedCamera(const EmulatedCamera&) = delete;
  EmulatedCamera& operator=(const EmulatedCamera&) = delete;

  // Binds the camera's sockets and starts its threads.
  bool Start(std::string* error);
  void Stop();

  uint32_t ip() const;
  uint64_t mac() const;
  std::string Describe() const;  // one line: model, serial, address, MAC
  EmulatorFaults& faults();
  EmulatorStats stats() const;
  uint32_t ReadRegister(uint32_t address) const;  // as the device holds it
  // Arrival times (monotonic ns) of the last commands, oldest first.
  std::vector<uint64_t> CommandTimes() const;
  uint64_t frames() const;                        // produced so far

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The cameras of the built-in GigE world, in order (mono, colour, ...), with
// MACs of their own; `index` beyond them repeats the models with new serials.
kivsim::CameraConfig DefaultEmulatedCamera(size_t index);

}  // namespace kivgev
