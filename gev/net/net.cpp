#include "net.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace kivgev {

namespace {
sockaddr_in Addr(uint32_t ip, uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(ip);
  a.sin_port = htons(port);
  return a;
}

// 1 readable, 0 time-out, -1 error or woken.
int PollIn(int fd, int timeout_ms, const Waker* waker) {
  pollfd p[2] = {{fd, POLLIN, 0}, {waker ? waker->fd() : -1, POLLIN, 0}};
  for (;;) {
    int r = poll(p, waker ? 2 : 1, timeout_ms);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return r;
    if (waker && (p[1].revents & POLLIN)) return -1;
    return 1;
  }
}
}  // namespace

std::string IpText(uint32_t ip) {
  char b[16];
  std::snprintf(b, sizeof b, "%u.%u.%u.%u", ip >> 24, (ip >> 16) & 0xFF, (ip >> 8) & 0xFF, ip & 0xFF);
  return b;
}

bool ParseIp(const std::string& text, uint32_t* ip) {
  in_addr a;
  if (inet_pton(AF_INET, text.c_str(), &a) != 1) return false;
  *ip = ntohl(a.s_addr);
  return true;
}

uint64_t NowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return uint64_t(ts.tv_sec) * 1000000000ULL + uint64_t(ts.tv_nsec);
}

uint64_t WallNs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return uint64_t(ts.tv_sec) * 1000000000ULL + uint64_t(ts.tv_nsec);
}

std::vector<NetInterface> ListInterfaces() {
  std::vector<NetInterface> out;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return out;
  for (ifaddrs* a = list; a; a = a->ifa_next) {
    if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET) continue;
    NetInterface n;
    n.name = a->ifa_name;
    n.ip = ntohl(reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr.s_addr);
    n.mask = a->ifa_netmask ? ntohl(reinterpret_cast<sockaddr_in*>(a->ifa_netmask)->sin_addr.s_addr) : 0xFFFFFFFF;
    n.up = (a->ifa_flags & IFF_UP) && (a->ifa_flags & IFF_RUNNING);
    n.loopback = (a->ifa_flags & IFF_LOOPBACK) != 0;
    n.index = if_nametoindex(a->ifa_name);
    out.push_back(n);
  }
  for (ifaddrs* a = list; a; a = a->ifa_next) {
    if (!a->ifa_addr || a->ifa_addr->sa_family != AF_PACKET) continue;
    auto* ll = reinterpret_cast<sockaddr_ll*>(a->ifa_addr);
    uint64_t mac = 0;
    for (int i = 0; i < ll->sll_halen && i < 6; ++i) mac = mac << 8 | ll->sll_addr[i];
    for (auto& n : out)
      if (n.name == a->ifa_name) n.mac = mac;
  }
  freeifaddrs(list);
  // The link speed, asked of the driver (sysfs would show another namespace's devices).
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  for (auto& n : out) {
    ethtool_cmd cmd{};
    cmd.cmd = ETHTOOL_GSET;
    ifreq req{};
    std::strncpy(req.ifr_name, n.name.c_str(), IFNAMSIZ - 1);
    req.ifr_data = reinterpret_cast<char*>(&cmd);
    if (fd >= 0 && ioctl(fd, SIOCETHTOOL, &req) == 0) {
      const uint32_t speed = ethtool_cmd_speed(&cmd);
      if (speed != 0 && speed != uint32_t(SPEED_UNKNOWN)) n.speed_mbps = speed;
    }
  }
  if (fd >= 0) close(fd);
  return out;
}

Waker::Waker() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
Waker::~Waker() {
  if (fd_ >= 0) close(fd_);
}
void Waker::Wake() {
  uint64_t one = 1;
  (void)!write(fd_, &one, sizeof one);
}
void Waker::Clear() {
  uint64_t v;
  (void)!read(fd_, &v, sizeof v);
}

