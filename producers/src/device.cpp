#include "device.h"

#include <zlib.h>

#include <cstdio>
#include <cstring>

#include "pixfmt.h"

namespace kivsim {

extern const unsigned char kDescriptionTemplate[];  // generated from producers/xml at build time

namespace {

void ReplaceAll(std::string& s, const std::string& from, const std::string& to) {
  for (size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size())) s.replace(p, from.size(), to);
}

// Keeps the blocks marked for `keep` and drops those marked for `drop`.
void SelectBlocks(std::string& s, const std::string& keep, const std::string& drop) {
  ReplaceAll(s, "<!--" + keep + "{-->\n", "");
  ReplaceAll(s, "<!--}" + keep + "-->\n", "");
  const std::string open = "<!--" + drop + "{-->", close = "<!--}" + drop + "-->\n";
  for (size_t a = s.find(open); a != std::string::npos; a = s.find(open, a)) {
    size_t b = s.find(close, a);
    if (b == std::string::npos) break;
    s.erase(a, b + close.size() - a);
  }
}

std::string Hex(uint64_t v) {
  char b[32];
  std::snprintf(b, sizeof b, "0x%llX", static_cast<unsigned long long>(v));
  return b;
}

void PutString(uint8_t* regs, uint32_t addr, size_t len, const std::string& s) {
  std::memset(regs + addr, 0, len);
  std::memcpy(regs + addr, s.data(), s.size() < len ? s.size() : len - 1);
}

}  // namespace

std::string BuildDescription(Transport t, const CameraConfig& cfg) {
  std::string s = reinterpret_cast<const char*>(kDescriptionTemplate);
  const bool gige = t == Transport::GigE;
  SelectBlocks(s, gige ? "GIGE" : "USB", gige ? "USB" : "GIGE");
  std::string entries;
  for (uint32_t code : cfg.formats) {
    const PixelFormatInfo* f = FindPixelFormat(code);
    if (!f || (cfg.legacy_values && f->legacy == 0)) continue;
    entries += "    <EnumEntry Name=\"" + std::string(f->name) + "\" NameSpace=\"Standard\">\n      <Value>" +
               (cfg.legacy_values ? std::to_string(f->legacy) : Hex(code)) + "</Value>\n    </EnumEntry>\n";
  }
  if (!entries.empty()) entries.pop_back();
  ReplaceAll(s, "@PIXELFORMAT_ENTRIES@", entries);
  ReplaceAll(s, "@MODEL@", cfg.model);
  ReplaceAll(s, "@VENDOR@", cfg.vendor);
  ReplaceAll(s, "@NAMESPACE@", gige ? "GEV" : "USB");
  ReplaceAll(s, "@VERSIONDIGIT@", gige ? "1" : "2");
  ReplaceAll(s, "@ENDIAN@", gige ? "BigEndian" : "LittleEndian");
  ReplaceAll(s, "@PACKET_MAX@", std::to_string(cfg.packet_size_max));
  struct Field { const char* key; uint32_t gige_addr, gige_len, usb_addr, usb_len; };
  static const Field fields[] = {{"VENDOR", 0x48, 32, 0x04, 64},  {"MODEL", 0x68, 32, 0x44, 64},
                                 {"VERSION", 0x88, 32, 0xC4, 64}, {"SERIAL", 0xD8, 16, 0x144, 64},
                                 {"USERID", 0xE8, 16, 0x184, 64}};
  for (const auto& f : fields) {
    ReplaceAll(s, std::string("@") + f.key + "_ADDR@", Hex(gige ? f.gige_addr : f.usb_addr));
    ReplaceAll(s, std::string("@") + f.key + "_LEN@", std::to_string(gige ? f.gige_len : f.usb_len));
  }
  return s;
}

