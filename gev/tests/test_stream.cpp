// GVSP streaming through the producer: every pixel format byte-exact, the
// packet information block, resends under loss and reordering, blocks lost
// for good, extended IDs, the VSync stream, the stream test and hostile
// datagrams; the packet ring's filter, its malformed frames, its fallback to
// the socket and the loopback's doubled packets.
#include <arpa/inet.h>
#include <linux/capability.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>

#include "fixture.h"
#include "pixfmt.h"
#include "wire.h"

using namespace gevtest;
using kivgev::EmulatorOptions;

namespace {

constexpr uint32_t kWidth = 0xA000, kHeight = 0xA004, kPixelFormat = 0xA010, kPayload = 0xA014,
                   kAcqStart = 0xA01C, kAcqStop = 0xA020, kTriggerMode = 0xA030, kTriggerSoftware = 0xA034;

class Streaming : public GevTest {
 protected:
  void StartCameras() override {
    for (size_t i = 0; i < models; ++i) AddCamera(CameraIp(0, int(i)), options, i);
  }
  size_t models = 1;
  EmulatorOptions options;

  void Open(uint32_t ip = CameraIp(0)) {
    dev = OpenAt(ip);
    ASSERT_NE(dev, nullptr);
    port = Port(dev);
    ds = Stream(dev, 0);
    ASSERT_EQ(p.GCRegisterEvent(ds, EVENT_NEW_BUFFER, &ev), GC_ERR_SUCCESS);
  }
  void Reg(uint32_t a, uint32_t v) { ASSERT_EQ(Write32(port, a, v, true), GC_ERR_SUCCESS) << std::hex << a << " " << p.LastError(); }
  uint32_t Reg(uint32_t a) { return Read32(port, a, true); }
  // Caller buffers of `size` bytes with the packet information block at `info`.
  void Announce(size_t n, size_t size, uint32_t info) {
    ASSERT_EQ(WriteModule(ds, KIVSIM_DS_GIGE_INFO_OFFSET, info), GC_ERR_SUCCESS);
    for (size_t i = 0; i < n; ++i) {
      memory.emplace_back(size, 0xEE);
      BUFFER_HANDLE b = nullptr;
      ASSERT_EQ(p.DSAnnounceBuffer(ds, memory.back().data(), size, &memory.back(), &b), GC_ERR_SUCCESS);
      ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
    }
  }
  // Buffers with the packet information block right after the image; returns its offset.
  uint32_t AnnounceWithInfo(size_t n) {
    const uint32_t info = (Reg(kPayload) + 15) / 8 * 8;
    Announce(n, info + 1024, info);
    return info;
  }
  void Start(bool triggered) {
    Reg(kTriggerMode, triggered ? 1 : 0);
    ASSERT_EQ(p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS) << p.LastError();
    ASSERT_TRUE(OnExpectedPath(ds));
    ASSERT_EQ(WriteModule(ds, KIVSIM_DS_RUNNING, 1), GC_ERR_SUCCESS);
    Reg(kAcqStart, 1);
  }
  // The next delivered buffer; null after `ms` without one.
  BUFFER_HANDLE Next(uint64_t ms = 5000, GC_ERROR* result = nullptr) {
    EVENT_NEW_BUFFER_DATA d{};
    size_t n = sizeof d;
    GC_ERROR e = p.EventGetData(ev, &d, &n, ms);
    if (result) *result = e;
    else EXPECT_EQ(e, GC_ERR_SUCCESS) << p.LastError();
    return e == GC_ERR_SUCCESS ? d.BufferHandle : nullptr;
  }
  uint8_t* Data(BUFFER_HANDLE b) { return BufferInfo<uint8_t*>(ds, b, BUFFER_INFO_BASE); }
  uint32_t Status(BUFFER_HANDLE b) { return BufferInfo<uint32_t>(ds, b, 1000); }
  // Whether the buffer holds frame (block ID - 1) of the pattern exactly.
  ::testing::AssertionResult Exact(BUFFER_HANDLE b, uint32_t format, uint32_t w, uint32_t h) {
    const uint64_t frame = BufferInfo<uint64_t>(ds, b, BUFFER_INFO_FRAMEID) - 1;
    auto pattern = kivsim::GetPattern(format, w, h);
    if (!pattern) return ::testing::AssertionFailure() << "no pattern for " << std::hex << format;
    const size_t filled = BufferInfo<size_t>(ds, b, BUFFER_INFO_SIZE_FILLED);
    if (filled != pattern->payload()) return ::testing::AssertionFailure() << "filled " << filled << " of " << pattern->payload();
    if (std::memcmp(Data(b), pattern->frame(frame), filled) != 0)
      return ::testing::AssertionFailure() << "frame " << frame << " differs from the pattern";
    return ::testing::AssertionSuccess();
  }
  // One triggered Mono8 image, whole and exact; its buffer is queued again.
  void TriggerWhole() {
    Reg(kTriggerSoftware, 1);
    BUFFER_HANDLE b = Next();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(Status(b), 0u);
    EXPECT_TRUE(Exact(b, 0x01080001, 640, 480));
    ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
  }
  uint32_t InfoWord(BUFFER_HANDLE b, uint32_t info, size_t at) {
    uint32_t v;
    std::memcpy(&v, Data(b) + info + at, 4);
    return v;
  }

