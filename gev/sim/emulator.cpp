#include "emulator.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "device.h"
#include "net.h"
#include "pixfmt.h"
#include "wire.h"

namespace kivgev {

namespace {

constexpr uint32_t kCapabilities = 0x80000000 | 0x40000000 | kCapHeartbeatDisable | 0x10000000 | kCapPrimaryApp |
                                   kCapPendingAck | kCapPacketResend | kCapWriteMem | kCapConcatenation;
constexpr size_t kHistory = 64;  // blocks a resend can still reach
constexpr size_t kPaceBatch = 16;  // packets sent back to back between two waits
constexpr size_t kArrivalsKept = 4096;

// What a block needs to be sent again, packet by packet.
struct Block {
  uint64_t block_id = 0;
  uint64_t frame = 0;
  uint64_t timestamp = 0;
  kivsim::FrameGeometry g;
  std::shared_ptr<const kivsim::PatternImage> pattern;
  uint32_t data_size = 0;  // image bytes per payload packet
  uint32_t payload_packets = 0;
  bool extended = false;
  uint32_t dest_ip = 0;
  uint16_t dest_port = 0;
  uint32_t lose_first = 1, lose_last = 0;  // lost for good (resends too)
};

uint16_t FromGcError(GC_ERROR e) {
  switch (e) {
    case GC_ERR_SUCCESS: return kStatusSuccess;
    case GC_ERR_INVALID_ADDRESS: return kStatusInvalidAddress;
    case GC_ERR_ACCESS_DENIED: return kStatusWriteProtect;
    case GC_ERR_INVALID_VALUE:
    case GC_ERR_INVALID_PARAMETER: return kStatusInvalidParameter;
    default: return kStatusError;
  }
}

}  // namespace

kivsim::CameraConfig DefaultEmulatedCamera(size_t index) {
  static const kivsim::World world = kivsim::DefaultWorld(kivsim::Transport::GigE);
  kivsim::CameraConfig c = world.cameras[index % world.cameras.size()];
  // MACs of their own (00:A0:B7:01:..), so that no emulated camera is taken for a virtual one.
  c.uid = 0x00A0B7010001ULL + index;
  if (index >= world.cameras.size()) {
    char serial[16];
    std::snprintf(serial, sizeof serial, "KG%05zu", 1001 + index);
    c.serial = serial;
    c.user_name = "cam" + std::to_string(index + 1);
  }
  c.interface_index = 0;
  return c;
}

struct EmulatedCamera::Impl {
  kivsim::CameraConfig cfg;
  std::unique_ptr<kivsim::VirtualDevice> model;
  std::unique_ptr<kivsim::SharedCamera> sc;  // the register space, as the virtual cameras keep it
  uint32_t ip = 0, mask = 0xFFFFFF00;
  std::string ifname;
  EmulatorOptions opt;
  EmulatorFaults faults;

  mutable std::mutex mu;
  std::condition_variable cv;
  UdpSocket gvcp, bcast, stream;
  Waker wake;
  std::thread control, sender;
  std::atomic<bool> stop{false};
  bool started = false;

  uint32_t ctrl_ip = 0;
  uint16_t ctrl_port = 0;
  uint64_t last_heard = 0;
  std::deque<Block> history;
  EmulatorStats st;
  std::mt19937_64 rng;
  bool trace = std::getenv("KIVGEV_SIM_TRACE") != nullptr;  // every command on stderr
  std::deque<uint64_t> arrivals;  // of the last kArrivalsKept commands

  uint32_t Reg(uint32_t a) const { return model->Reg32(*sc, a); }
  void SetReg(uint32_t a, uint32_t v) { model->SetReg32(*sc, a, v); }
  bool HasControl() const { return ctrl_ip != 0 || ctrl_port != 0; }
  bool IsController(uint32_t ip_, uint16_t port) const { return HasControl() && ip_ == ctrl_ip && port == ctrl_port; }

