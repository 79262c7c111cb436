#include "receiver.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>

#include "producer.h"

namespace kivgev {

namespace {
constexpr uint32_t kTransferError = 0xC0000001u;  // the block came incomplete
constexpr uint32_t kBufferTooSmall = 0xC0000010u;
constexpr size_t kInfoFields = 540, kInfoHeader = 544;
constexpr uint32_t kMaxPacketId = 1u << 22;  // more packets than any image needs
constexpr size_t kClosedKept = 64;

void PutNative32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }
void PutNative64(uint8_t* p, uint64_t v) { std::memcpy(p, &v, 8); }

// Image bytes the leader announces: whole bytes per line, padding included.
size_t LeaderPayload(const ImageLeader& l) {
  const uint64_t bits = (l.pixel_format >> 16) & 0xFF;
  const uint64_t row = (uint64_t(l.width) * bits + 7) / 8 + l.padding_x;
  return static_cast<size_t>(row * l.height + l.padding_y);
}
}  // namespace

Receiver::Receiver(Stream* s, const ReceiverConfig& cfg) : s_(s), cfg_(cfg) {
  msgs_.resize(kBatch);
  iov_.resize(kBatch * 3);
  from_.resize(kBatch);
  heads_.resize(kBatch * kGvspHeaderExt);
  spill_.resize(kBatch * kSpill);
  predicted_.resize(kBatch);
  SetPacketLayout(1500, false);
}

Receiver::~Receiver() { Stop(); }

bool Receiver::Open(const NetInterface& iface, uint32_t device_ip, std::string* error) {
  if (unicast_.valid()) return true;
  if (!unicast_.Open(iface.ip, 0, error)) return false;
  interface_ip_ = iface.ip;
  if (cfg_.path != ReceivePath::Socket) {
    // A camera with an address of this host (an emulator) sends its unicast
    // through the loopback and its multicast through its own interface: the
    // ring listens on all of them then, its filter picks the stream.
    unsigned index = (device_ip >> 24) == 127 ? 0 : iface.index;
    for (const NetInterface& n : ListInterfaces())
      if (n.ip == device_ip) index = 0;
    std::string why;
    if (ring_.Open(index, cfg_.socket_buffer, &why)) {
      // The sockets keep the ports (nothing answers "port unreachable") but take nothing.
      unicast_.TakeNothing();
      if (group_sock_.valid()) group_sock_.TakeNothing();
      FilterRing();
      return true;
    }
    if (cfg_.path == ReceivePath::Ring) {
      *error = "cannot receive through a packet ring on " + iface.name + ": " + why;
      unicast_.Close();
      return false;
    }
  }
  unicast_.SetReceiveBuffer(cfg_.socket_buffer);
  return true;
}

// The ring passes what the socket in use would get.
void Receiver::FilterRing() {
  if (!ring_.valid()) return;
  if (group_) ring_.Filter(group_, group_sock_.port());
  else ring_.Filter(interface_ip_, unicast_.port());
}

bool Receiver::JoinGroup(uint32_t group, uint16_t port, uint32_t interface_ip, std::string* error) {
  UdpSocket g;
  // Every receiver of the group binds the same port; each gets its own copy.
  if (!g.Open(group, port, error, true)) return false;
  if (!g.JoinGroup(group, interface_ip)) {
    *error = "cannot join the multicast group " + IpText(group);
    return false;
  }
  if (ring_.valid()) g.TakeNothing();
  else g.SetReceiveBuffer(cfg_.socket_buffer);
  group_sock_ = std::move(g);
  group_ = group;
  FilterRing();
  return true;
}

void Receiver::LeaveGroup() {
  group_sock_.Close();
  group_ = 0;
  FilterRing();
}

void Receiver::SetPacketLayout(uint32_t packet_size, bool extended) {
  extended_ = extended;
  header_size_ = GvspHeaderSize(extended);
  data_size_ = PacketData(packet_size, extended);
  if (data_size_ == 0) data_size_ = PacketData(1500, extended);
  scratch_.assign(kBatch * data_size_, 0);
  tmp_.assign(kBatch * (kGvspHeaderExt + data_size_ + kSpill), 0);
}

void Receiver::Start(uint32_t device_ip, bool watcher) {
  Stop();
  device_ip_ = device_ip;
  watcher_ = watcher;
  next_poll_ns_ = 0;
  stop_ = false;
  wake_.Clear();
  thread_ = std::thread([this] { Main(); });
}