  DEV_HANDLE dev = nullptr;
  PORT_HANDLE port = nullptr;
  DS_HANDLE ds = nullptr;
  EVENT_HANDLE ev = nullptr;
  std::deque<std::vector<uint8_t>> memory;
};

class EveryFormat : public Streaming {
 protected:
  EveryFormat() { models = 2; }  // the mono and the colour model offer every format between them
};

TEST_F(EveryFormat, EachOfferedPixelFormatArrivesByteExactWithAFullPacketBlock) {
  for (int k = 0; k < 2; ++k) {
    SCOPED_TRACE(k);
    memory.clear();
    Open(CameraIp(0, k));
    const uint32_t w = 64, h = 8, info = 6 * 64 * 8;
    Reg(kWidth, w);
    Reg(kHeight, h);
    Announce(2, info + 1024, info);
    Start(true);
    const kivsim::CameraConfig cfg = kivgev::DefaultEmulatedCamera(k);
    for (uint32_t format : cfg.formats) {
      SCOPED_TRACE(kivsim::FindPixelFormat(format)->name);
      Reg(kAcqStop, 1);
      Reg(kPixelFormat, format);
      Reg(kAcqStart, 1);
      Reg(kTriggerSoftware, 1);
      BUFFER_HANDLE b = Next();
      ASSERT_NE(b, nullptr);
      EXPECT_EQ(Status(b), 0u);
      EXPECT_EQ(BufferInfo<uint64_t>(ds, b, BUFFER_INFO_PIXELFORMAT), format);
      EXPECT_TRUE(Exact(b, format, w, h));
      const uint32_t payload = Reg(kPayload);
      const uint32_t packets = (payload + 1463) / 1464;
      EXPECT_EQ(InfoWord(b, info, 4), packets) << "packet count";
      EXPECT_EQ(InfoWord(b, info, 8), packets) << "received";
      EXPECT_EQ(InfoWord(b, info, 540), 0u) << "complete";
      EXPECT_EQ(Data(b)[info + 544], uint8_t((1u << packets) - 1)) << "one bit per packet";
      EXPECT_EQ(BufferInfo<uint32_t>(ds, b, 1001), packets);
      ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
    }
    EXPECT_EQ(p.DSStopAcquisition(ds, ACQ_STOP_FLAGS_KILL), GC_ERR_SUCCESS);
    EXPECT_EQ(p.DevClose(dev), GC_ERR_SUCCESS);
  }
}

class Lossy : public Streaming {
 protected:
  Lossy() {
    options.loss = 0.02;
    options.reorder = 0.02;
    options.fps = 100;
    options.seed = 7;
  }
};

TEST_F(Lossy, EveryFrameIsCompletedThroughResendsIntoProducerAllocatedBuffers) {
  Open();
  const uint32_t payload = Reg(kPayload), info = (payload + 15) / 8 * 8;
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_GIGE_INFO_OFFSET, info), GC_ERR_SUCCESS);
  for (int i = 0; i < 4; ++i) {
    BUFFER_HANDLE b = nullptr;
    ASSERT_EQ(p.DSAnnounceBuffer(ds, nullptr, info + 1024, nullptr, &b), GC_ERR_SUCCESS);
    ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
  }
  Start(false);
  for (int i = 0; i < 40; ++i) {
    EVENT_NEW_BUFFER_DATA d{};
    size_t n = sizeof d;
    ASSERT_EQ(p.EventGetData(ev, &d, &n, 5000), GC_ERR_SUCCESS) << p.LastError();
    EXPECT_EQ(d.pUserPointer, Data(d.BufferHandle)) << "producer memory: the event names the data";
    EXPECT_EQ(Status(d.BufferHandle), 0u) << i;
    EXPECT_TRUE(Exact(d.BufferHandle, 0x01080001, 640, 480)) << i;
    EXPECT_EQ(InfoWord(d.BufferHandle, info, 540), 0u);
    ASSERT_EQ(p.DSQueueBuffer(ds, d.BufferHandle), GC_ERR_SUCCESS);
  }
  Reg(kAcqStop, 1);
  EXPECT_GT(InfoOf<uint64_t>(p.DSGetInfo, ds, KIVGEV_STREAM_RESEND_REQUESTS), 0u);
  EXPECT_GT(cameras[0]->stats().packets_resent, 0u);
  const kivsim_packet_log log = PacketLog(ds);
  EXPECT_GE(log.frames, 40u);
  EXPECT_EQ(log.incomplete, 0u);
  EXPECT_GT(log.packets_resent, 0u);
}