  void ControlMain();
  void SenderMain();
  void Handle(const uint8_t* p, size_t n, uint32_t from_ip, uint16_t from_port);
  void Reply(uint8_t* msg, size_t n, uint16_t req_id, uint32_t to_ip, uint16_t to_port);
  uint16_t ReadReg(uint32_t a, uint32_t from_ip, uint16_t from_port, uint32_t* v);
  uint16_t WriteReg(uint32_t a, uint32_t v, uint32_t from_ip, uint16_t from_port);
  void LoseControl();
  void CheckHeartbeat();
  void SendTestPacket(uint32_t size);
  void SendPackets(const Block& b, uint32_t first, uint32_t last, bool resend);
  void Resend(const ResendRequest& r);
  uint64_t BlockIdOf(uint64_t frame, bool extended) const { return extended ? frame + 1 : frame % 65535 + 1; }
};

EmulatedCamera::EmulatedCamera(const kivsim::CameraConfig& camera, uint32_t ip, const EmulatorOptions& options)
    : impl_(new Impl) {
  Impl& m = *impl_;
  m.cfg = camera;
  m.cfg.ip = ip;
  m.ip = ip;
  m.opt = options;
  m.rng.seed(options.seed);
  kivsim::InterfaceConfig iface;
  m.model.reset(new kivsim::VirtualDevice(kivsim::Transport::GigE, m.cfg, iface));
  m.sc.reset(new kivsim::SharedCamera);
  m.model->InitShared(*m.sc);
  m.SetReg(kRegCurrentIp, ip);
  m.SetReg(kRegGvcpCapability, kCapabilities);
  m.SetReg(0x0044, 0);               // no gateway
  m.SetReg(kRegStreamChannels, 1);   // one GVSP channel; the producers add the VSync stream themselves
  if (options.packet_size) m.SetReg(kRegScps0, options.packet_size & 0xFFFF);
  m.SetReg(kRegGvspConfig, options.extended_ids || camera.extended_ids ? kGvspExtendedIds : 0);
  if (options.fps >= 0) m.SetReg(kivsim::kRegFrameRate, static_cast<uint32_t>(options.fps * 1000.0 + 0.5));
  m.sc->packet_size_limit = options.packet_size_limit;
  if (!options.first_url.empty()) {
    std::memset(m.sc->regs + kRegFirstUrl, 0, 512);
    std::memcpy(m.sc->regs + kRegFirstUrl, options.first_url.data(), std::min<size_t>(options.first_url.size(), 511));
  }
}

EmulatedCamera::~EmulatedCamera() { Stop(); }

bool EmulatedCamera::Start(std::string* error) {
  Impl& m = *impl_;
  for (const NetInterface& n : ListInterfaces())
    if ((n.ip & n.mask) == (m.ip & n.mask) && (m.ifname.empty() || n.ip == m.ip)) {
      m.ifname = n.name;
      m.mask = n.mask;
    }
  if (m.ifname.empty()) {
    *error = "address " + IpText(m.ip) + " is on no network interface of this machine";
    return false;
  }
  m.SetReg(kRegSubnet, m.mask);
  if (!m.gvcp.Open(m.ip, kGvcpPort, error)) return false;
  // Discovery broadcasts reach a socket bound to the broadcast address; tied
  // to the camera's interface where the system allows, so that a broadcast
  // on another link stays unanswered.
  if (!m.bcast.Open(0xFFFFFFFF, kGvcpPort, error, true)) {
    m.gvcp.Close();
    return false;
  }
  m.bcast.BindToDevice(m.ifname);
  if (!m.stream.Open(m.ip, 0, error)) return false;
  m.stream.SetSendBuffer(8 << 20);
  m.stream.SetMulticastInterface(m.ip);
  m.SetReg(kRegScsp0, m.stream.port());
  m.stop = false;
  m.control = std::thread([&m] { m.ControlMain(); });
  m.sender = std::thread([&m] { m.SenderMain(); });
  m.started = true;
  return true;
}

void EmulatedCamera::Stop() {
  Impl& m = *impl_;
  if (!m.started) return;
  {
    std::lock_guard<std::mutex> l(m.mu);
    m.stop = true;
  }
  m.cv.notify_all();
  m.wake.Wake();
  m.control.join();
  m.sender.join();
  m.gvcp.Close();
  m.bcast.Close();
  m.stream.Close();
  m.started = false;
}

uint32_t EmulatedCamera::ip() const { return impl_->ip; }
uint64_t EmulatedCamera::mac() const { return impl_->cfg.uid & 0xFFFFFFFFFFFFULL; }
EmulatorFaults& EmulatedCamera::faults() { return impl_->faults; }

std::string EmulatedCamera::Describe() const {
  char text[32];
  const uint64_t a = mac();
  std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", unsigned(a >> 40) & 0xFF, unsigned(a >> 32) & 0xFF,
                unsigned(a >> 24) & 0xFF, unsigned(a >> 16) & 0xFF, unsigned(a >> 8) & 0xFF, unsigned(a) & 0xFF);
  return impl_->cfg.vendor + " " + impl_->cfg.model + " (" + impl_->cfg.serial + ") at " + IpText(impl_->ip) +
          " on " + impl_->ifname + ", MAC " + text;
}