std::vector<uint8_t> BuildZip(const std::string& name, const std::string& content) {
  std::vector<uint8_t> packed(compressBound(static_cast<uLong>(content.size())) + 64);
  z_stream zs{};
  deflateInit2(&zs, Z_BEST_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(content.data()));
  zs.avail_in = static_cast<uInt>(content.size());
  zs.next_out = packed.data();
  zs.avail_out = static_cast<uInt>(packed.size());
  deflate(&zs, Z_FINISH);
  packed.resize(zs.total_out);
  deflateEnd(&zs);
  const uint32_t crc = static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(content.data()),
                                                   static_cast<uInt>(content.size())));
  std::vector<uint8_t> z;
  auto u16 = [&](uint32_t v) { z.push_back(uint8_t(v)), z.push_back(uint8_t(v >> 8)); };
  auto u32 = [&](uint32_t v) { u16(v & 0xFFFF), u16(v >> 16); };
  auto common = [&]() {
    u16(20), u16(0), u16(8);  // version needed, flags, deflate
    u16(0), u16(0x21);        // time, date (1980-01-01)
    u32(crc), u32(uint32_t(packed.size())), u32(uint32_t(content.size()));
    u16(uint32_t(name.size())), u16(0);
  };
  u32(0x04034b50);
  common();
  z.insert(z.end(), name.begin(), name.end());
  z.insert(z.end(), packed.begin(), packed.end());
  const uint32_t central = static_cast<uint32_t>(z.size());
  u32(0x02014b50);
  u16(20);
  common();
  u16(0), u16(0), u16(0), u32(0), u32(0);  // comment, disk, attributes, local header offset
  z.insert(z.end(), name.begin(), name.end());
  const uint32_t central_size = static_cast<uint32_t>(z.size()) - central;
  u32(0x06054b50);
  u16(0), u16(0), u16(1), u16(1);
  u32(central_size), u32(central), u16(0);
  return z;
}

VirtualDevice::VirtualDevice(Transport t, const CameraConfig& cfg, const InterfaceConfig& iface)
    : t_(t), cfg_(cfg), iface_(iface), xml_(BuildDescription(t, cfg)) {
  for (size_t i = 0; i < 2; ++i) {
    if (FileIsZip(i)) {
      std::string entry = "KivSim_" + cfg_.model + ".xml";
      files_[i] = BuildZip(entry, xml_);
    } else {
      files_[i].assign(xml_.begin(), xml_.end());
    }
  }
}

std::string VirtualDevice::FileName(size_t i) const {
  return "KivSim_" + cfg_.model + (FileIsZip(i) ? ".zip" : ".xml");
}

std::string VirtualDevice::Url(size_t i) const {
  char b[256];
  std::snprintf(b, sizeof b, "Local:%s;%llX;%zX", FileName(i).c_str(), static_cast<unsigned long long>(kXmlBase[i]),
                files_[i].size());
  return b;
}

uint32_t VirtualDevice::Reg32(const SharedCamera& sc, uint32_t a) const {
  const uint8_t* p = sc.regs + a;
  if (big_endian()) return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
  return uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
}

void VirtualDevice::SetReg32(SharedCamera& sc, uint32_t a, uint32_t v) const {
  uint8_t* p = sc.regs + a;
  for (int i = 0; i < 4; ++i) p[big_endian() ? i : 3 - i] = uint8_t(v >> (24 - 8 * i));
}