TEST_F(Streaming, ABlockLostForGoodArrivesIncompleteWithItsBitmapAndStatus) {
  Open();
  const uint32_t payload = Reg(kPayload), packets = (payload + 1463) / 1464, info = AnnounceWithInfo(2);
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_GIGE_PACKET_COUNT, packets), GC_ERR_SUCCESS);
  Start(true);
  cameras[0]->faults().lose_first = 3;
  cameras[0]->faults().lose_last = 5;
  cameras[0]->faults().lose_blocks = 1;
  Reg(kTriggerSoftware, 1);
  BUFFER_HANDLE b = Next();
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(Status(b), 0xC0000001u);
  EXPECT_TRUE(BufferInfo<bool8_t>(ds, b, BUFFER_INFO_IS_INCOMPLETE));
  EXPECT_EQ(BufferInfo<uint32_t>(ds, b, 1001), packets - 3) << "packets received";
  EXPECT_EQ(InfoWord(b, info, 540), 3u) << "three missing";
  const uint8_t* bitmap = Data(b) + info + 544;
  for (uint32_t i = 0; i < packets; ++i) EXPECT_EQ((bitmap[i / 8] >> (i % 8)) & 1, (i >= 2 && i <= 4) ? 0 : 1) << i;
  // The rest of the image is right where it arrived.
  auto pattern = kivsim::GetPattern(0x01080001, 640, 480);
  const uint64_t frame = BufferInfo<uint64_t>(ds, b, BUFFER_INFO_FRAMEID) - 1;
  EXPECT_EQ(std::memcmp(Data(b), pattern->frame(frame), 2 * 1464), 0);
  EXPECT_EQ(std::memcmp(Data(b) + 5 * 1464, pattern->frame(frame) + 5 * 1464, payload - 5 * 1464), 0);
  ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
  Reg(kTriggerSoftware, 1);
  b = Next();
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(Status(b), 0u) << "the next block is whole again";
  const kivsim_packet_log log = PacketLog(ds);
  EXPECT_EQ(log.frames, 2u);
  EXPECT_EQ(log.incomplete, 1u);
  EXPECT_EQ(log.packets_missing, 3u);
}

class ExtendedIds : public Streaming {
 protected:
  ExtendedIds() { options.extended_ids = true; }
};

TEST_F(ExtendedIds, SixtyFourBitBlocksWithTheLongerHeaderArriveWhole) {
  Open();
  const uint32_t info = AnnounceWithInfo(2);
  Start(true);
  for (int i = 0; i < 3; ++i) {
    Reg(kTriggerSoftware, 1);
    BUFFER_HANDLE b = Next();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(Status(b), 0u);
    EXPECT_TRUE(Exact(b, 0x01080001, 640, 480));
    EXPECT_EQ(InfoWord(b, info, 20), 1500u - 48u) << "data per packet with the 20-byte header";
    ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
  }
}