UdpSocket& UdpSocket::operator=(UdpSocket&& o) noexcept {
  if (this != &o) {
    Close();
    fd_ = o.fd_;
    o.fd_ = -1;
  }
  return *this;
}

bool UdpSocket::Open(uint32_t ip, uint16_t port, std::string* error, bool reuse) {
  Close();
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) {
    if (error) *error = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  int one = 1;
  if (reuse) {
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
  }
  sockaddr_in a = Addr(ip, port);
  if (bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    if (error) *error = "bind " + IpText(ip) + ":" + std::to_string(port) + ": " + std::strerror(errno);
    Close();
    return false;
  }
  return true;
}

void UdpSocket::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

uint16_t UdpSocket::port() const {
  sockaddr_in a{};
  socklen_t n = sizeof a;
  if (fd_ < 0 || getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &n) != 0) return 0;
  return ntohs(a.sin_port);
}

bool UdpSocket::SetBroadcast() {
  int one = 1;
  return setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &one, sizeof one) == 0;
}

bool UdpSocket::BindToDevice(const std::string& name) {
  return setsockopt(fd_, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(), static_cast<socklen_t>(name.size())) == 0;
}

size_t UdpSocket::SetReceiveBuffer(size_t bytes) {
  int v = static_cast<int>(bytes);
  // The forced variant passes the system limit when the process may.
  if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &v, sizeof v) != 0)
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &v, sizeof v);
  int got = 0;
  socklen_t n = sizeof got;
  getsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &got, &n);
  return static_cast<size_t>(got) / 2;  // the system counts its bookkeeping twice
}

bool UdpSocket::SetSendBuffer(size_t bytes) {
  int v = static_cast<int>(bytes);
  if (setsockopt(fd_, SOL_SOCKET, SO_SNDBUFFORCE, &v, sizeof v) == 0) return true;
  return setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &v, sizeof v) == 0;
}

bool UdpSocket::JoinGroup(uint32_t group, uint32_t interface_ip) {
  ip_mreq m{};
  m.imr_multiaddr.s_addr = htonl(group);
  m.imr_interface.s_addr = htonl(interface_ip);
  return setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m) == 0;
}

bool UdpSocket::SetMulticastInterface(uint32_t interface_ip) {
  in_addr a;
  a.s_addr = htonl(interface_ip);
  return setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_IF, &a, sizeof a) == 0;
}

bool UdpSocket::SetDontFragment(bool on) {
  int v = on ? IP_PMTUDISC_DO : IP_PMTUDISC_WANT;
  return setsockopt(fd_, IPPROTO_IP, IP_MTU_DISCOVER, &v, sizeof v) == 0;
}

namespace {
bool AttachFilter(int fd, sock_filter* code, size_t n) {
  sock_fprog prog{static_cast<unsigned short>(n), code};
  return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog) == 0;
}
bool DropEverything(int fd) {
  sock_filter drop = BPF_STMT(BPF_RET | BPF_K, 0);
  return AttachFilter(fd, &drop, 1);
}
}  // namespace

void UdpSocket::TakeNothing() {
  DropEverything(fd_);
  int v = 0;  // the system's smallest
  setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &v, sizeof v);
  char b;
  while (recv(fd_, &b, 1, MSG_DONTWAIT) >= 0) {
  }
}