void VirtualDevice::InitShared(SharedCamera& sc) const {
  std::memset(&sc, 0, sizeof sc);
  sc.plugged = cfg_.plugged;
  sc.mode = kFreeRun;
  sc.packet_size_limit = cfg_.packet_size_limit;
  uint8_t* r = sc.regs;
  if (t_ == Transport::GigE) {
    SetReg32(sc, 0x0000, 0x00020000);                   // GigE Vision 2.0
    SetReg32(sc, 0x0004, 0x80000001);                   // big-endian transmitter, UTF-8
    SetReg32(sc, 0x0008, uint32_t(cfg_.uid >> 32) & 0xFFFF);
    SetReg32(sc, 0x000C, uint32_t(cfg_.uid));
    SetReg32(sc, 0x0010, 0x7);
    SetReg32(sc, 0x0014, 0x6);
    SetReg32(sc, 0x0024, cfg_.ip);
    SetReg32(sc, 0x0034, 0xFFFFFF00);
    SetReg32(sc, 0x0044, iface_.host_ip);
    PutString(r, 0x48, 32, cfg_.vendor);
    PutString(r, 0x68, 32, cfg_.model);
    PutString(r, 0x88, 32, cfg_.version);
    PutString(r, 0xA8, 48, cfg_.info);
    PutString(r, 0xD8, 16, cfg_.serial);
    PutString(r, 0xE8, 16, cfg_.user_name);
    PutString(r, 0x200, 512, Url(0));
    PutString(r, 0x400, 512, Url(1));
    SetReg32(sc, 0x0600, 1);
    SetReg32(sc, 0x0670, cfg_.link);
    SetReg32(sc, 0x0900, 0);
    SetReg32(sc, 0x0904, cfg_.streams);
    SetReg32(sc, 0x092C, 0x80000000 | 0x40000000);
    SetReg32(sc, 0x0934, 0x80000000 | 0x40000000 | 0x20000000 | 0x10000000 | 0x20 | 0x2);
    SetReg32(sc, 0x0938, 3000);
    SetReg32(sc, 0x093C, 0);
    SetReg32(sc, 0x0940, 1000000000);
    SetReg32(sc, 0x0958, 5000);
    SetReg32(sc, 0x0960, cfg_.extended_ids ? 0x40000000 : 0);
    SetReg32(sc, 0x0D04, 1500);
    SetReg32(sc, 0x0D1C, 0xC000);
    SetReg32(sc, 0x0D20, 0x80000000);
  } else {
    SetReg32(sc, 0x0000, 0x00010000);                   // GenCP 1.0
    PutString(r, 0x004, 64, cfg_.vendor);
    PutString(r, 0x044, 64, cfg_.model);
    PutString(r, 0x084, 64, cfg_.family);
    PutString(r, 0x0C4, 64, cfg_.version);
    PutString(r, 0x104, 64, cfg_.info);
    PutString(r, 0x144, 64, cfg_.serial);
    PutString(r, 0x184, 64, cfg_.user_name);
    SetReg32(sc, 0x01C4, 0x0000001F);                   // capability (low word)
    SetReg32(sc, 0x01CC, 200);                          // maximum response time
    SetReg32(sc, 0x01D8, kSbrm);                        // SBRM address (64-bit, high word 0)
    SetReg32(sc, 0x01E8, 3000);
    SetReg32(sc, 0x0208, 0xFFFFFFFF);                   // little-endian protocol
    SetReg32(sc, 0x020C, 0xFFFFFFFF);
    SetReg32(sc, kSbrm + 0x00, 0x00010000);             // USB3 Vision 1.0
    SetReg32(sc, kSbrm + 0x14, 1024);
    SetReg32(sc, kSbrm + 0x18, 1024);
    SetReg32(sc, kSbrm + 0x1C, 1);                      // one stream channel
    SetReg32(sc, kSbrm + 0x20, kSirm);                  // SIRM address
    SetReg32(sc, kSbrm + 0x28, 0x30);
    SetReg32(sc, kSbrm + 0x2C, kEirm);
    SetReg32(sc, kSbrm + 0x34, 0x0C);
    SetReg32(sc, kSbrm + 0x40, cfg_.link == 0x200 ? 3 : 4);  // high speed / super speed
    SetReg32(sc, kSirm + 0x00, cfg_.usb_alignment_exp << 24);
    SetReg32(sc, kSirm + 0x10, kUsbLeaderSize);
    SetReg32(sc, kSirm + 0x14, kUsbTrailerSize);
  }
  const PixelFormatInfo* pf = FindPixelFormat(cfg_.format);
  SetReg32(sc, kRegWidth, cfg_.width);
  SetReg32(sc, kRegHeight, cfg_.height);
  SetReg32(sc, kRegPixelFormat, cfg_.legacy_values && pf && pf->legacy ? pf->legacy : cfg_.format);
  SetReg32(sc, kRegSensorWidth, cfg_.sensor_width);
  SetReg32(sc, kRegSensorHeight, cfg_.sensor_height);
  SetReg32(sc, kRegExposure, 1000);  // 10 ms
  SetReg32(sc, kRegFrameRate, static_cast<uint32_t>(cfg_.frame_rate * 1000.0 + 0.5));
  SetReg32(sc, kRegTemperature, 385);
}