TEST_F(Streaming, TheSecondStreamCarriesOneTokenPerImageOfTheStreamItFollows) {
  Open();
  const uint32_t payload = Reg(kPayload);
  Announce(2, payload, 0);
  DS_HANDLE vs = Stream(dev, 1);
  EVENT_HANDLE vev = nullptr;
  ASSERT_EQ(p.GCRegisterEvent(vs, EVENT_NEW_BUFFER, &vev), GC_ERR_SUCCESS);
  ASSERT_EQ(WriteModule(vs, KIVSIM_DS_LINK, ReadModule(ds, KIVSIM_DS_LINK)), GC_ERR_SUCCESS);
  BUFFER_HANDLE t = nullptr;
  ASSERT_EQ(p.DSAnnounceBuffer(vs, reinterpret_cast<void*>(1), 0, nullptr, &t), GC_ERR_SUCCESS);
  ASSERT_EQ(p.DSQueueBuffer(vs, t), GC_ERR_SUCCESS);
  ASSERT_EQ(p.DSStartAcquisition(vs, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
  Start(true);
  for (int i = 0; i < 3; ++i) {
    Reg(kTriggerSoftware, 1);
    BUFFER_HANDLE b = Next();
    ASSERT_NE(b, nullptr);
    EVENT_NEW_BUFFER_DATA d{};
    size_t n = sizeof d;
    ASSERT_EQ(p.EventGetData(vev, &d, &n, 5000), GC_ERR_SUCCESS);
    EXPECT_EQ(d.BufferHandle, t);
    ASSERT_EQ(p.DSQueueBuffer(vs, t), GC_ERR_SUCCESS);
    ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
  }
  // No image stream running, no token.
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_RUNNING, 0), GC_ERR_SUCCESS);
  Reg(kTriggerSoftware, 1);
  EVENT_NEW_BUFFER_DATA d{};
  size_t n = sizeof d;
  EXPECT_EQ(p.EventGetData(vev, &d, &n, 300), GC_ERR_TIMEOUT);
}

// The library starts both engines when it allocates its resources and
// announces image buffers only afterwards.
TEST_F(Streaming, AnEngineStartedBeforeAnyBufferIsAnnouncedFillsTheOnesAnnouncedLater) {
  Open();
  const uint32_t payload = Reg(kPayload);
  DS_HANDLE vs = Stream(dev, 1);
  ASSERT_EQ(p.DSStartAcquisition(vs, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS) << p.LastError();
  Start(true);
  Announce(1, payload, payload);
  Reg(kTriggerSoftware, 1);
  BUFFER_HANDLE b = Next();
  ASSERT_NE(b, nullptr);
  EXPECT_TRUE(Exact(b, 0x01080001, 640, 480));
  ASSERT_EQ(p.DSStopAcquisition(ds, ACQ_STOP_FLAGS_DEFAULT), GC_ERR_SUCCESS);
  EXPECT_EQ(p.DSStopAcquisition(vs, ACQ_STOP_FLAGS_DEFAULT), GC_ERR_SUCCESS);
}

TEST_F(Streaming, ADestinationOfZeroClosesTheChannelUntilANewOneIsSet) {
  Open();
  const uint32_t payload = Reg(kPayload);
  Announce(2, payload, 0);
  Start(true);
  EXPECT_EQ(Reg(kivgev::kRegScda0), HostIp(0)) << "no destination written: this interface";
  EXPECT_NE(Reg(kivgev::kRegScp0), 0u);
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_GIGE_DESTINATION, 0), GC_ERR_SUCCESS);
  EXPECT_EQ(Reg(kivgev::kRegScp0), 0u) << "closed, and not opened again behind the host's back";
  Reg(kTriggerSoftware, 1);
  GC_ERROR e = GC_ERR_SUCCESS;
  EXPECT_EQ(Next(300, &e), nullptr);
  EXPECT_EQ(e, GC_ERR_TIMEOUT);
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_GIGE_DESTINATION, HostIp(0)), GC_ERR_SUCCESS);
  Reg(kTriggerSoftware, 1);
  BUFFER_HANDLE b = Next();
  ASSERT_NE(b, nullptr);
  EXPECT_TRUE(Exact(b, 0x01080001, 640, 480));
}