bool UdpSocket::SendTo(uint32_t ip, uint16_t port, const void* data, size_t n) {
  sockaddr_in a = Addr(ip, port);
  for (;;) {
    ssize_t r = sendto(fd_, data, n, 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
    if (r < 0 && errno == EINTR) continue;
    return r == static_cast<ssize_t>(n);
  }
}

unsigned UdpSocket::SendMany(uint32_t ip, uint16_t port, const Datagram* d, unsigned n) {
  sockaddr_in a = Addr(ip, port);
  constexpr unsigned kBatch = 64;
  unsigned sent = 0;
  while (sent < n) {
    mmsghdr m[kBatch];
    iovec v[kBatch][2];
    const unsigned k = n - sent < kBatch ? n - sent : kBatch;
    for (unsigned i = 0; i < k; ++i) {
      const Datagram& g = d[sent + i];
      v[i][0] = {const_cast<void*>(g.head), g.head_size};
      v[i][1] = {const_cast<void*>(g.body), g.body_size};
      m[i] = {};
      m[i].msg_hdr.msg_name = &a;
      m[i].msg_hdr.msg_namelen = sizeof a;
      m[i].msg_hdr.msg_iov = v[i];
      m[i].msg_hdr.msg_iovlen = g.body_size ? 2 : 1;
    }
    int r = sendmmsg(fd_, m, k, 0);
    if (r < 0) {
      if (errno == EINTR) continue;
      if (errno == ENOBUFS || errno == EAGAIN) {
        // The send queue is full for a moment: give the receiver a chance.
        pollfd p{fd_, POLLOUT, 0};
        poll(&p, 1, 10);
        continue;
      }
      break;
    }
    sent += static_cast<unsigned>(r);
  }
  return sent;
}

long UdpSocket::Receive(void* buf, size_t cap, int timeout_ms, uint32_t* from_ip, uint16_t* from_port,
                        const Waker* waker) {
  if (PollIn(fd_, timeout_ms, waker) <= 0) return -1;
  sockaddr_in a{};
  socklen_t n = sizeof a;
  ssize_t r = recvfrom(fd_, buf, cap, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&a), &n);
  if (r < 0) return -1;
  if (from_ip) *from_ip = ntohl(a.sin_addr.s_addr);
  if (from_port) *from_port = ntohs(a.sin_port);
  return r;
}

int UdpSocket::ReceiveMany(mmsghdr* msgs, unsigned n, int timeout_ms, const Waker* waker) {
  if (PollIn(fd_, timeout_ms, waker) <= 0) return 0;
  int r = recvmmsg(fd_, msgs, n, MSG_DONTWAIT, nullptr);
  return r < 0 ? 0 : r;
}

bool UdpSocket::Wait(int timeout_ms, const Waker* waker) { return PollIn(fd_, timeout_ms, waker) > 0; }