FrameGeometry VirtualDevice::Geometry(const SharedCamera& sc) const {
  FrameGeometry g;
  g.width = Reg32(sc, kRegWidth);
  g.height = Reg32(sc, kRegHeight);
  g.offset_x = Reg32(sc, kRegOffsetX);
  g.offset_y = Reg32(sc, kRegOffsetY);
  uint32_t v = Reg32(sc, kRegPixelFormat);
  const PixelFormatInfo* f = cfg_.legacy_values ? FindPixelFormatByLegacy(v) : FindPixelFormat(v);
  g.pixel_format = f ? f->code : v;
  g.payload = f ? PayloadBytes(*f, g.width, g.height) : 0;
  return g;
}

uint32_t VirtualDevice::PacketPayload(const SharedCamera& sc) const {
  uint32_t packet = Reg32(sc, 0x0D04) & 0xFFFF;
  uint32_t header = (Reg32(sc, 0x0960) & 0x40000000) ? 48 : 36;
  return packet > header ? packet - header : 1;
}

std::string VirtualDevice::UserName(const SharedCamera& sc) const {
  const uint32_t at = t_ == Transport::GigE ? 0xE8 : 0x184, len = t_ == Transport::GigE ? 16 : 64;
  const char* p = reinterpret_cast<const char*>(sc.regs + at);
  return std::string(p, strnlen(p, len));
}

bool VirtualDevice::Writable(uint32_t a, size_t len) const {
  struct Range { uint32_t lo, hi; };
  static const Range gige[] = {{0x00E8, 0x00F8}, {0x0938, 0x093C}, {0x0954, 0x0958}, {0x0960, 0x0964},
                               {0x0A00, 0x0A04}, {0x0D00, 0x0D1C}, {0x0D24, 0x0D28}};
  static const Range usb[] = {{0x0184, 0x01C4}, {0x01E8, 0x01EC}, {0x0204, 0x0208}, {kSirm + 0x04, kSirm + 0x08},
                              {kSirm + 0x18, kSirm + 0x30}};
  static const Range features[] = {{kRegWidth, kRegPayloadSize}, {kRegTLParamsLocked, kRegSensorWidth},
                                   {kRegGain, kRegFrameCounter}, {kRegFrameRate, kRegTemperature}};
  auto in = [&](const Range* r, size_t n) {
    for (size_t i = 0; i < n; ++i)
      if (a >= r[i].lo && a + len <= r[i].hi) return true;
    return false;
  };
  if (in(features, 4)) return true;
  return t_ == Transport::GigE ? in(gige, 7) : in(usb, 5);
}

GC_ERROR VirtualDevice::CheckFeatureWrite(SharedCamera& sc, uint32_t a, uint32_t v, std::string* why) const {
  const bool locked = Reg32(sc, kRegTLParamsLocked) != 0;
  switch (a) {
    case kRegWidth:
    case kRegHeight:
    case kRegOffsetX:
    case kRegOffsetY: {
      if (locked && (a == kRegWidth || a == kRegHeight)) return *why = "Image format locked while streaming", GC_ERR_ACCESS_DENIED;
      bool horiz = a == kRegWidth || a == kRegOffsetX;
      uint32_t sensor = Reg32(sc, horiz ? kRegSensorWidth : kRegSensorHeight);
      uint32_t other = Reg32(sc, a == kRegWidth ? kRegOffsetX : a == kRegHeight ? kRegOffsetY
                                                               : a == kRegOffsetX ? kRegWidth : kRegHeight);
      bool size = a == kRegWidth || a == kRegHeight;
      if ((size && v < (horiz ? 8u : 2u)) || uint64_t(v) + other > sensor || v % (horiz ? 4 : 2) != 0)
        return *why = "Value out of range", GC_ERR_INVALID_VALUE;
      return GC_ERR_SUCCESS;
    }
    case kRegPixelFormat: {
      if (locked) return *why = "Image format locked while streaming", GC_ERR_ACCESS_DENIED;
      const PixelFormatInfo* f = cfg_.legacy_values ? FindPixelFormatByLegacy(v) : FindPixelFormat(v);
      bool offered = false;
      for (uint32_t c : cfg_.formats) offered |= f && c == f->code;
      return offered ? GC_ERR_SUCCESS : (*why = "Pixel format not offered", GC_ERR_INVALID_VALUE);
    }
    case kRegTLParamsLocked:
      return v <= 1 ? GC_ERR_SUCCESS : (*why = "Value out of range", GC_ERR_INVALID_VALUE);
    default:
      return GC_ERR_SUCCESS;
  }
}

