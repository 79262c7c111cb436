// GigE Vision wire formats: the GVCP control messages and the GVSP stream
// packets, as plain parsers and builders over byte buffers. Every field on the
// wire is big-endian. Shared by the network producer, the camera emulator and
// the fuzzers; nothing here touches a socket.
#pragma once
#include <cstddef>
#include <cstdint>

namespace kivgev {

inline uint16_t Get16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline uint32_t Get32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
inline uint64_t Get64(const uint8_t* p) { return uint64_t(Get32(p)) << 32 | Get32(p + 4); }
inline void Put16(uint8_t* p, uint16_t v) { p[0] = uint8_t(v >> 8), p[1] = uint8_t(v); }
inline void Put32(uint8_t* p, uint32_t v) { Put16(p, uint16_t(v >> 16)), Put16(p + 2, uint16_t(v)); }
inline void Put64(uint8_t* p, uint64_t v) { Put32(p, uint32_t(v >> 32)), Put32(p + 4, uint32_t(v)); }

// ------------------------------------------------------------------ GVCP

constexpr uint16_t kGvcpPort = 3956;
constexpr uint8_t kGvcpKey = 0x42;
constexpr size_t kGvcpHeader = 8;
constexpr size_t kGvcpMaxPayload = 540;  // keeps every datagram within 576 bytes of IP
constexpr size_t kMemChunk = 536;        // READMEM/WRITEMEM data per message
constexpr size_t kMaxReadRegs = 135, kMaxWriteRegs = 67;
constexpr size_t kDiscoveryAckSize = 248;

enum : uint8_t {
  kFlagAckRequired = 0x01,
  kFlagBroadcastAck = 0x10,  // DISCOVERY
  kFlagExtendedIds = 0x10,   // PACKETRESEND
};

enum GvcpCode : uint16_t {
  kDiscoveryCmd = 0x0002, kDiscoveryAck = 0x0003,
  kForceIpCmd = 0x0004, kForceIpAck = 0x0005,
  kPacketResendCmd = 0x0040,
  kReadRegCmd = 0x0080, kReadRegAck = 0x0081,
  kWriteRegCmd = 0x0082, kWriteRegAck = 0x0083,
  kReadMemCmd = 0x0084, kReadMemAck = 0x0085,
  kWriteMemCmd = 0x0086, kWriteMemAck = 0x0087,
  kPendingAck = 0x0089,
};

enum GevStatus : uint16_t {
  kStatusSuccess = 0x0000,
  kStatusPacketResend = 0x0100,
  kStatusNotImplemented = 0x8001,
  kStatusInvalidParameter = 0x8002,
  kStatusInvalidAddress = 0x8003,
  kStatusWriteProtect = 0x8004,
  kStatusBadAlignment = 0x8005,
  kStatusAccessDenied = 0x8006,
  kStatusBusy = 0x8007,
  kStatusPacketUnavailable = 0x800C,
  kStatusInvalidHeader = 0x800E,
  kStatusPacketNotYetAvailable = 0x8010,
  kStatusPacketRemoved = 0x8012,
  kStatusError = 0x8FFF,
};
const char* StatusName(uint16_t status);

// Bootstrap registers the producer and the emulator both use.
enum Bootstrap : uint32_t {
  kRegVersion = 0x0000, kRegDeviceMode = 0x0004, kRegMacHigh = 0x0008, kRegMacLow = 0x000C,
  kRegCurrentIp = 0x0024, kRegSubnet = 0x0034, kRegFirstUrl = 0x0200, kRegSecondUrl = 0x0400,
  kRegLinkSpeed = 0x0670, kRegStreamChannels = 0x0904, kRegGvcpCapability = 0x0934,
  kRegHeartbeatTimeout = 0x0938, kRegTickHigh = 0x093C, kRegTickLow = 0x0940,
  kRegDiscoveryAckDelay = 0x0950, kRegGvcpConfig = 0x0954, kRegPendingTimeout = 0x0958,
  kRegGvspConfig = 0x0960, kRegCcp = 0x0A00, kRegPrimaryPort = 0x0A04, kRegPrimaryIp = 0x0A14,
  kRegScp0 = 0x0D00, kRegScps0 = 0x0D04, kRegScpd0 = 0x0D08, kRegScda0 = 0x0D18, kRegScsp0 = 0x0D1C,
};
constexpr uint32_t kCcpExclusive = 0x1, kCcpControl = 0x2;
constexpr uint32_t kCapConcatenation = 0x1, kCapWriteMem = 0x2, kCapPacketResend = 0x4,
                   kCapPendingAck = 0x20, kCapHeartbeatDisable = 0x20000000,
                   kCapPrimaryApp = 0x08000000;
constexpr uint32_t kCfgHeartbeatDisable = 0x1, kCfgPendingAck = 0x2;
constexpr uint32_t kScpsFireTest = 0x80000000, kScpsDontFragment = 0x40000000;
constexpr uint32_t kGvspExtendedIds = 0x40000000;

struct GvcpCommand {
  uint8_t flags = 0;
  uint16_t code = 0;
  uint16_t req_id = 0;
  const uint8_t* payload = nullptr;
  size_t length = 0;  // payload bytes
};

struct GvcpAck {
  uint16_t status = 0;
  uint16_t code = 0;
  uint16_t ack_id = 0;
  const uint8_t* payload = nullptr;
  size_t length = 0;
};

// A datagram is a command when its key byte is right and its length field
// fits what arrived; anything else is refused.
bool ParseCommand(const uint8_t* p, size_t n, GvcpCommand* out);
bool ParseAck(const uint8_t* p, size_t n, GvcpAck* out);
// Write an 8-byte header; return kGvcpHeader.
size_t PutCommand(uint8_t* p, uint8_t flags, uint16_t code, uint16_t length, uint16_t req_id);
size_t PutAck(uint8_t* p, uint16_t status, uint16_t code, uint16_t length, uint16_t ack_id);

// What a DISCOVERY_ACK tells about a device (a copy of bootstrap 0x0000-0x00F7).
struct DiscoveryInfo {
  uint16_t version_major = 0, version_minor = 0;
  uint32_t device_mode = 0;
  uint64_t mac = 0;
  uint32_t ip_options = 0, ip_current = 0;
  uint32_t ip = 0, subnet = 0, gateway = 0;
  char vendor[33] = {}, model[33] = {}, version[33] = {}, info[49] = {}, serial[17] = {}, user_name[17] = {};
};
bool ParseDiscovery(const uint8_t* payload, size_t n, DiscoveryInfo* out);
void PutDiscovery(uint8_t* payload, const DiscoveryInfo& in);  // kDiscoveryAckSize bytes

// PACKETRESEND payload.
struct ResendRequest {
  uint16_t channel = 0;
  uint64_t block_id = 0;
  uint32_t first = 0, last = 0;
  bool extended = false;
};
bool ParseResend(const GvcpCommand& c, ResendRequest* out);
// Writes the whole command (header included); returns its size.
size_t PutResend(uint8_t* p, uint16_t req_id, const ResendRequest& r);

// ------------------------------------------------------------------ GVSP

enum GvspFormat : uint8_t { kFormatLeader = 1, kFormatTrailer = 2, kFormatPayload = 3, kFormatAllIn = 4 };
constexpr uint16_t kPayloadImage = 0x0001;
constexpr size_t kGvspHeader = 8, kGvspHeaderExt = 20;
constexpr size_t kIpUdpOverhead = 28;
constexpr size_t kImageLeaderSize = 36, kImageTrailerSize = 8;
constexpr uint16_t kGvspFlagResend = 0x0001;

struct GvspPacket {
  uint16_t status = 0;
  uint16_t flags = 0;  // extended IDs only
  bool extended = false;
  uint8_t format = 0;
  uint64_t block_id = 0;
  uint32_t packet_id = 0;
  const uint8_t* data = nullptr;  // after the header
  size_t size = 0;
};
bool ParseGvsp(const uint8_t* p, size_t n, GvspPacket* out);
size_t PutGvspHeader(uint8_t* p, bool extended, uint16_t status, uint16_t flags, uint64_t block_id,
                     uint8_t format, uint32_t packet_id);
inline size_t GvspHeaderSize(bool extended) { return extended ? kGvspHeaderExt : kGvspHeader; }
// Image bytes a payload packet of the given SCPS packet size carries.
inline size_t PacketData(uint32_t packet_size, bool extended) {
  size_t over = kIpUdpOverhead + GvspHeaderSize(extended);
  return packet_size > over ? packet_size - over : 0;
}

// An IPv4 packet carrying one whole UDP datagram, as a packet-socket ring
// holds it (the network header first). Addresses and ports in host order.
struct Ipv4Udp {
  uint32_t src = 0, dst = 0;
  uint16_t src_port = 0, dst_port = 0;
  const uint8_t* data = nullptr;  // the UDP payload
  size_t size = 0;
};
// False for anything the IP layer would not hand a UDP socket whole: another
// version or protocol, a bad header length or checksum, a fragment, lengths
// beyond the bytes at hand. The UDP checksum is checked apart: on a local
// path the sender's stack may not have filled it in yet.
bool ParseIpv4Udp(const uint8_t* p, size_t n, Ipv4Udp* out);
// Whether the UDP checksum of a datagram ParseIpv4Udp took is right (or was
// not computed: 0).
bool UdpChecksumOk(const Ipv4Udp& u);
size_t PutIpv4Udp(uint8_t* p, const Ipv4Udp& in);  // header of 28 bytes, payload copied after it

struct ImageLeader {
  uint16_t payload_type = kPayloadImage;
  uint64_t timestamp = 0;
  uint32_t pixel_format = 0, width = 0, height = 0, offset_x = 0, offset_y = 0;
  uint16_t padding_x = 0, padding_y = 0;
};
bool ParseImageLeader(const GvspPacket& pk, ImageLeader* out);
size_t PutImageLeader(uint8_t* p, const ImageLeader& l);

struct ImageTrailer {
  uint16_t payload_type = kPayloadImage;
  uint32_t height = 0;
};
bool ParseImageTrailer(const GvspPacket& pk, ImageTrailer* out);
size_t PutImageTrailer(uint8_t* p, const ImageTrailer& t);

}  // namespace kivgev