void Receiver::Stop() {
  if (!thread_.joinable()) return;
  stop_ = true;
  wake_.Wake();
  thread_.join();
  // Blocks in flight give their buffers back, unfilled.
  std::lock_guard<std::mutex> l(s_->mu);
  for (Block& b : blocks_) {
    if (b.used && b.buf) {
      b.buf->state = Buffer::Input;
      s_->input.push_front(b.buf);
    }
    b.used = false;
    b.buf = nullptr;
  }
}

void Receiver::Main() {
  while (!stop_) {
    uint64_t now = NowNs();
    if (watcher_) PollDestination(now);
    bool busy = false;
    for (const Block& b : blocks_) busy |= b.used;
    if (ring_.valid()) {
      // The ring hands over whole blocks: no pause needed to batch the packets.
      ReceiveRing(busy ? 1 : 50);
      Tick(NowNs());
      continue;
    }
    const int got = Receive(busy ? 1 : 50);
    Tick(NowNs());
    // Mid-block, a short batch means the camera's packets trickle in: let a
    // few more gather in the socket rather than wake up for each one.
    if (busy && got > 0 && got < int(kBatch) && cfg_.coalesce_us) std::this_thread::sleep_for(std::chrono::microseconds(cfg_.coalesce_us));
  }
}

// A watcher learns the controller's multicast destination from the camera.
void Receiver::PollDestination(uint64_t now) {
  if (now < next_poll_ns_) return;
  next_poll_ns_ = now + 250000000ULL;
  const uint32_t regs[2] = {kRegScda0, kRegScp0};
  uint32_t v[2] = {};
  if (!s_->device->gvcp.ReadRegs(regs, v, 2).ok()) return;
  const uint16_t port = static_cast<uint16_t>(v[1]);
  if (!IsMulticast(v[0]) || !port) return;
  if (v[0] == group_ && port == group_sock_.port()) return;
  std::string err;
  LeaveGroup();
  JoinGroup(v[0], port, s_->device->iface->net.ip, &err);
}

size_t Receiver::SlotLimit(const Block& b) const { return b.buf ? b.limit : 0; }

void Receiver::Predict(unsigned count) {
  // Aim each message's data at the slot of the next packet the newest block still lacks.
  Block* cur = nullptr;
  for (Block& b : blocks_)
    if (b.used && b.buf && b.block_id == newest_) cur = &b;
  predicted_block_ = cur ? cur->block_id : 0;
  uint32_t next = cur ? cur->highest + 1 : 0;
  const size_t limit = cur ? SlotLimit(*cur) : 0;
  for (unsigned j = 0; j < count; ++j) {
    iovec* v = &iov_[3 * j];
    v[0] = {heads_.data() + j * kGvspHeaderExt, header_size_};
    v[2] = {spill_.data() + j * kSpill, kSpill};
    predicted_[j] = 0;
    v[1] = {scratch_.data() + j * data_size_, data_size_};
    if (cur) {
      while (next < cur->got.size() && cur->got[next]) ++next;
      const size_t off = size_t(next - 1) * data_size_;
      const bool in_image = next >= 1 && (cur->payload_packets == 0 || next <= cur->payload_packets);
      if (in_image && off + data_size_ <= limit) {
        v[1] = {cur->buf->base + off, data_size_};
        predicted_[j] = next++;
      }
    }
    mmsghdr& m = msgs_[j];
    m = {};
    m.msg_hdr.msg_name = &from_[j];
    m.msg_hdr.msg_namelen = sizeof(sockaddr_storage);
    m.msg_hdr.msg_iov = v;
    m.msg_hdr.msg_iovlen = 3;
  }
}

