// The little of the operating system's networking that GigE Vision needs:
// IPv4 UDP sockets, a packet-socket receive ring and the machine's network
// interfaces. The only files of gev/ that include socket headers.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct mmsghdr;

namespace kivgev {

// Addresses are host-order numbers: 127.0.0.1 is 0x7F000001.
std::string IpText(uint32_t ip);
bool ParseIp(const std::string& text, uint32_t* ip);
inline bool IsMulticast(uint32_t ip) { return (ip >> 28) == 0xE; }

uint64_t NowNs();  // monotonic
uint64_t WallNs();  // since the Unix epoch

struct NetInterface {
  std::string name;
  unsigned index = 0;  // the system's interface index
  uint32_t ip = 0, mask = 0;
  uint64_t mac = 0;
  bool up = false, loopback = false;
  uint32_t speed_mbps = 0;  // 0 when the system does not say
  uint32_t broadcast() const { return (ip & mask) | ~mask; }
};
// Every interface with an IPv4 address, in the system's order.
std::vector<NetInterface> ListInterfaces();

// Wakes a thread blocked in UdpSocket::Receive from another thread.
class Waker {
 public:
  Waker();
  ~Waker();
  Waker(const Waker&) = delete;
  Waker& operator=(const Waker&) = delete;
  void Wake();
  void Clear();
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
};

class UdpSocket {
 public:
  UdpSocket() = default;
  ~UdpSocket() { Close(); }
  UdpSocket(UdpSocket&& o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
  UdpSocket& operator=(UdpSocket&& o) noexcept;
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  // Binds to ip:port (0 = any); `reuse` lets several sockets share a multicast port.
  bool Open(uint32_t ip, uint16_t port, std::string* error, bool reuse = false);
  void Close();
  bool valid() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  uint16_t port() const;

  bool SetBroadcast();
  bool BindToDevice(const std::string& name);
  // Asks for `bytes` of receive buffer (forced beyond the system limit when
  // allowed); returns what the system granted.
  size_t SetReceiveBuffer(size_t bytes);
  bool SetSendBuffer(size_t bytes);
  bool JoinGroup(uint32_t group, uint32_t interface_ip);
  bool SetMulticastInterface(uint32_t interface_ip);
  bool SetDontFragment(bool on);
  // Makes the socket take nothing (a filter that drops every datagram, the
  // smallest buffer) while it only keeps its port; what it held is dropped.
  void TakeNothing();

  bool SendTo(uint32_t ip, uint16_t port, const void* data, size_t n);
  // Sends up to `n` datagrams of two pieces each (a header and a body) in
  // one system call where it can; returns how many went out.
  struct Datagram {
    const void* head;
    size_t head_size;
    const void* body;
    size_t body_size;
  };
  unsigned SendMany(uint32_t ip, uint16_t port, const Datagram* d, unsigned n);
  // Waits up to timeout_ms (negative: no limit) for one datagram. Returns its
  // size, or -1 on time-out, error or a wake-up through `waker`.
  long Receive(void* buf, size_t cap, int timeout_ms, uint32_t* from_ip = nullptr, uint16_t* from_port = nullptr,
               const Waker* waker = nullptr);
  // Waits like Receive, then takes up to `n` datagrams without blocking.
  // Returns how many arrived (0 on time-out or wake-up).
  int ReceiveMany(mmsghdr* msgs, unsigned n, int timeout_ms, const Waker* waker);
  // Waits for readability only.
  bool Wait(int timeout_ms, const Waker* waker);

 private:
  int fd_ = -1;
};

// How a stream's datagrams are read: through a PacketRing where the system
// permits one (Auto), or always through the UDP socket.
enum class ReceivePath : uint8_t { Auto, Ring, Socket };

// A receive ring of a packet socket (TPACKET_V3) on one interface: the kernel
// copies each frame the filter passes into shared blocks and hands a block
// over when it is full or has waited its time-out. Frames start at the
// network header. Needs CAP_NET_RAW.
class PacketRing {
 public:
  PacketRing() = default;
  ~PacketRing() { Close(); }
  PacketRing(const PacketRing&) = delete;
  PacketRing& operator=(const PacketRing&) = delete;

  // A ring of about `bytes` on interface `ifindex` (0: every interface)
  // that passes nothing until Filter is called. False (and why) where the
  // system refuses.
  bool Open(unsigned ifindex, size_t bytes, std::string* error);
  void Close();
  bool valid() const { return fd_ >= 0; }
  // Lets only unfragmented UDP/IPv4 datagrams to ip:port in, none the host sends.
  bool Filter(uint32_t ip, uint16_t port);

  struct Frame {
    const uint8_t* data;
    size_t size;     // bytes in the ring
    bool truncated;  // the frame was longer than a block holds
    bool outgoing;   // sent by this host (the loopback shows both directions)
    bool checksum_known;  // the kernel checked the UDP checksum, or it was never computed on a local path
  };
  // Waits up to timeout_ms for a block to read; false on time-out or wake-up.
  bool Wait(int timeout_ms, const Waker* waker);
  // The next frame of the block being read. At the end of a block it gives
  // the block back to the kernel and returns false; a further call starts on
  // the next block if one is ready.
  bool Next(Frame* f);

 private:
  int fd_ = -1;
  uint8_t* map_ = nullptr;
  size_t block_size_ = 0, blocks_ = 0, current_ = 0;
  uint8_t* frame_ = nullptr;  // next frame of the current block while it is read
  uint32_t left_ = 0;         // frames of it not yet read
};

}  // namespace kivgev