GC_ERROR VirtualDevice::Read(SharedCamera& sc, uint64_t addr, void* buf, size_t len, std::string* why) const {
  for (size_t i = 0; i < 2; ++i) {
    const auto& f = files_[i];
    uint64_t end = kXmlBase[i] + ((f.size() + 0xFFF) & ~size_t(0xFFF));
    if (addr >= kXmlBase[i] && addr + len <= end) {
      // Past the end of the file reads as zeros (readers round the length up).
      uint8_t* out = static_cast<uint8_t*>(buf);
      for (size_t k = 0; k < len; ++k) {
        uint64_t off = addr - kXmlBase[i] + k;
        out[k] = off < f.size() ? f[off] : 0;
      }
      return GC_ERR_SUCCESS;
    }
  }
  if (addr >= kRegSpace || addr + len > kRegSpace || len > kRegSpace)
    return *why = "Register address out of range", GC_ERR_INVALID_ADDRESS;
  const uint32_t a = static_cast<uint32_t>(addr);
  // Registers the device computes on every read.
  FrameGeometry g = Geometry(sc);
  SetReg32(sc, kRegPayloadSize, static_cast<uint32_t>(g.payload));
  SetReg32(sc, kRegFrameCounter, static_cast<uint32_t>(sc.frames));
  if (t_ == Transport::USB) {
    SetReg32(sc, kSirm + 0x08, static_cast<uint32_t>(g.payload));
  }
  std::memcpy(buf, sc.regs + a, len);
  return GC_ERR_SUCCESS;
}

GC_ERROR VirtualDevice::Write(SharedCamera& sc, uint64_t addr, const void* buf, size_t len, std::string* why) const {
  if (addr >= kRegSpace || addr + len > kRegSpace || len > kRegSpace) {
    if (addr >= kXmlBase[0]) return *why = "Description is read-only", GC_ERR_ACCESS_DENIED;
    return *why = "Register address out of range", GC_ERR_INVALID_ADDRESS;
  }
  const uint32_t a = static_cast<uint32_t>(addr);
  if (!Writable(a, len)) return *why = "Register is not writable", GC_ERR_ACCESS_DENIED;
  // Validate every 32-bit feature register the write covers, as it will look afterwards.
  uint8_t saved[kRegFeatureEnd - kRegWidth];
  std::memcpy(saved, sc.regs + kRegWidth, sizeof saved);
  std::memcpy(sc.regs + a, buf, len);
  for (uint32_t r = kRegWidth; r < kRegFeatureEnd; r += 4) {
    if (r + 4 <= a || r >= a + len) continue;
    std::string w;
    GC_ERROR e = CheckFeatureWrite(sc, r, Reg32(sc, r), &w);
    if (e == GC_ERR_SUCCESS) continue;
    std::memcpy(sc.regs + kRegWidth, saved, sizeof saved);
    *why = w;
    return e;
  }
  sc.register_writes++;
  auto covers = [&](uint32_t r) { return a <= r && a + len >= r + 4; };
  if (covers(kRegAcqStart) && Reg32(sc, kRegAcqStart) == 1) sc.acquiring = 1;
  if (covers(kRegAcqStop) && Reg32(sc, kRegAcqStop) == 1) sc.acquiring = 0;
  if (covers(kRegTriggerSoftware) && Reg32(sc, kRegTriggerSoftware) == 1 && Reg32(sc, kRegTriggerMode) == 1 &&
      sc.acquiring)
    sc.credits++;
  // Command registers read back as idle.
  SetReg32(sc, kRegAcqStart, 0);
  SetReg32(sc, kRegAcqStop, 0);
  SetReg32(sc, kRegTriggerSoftware, 0);
  return GC_ERR_SUCCESS;
}

}  // namespace kivsim