EmulatorStats EmulatedCamera::stats() const {
  std::lock_guard<std::mutex> l(impl_->mu);
  return impl_->st;
}

uint32_t EmulatedCamera::ReadRegister(uint32_t address) const {
  std::lock_guard<std::mutex> l(impl_->mu);
  return impl_->Reg(address);
}

std::vector<uint64_t> EmulatedCamera::CommandTimes() const {
  std::lock_guard<std::mutex> l(impl_->mu);
  return std::vector<uint64_t>(impl_->arrivals.begin(), impl_->arrivals.end());
}

uint64_t EmulatedCamera::frames() const {
  std::lock_guard<std::mutex> l(impl_->mu);
  return impl_->sc->frames;
}

// ---------------------------------------------------------------- control

void EmulatedCamera::Impl::ControlMain() {
  std::vector<uint8_t> buf(2048);
  while (!stop) {
    for (UdpSocket* s : {&gvcp, &bcast}) {
      uint32_t from_ip = 0;
      uint16_t from_port = 0;
      // Poll one socket briefly, then the other: commands are rare and small.
      long n = s->Receive(buf.data(), buf.size(), s == &gvcp ? 10 : 0, &from_ip, &from_port, &wake);
      if (n >= 0) Handle(buf.data(), static_cast<size_t>(n), from_ip, from_port);
    }
    std::lock_guard<std::mutex> l(mu);
    CheckHeartbeat();
  }
}

void EmulatedCamera::Impl::CheckHeartbeat() {
  if (!HasControl() || (Reg(kRegGvcpConfig) & kCfgHeartbeatDisable)) return;
  const uint64_t timeout_ns = uint64_t(Reg(kRegHeartbeatTimeout)) * 1000000ULL;
  if (NowNs() - last_heard > timeout_ns) {
    LoseControl();
    st.heartbeat_losses++;
  }
}

void EmulatedCamera::Impl::LoseControl() {
  // The privilege lapses and the stream channel closes with it.
  ctrl_ip = 0;
  ctrl_port = 0;
  SetReg(kRegCcp, 0);
  SetReg(kRegPrimaryPort, 0);
  SetReg(kRegPrimaryIp, 0);
  SetReg(kRegScp0, 0);
  cv.notify_all();
}

void EmulatedCamera::Impl::Reply(uint8_t* msg, size_t n, uint16_t req_id, uint32_t to_ip, uint16_t to_port) {
  if (faults.stale_acks > 0) {
    faults.stale_acks--;
    Put16(msg + 6, static_cast<uint16_t>(req_id - 1));
    gvcp.SendTo(to_ip, to_port, msg, n);
    Put16(msg + 6, req_id);
  }
  gvcp.SendTo(to_ip, to_port, msg, n);
}