TEST_F(Streaming, AStreamStoppedAndStartedAgainGoesOnWholeMostlyWithoutACopy) {
  Open();
  AnnounceWithInfo(2);
  const uint32_t packets = (Reg(kPayload) + 1463) / 1464;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    Start(true);
    TriggerWhole();
    TriggerWhole();
    // Only the first packets of a block after its leader can miss their slot.
    if (round == 0) {
      EXPECT_GT(InfoOf<uint64_t>(p.DSGetInfo, ds, KIVGEV_STREAM_ZERO_COPY_PACKETS), 2u * (packets - 40));
    }
    Reg(kAcqStop, 1);
    ASSERT_EQ(p.DSStopAcquisition(ds, ACQ_STOP_FLAGS_DEFAULT), GC_ERR_SUCCESS) << p.LastError();
  }
  EXPECT_EQ(InfoOf<uint64_t>(p.DSGetInfo, ds, STREAM_INFO_NUM_STARTED), 3u);
  EXPECT_EQ(InfoOf<uint64_t>(p.DSGetInfo, ds, KIVGEV_STREAM_MALFORMED_PACKETS), 0u);
}

class SizeLimit : public Streaming {
 protected:
  SizeLimit() { options.packet_size_limit = 1200; }
};

TEST_F(SizeLimit, TheStreamTestPassesOnlyPacketsThePathCarries) {
  Open();
  ASSERT_EQ(WriteModule(dev, KIVSIM_DEV_STREAM_TEST, 100), GC_ERR_SUCCESS) << p.LastError();
  EXPECT_EQ(ReadModule(dev, KIVSIM_DEV_STREAM_TEST_RESULT), 13u) << "1500-byte packets do not come through";
  uint8_t size16[2] = {0x04, 0xB0};  // 1200
  size_t n = 2;
  ASSERT_EQ(p.GCWritePort(port, 0x0D06, size16, &n), GC_ERR_SUCCESS);
  ASSERT_EQ(WriteModule(dev, KIVSIM_DEV_STREAM_TEST, 100), GC_ERR_SUCCESS);
  EXPECT_EQ(ReadModule(dev, KIVSIM_DEV_STREAM_TEST_RESULT), 0u);
  EXPECT_EQ(cameras[0]->stats().test_packets, 2u);
  EXPECT_EQ(Reg(kivgev::kRegScp0), 0u) << "the channel is left as it was";
  EXPECT_EQ(Reg(kivgev::kRegScps0), 1200u) << "without the fire bit";
}

TEST_F(Streaming, MalformedForeignAndStaleDatagramsAreCountedAndDropped) {
  Open();
  AnnounceWithInfo(2);
  Start(true);
  Reg(kTriggerSoftware, 1);
  BUFFER_HANDLE b = Next();
  ASSERT_NE(b, nullptr);
  ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
  const uint16_t dport = static_cast<uint16_t>(Reg(kivgev::kRegScp0));
  kivgev::UdpSocket from_camera, stranger;
  std::string err;
  ASSERT_TRUE(from_camera.Open(CameraIp(0), 0, &err)) << err;
  ASSERT_TRUE(stranger.Open(HostIp(0), 0, &err)) << err;
  std::vector<uint8_t> big(20000, 0x42);
  uint8_t short_header[4] = {0, 0, 0, 3};
  from_camera.SendTo(HostIp(0), dport, short_header, sizeof short_header);
  from_camera.SendTo(HostIp(0), dport, big.data(), big.size());  // oversize
  stranger.SendTo(HostIp(0), dport, big.data(), 100);            // not from the camera
  // A flood of resent packets of the finished block.
  uint8_t stale[8 + 64] = {};
  for (uint32_t id = 1; id <= 500; ++id) {
    kivgev::PutGvspHeader(stale, false, kivgev::kStatusPacketResend, 0, 1, kivgev::kFormatPayload, id % 200 + 1);
    from_camera.SendTo(HostIp(0), dport, stale, sizeof stale);
  }
  ASSERT_TRUE(WaitFor([&] { return InfoOf<uint64_t>(p.DSGetInfo, ds, KIVGEV_STREAM_STALE_PACKETS) >= 500; }))
      << InfoOf<uint64_t>(p.DSGetInfo, ds, KIVGEV_STREAM_STALE_PACKETS);
  EXPECT_GE(InfoOf<uint64_t>(p.DSGetInfo, ds, KIVGEV_STREAM_MALFORMED_PACKETS), 3u);
  Reg(kTriggerSoftware, 1);
  b = Next();
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(Status(b), 0u);
  EXPECT_TRUE(Exact(b, 0x01080001, 640, 480)) << "streaming goes on unharmed";
}

