// One virtual camera's remote register space: bootstrap registers of its
// transport, the feature registers of its description and the description
// files themselves.
#pragma once
#include <kivgentl/gentl.h>

#include <cstdint>
#include <string>
#include <vector>

#include "shared.h"
#include "world.h"

namespace kivsim {

// Feature registers (both transports).
enum FeatureReg : uint32_t {
  kRegWidth = 0xA000, kRegHeight = 0xA004, kRegOffsetX = 0xA008, kRegOffsetY = 0xA00C,
  kRegPixelFormat = 0xA010, kRegPayloadSize = 0xA014, kRegTLParamsLocked = 0xA018,
  kRegAcqStart = 0xA01C, kRegAcqStop = 0xA020, kRegAcqMode = 0xA024, kRegExposure = 0xA028,
  kRegTestPattern = 0xA02C, kRegTriggerMode = 0xA030, kRegTriggerSoftware = 0xA034,
  kRegTriggerSource = 0xA038, kRegSensorWidth = 0xA03C, kRegSensorHeight = 0xA040,
  kRegGain = 0xA050, kRegBlackLevel = 0xA060, kRegFrameCounter = 0xA064, kRegFrameRate = 0xA068,
  kRegTemperature = 0xA070, kRegFeatureEnd = 0xA074
};
// USB3 Vision register blocks.
constexpr uint32_t kSbrm = 0x1000, kSirm = 0x1100, kEirm = 0x1200;
constexpr uint32_t kUsbLeaderSize = 52, kUsbTrailerSize = 32;
// Description files in the register space.
constexpr uint64_t kXmlBase[2] = {0x100000, 0x200000};

struct FrameGeometry {
  uint32_t width = 0, height = 0, offset_x = 0, offset_y = 0;
  uint32_t pixel_format = 0;  // 32-bit code, legacy values translated
  size_t payload = 0;
};

class VirtualDevice {
 public:
  VirtualDevice(Transport t, const CameraConfig& cfg, const InterfaceConfig& iface);

  const CameraConfig& config() const { return cfg_; }
  Transport transport() const { return t_; }
  bool big_endian() const { return t_ == Transport::GigE; }
  std::string id() const { return DeviceIdOf(t_, cfg_); }

  // Initial register contents of a freshly created shared state.
  void InitShared(SharedCamera& sc) const;

  // Register access through the remote port; the shared lock is held by the caller.
  GC_ERROR Read(SharedCamera& sc, uint64_t addr, void* buf, size_t len, std::string* why) const;
  GC_ERROR Write(SharedCamera& sc, uint64_t addr, const void* buf, size_t len, std::string* why) const;

  FrameGeometry Geometry(const SharedCamera& sc) const;
  uint32_t Reg32(const SharedCamera& sc, uint32_t addr) const;
  void SetReg32(SharedCamera& sc, uint32_t addr, uint32_t v) const;

  // Description files: index 0 and 1 (zip or plain per configuration).
  size_t url_count() const { return 2; }
  std::string Url(size_t i) const;
  const std::vector<uint8_t>& File(size_t i) const { return files_[i]; }
  bool FileIsZip(size_t i) const { return (i == 0) == cfg_.zip_first; }
  std::string FileName(size_t i) const;
  const std::string& xml() const { return xml_; }

  // The user-defined name as the device holds it now (a host may rewrite
  // it through the port); the caller holds the shared lock.
  std::string UserName(const SharedCamera& sc) const;

  // Packet payload bytes of a GigE stream packet with the current settings.
  uint32_t PacketPayload(const SharedCamera& sc) const;

 private:
  bool Writable(uint32_t addr, size_t len) const;
  GC_ERROR CheckFeatureWrite(SharedCamera& sc, uint32_t addr, uint32_t v, std::string* why) const;

  Transport t_;
  CameraConfig cfg_;
  InterfaceConfig iface_;
  std::string xml_;
  std::vector<uint8_t> files_[2];
};

// Instantiates the embedded description template for one camera.
std::string BuildDescription(Transport t, const CameraConfig& cfg);
// A ZIP archive holding one deflated entry.
std::vector<uint8_t> BuildZip(const std::string& entry_name, const std::string& content);

}  // namespace kivsim