uint16_t EmulatedCamera::Impl::ReadReg(uint32_t a, uint32_t from_ip, uint16_t from_port, uint32_t* v) {
  if (a % 4) return kStatusBadAlignment;
  if ((Reg(kRegCcp) & kCcpExclusive) && !IsController(from_ip, from_port)) return kStatusAccessDenied;
  uint8_t b[4];
  std::string why;
  GC_ERROR e = model->Read(*sc, a, b, 4, &why);
  if (e != GC_ERR_SUCCESS) return FromGcError(e);
  *v = Get32(b);
  return kStatusSuccess;
}

uint16_t EmulatedCamera::Impl::WriteReg(uint32_t a, uint32_t v, uint32_t from_ip, uint16_t from_port) {
  if (a % 4) return kStatusBadAlignment;
  if (a == kRegCcp) {
    if (HasControl() && !IsController(from_ip, from_port)) return kStatusAccessDenied;
    if ((v & (kCcpExclusive | kCcpControl)) == 0) {
      LoseControl();
      return kStatusSuccess;
    }
    ctrl_ip = from_ip;
    ctrl_port = from_port;
    last_heard = NowNs();
    SetReg(kRegCcp, v & 0x7);
    SetReg(kRegPrimaryPort, from_port);
    SetReg(kRegPrimaryIp, from_ip);
    return kStatusSuccess;
  }
  if (!IsController(from_ip, from_port)) return kStatusAccessDenied;
  if (a == kRegScps0) {
    const uint32_t size = v & 0xFFFF;
    if (size < 576 || size > cfg.packet_size_max) return kStatusInvalidParameter;
    stream.SetDontFragment((v & kScpsDontFragment) != 0);
    if (v & kScpsFireTest) SendTestPacket(size);
    v &= ~kScpsFireTest;  // the fire bit does not stay set
  }
  uint8_t b[4];
  Put32(b, v);
  std::string why;
  GC_ERROR e = model->Write(*sc, a, b, 4, &why);
  if (e != GC_ERR_SUCCESS) return FromGcError(e);
  cv.notify_all();
  return kStatusSuccess;
}

void EmulatedCamera::Impl::SendTestPacket(uint32_t size) {
  const uint32_t port = Reg(kRegScp0) & 0xFFFF, dest = Reg(kRegScda0);
  if (!port || !dest || size < kIpUdpOverhead + kGvspHeader) return;
  st.test_packets++;
  // A path that carries smaller datagrams drops it (it may not be fragmented).
  if (sc->packet_size_limit && size > sc->packet_size_limit) return;
  std::vector<uint8_t> p(size - kIpUdpOverhead, 0);
  PutGvspHeader(p.data(), false, 0, 0, 0, kFormatPayload, 0);
  stream.SendTo(dest, static_cast<uint16_t>(port), p.data(), p.size());
}