bool PacketRing::Open(unsigned ifindex, size_t bytes, std::string* error) {
  Close();
  auto fail = [&](const char* what) {
    if (error) *error = std::string(what) + ": " + std::strerror(errno);
    Close();
    return false;
  };
  // Protocol 0: nothing arrives before the bind below, when the filter is in place.
  fd_ = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return fail("packet socket");
  int version = TPACKET_V3;
  if (setsockopt(fd_, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0) return fail("TPACKET_V3");
  if (!DropEverything(fd_)) return fail("packet filter");
  // Blocks of 1 MiB hold a hundred and more packets of any size a camera sends.
  block_size_ = size_t(1) << 20;
  blocks_ = bytes / block_size_ < 4 ? 4 : bytes / block_size_;
  constexpr unsigned kFrame = 2048;
  tpacket_req3 req{};
  req.tp_block_size = static_cast<unsigned>(block_size_);
  req.tp_block_nr = static_cast<unsigned>(blocks_);
  req.tp_frame_size = kFrame;
  req.tp_frame_nr = static_cast<unsigned>(blocks_ * (block_size_ / kFrame));
  req.tp_retire_blk_tov = 1;  // ms: the tail of an image waits no longer than this
  if (setsockopt(fd_, SOL_PACKET, PACKET_RX_RING, &req, sizeof req) != 0) return fail("packet ring");
  void* m = mmap(nullptr, block_size_ * blocks_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd_, 0);
  if (m == MAP_FAILED) return fail("packet ring mmap");
  map_ = static_cast<uint8_t*>(m);
  current_ = 0;
  frame_ = nullptr;
  left_ = 0;
  sockaddr_ll a{};
  a.sll_family = AF_PACKET;
  a.sll_protocol = htons(ETH_P_IP);
  a.sll_ifindex = static_cast<int>(ifindex);
  if (bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return fail("packet socket bind");
  return true;
}

void PacketRing::Close() {
  if (map_) munmap(map_, block_size_ * blocks_);
  map_ = nullptr;
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  frame_ = nullptr;
  left_ = 0;
}

bool PacketRing::Filter(uint32_t ip, uint16_t port) {
  // The packet as the IP layer gets it: header length in the low nibble of byte 0.
  enum { kDrop = 15 };
  auto to_drop = [](int at) { return static_cast<uint8_t>(kDrop - at - 1); };
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, uint32_t(SKF_AD_OFF + SKF_AD_PKTTYPE)),  // 0
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, to_drop(1), 0),        // 1
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 0),                                        // 2
      BPF_STMT(BPF_ALU | BPF_AND | BPF_K, 0xF0),                                    // 3
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x40, 0, to_drop(4)),                     // 4: IPv4
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9),                                        // 5
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, to_drop(6)),              // 6
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 6),                                        // 7
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x1FFF, to_drop(8), 0),                  // 8: a later fragment has no port
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 16),                                       // 9
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ip, 0, to_drop(10)),                      // 10
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),                                       // 11: X = header length
      BPF_STMT(BPF_LD | BPF_H | BPF_IND, 2),                                        // 12: destination port
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, port, 0, to_drop(13)),                    // 13
      BPF_STMT(BPF_RET | BPF_K, 0x40000),                                           // 14: the whole frame
      BPF_STMT(BPF_RET | BPF_K, 0),                                                 // 15
  };
  static_assert(sizeof code / sizeof code[0] == kDrop + 1, "the drop is the last instruction");
  return AttachFilter(fd_, code, sizeof code / sizeof code[0]);
}

namespace {
tpacket_block_desc* BlockAt(uint8_t* map, size_t block_size, size_t i) {
  return reinterpret_cast<tpacket_block_desc*>(map + i * block_size);
}
bool Ours(tpacket_block_desc* b) { return __atomic_load_n(&b->hdr.bh1.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER; }
}  // namespace

bool PacketRing::Wait(int timeout_ms, const Waker* waker) {
  if (frame_ || Ours(BlockAt(map_, block_size_, current_))) return true;
  return PollIn(fd_, timeout_ms, waker) > 0 && Ours(BlockAt(map_, block_size_, current_));
}

bool PacketRing::Next(Frame* f) {
  tpacket_block_desc* b = BlockAt(map_, block_size_, current_);
  if (!frame_) {
    if (!Ours(b)) return false;
    left_ = b->hdr.bh1.num_pkts;
    frame_ = reinterpret_cast<uint8_t*>(b) + b->hdr.bh1.offset_to_first_pkt;
  }
  if (left_ == 0) {
    __atomic_store_n(&b->hdr.bh1.block_status, uint32_t(TP_STATUS_KERNEL), __ATOMIC_RELEASE);
    current_ = (current_ + 1) % blocks_;
    frame_ = nullptr;
    return false;
  }
  const auto* h = reinterpret_cast<const tpacket3_hdr*>(frame_);
  const auto* ll = reinterpret_cast<const sockaddr_ll*>(frame_ + TPACKET_ALIGN(sizeof(tpacket3_hdr)));
  f->data = frame_ + h->tp_net;
  f->size = h->tp_snaplen;
  f->truncated = h->tp_snaplen < h->tp_len;
  f->outgoing = ll->sll_pkttype == PACKET_OUTGOING;
  f->checksum_known = (h->tp_status & (TP_STATUS_CSUM_VALID | TP_STATUS_CSUMNOTREADY)) != 0;
  frame_ += h->tp_next_offset;
  --left_;
  return true;
}

}  // namespace kivgev
