// USB3 Vision cameras: little-endian registers and the USB information record.
#include <cstddef>
#include <cstring>

#include "camera/camera_usb.h"
#include "diag/error.h"
#include "transport/device_info.h"
#include "transport/gentl.h"

namespace kivcam::camera {

CCameraUSB::CCameraUSB(transport::CGenTL* producer, transport::CInterface* owner,
                       const std::string& device_id, transport::DeviceHandle device,
                       uint32_t description_index, CBufferPool* buffers)
    : CCamera(producer, owner, device_id, std::move(device), description_index, false, buffers) {}

namespace {
// USB3 Vision streaming registers of the remote device.
constexpr uint64_t kSbrmAddress = 0x01D8;
constexpr uint64_t kSirmOffsetInSbrm = 0x20;
constexpr uint64_t kSiInfo = 0x00;
constexpr uint64_t kSiRequiredLeader = 0x10;
constexpr uint64_t kSiRequiredTrailer = 0x14;
constexpr uint32_t kMinAlignment = 128;
// The producer's image-stream registers.
constexpr uint64_t kStreamParam = 0x106;
constexpr uint64_t kStreamLeaderOffset = 0x107;
constexpr uint64_t kStreamTrailerOffset = 0x108;
constexpr uint32_t kLeaderMagic = 0x4C563355;   // "U3VL"
constexpr uint32_t kTrailerMagic = 0x54563355;  // "U3VT"
constexpr uint16_t kPayloadImage = 1;
constexpr uint16_t kPayloadChunk = 0x4000;
constexpr uint16_t kPayloadExtendedChunk = 0x4001;

template <typename T>
T At(const uint8_t* p, size_t offset) {
  T v;
  std::memcpy(&v, p + offset, sizeof v);
  return v;
}

}  // namespace

void CCameraUSB::AllocResources() {
  const uint32_t payload = ReadPayloadSize();
  m_nPayloadSize = payload;
  const transport::EntryPoints& fn = m_pGenTL->fn();
  // Reads are preset to zero: one that fails gives alignment 128 and empty
  // leader and trailer, a geometry still defined.
  auto read64 = [&](uint64_t address) {
    uint64_t v = 0;
    size_t size = sizeof v;
    fn.GCReadPort(m_hPort, address, &v, &size);
    return v;
  };
  auto read32 = [&](uint64_t address) {
    uint32_t v = 0;
    size_t size = sizeof v;
    fn.GCReadPort(m_hPort, address, &v, &size);
    return v;
  };
  const uint64_t sbrm = read64(kSbrmAddress);
  const uint64_t sirm = read64(sbrm + kSirmOffsetInSbrm);
  const uint32_t exponent = read32(sirm + kSiInfo) >> 24;
  uint32_t align = exponent ? 1u << (exponent & 31) : 0;
  if (align < kMinAlignment) align = kMinAlignment;
  auto up = [align](uint32_t x) { return (x + align - 1) / align * align; };
  m_nInfoOffset = up(payload);
  m_nTrailerOffset = up(read32(sirm + kSiRequiredLeader)) + m_nInfoOffset;
  m_nBufferSize = up(read32(sirm + kSiRequiredTrailer)) + m_nTrailerOffset;
  m_imageStream.WriteRegister(kStreamLeaderOffset, m_nInfoOffset);
  m_imageStream.WriteRegister(kStreamTrailerOffset, m_nTrailerOffset);
  m_imageStream.WriteRegister(kStreamParam, m_nStreamParam);
  AllocCommon("CCamera::AllocResources");
}

void CCameraUSB::GetImageInfo(const uint8_t* data, uint32_t, uint32_t value, ImageInfo* info) {
  const uint8_t* leader = data + m_nInfoOffset;
  const uint8_t* trailer = data + m_nTrailerOffset;
  KIVCAM_IMAGEINFO_USB& u = info->USB;
  const uint16_t type = At<uint16_t>(leader, 18);
  u.Transport = KIVCAM_CAMERAKIND_USB;
  u.Complete = value == m_nPayloadSize && At<uint32_t>(leader, 0) == kLeaderMagic &&
                       At<uint32_t>(trailer, 0) == kTrailerMagic
                   ? 1
                   : 0;
  u.PayloadType = type;
  u.BlockID = At<uint64_t>(leader, 8);
  u.Timestamp = At<uint64_t>(leader, 20);
  u.ValidPayloadSize = At<uint64_t>(trailer, 20);
  if (type == kPayloadImage || type == kPayloadExtendedChunk) {
    // Pixel format, size x and y, offset x and y: leader bytes 28 to 47.
    std::memcpy(reinterpret_cast<uint8_t*>(&u) + offsetof(KIVCAM_IMAGEINFO_USB, PixelFormat), leader + 28, 20);
    u.PaddingX = At<uint16_t>(leader, 48);
    u.Reserved = At<uint16_t>(leader, 50);
    u.TrailerSizeY = At<uint32_t>(trailer, 28);
    if (type == kPayloadExtendedChunk) u.ChunkLayoutID = At<uint32_t>(trailer, 32);
  } else if (type == kPayloadChunk) {
    u.PixelFormat = At<uint32_t>(trailer, 28);
  }
}

bool CCameraUSB::ReadRegister(uint32_t address, uint32_t* value) {
  size_t size = sizeof *value;
  return m_pGenTL->fn().GCReadPort(m_hPort, address, value, &size) >= 0;
}

bool CCameraUSB::WriteRegister(uint32_t address, uint32_t value) {
  size_t size = sizeof value;
  return m_pGenTL->fn().GCWritePort(m_hPort, address, &value, &size) >= 0;
}

void CCameraUSB::CameraInfo(USBCameraInfo* info) {
  std::memset(info, 0, sizeof *info);
  transport::DeviceInfoReader r(m_pGenTL, device(), "CCameraUSB::CameraInfo");
  bool ok = r.Query(1003, 4) && ((info->Info1003_1004 = r.Word() << 16), true);
  ok = ok && r.Query(1004, 4) && ((info->Info1003_1004 |= r.Word()), true);
  ok = ok && r.Text(DEVICE_INFO_VENDOR, info->Vendor, sizeof info->Vendor) &&
       r.Text(DEVICE_INFO_MODEL, info->Model, sizeof info->Model) &&
       r.Text(1010, info->FamilyName, sizeof info->FamilyName) &&
       r.Text(1006, info->DeviceVersion, sizeof info->DeviceVersion) &&
       r.Text(1007, info->ManufacturerInfo, sizeof info->ManufacturerInfo) &&
       r.Text(1008, info->SerialNumber, sizeof info->SerialNumber) &&
       r.Text(1009, info->UserDefinedName, sizeof info->UserDefinedName);
  ok = ok && r.Query(1002, 4) && ((info->Info1002 = r.Word()), true);
  ok = ok && r.Query(1011, 8) && ((info->Info1011 = r.Quad()), true);
  if (!ok) throw Error(KIVCAM_ERR_OTHER);
}

}  // namespace kivcam::camera