void EmulatedCamera::Impl::Handle(const uint8_t* p, size_t n, uint32_t from_ip, uint16_t from_port) {
  GvcpCommand c;
  std::unique_lock<std::mutex> l(mu);
  if (!ParseCommand(p, n, &c)) {
    st.bad_commands++;
    return;
  }
  if (faults.silent > 0) {
    faults.silent--;  // lost on the way: neither answered nor heard
    return;
  }
  st.commands++;
  arrivals.push_back(NowNs());
  if (arrivals.size() > kArrivalsKept) arrivals.pop_front();
  if (trace) {
    std::fprintf(stderr, "kivgev-sim %s: command 0x%04X id %u from %s:%u,", IpText(ip).c_str(), c.code, c.req_id,
                 IpText(from_ip).c_str(), from_port);
    for (size_t i = 0; i + 4 <= c.length && i < 16; i += 4) std::fprintf(stderr, " %08X", Get32(c.payload + i));
    std::fprintf(stderr, "\n");
  }
  if (IsController(from_ip, from_port)) last_heard = NowNs();
  if (c.code == kPacketResendCmd) {
    ResendRequest r;
    if (ParseResend(c, &r)) Resend(r);
    else st.bad_commands++;
    return;
  }
  uint8_t out[kGvcpHeader + kGvcpMaxPayload + 8];
  uint8_t* q = out + kGvcpHeader;
  uint16_t status = kStatusSuccess;
  size_t len = 0;
  const uint16_t ack = static_cast<uint16_t>(c.code + 1);
  const bool memory_or_register = c.code >= kReadRegCmd && c.code <= kWriteMemCmd;
  if (memory_or_register && faults.nack > 0) {
    faults.nack--;
    const bool write = c.code == kWriteRegCmd || c.code == kWriteMemCmd;
    if (write) Put32(q, 0), len = 4;
    PutAck(out, faults.nack_status, ack, static_cast<uint16_t>(len), c.req_id);
    if (c.flags & kFlagAckRequired) Reply(out, kGvcpHeader + len, c.req_id, from_ip, from_port);
    return;
  }
  if (memory_or_register && faults.pending > 0) {
    faults.pending--;
    const uint32_t ms = faults.pending_ms;
    if (Reg(kRegGvcpConfig) & kCfgPendingAck) {
      uint8_t pend[kGvcpHeader + 4];
      PutAck(pend, kStatusSuccess, kPendingAck, 4, c.req_id);
      Put16(pend + 8, 0);
      Put16(pend + 10, static_cast<uint16_t>(ms + 200));
      gvcp.SendTo(from_ip, from_port, pend, sizeof pend);
    }
    // A slow command: the camera works on it before it answers.
    l.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    l.lock();
  }
  switch (c.code) {
    case kDiscoveryCmd:
      st.discoveries++;
      std::memcpy(q, sc->regs, kDiscoveryAckSize);
      len = kDiscoveryAckSize;
      break;
    case kReadRegCmd: {
      const size_t count = c.length / 4;
      if (count == 0 || c.length % 4 || count > kMaxReadRegs) {
        status = kStatusInvalidParameter;
        break;
      }
      for (size_t i = 0; i < count && status == kStatusSuccess; ++i) {
        uint32_t v = 0;
        status = ReadReg(Get32(c.payload + 4 * i), from_ip, from_port, &v);
        if (status == kStatusSuccess) Put32(q + len, v), len += 4;
      }
      break;
    }
    case kWriteRegCmd: {
      const size_t count = c.length / 8;
      if (count == 0 || c.length % 8 || count > kMaxWriteRegs) {
        status = kStatusInvalidParameter;
        Put32(q, 0);
        len = 4;
        break;
      }
      size_t i = 0;
      for (; i < count && status == kStatusSuccess; ++i) {
        status = WriteReg(Get32(c.payload + 8 * i), Get32(c.payload + 8 * i + 4), from_ip, from_port);
        if (status != kStatusSuccess) break;
      }
      Put16(q, 0);
      Put16(q + 2, static_cast<uint16_t>(i));
      len = 4;
      break;
    }
    case kReadMemCmd: {
      if (c.length < 8) {
        status = kStatusInvalidParameter;
        break;
      }
      const uint32_t a = Get32(c.payload), count = Get16(c.payload + 6);
      if (a % 4 || count % 4) {
        status = kStatusBadAlignment;
      } else if (count == 0 || count > kMemChunk) {
        status = kStatusInvalidParameter;
      } else if ((Reg(kRegCcp) & kCcpExclusive) && !IsController(from_ip, from_port)) {
        status = kStatusAccessDenied;
      } else {
        std::string why;
        status = FromGcError(model->Read(*sc, a, q + 4, count, &why));
        Put32(q, a);
        if (status == kStatusSuccess) len = 4 + count;
      }
      break;
    }
    case kWriteMemCmd: {
      if (c.length < 8 || (c.length - 4) > kMemChunk) {
        status = kStatusInvalidParameter;
      } else {
        const uint32_t a = Get32(c.payload);
        const size_t count = c.length - 4;
        size_t done = 0;
        if (a % 4 || count % 4) status = kStatusBadAlignment;
        for (; status == kStatusSuccess && done < count; done += 4)
          status = WriteReg(a + uint32_t(done), Get32(c.payload + 4 + done), from_ip, from_port);
        if (status != kStatusSuccess && done >= 4) done -= 4;
        Put16(q, 0);
        Put16(q + 2, static_cast<uint16_t>(done));
      }
      len = 4;
      break;
    }
    default:
      status = kStatusNotImplemented;
      break;
  }
  PutAck(out, status, ack, static_cast<uint16_t>(len), c.req_id);
  // Discovery is answered whatever the flags say, as cameras do.
  if ((c.flags & kFlagAckRequired) || c.code == kDiscoveryCmd) Reply(out, kGvcpHeader + len, c.req_id, from_ip, from_port);
}