int Receiver::Receive(int timeout_ms) {
  UdpSocket& sock = group_ ? group_sock_ : unicast_;
  if (!sock.valid()) {
    sock.Wait(timeout_ms, &wake_);
    return 0;
  }
  Predict(kBatch);
  const int k = sock.ReceiveMany(msgs_.data(), kBatch, timeout_ms, &wake_);
  if (k <= 0) return 0;
  // First every misplaced datagram is taken out whole, so that no later copy
  // can overwrite one still waiting in a slot it was not meant for.
  bool fast[kBatch];
  GvspPacket pk[kBatch];
  uint32_t from[kBatch];
  for (int j = 0; j < k; ++j) {
    const size_t len = msgs_[j].msg_len;
    const auto* sa = reinterpret_cast<const sockaddr_in*>(&from_[j]);
    from[j] = ntohl(sa->sin_addr.s_addr);
    const iovec* v = &iov_[3 * j];
    fast[j] = false;
    if (msgs_[j].msg_hdr.msg_flags & MSG_TRUNC) {
      pk[j].format = 0xFF;  // larger than any packet of this channel
      continue;
    }
    if (len >= header_size_ && predicted_[j] && ParseGvsp(heads_.data() + j * kGvspHeaderExt, header_size_, &pk[j]) &&
        pk[j].extended == extended_ && pk[j].format == kFormatPayload && pk[j].block_id == predicted_block_ &&
        pk[j].packet_id == predicted_[j] && len - header_size_ <= v[1].iov_len) {
      fast[j] = true;
      pk[j].data = static_cast<const uint8_t*>(v[1].iov_base);
      pk[j].size = len - header_size_;
      continue;
    }
    uint8_t* t = tmp_.data() + size_t(j) * (kGvspHeaderExt + data_size_ + kSpill);
    size_t at = 0, left = len;
    for (int i = 0; i < 3 && left; ++i) {
      const size_t n = std::min(left, v[i].iov_len);
      std::memcpy(t + at, v[i].iov_base, n);
      at += n;
      left -= n;
    }
    if (!ParseGvsp(t, len, &pk[j])) pk[j].format = 0xFF;
  }
  for (int j = 0; j < k; ++j) {
    if (pk[j].format == 0xFF || from[j] != device_ip_) {
      s_->malformed++;
      continue;
    }
    Dispatch(pk[j], from[j], fast[j] ? pk[j].data : nullptr);
  }
  return k;
}

int Receiver::ReceiveRing(int timeout_ms) {
  if (!ring_.Wait(timeout_ms, &wake_)) return 0;
  int taken = 0;
  PacketRing::Frame f;
  // A few blocks at a time, so that time-outs and resends are looked at in between.
  for (int blocks = 0; blocks < 4; ++blocks) {
    int in_block = 0;
    while (ring_.Next(&f)) {
      ++in_block;
      if (f.outgoing) continue;
      Ipv4Udp u;
      GvspPacket pk;
      // What a socket read would cut short is refused the same way: larger than any packet of this channel.
      // A checksum the kernel has not looked at is checked here, as the UDP layer would.
      if (f.truncated || !ParseIpv4Udp(f.data, f.size, &u) || u.size > header_size_ + data_size_ + kSpill ||
          (!f.checksum_known && !UdpChecksumOk(u)) || !ParseGvsp(u.data, u.size, &pk) || u.src != device_ip_) {
        s_->malformed++;
        continue;
      }
      // Payload is copied once, from the ring into its place in the buffer.
      Dispatch(pk, u.src, nullptr);
    }
    if (!in_block) break;
    taken += in_block;
  }
  return taken;
}

Block* Receiver::Find(uint64_t block_id) {
  for (Block& b : blocks_)
    if (b.used && b.block_id == block_id) return &b;
  return nullptr;
}

bool Receiver::Stale(uint64_t id) const {
  if (std::find(closed_.begin(), closed_.end(), id) != closed_.end()) return true;
  if (!any_) return false;
  // Older than the newest block: 16-bit IDs wrap from 65535 to 1.
  if (extended_) return id < newest_;
  const uint64_t back = (newest_ + 65535 - id) % 65535;
  return back != 0 && back < 32768;
}

void Receiver::Remember(uint64_t id) {
  closed_.push_back(id);
  if (closed_.size() > kClosedKept) closed_.erase(closed_.begin());
}

