// The GVSP receiver of an image stream: takes a block's packets straight into
// the host's buffer where it can, keeps the packet bitmap, asks for missing
// packets again and hands complete or abandoned blocks to the stream.
#pragma once
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "net.h"
#include "wire.h"

namespace kivgev {

struct Stream;
struct Buffer;

// Tunables of the receiver, from the producer's settings.
struct ReceiverConfig {
  uint32_t packet_timeout_ms = 20;  // a gap is asked for again after this
  uint32_t frame_timeout_ms = 200;  // a block with no news for this long is delivered as it is
  uint32_t resend_delay_us = 1000;  // reordering gets this long before a gap counts
  uint32_t max_rounds = 4;          // requests for one gap
  uint32_t coalesce_us = 200;       // pause after a short batch in the middle of a block
  size_t socket_buffer = 32u << 20;  // also the size of a packet ring
  ReceivePath path = ReceivePath::Auto;
};

// One block on its way into a buffer.
struct Block {
  bool used = false;
  uint64_t block_id = 0;
  Buffer* buf = nullptr;
  size_t limit = 0;  // image bytes the buffer takes
  std::vector<uint8_t> got;  // per packet ID (0 leader, 1..n payload, n + 1 trailer)
  uint32_t payload_packets = 0;  // n; 0 while unknown
  bool leader = false, trailer = false, too_small = false;
  ImageLeader lead;
  size_t last_size = 0;  // bytes of the last payload packet
  uint32_t highest = 0, received = 0, resent = 0;
  uint64_t last_packet_ns = 0, gap_since_ns = 0, ask_at_ns = 0;
  uint32_t rounds = 0;
  bool refused = false;  // the camera said it cannot resend
};

class Receiver {
 public:
  Receiver(Stream* s, const ReceiverConfig& cfg);
  ~Receiver();

  // The channel's sockets. Open binds the unicast socket on the interface
  // and, unless the settings say otherwise, opens a packet ring there which
  // then takes the stream in the sockets' place; a multicast group gets a
  // socket of its own on `port` (0: any).
  bool Open(const NetInterface& iface, uint32_t device_ip, std::string* error);
  bool JoinGroup(uint32_t group, uint16_t port, uint32_t interface_ip, std::string* error);
  void LeaveGroup();
  uint16_t unicast_port() const { return unicast_.port(); }
  uint16_t group_port() const { return group_sock_.port(); }
  uint32_t group() const { return group_; }

  // Geometry of the stream packets, read from the camera before a start.
  void SetPacketLayout(uint32_t packet_size, bool extended);
  void Start(uint32_t device_ip, bool watcher);
  void Stop();  // joins; blocks in flight go back to the input queue
  bool running() const { return thread_.joinable(); }
  bool ring() const { return ring_.valid(); }  // fixed once Open succeeded

 private:
  struct Slot;
  void Main();
  int Receive(int timeout_ms);  // datagrams taken
  int ReceiveRing(int timeout_ms);
  void FilterRing();
  void Dispatch(const GvspPacket& pk, uint32_t from, const uint8_t* placed_at);
  Block* Find(uint64_t block_id);
  Block* Begin(uint64_t block_id);
  void Finish(Block& b, bool complete);
  void Tick(uint64_t now);
  void Ask(Block& b, uint32_t first, uint32_t last);
  void Predict(unsigned count);
  bool Stale(uint64_t block_id) const;
  void Remember(uint64_t block_id);
  size_t SlotLimit(const Block& b) const;
  void PollDestination(uint64_t now);

  Stream* s_;
  ReceiverConfig cfg_;
  UdpSocket unicast_, group_sock_;
  PacketRing ring_;
  uint32_t interface_ip_ = 0;
  uint32_t group_ = 0;
  uint32_t device_ip_ = 0;
  bool watcher_ = false;
  uint64_t next_poll_ns_ = 0;
  bool extended_ = false;
  size_t data_size_ = 0, header_size_ = kGvspHeader;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  Waker wake_;
  static constexpr size_t kInFlight = 8;
  Block blocks_[kInFlight];
  std::vector<uint64_t> closed_;  // recently finished block IDs, newest last
  uint64_t newest_ = 0;
  bool any_ = false;

  // Batched receive.
  static constexpr unsigned kBatch = 32;
  static constexpr size_t kSpill = 16384;
  std::vector<mmsghdr> msgs_;
  std::vector<iovec> iov_;
  std::vector<sockaddr_storage> from_;
  std::vector<uint8_t> heads_, scratch_, spill_, tmp_;
  std::vector<uint32_t> predicted_;  // packet ID each message's data slot was aimed at; 0 = scratch
  uint64_t predicted_block_ = 0;
};

}  // namespace kivgev