// ---------------------------------------------------------------- streaming

void EmulatedCamera::Impl::SenderMain() {
  uint64_t next_tick = 0;
  for (;;) {
    Block b;
    {
      std::unique_lock<std::mutex> l(mu);
      for (;;) {
        if (stop) return;
        const bool open = (Reg(kRegScp0) & 0xFFFF) && Reg(kRegScda0) && HasControl();
        uint64_t deadline = 0;
        if (open && sc->acquiring) {
          const bool triggered = Reg(kivsim::kRegTriggerMode) == 1;
          const double fps = Reg(kivsim::kRegFrameRate) / 1000.0;
          if (triggered) {
            if (sc->credits > 0) {
              sc->credits--;
              break;
            }
          } else if (fps <= 0) {
            break;
          } else {
            const uint64_t now = NowNs(), period = static_cast<uint64_t>(1e9 / fps);
            if (next_tick == 0) next_tick = now;
            if (now >= next_tick) {
              next_tick = std::max(next_tick + period, now);
              break;
            }
            deadline = next_tick;
          }
        } else {
          next_tick = 0;
        }
        if (deadline)
          cv.wait_for(l, std::chrono::nanoseconds(deadline - NowNs()));
        else
          cv.wait(l);
      }
      b.frame = sc->frames++;
      b.g = model->Geometry(*sc);
      b.pattern = kivsim::GetPattern(b.g.pixel_format, b.g.width, b.g.height);
      b.extended = (Reg(kRegGvspConfig) & kGvspExtendedIds) != 0;
      b.block_id = BlockIdOf(b.frame, b.extended);
      b.timestamp = WallNs();
      b.data_size = static_cast<uint32_t>(PacketData(Reg(kRegScps0) & 0xFFFF, b.extended));
      if (b.data_size == 0 || !b.pattern) continue;
      b.payload_packets = static_cast<uint32_t>((b.g.payload + b.data_size - 1) / b.data_size);
      b.dest_ip = Reg(kRegScda0);
      b.dest_port = static_cast<uint16_t>(Reg(kRegScp0));
      if (faults.lose_blocks > 0) {
        faults.lose_blocks--;
        b.lose_first = faults.lose_first;
        b.lose_last = faults.lose_last;
      }
      history.push_back(b);
      if (history.size() > kHistory) history.pop_front();
      st.frames++;
    }
    SendPackets(b, 0, b.payload_packets + 1, false);
  }
}