// ---- The packet ring (where the process may open one)

constexpr size_t kIpOptions = 4;

// The camera's end of link 0 putting IPv4 packets on the wire as they are,
// through a packet socket on c0: frames the camera's stack would never build.
class CameraWire {
 public:
  ~CameraWire() {
    if (fd_ >= 0) close(fd_);
  }
  bool Open(std::string* why) {
    fd_ = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP));
    for (const kivgev::NetInterface& n : kivgev::ListInterfaces()) {
      if (n.name == "c0") to_.sll_ifindex = int(n.index);
      if (n.name == "h0")
        for (int i = 0; i < 6; ++i) to_.sll_addr[i] = uint8_t(n.mac >> (40 - 8 * i));
    }
    to_.sll_family = AF_PACKET;
    to_.sll_protocol = htons(ETH_P_IP);
    to_.sll_halen = 6;
    *why = "packet socket on c0: " + std::string(std::strerror(errno));
    return fd_ >= 0 && to_.sll_ifindex > 0;
  }
  void Send(const std::vector<uint8_t>& packet) {
    ASSERT_EQ(sendto(fd_, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&to_), sizeof to_),
              ssize_t(packet.size()));
  }

 private:
  int fd_ = -1;
  sockaddr_ll to_{};
};

// An IPv4/UDP packet from the camera to the host's port `dport`.
std::vector<uint8_t> Packet(const std::vector<uint8_t>& payload, uint16_t dport) {
  kivgev::Ipv4Udp u;
  u.src = CameraIp(0);
  u.dst = HostIp(0);
  u.src_port = 20202;
  u.dst_port = dport;
  u.data = payload.data();
  u.size = payload.size();
  std::vector<uint8_t> p(28 + payload.size());
  kivgev::PutIpv4Udp(p.data(), u);
  return p;
}

// The header checksum again after an edit of the header of `ihl` bytes.
void Resum(std::vector<uint8_t>& p, size_t ihl = 20) {
  kivgev::Put16(&p[10], 0);
  uint32_t sum = 0;
  for (size_t i = 0; i < ihl; i += 2) sum += kivgev::Get16(&p[i]);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  kivgev::Put16(&p[10], uint16_t(~sum));
}

// The UDP checksum of packet `p` (IPv4 header of 20 bytes), computed the way
// RFC 768 gives it, for the field at bytes 26-27.
uint16_t UdpChecksum(const std::vector<uint8_t>& p) {
  const size_t n = p.size() - 20;
  uint32_t sum = 17 + uint32_t(n);
  for (size_t i = 12; i < 20; i += 2) sum += kivgev::Get16(&p[i]);  // addresses
  for (size_t i = 20; i < p.size(); i += 2) {
    if (i == 26) continue;  // the field itself
    sum += i + 1 < p.size() ? kivgev::Get16(&p[i]) : uint32_t(p[i]) << 8;
  }
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  const uint16_t c = uint16_t(~sum);
  return c == 0 ? 0xFFFF : c;
}

// Takes CAP_NET_RAW from this thread's effective set while it lives
// (capabilities belong to a thread; the rest of the process keeps it).
class WithoutNetRaw {
 public:
  WithoutNetRaw() {
    syscall(SYS_capget, &head_, saved_);
    __user_cap_data_struct less[2] = {saved_[0], saved_[1]};
    less[CAP_TO_INDEX(CAP_NET_RAW)].effective &= ~CAP_TO_MASK(CAP_NET_RAW);
    ok_ = syscall(SYS_capset, &head_, less) == 0;
  }
  ~WithoutNetRaw() { syscall(SYS_capset, &head_, saved_); }
  bool ok() const { return ok_; }

