// GigE cameras: channel selection, heartbeat and packet size at opening, the
// stream test, the control-channel presence test and big-endian registers.
#include <cstring>

#include "camera/camera_gige.h"
#include "diag/error.h"
#include "transport/device_info.h"
#include "transport/gentl.h"
#include "transport/ids.h"

namespace kivcam::camera {

namespace {
// Producer's device-module registers.
constexpr uint64_t kDevStreamTestResult = 0x100;
constexpr uint64_t kDevStreamTest = 0x101;
constexpr uint64_t kDevStreamDestination = 0x102;
constexpr uint64_t kDevHeartbeat = 0x103;
// Image-stream module registers.
constexpr uint64_t kStreamPacketLog = 0x101;
constexpr uint64_t kStreamFlag = 0x103;
constexpr uint64_t kStreamDestination = 0x104;
constexpr uint64_t kStreamInfoOffset = 0x105;
constexpr uint64_t kStreamPacketCount = 0x106;
// Bootstrap registers of the device.
constexpr uint64_t kRegStreamPort = 0x0D00;
constexpr uint64_t kRegPacketSize = 0x0D04;
constexpr uint64_t kRegStreamDestination = 0x0D18;
constexpr uint64_t kRegCapability = 0x0960;
constexpr uint8_t kMulticastFirstOctet = 239;
// The packet information block: 540 bytes for the application, then the
// word that is 0 for a complete image.
constexpr uint32_t kInfoBytes = 540;
constexpr uint32_t kHeaderStandard = 36;
constexpr uint32_t kHeaderExtended = 48;
// Control channel privilege, a bootstrap register of the device.
constexpr uint64_t kRegPrivilege = 0x0A00;
constexpr int64_t kHeartbeatTargetMs = 10000;
constexpr int64_t kPacketJumbo = 9000;
constexpr int64_t kPacketStandard = 1500;

uint32_t ByteSwap(uint32_t v) { return __builtin_bswap32(v); }

// A 4-byte register of the remote device as it is on the wire (big-endian).
bool ReadWire(transport::CGenTL* producer, PORT_HANDLE port, uint64_t address, uint8_t (&bytes)[4]) {
  size_t size = 4;
  return producer->fn().GCReadPort(port, address, bytes, &size) == GC_ERR_SUCCESS;
}

// The nearest valid value at or below `target` (the maximum when it is lower).
int64_t Quantise(KivGenApi::IInteger& f, int64_t target) {
  int64_t max = f.GetMax();
  if (target > max) return max;
  int64_t min = f.GetMin();
  int64_t inc = f.GetInc();
  if (inc <= 0) inc = 1;
  return ((target - min) / inc) * inc + min;
}

KivGenApi::CIntegerPtr IntegerOf(KivGenApi::CNodeMapRef& map, const char* first, const char* second) {
  KivGenApi::CIntegerPtr p = map._GetNode(first);
  if (!p.IsValid()) p = map._GetNode(second);
  return p;
}

}  // namespace

CCameraGigE::CCameraGigE(transport::CGenTL* producer, transport::CInterface* owner,
                         const std::string& device_id, transport::DeviceHandle device,
                         uint32_t description_index, bool watch, CBufferPool* buffers)
    : CCamera(producer, owner, device_id, std::move(device), description_index, watch, buffers) {
  try {
    SelectFirstChannels();
  } catch (...) {
    throw Failure(kOtherErrorText);
  }
  if (m_bWatch) return;
  try {
    Configure();
  } catch (...) {
    // A feature that refuses ends the configuration, not the camera.
  }
}

void CCameraGigE::SelectFirstChannels() {
  for (const char* name : {"DeviceLinkSelector", "DeviceStreamChannelSelector", "GevStreamChannelSelector"}) {
    KivGenApi::CIntegerPtr p = m_pNodeMap->_GetNode(name);
    if (KivGenApi::IsWritable(p)) p->SetValue(p->GetMin());
  }
}

void CCameraGigE::Configure() {
  const transport::EntryPoints& fn = m_pGenTL->fn();
  uint32_t host = 0;
  INFO_DATATYPE type = 0;
  size_t size = sizeof host;
  fn.DevGetInfo(device(), 1002, &type, &host, &size);
  size = sizeof host;
  fn.GCWritePort(device(), kDevStreamDestination, &host, &size);

  KivGenApi::CIntegerPtr heartbeat = IntegerOf(*m_pNodeMap, "GevHeartbeatTimeout", "DeviceLinkHeartbeatTimeout");
  if (heartbeat.IsValid()) {
    int64_t value = Quantise(*heartbeat, kHeartbeatTargetMs);
    if (heartbeat->GetValue() != value) {
      heartbeat->SetValue(value);
      uint32_t low = static_cast<uint32_t>(value);
      size = sizeof low;
      fn.GCWritePort(device(), kDevHeartbeat, &low, &size);
    }
    KivGenApi::CBooleanPtr disable = m_pNodeMap->_GetNode("GevGVCPHeartbeatDisable");
    KivGenApi::CEnumerationPtr mode = m_pNodeMap->_GetNode("DeviceLinkHeartbeatMode");
    if (KivGenApi::IsWritable(disable)) {
      disable->SetValue(false);
    } else if (KivGenApi::IsWritable(mode)) {
      mode->FromString("Off");
    }
  }

  KivGenApi::CIntegerPtr packet = IntegerOf(*m_pNodeMap, "GevSCPSPacketSize", "DeviceStreamChannelPacketSize");
  if (!packet.IsValid()) return;
  // Jumbo frames when the path carries them, else standard Ethernet frames.
  int64_t target = kPacketJumbo;
  for (;;) {
    int64_t value = Quantise(*packet, target);
    if (packet->GetValue() != value) packet->SetValue(value);
    if (value <= kPacketStandard) return;
    if (TestStream() == 0) return;
    target = kPacketStandard;
  }
}

uint32_t CCameraGigE::TestStream() {
  const transport::EntryPoints& fn = m_pGenTL->fn();
  CameraListEntry scratch;
  transport::FillEntryFromDevice(m_pGenTL, device(), "CCamera::CameraInfo", &scratch);
  uint32_t value = scratch.Info1002;
  size_t size = sizeof value;
  fn.GCWritePort(m_imageStream.handle(), kStreamDestination, &value, &size);
  value = 100;
  size = sizeof value;
  fn.GCWritePort(device(), kDevStreamTest, &value, &size);
  uint32_t result = 0;
  size = sizeof result;
  // No answer is no pass.
  if (fn.GCReadPort(device(), kDevStreamTestResult, &result, &size) != GC_ERR_SUCCESS) return KIVCAM_ERR_OTHER;
  return result;
}

void CCameraGigE::AllocResources(const uint8_t* address, bool flag) {
  static const char kName[] = "CCameraGigE::AllocResources";
  if (allocated()) throw Error(KIVCAM_ERR_ALLOCATED);
  auto producer_call = [&](GC_ERROR rc) {
    if (rc == GC_ERR_SUCCESS) return;
    m_pGenTL->LogLastError(kName);
    throw Error(KIVCAM_ERR_OTHER);
  };
  if (!m_bWatch) {
    uint32_t destination;
    if (address && address[0] == kMulticastFirstOctet) {
      destination = (uint32_t{address[0]} << 24) | (uint32_t{address[1]} << 16) | (uint32_t{address[2]} << 8) |
                    address[3];
    } else {
      CameraListEntry scratch;
      transport::FillEntryFromDevice(m_pGenTL, device(), "CCamera::CameraInfo", &scratch);
      destination = scratch.Info1002;
      if (destination == 0) throw Error(KIVCAM_ERR_NO_ADDRESS);
    }
    producer_call(m_imageStream.WriteRegister(kStreamDestination, destination));
  }
  producer_call(m_imageStream.WriteRegister(kStreamFlag, flag ? 1 : 0));
  try {
    AllocCommon("CCamera::AllocResources");
  } catch (...) {
    if (!m_bWatch) m_imageStream.WriteRegister(kStreamDestination, 0);
    throw;
  }
  // From here a failure leaves the resources allocated.
  const uint32_t payload = ReadPayloadSize();
  m_nPayloadSize = payload;
  uint8_t packet[4] = {};
  if (!ReadWire(m_pGenTL, m_hPort, kRegPacketSize, packet)) throw Error(KIVCAM_ERR_ACCESS);
  transport::DeviceInfoReader r(m_pGenTL, device(), kName);
  if (!r.Query(1003, 4)) throw Error(KIVCAM_ERR_ACCESS);
  const uint32_t version = r.Word();
  uint32_t header = kHeaderStandard;
  if (version >= 2) {
    uint8_t capability[4] = {};
    ReadWire(m_pGenTL, m_hPort, kRegCapability, capability);
    // Bit 30: extended block IDs, a longer packet header.
    if (capability[0] & 0x40) header = kHeaderExtended;
  }
  const uint32_t packet_bytes = (uint32_t{packet[2]} << 8) | packet[3];
  const uint32_t per_packet = packet_bytes - header;
  m_nInfoOffset = ((payload + 15) / 8) * 8;
  m_nPacketCount = per_packet ? (payload + per_packet - 1) / per_packet : 0;
  m_nBufferSize = ((m_nPacketCount + 7) / 8 + m_nInfoOffset + 577) & ~15u;
  m_imageStream.WriteRegister(kStreamInfoOffset, m_nInfoOffset);
  m_imageStream.WriteRegister(kStreamPacketCount, m_nPacketCount);
}

void CCameraGigE::ReleaseResources() {
  if (m_bStarted) throw Error(KIVCAM_ERR_RUNNING);
  if (!allocated()) throw Error(KIVCAM_ERR_NOT_ALLOCATED);
  if (!m_bWatch) m_imageStream.WriteRegister(kStreamDestination, 0);
  CCamera::ReleaseResources();
}

bool CCameraGigE::CheckMulticast() {
  m_bMulticast = false;
  uint8_t port[4] = {};
  if (!ReadWire(m_pGenTL, m_hPort, kRegStreamPort, port)) throw Error(KIVCAM_ERR_ACCESS);
  if (port[0] | port[1] | port[2] | port[3]) {
    uint8_t destination[4] = {};
    if (!ReadWire(m_pGenTL, m_hPort, kRegStreamDestination, destination)) throw Error(KIVCAM_ERR_ACCESS);
    m_bMulticast = destination[0] == kMulticastFirstOctet;
  }
  return m_bMulticast;
}

bool CCameraGigE::WatchedStreamGone() {
  if (!m_bWatch) return false;
  uint8_t port[4] = {}, destination[4] = {};
  if (!ReadWire(m_pGenTL, m_hPort, kRegStreamPort, port)) return true;
  if ((port[0] | port[1] | port[2] | port[3]) == 0) return true;
  if (!ReadWire(m_pGenTL, m_hPort, kRegStreamDestination, destination)) return true;
  return destination[0] != kMulticastFirstOctet;
}

void CCameraGigE::GetImageInfo(const uint8_t* data, uint32_t, uint32_t, ImageInfo* info) {
  const uint8_t* block = data + m_nInfoOffset;
  uint32_t missing;
  std::memcpy(&missing, block + kInfoBytes, sizeof missing);
  info->GigE.Transport = KIVCAM_CAMERAKIND_GIGE;
  info->GigE.Complete = missing == 0 ? 1 : 0;
  std::memcpy(info->GigE.PacketInfo, block, kInfoBytes);
}

void CCameraGigE::GetPktLog(GigEPacketLog* log) {
  std::memset(log, 0, sizeof *log);
  size_t size = sizeof *log;
  m_pGenTL->fn().GCReadPort(m_imageStream.handle(), kStreamPacketLog, log, &size);
}

bool CCameraGigE::CheckVisible(bool* query_ok) {
  *query_ok = SetVisibleFlag();
  bool present = visible();
  if (present) {
    uint32_t privilege = 0;
    size_t size = sizeof privilege;
    // A camera that no longer answers its control channel is gone.
    present = m_pGenTL->fn().GCReadPort(m_hPort, kRegPrivilege, &privilege, &size) == GC_ERR_SUCCESS;
  }
  if (!present) MarkAbsent();
  return present;
}

bool CCameraGigE::ReadRegister(uint32_t address, uint32_t* value) {
  uint32_t raw = 0;
  size_t size = sizeof raw;
  if (m_pGenTL->fn().GCReadPort(m_hPort, address, &raw, &size) < 0) return false;
  *value = ByteSwap(raw);
  return true;
}

bool CCameraGigE::WriteRegister(uint32_t address, uint32_t value) {
  uint32_t raw = ByteSwap(value);
  size_t size = sizeof raw;
  return m_pGenTL->fn().GCWritePort(m_hPort, address, &raw, &size) >= 0;
}

void CCameraGigE::CameraInfo(GigECameraInfo* info) {
  std::memset(info, 0, sizeof *info);
  transport::DeviceInfoReader r(m_pGenTL, device(), "CCameraGigE::CameraInfo");
  bool ok = r.Query(DEVICE_INFO_ID);
  if (ok) {
    uint64_t uid = transport::ParseUid(r.text());
    // 48 bits, most significant byte first.
    for (int i = 0; i < 6; ++i) info->UID[i] = static_cast<uint8_t>(uid >> (8 * (5 - i)));
  }
  ok = ok && r.Query(1003, 4) && ((info->Info1003 = static_cast<uint16_t>(r.Word())), true);
  ok = ok && r.Query(1004, 4) && ((info->Info1004 = static_cast<uint16_t>(r.Word())), true);
  ok = ok && r.Query(1005, 4) && ((info->Info1005 = r.Word()), true);
  ok = ok && r.Text(DEVICE_INFO_VENDOR, info->Vendor, sizeof info->Vendor) &&
       r.Text(DEVICE_INFO_MODEL, info->Model, sizeof info->Model) &&
       r.Text(1006, info->DeviceVersion, sizeof info->DeviceVersion) &&
       r.Text(1007, info->ManufacturerInfo, sizeof info->ManufacturerInfo) &&
       r.Text(1008, info->SerialNumber, sizeof info->SerialNumber) &&
       r.Text(1009, info->UserDefinedName, sizeof info->UserDefinedName);
  ok = ok && r.Query(1002, 4) && ((info->Info1002 = r.Word()), true);
  if (!ok) throw Error(KIVCAM_ERR_OTHER);
}

}  // namespace kivcam::camera