void EmulatedCamera::Impl::SendPackets(const Block& b, uint32_t first, uint32_t last, bool resend) {
  const uint32_t count = last - first + 1;
  const size_t hsize = GvspHeaderSize(b.extended);
  std::vector<uint8_t> heads(size_t(count) * (hsize + kImageLeaderSize));
  std::vector<UdpSocket::Datagram> out;
  out.reserve(count);
  const uint8_t* image = b.pattern->frame(b.frame);
  uint64_t dropped = 0;
  std::uniform_real_distribution<double> coin(0.0, 1.0);
  std::unique_lock<std::mutex> l(mu);  // the random source and the counters
  for (uint32_t id = first; id <= last; ++id) {
    uint8_t* h = heads.data() + size_t(id - first) * (hsize + kImageLeaderSize);
    UdpSocket::Datagram d{h, 0, nullptr, 0};
    uint8_t format = id == 0 ? kFormatLeader : id == b.payload_packets + 1 ? kFormatTrailer : kFormatPayload;
    const uint16_t status = resend && !b.extended ? kStatusPacketResend : kStatusSuccess;
    d.head_size = PutGvspHeader(h, b.extended, status, resend ? kGvspFlagResend : 0, b.block_id, format, id);
    if (format == kFormatLeader) {
      ImageLeader lead;
      lead.timestamp = b.timestamp;
      lead.pixel_format = b.g.pixel_format;
      lead.width = b.g.width;
      lead.height = b.g.height;
      lead.offset_x = b.g.offset_x;
      lead.offset_y = b.g.offset_y;
      d.head_size += PutImageLeader(h + d.head_size, lead);
    } else if (format == kFormatTrailer) {
      ImageTrailer t;
      t.height = b.g.height;
      d.head_size += PutImageTrailer(h + d.head_size, t);
    } else {
      const size_t at = size_t(id - 1) * b.data_size;
      d.body = image + at;
      d.body_size = std::min<size_t>(b.data_size, b.g.payload - at);
    }
    const bool lost_for_good = id >= b.lose_first && id <= b.lose_last;
    const bool lost = lost_for_good || (!resend && opt.loss > 0 && coin(rng) < opt.loss) ||
                      (sc->packet_size_limit && d.head_size + d.body_size + kIpUdpOverhead > sc->packet_size_limit);
    if (lost) {
      dropped++;
      continue;
    }
    out.push_back(d);
    // Reordering: this packet swaps places with the one before it.
    if (!resend && opt.reorder > 0 && out.size() >= 2 && coin(rng) < opt.reorder)
      std::swap(out[out.size() - 1], out[out.size() - 2]);
  }
  l.unlock();
  if (trace && !resend)
    std::fprintf(stderr, "kivgev-sim %s: block %llu to %s:%u, %zu packets\n", IpText(ip).c_str(),
                 static_cast<unsigned long long>(b.block_id), IpText(b.dest_ip).c_str(), b.dest_port, out.size());
  unsigned sent = 0;
  // A camera's link carries the block at its own speed, not in one burst.
  const double ns_per_byte = 8000.0 / (opt.link_mbps > 0 ? opt.link_mbps : 1000.0);
  uint64_t due = NowNs();
  for (size_t at = 0; at < out.size(); at += kPaceBatch) {
    const unsigned k = static_cast<unsigned>(std::min(out.size() - at, kPaceBatch));
    size_t bytes = 0;
    for (unsigned i = 0; i < k; ++i) bytes += out[at + i].head_size + out[at + i].body_size + kIpUdpOverhead + 18;
    sent += stream.SendMany(b.dest_ip, b.dest_port, out.data() + at, k);
    due += static_cast<uint64_t>(bytes * ns_per_byte);
    const uint64_t now = NowNs();
    if (due > now + 20000) std::this_thread::sleep_for(std::chrono::nanoseconds(due - now));
  }
  l.lock();
  st.packets_dropped += dropped;
  if (resend) st.packets_resent += sent;
  st.packets_sent += sent;
}

void EmulatedCamera::Impl::Resend(const ResendRequest& r) {
  st.resend_requests++;
  const Block* found = nullptr;
  for (const Block& b : history)
    if (b.extended == r.extended && (r.extended ? b.block_id == r.block_id : (b.block_id & 0xFFFF) == r.block_id))
      found = &b;
  if (!found || r.first > found->payload_packets + 1 || r.last < r.first) {
    // Gone or never sent: say so with a status packet of the first requested ID.
    uint8_t h[kGvspHeaderExt];
    size_t n = PutGvspHeader(h, r.extended, kStatusPacketUnavailable, 0, r.block_id, kFormatPayload, r.first);
    const uint32_t port = Reg(kRegScp0) & 0xFFFF, dest = Reg(kRegScda0);
    if (port && dest) stream.SendTo(dest, static_cast<uint16_t>(port), h, n);
    return;
  }
  const Block b = *found;
  const uint32_t last = std::min(r.last, b.payload_packets + 1);
  mu.unlock();
  SendPackets(b, r.first, last, true);
  mu.lock();
}

}  // namespace kivgev