 private:
  __user_cap_header_struct head_{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct saved_[2] = {};
  bool ok_ = false;
};

class Ring : public Streaming {
 protected:
  void SetUp() override {
    if (!RingExpected()) GTEST_SKIP() << "this run receives through the socket";
    Streaming::SetUp();
  }
  uint64_t Counter(uint32_t cmd) { return InfoOf<uint64_t>(p.DSGetInfo, ds, cmd); }
  // A stale packet (a resend for block 1, delivered before) to the stream port.
  std::vector<uint8_t> StaleGvsp() {
    std::vector<uint8_t> g(8 + 64, 0);
    kivgev::PutGvspHeader(g.data(), false, kivgev::kStatusPacketResend, 0, 1, kivgev::kFormatPayload, 3);
    return g;
  }
  // Streams block 1 and leaves it delivered; returns the stream port.
  uint16_t StreamOneBlock() {
    AnnounceWithInfo(2);
    Start(true);
    TriggerWhole();
    // Its trailer comes after the block is complete, and counts as stale.
    EXPECT_TRUE(WaitFor([&] { return Counter(KIVGEV_STREAM_STALE_PACKETS) >= 1; }));
    return static_cast<uint16_t>(Reg(kivgev::kRegScp0));
  }
};

TEST_F(Ring, OnlyWholeUdpDatagramsToTheStreamPortAreTakenAndTheStreamGoesOn) {
  Open();
  const uint16_t dport = StreamOneBlock();
  CameraWire wire;
  std::string why;
  ASSERT_TRUE(wire.Open(&why)) << why;
  const uint64_t malformed = Counter(KIVGEV_STREAM_MALFORMED_PACKETS);
  uint64_t stale = Counter(KIVGEV_STREAM_STALE_PACKETS);
  const std::vector<uint8_t> good = Packet(StaleGvsp(), dport);

  std::vector<uint8_t> p = good;
  p[10] ^= 0x5A;  // header checksum
  wire.Send(p);
  p = good;
  kivgev::Put16(&p[2], uint16_t(p.size() + 100));  // longer than the frame
  Resum(p);
  wire.Send(p);
  p = good;
  kivgev::Put16(&p[24], uint16_t(p.size()));  // UDP length past the IP packet
  wire.Send(p);
  p = good;
  kivgev::Put16(&p[24], 4);  // UDP length below its header
  wire.Send(p);
  p = good;
  kivgev::Put16(&p[6], 0x2000);  // the first fragment of a larger datagram
  Resum(p);
  wire.Send(p);
  wire.Send(Packet({0, 0, 0, 1}, dport));  // no GVSP header
  // Kept out by the filter, not counted: a later fragment, another port.
  p = good;
  kivgev::Put16(&p[6], 0x0010);
  Resum(p);
  wire.Send(p);
  wire.Send(Packet(StaleGvsp(), uint16_t(dport + 1)));
  // Header options move the UDP header: a whole datagram, taken.
  p = good;
  p.insert(p.begin() + 20, kIpOptions, 1);  // NOPs
  p[0] = 0x40 | uint8_t((20 + kIpOptions) / 4);
  kivgev::Put16(&p[2], uint16_t(p.size()));
  Resum(p, 20 + kIpOptions);
  wire.Send(p);
  // A UDP checksum is checked where the kernel did not: a wrong one is refused, a right one taken.
  p = good;
  kivgev::Put16(&p[26], UdpChecksum(p));
  wire.Send(p);
  kivgev::Put16(&p[26], uint16_t(kivgev::Get16(&p[26]) ^ 0x0101));
  wire.Send(p);
  wire.Send(good);
  ASSERT_TRUE(WaitFor([&] { return Counter(KIVGEV_STREAM_STALE_PACKETS) >= stale + 3; }));
  EXPECT_EQ(Counter(KIVGEV_STREAM_STALE_PACKETS), stale + 3) << "the one with options, the right checksum, the last";
  EXPECT_EQ(Counter(KIVGEV_STREAM_MALFORMED_PACKETS), malformed + 7);

  // Datagrams to another port or address of the host never reach the stream.
  std::string err;
  ASSERT_TRUE(AddAddress("h0", "10.11.0.9/24", &why)) << why;
  kivgev::UdpSocket camera, other_port, other_address;
  ASSERT_TRUE(camera.Open(CameraIp(0), 0, &err)) << err;
  ASSERT_TRUE(other_port.Open(HostIp(0), 0, &err)) << err;
  ASSERT_TRUE(other_address.Open(0x0A0B0009, dport, &err)) << err;
  stale = Counter(KIVGEV_STREAM_STALE_PACKETS);
  const std::vector<uint8_t> g = StaleGvsp();
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(camera.SendTo(HostIp(0), other_port.port(), g.data(), g.size()));
    ASSERT_TRUE(camera.SendTo(0x0A0B0009, dport, g.data(), g.size()));
  }
  ASSERT_TRUE(camera.SendTo(HostIp(0), dport, g.data(), g.size()));  // after them on the same path
  ASSERT_TRUE(WaitFor([&] { return Counter(KIVGEV_STREAM_STALE_PACKETS) > stale; }));
  EXPECT_EQ(Counter(KIVGEV_STREAM_STALE_PACKETS), stale + 1);
  std::vector<uint8_t> in(256);
  EXPECT_EQ(other_port.Receive(in.data(), in.size(), 1000), long(g.size())) << "the others did get theirs";
  EXPECT_EQ(other_address.Receive(in.data(), in.size(), 1000), long(g.size()));
  TriggerWhole();
}