Block* Receiver::Begin(uint64_t id) {
  Buffer* buf = nullptr;
  uint32_t expected = 0, info = 0;
  {
    std::lock_guard<std::mutex> l(s_->mu);
    const bool running = s_->started && s_->Running();
    if (running && !s_->input.empty()) {
      buf = s_->input.front();
      s_->input.pop_front();
      buf->state = Buffer::Filling;
    } else if (running) {
      s_->underruns++;
    }
    expected = s_->Reg(0x106);
    info = s_->Reg(0x105);
  }
  if (!any_ || !Stale(id)) newest_ = id;
  any_ = true;
  if (!buf) {
    Remember(id);  // its packets are not wanted
    return nullptr;
  }
  Block* slot = nullptr;
  for (Block& b : blocks_)
    if (!b.used) slot = &b;
  if (!slot) {
    // Too many blocks in flight: the oldest goes as it is.
    Block* oldest = &blocks_[0];
    for (Block& b : blocks_)
      if (b.last_packet_ns < oldest->last_packet_ns) oldest = &b;
    Finish(*oldest, false);
    slot = oldest;
  }
  Block& b = *slot;
  b = Block();
  b.used = true;
  b.block_id = id;
  b.buf = buf;
  b.payload_packets = expected;
  // Image data stops where the packet information block starts.
  b.limit = info ? std::min<size_t>(buf->size, info) : buf->size;
  b.got.assign(expected ? expected + 2 : 64, 0);
  b.last_packet_ns = NowNs();
  return &b;
}

void Receiver::Dispatch(const GvspPacket& pk, uint32_t /*from*/, const uint8_t* placed_at) {
  if (pk.status & 0x8000) {
    // The camera cannot resend: stop asking for that block.
    if (Block* b = Find(pk.block_id)) b->refused = true;
    return;
  }
  Block* b = Find(pk.block_id);
  if (!b) {
    if (Stale(pk.block_id)) {
      s_->stale++;
      return;
    }
    b = Begin(pk.block_id);
    if (!b) return;
  }
  const uint32_t id = pk.packet_id;
  if (id >= kMaxPacketId) {
    s_->malformed++;
    return;
  }
  if (id >= b->got.size()) b->got.resize(id + 64, 0);
  if (b->got[id]) {
    s_->stale++;  // a duplicate
    return;
  }
  b->got[id] = 1;
  b->last_packet_ns = NowNs();
  b->highest = std::max(b->highest, id);
  if (pk.status == kStatusPacketResend || (pk.flags & kGvspFlagResend)) b->resent++;
  switch (pk.format) {
    case kFormatLeader:
      if (ParseImageLeader(pk, &b->lead)) {
        b->leader = true;
        if (!b->payload_packets && data_size_) {
          const size_t payload = LeaderPayload(b->lead);
          b->payload_packets = static_cast<uint32_t>((payload + data_size_ - 1) / data_size_);
        }
      }
      break;
    case kFormatTrailer:
      b->trailer = true;
      if (id >= 1) b->payload_packets = id - 1;
      break;
    case kFormatPayload: {
      if (id == 0) break;
      b->received++;
      const size_t off = size_t(id - 1) * data_size_;
      if (placed_at) {
        s_->zero_copy++;
      } else if (off + pk.size <= SlotLimit(*b) && pk.size <= data_size_) {
        std::memcpy(b->buf->base + off, pk.data, pk.size);
        if (ring_.valid()) s_->zero_copy++;  // the ring's copy is the only one
      } else {
        b->too_small = true;
      }
      if (pk.size < data_size_ || id == b->payload_packets) {
        b->last_size = pk.size;
        if (!b->payload_packets) b->payload_packets = id;  // a short packet is the last one
      }
      break;
    }
    default:
      break;
  }
  if (b->payload_packets && b->received >= b->payload_packets) {
    bool all = true;
    for (uint32_t i = 1; all && i <= b->payload_packets; ++i) all = i < b->got.size() && b->got[i];
    if (all) Finish(*b, true);
  }
}

void Receiver::Ask(Block& b, uint32_t first, uint32_t last) {
  ResendRequest r;
  r.block_id = b.block_id;
  r.first = first;
  r.last = last;
  r.extended = extended_;
  uint8_t msg[kGvcpHeader + 20];
  static std::atomic<uint16_t> next_id{1};
  uint16_t id = next_id++;
  if (id == 0) id = next_id++;
  const size_t n = PutResend(msg, id, r);
  // Sent from the stream socket, as cameras expect; no acknowledge comes back.
  unicast_.SendTo(device_ip_, kGvcpPort, msg, n);
  s_->resend_requests++;
}

