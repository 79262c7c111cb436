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
constexpr uint64_t kStreamDestination = 0x104;  // image-stream module
// Control channel privilege, a bootstrap register of the device.
constexpr uint64_t kRegPrivilege = 0x0A00;
constexpr int64_t kHeartbeatTargetMs = 10000;
constexpr int64_t kPacketJumbo = 9000;
constexpr int64_t kPacketStandard = 1500;

uint32_t ByteSwap(uint32_t v) { return __builtin_bswap32(v); }

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
                         uint32_t description_index, bool watch)
    : CCamera(producer, owner, device_id, std::move(device), description_index, watch) {
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