TEST_F(Ring, WithoutCapNetRawTheStreamIsReceivedThroughTheSocket) {
  Open();
  const uint32_t payload = Reg(kPayload);
  Announce(2, payload, 0);
  Reg(kTriggerMode, 1);
  {
    WithoutNetRaw lower;
    ASSERT_TRUE(lower.ok());
    ASSERT_EQ(p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS) << p.LastError();
  }
  EXPECT_FALSE(InfoOf<bool8_t>(p.DSGetInfo, ds, KIVGEV_STREAM_RING));
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_RUNNING, 1), GC_ERR_SUCCESS);
  Reg(kAcqStart, 1);
  TriggerWhole();
}

class ForcedRing : public Ring {
 protected:
  ForcedRing() {
    if (const char* v = std::getenv("KIVGEV_RECEIVE")) before = v;
    extra_env = "KIVGEV_RECEIVE=ring";
  }
  ~ForcedRing() override {
    if (before.empty()) unsetenv("KIVGEV_RECEIVE");
    else setenv("KIVGEV_RECEIVE", before.c_str(), 1);
  }
  std::string before;
};

TEST_F(ForcedRing, ARingTheSystemRefusesFailsTheStartAndSaysWhy) {
  Open();
  const uint32_t payload = Reg(kPayload);
  Announce(2, payload, 0);
  {
    WithoutNetRaw lower;
    ASSERT_TRUE(lower.ok());
    EXPECT_EQ(p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_IO);
  }
  EXPECT_NE(p.LastError().find("packet ring on h0"), std::string::npos) << p.LastError();
  Start(true);  // permitted again
  TriggerWhole();
}

// The loopback shows every packet twice, leaving and arriving.
class Loopback : public Streaming {
 protected:
  Loopback() { interfaces = "lo"; }
  void StartCameras() override { AddCamera(kCamera, options); }
  static constexpr uint32_t kCamera = 0x7F000002;
};

TEST_F(Loopback, EachPacketIsTakenOnce) {
  Open(kCamera);
  AnnounceWithInfo(2);
  Start(true);
  for (int i = 0; i < 5; ++i) TriggerWhole();
  // A trailer may come after its block is complete; a packet seen twice would count too.
  EXPECT_LE(InfoOf<uint64_t>(p.DSGetInfo, ds, KIVGEV_STREAM_STALE_PACKETS), 5u) << "no packet seen twice";
  EXPECT_EQ(InfoOf<uint64_t>(p.DSGetInfo, ds, KIVGEV_STREAM_MALFORMED_PACKETS), 0u);
}

}  // namespace