void Receiver::Tick(uint64_t now) {
  const bool lost = s_->device->lost;
  const uint64_t packet_ns = uint64_t(cfg_.packet_timeout_ms) * 1000000ULL;
  for (Block& b : blocks_) {
    if (!b.used) continue;
    if (lost || now - b.last_packet_ns > uint64_t(cfg_.frame_timeout_ms) * 1000000ULL) {
      Finish(b, false);
      continue;
    }
    if (b.refused || b.rounds >= cfg_.max_rounds || now < b.ask_at_ns) continue;
    // Gaps below the highest packet seen: reordering gets a moment first.
    bool gap = false;
    for (uint32_t i = 0; i < b.highest && !gap; ++i) gap = !b.got[i];
    if (gap) {
      if (!b.gap_since_ns) b.gap_since_ns = now;
      if (now - b.gap_since_ns < uint64_t(cfg_.resend_delay_us) * 1000ULL) continue;
      for (uint32_t i = 0; i < b.highest;) {
        if (b.got[i]) {
          ++i;
          continue;
        }
        uint32_t j = i;
        while (j + 1 < b.highest && !b.got[j + 1]) ++j;
        Ask(b, i, j);
        i = j + 1;
      }
      b.rounds++;
      b.ask_at_ns = now + packet_ns;
      continue;
    }
    b.gap_since_ns = 0;
    // Nothing new for a while and the tail is missing: ask for the rest of the block.
    const uint32_t end = b.payload_packets ? b.payload_packets + 1 : 0;
    if (now - b.last_packet_ns > packet_ns && (end == 0 || b.highest < end)) {
      Ask(b, b.highest + 1, end ? end : (extended_ ? 0xFFFFFFFFu : 0xFFFFFFu));
      b.rounds++;
      b.ask_at_ns = now + packet_ns;
    }
  }
}

void Receiver::Finish(Block& b, bool complete) {
  Buffer* buf = b.buf;
  Remember(b.block_id);
  b.used = false;
  b.buf = nullptr;
  if (!buf) return;
  const uint32_t n = b.payload_packets ? b.payload_packets : b.highest;
  uint32_t received = 0;
  for (uint32_t i = 1; i <= n && i < b.got.size(); ++i) received += b.got[i];
  const uint32_t missing = n - received;
  complete = complete || (n > 0 && missing == 0);
  size_t payload = b.leader ? LeaderPayload(b.lead) : size_t(n) * data_size_;
  if (n && n < b.got.size() && b.got[n] && b.last_size) payload = size_t(n - 1) * data_size_ + b.last_size;
  bool running = false;
  {
    std::lock_guard<std::mutex> l(s_->mu);
    const uint32_t info = s_->Reg(0x105);
    buf->filled = std::min(payload, buf->size);
    buf->too_small = b.too_small || payload > buf->size;
    buf->incomplete = !complete;
    buf->status = !complete ? kTransferError : buf->too_small ? kBufferTooSmall : 0;
    buf->value = received;
    buf->frame_id = b.block_id;
    buf->timestamp = b.lead.timestamp;
    buf->width = b.lead.width;
    buf->height = b.lead.height;
    buf->offset_x = b.lead.offset_x;
    buf->offset_y = b.lead.offset_y;
    buf->pixel_format = b.lead.pixel_format;
    buf->new_data = true;
    const size_t bitmap = (size_t(n) + 7) / 8;
    if (info && size_t(info) + kInfoHeader + bitmap <= buf->size) {
      uint8_t* p = buf->base + info;
      std::memset(p, 0, kInfoHeader + bitmap);
      PutNative32(p + 0, static_cast<uint32_t>(b.block_id));
      PutNative32(p + 4, n);
      PutNative32(p + 8, received);
      PutNative32(p + 12, b.resent);
      PutNative32(p + 16, static_cast<uint32_t>(payload));
      PutNative32(p + 20, static_cast<uint32_t>(data_size_));
      PutNative64(p + 24, b.lead.timestamp);
      PutNative32(p + 32, b.lead.pixel_format);
      PutNative32(p + 36, b.lead.width);
      PutNative32(p + 40, b.lead.height);
      PutNative32(p + 44, group_ ? group_ : s_->Reg(0x104));
      PutNative32(p + kInfoFields, missing);
      for (uint32_t i = 1; i <= n; ++i)
        if (i < b.got.size() && b.got[i]) p[kInfoHeader + (i - 1) / 8] |= uint8_t(1u << ((i - 1) % 8));
    }
    uint32_t* log = s_->log;
    log[0]++;
    if (!complete) log[1]++;
    log[2] += received;
    log[3] += missing;
    log[4] += b.resent;
    log[5] = static_cast<uint32_t>(b.block_id);
    running = s_->Running();
    s_->Deliver(buf);
  }
  s_->DeliverTokens(running);
}

}  // namespace kivgev
