// Register spaces, description files and the producer's module registers.
#include <pugixml.hpp>
#include <unistd.h>
#include <unzip.h>

#include <cstring>
#include <fstream>
#include <map>
#include <set>

#include "gentl_api.h"

namespace {

// The first entry of a ZIP archive; empty when the archive or its CRC is broken.
std::string Unzip(const std::string& zip) {
  const std::string path = ::testing::TempDir() + "kivsim_" + std::to_string(getpid()) + ".zip";
  std::ofstream(path, std::ios::binary) << zip;
  std::string out;
  unzFile z = unzOpen(path.c_str());
  unz_file_info info;
  if (z && unzGoToFirstFile(z) == UNZ_OK && unzOpenCurrentFile(z) == UNZ_OK &&
      unzGetCurrentFileInfo(z, &info, nullptr, 0, nullptr, 0, nullptr, 0) == UNZ_OK) {
    out.resize(info.uncompressed_size);
    const int n = unzReadCurrentFile(z, out.data(), static_cast<unsigned>(out.size()));
    if (unzCloseCurrentFile(z) != UNZ_OK || n != static_cast<int>(out.size())) out.clear();  // CRC checked at close
  }
  if (z) unzClose(z);
  std::remove(path.c_str());
  return out;
}

class Ports : public ProducerTest {
 protected:
  explicit Ports(bool usb = false) : ProducerTest(usb) {}
  // Both description files of a camera's port: (ZIP unpacked, plain).
  std::pair<std::string, std::string> Descriptions(PORT_HANDLE port) {
    uint32_t count = 0;
    EXPECT_EQ(p.GCGetNumPortURLs(port, &count), GC_ERR_SUCCESS);
    EXPECT_GE(count, 2u);
    std::string zip, plain, url;
    for (uint32_t i = 0; i < 2; ++i) {
      std::string file = UrlFile(port, i, &url);
      (url.find(".zip;") != std::string::npos ? zip : plain) = file;
    }
    return {Unzip(zip), plain};
  }
};

// The node map a GigE camera describes: every feature the library binds, no dangling reference.
void CheckGigEDescription(const std::string& plain) {
  pugi::xml_document doc;
  ASSERT_TRUE(doc.load_string(plain.c_str())) << "description is not well-formed";
  pugi::xml_node root = doc.child("RegisterDescription");
  ASSERT_TRUE(root);
  EXPECT_STREQ(root.attribute("StandardNameSpace").value(), "GEV");
  std::set<std::string> names;
  std::map<std::string, std::string> kinds;
  for (pugi::xml_node n : root.children()) {
    std::string name = n.attribute("Name").value();
    if (name.empty()) continue;
    EXPECT_TRUE(names.insert(name).second) << "duplicate node " << name;
    kinds[name] = n.name();
  }
  const std::pair<const char*, const char*> required[] = {
      {"Width", "Integer"}, {"Height", "Integer"}, {"PixelFormat", "Enumeration"}, {"PayloadSize", "Integer"},
      {"TLParamsLocked", "Integer"}, {"AcquisitionStart", "Command"}, {"AcquisitionStop", "Command"},
      {"DeviceLinkSelector", "Integer"}, {"DeviceStreamChannelSelector", "Integer"},
      {"GevStreamChannelSelector", "Integer"}, {"GevHeartbeatTimeout", "Integer"},
      {"GevGVCPHeartbeatDisable", "Boolean"}, {"GevSCPSPacketSize", "Integer"}, {"GevGVCPPendingAck", "Boolean"},
      {"ExposureTime", "Float"}, {"Gain", "Float"}, {"GainSelector", "Enumeration"}, {"TriggerMode", "Enumeration"},
      {"TriggerSoftware", "Command"}, {"TestPattern", "Enumeration"}, {"DeviceVendorName", "StringReg"},
      {"DeviceSerialNumber", "StringReg"}, {"Root", "Category"}, {"Device", "Port"}};
  for (auto [name, kind] : required) EXPECT_EQ(kinds[name], kind) << name;
  // Every node a feature refers to exists.
  for (pugi::xpath_node ref : doc.select_nodes("//*[starts-with(local-name(), 'p') and not(*)]")) {
    std::string tag = ref.node().name(), target = ref.node().text().get();
    if (tag == "pPort" || tag.rfind("p", 0) != 0 || target.empty()) continue;
    EXPECT_TRUE(names.count(target)) << tag << " -> " << target;
  }
  // Packet size bounds as the negotiation reads them.
  pugi::xml_node packet = root.find_child_by_attribute("Integer", "Name", "GevSCPSPacketSize");
  EXPECT_EQ(packet.child("Min").text().as_int(), 576);
  EXPECT_GT(packet.child("Max").text().as_int(), 1500);
  EXPECT_EQ(packet.child("Inc").text().as_int(), 4);
  // Entry values are the camera's formats, no transport block of the other kind leaked in.
  size_t entries = 0;
  for (pugi::xml_node e : root.find_child_by_attribute("Enumeration", "Name", "PixelFormat").children("EnumEntry")) {
    EXPECT_EQ(std::string(e.child("Value").text().get()).rfind("0x", 0), 0u);
    ++entries;
  }
  EXPECT_GT(entries, 50u);
  EXPECT_EQ(plain.find("<!--USB"), std::string::npos);
  EXPECT_EQ(plain.find('@'), std::string::npos) << "unfilled template field";
}

TEST_F(Ports, DescriptionServedZippedAndPlainIsAValidNodeMapWithEveryBoundFeature) {
  for (uint32_t cam : {0u, 1u}) {
    SCOPED_TRACE(cam);
    PORT_HANDLE port = Port(Open(cam));
    auto [zip, plain] = Descriptions(port);
    ASSERT_FALSE(zip.empty()) << "ZIP variant missing or corrupt";
    EXPECT_EQ(zip, plain);
    // The first URL is repeated in the bootstrap register of the GigE camera.
    char reg[512] = {};
    size_t n = sizeof reg;
    ASSERT_EQ(p.GCReadPort(port, 0x200, reg, &n), GC_ERR_SUCCESS);
    std::string url;
    UrlFile(port, 0, &url);
    EXPECT_EQ(std::string(reg), url);
    if (cam == 1) CheckGigEDescription(plain);
  }
}

// Bootstrap registers big-endian, feature registers validated, then a short read.
TEST_F(Ports, RegisterSpaceRules) {
  PORT_HANDLE port = Port(Open(0));
  EXPECT_EQ(Read32(port, 0x0000, true) >> 16, 2u);
  EXPECT_EQ(Read32(port, 0x0D04, true) & 0xFFFF, 1500u);
  EXPECT_EQ(Read32(port, 0x0960, true) & 0x40000000, 0u);
  Read32(port, 0x0A00, true);  // CCP readable
  ASSERT_EQ(Write32(port, 0x0D04, 8000, true), GC_ERR_SUCCESS);
  EXPECT_EQ(Read32(port, 0x0D04, true), 8000u);
  uint8_t le[4];
  size_t n = 4;
  ASSERT_EQ(p.GCReadPort(port, 0xA000, le, &n), GC_ERR_SUCCESS);
  EXPECT_EQ(le[2] << 8 | le[3], 640) << "Width in network order";
  EXPECT_TRUE(InfoOf<bool8_t>(p.GCGetPortInfo, port, PORT_INFO_BIG_ENDIAN));

  ASSERT_EQ(Write32(port, 0xA000, 64, true), GC_ERR_SUCCESS);
  ASSERT_EQ(Write32(port, 0xA004, 48, true), GC_ERR_SUCCESS);
  EXPECT_EQ(Read32(port, 0xA014, true), 64u * 48u);
  ASSERT_EQ(Write32(port, 0xA010, 0x01100007, true), GC_ERR_SUCCESS);  // Mono16
  EXPECT_EQ(Read32(port, 0xA014, true), 64u * 48u * 2u);
  EXPECT_EQ(Write32(port, 0xA000, 0, true), GC_ERR_INVALID_VALUE);
  EXPECT_EQ(Write32(port, 0xA000, 1921, true), GC_ERR_INVALID_VALUE);
  EXPECT_EQ(Write32(port, 0xA010, 0x02180014, true), GC_ERR_INVALID_VALUE) << "RGB8 is not a mono format";
  EXPECT_EQ(Read32(port, 0xA000, true), 64u) << "a refused write changes nothing";
  ASSERT_EQ(Write32(port, 0xA018, 1, true), GC_ERR_SUCCESS);
  EXPECT_EQ(Write32(port, 0xA000, 128, true), GC_ERR_ACCESS_DENIED) << "locked while streaming";
  EXPECT_EQ(Write32(port, 0xA014, 1, true), GC_ERR_ACCESS_DENIED) << "PayloadSize is read-only";
  EXPECT_EQ(Write32(port, 0x0200, 1, true), GC_ERR_ACCESS_DENIED);
  EXPECT_EQ(Write32(port, 0x100000, 1, true), GC_ERR_ACCESS_DENIED);
  uint32_t v;
  n = 4;
  EXPECT_EQ(p.GCReadPort(port, 0x900000, &v, &n), GC_ERR_INVALID_ADDRESS);
  EXPECT_EQ(p.GCReadPort(port, 0xA000, nullptr, &n), GC_ERR_INVALID_PARAMETER);

  ASSERT_EQ(p.kivsim_short_reads(1), 0);
  uint8_t b[8];
  n = 8;
  ASSERT_EQ(p.GCReadPort(port, 0x48, b, &n), GC_ERR_SUCCESS);
  EXPECT_EQ(n, 4u);
  n = 8;
  ASSERT_EQ(p.GCReadPort(port, 0x48, b, &n), GC_ERR_SUCCESS);
  EXPECT_EQ(n, 8u);
}

TEST_F(Ports, ModuleRegistersOfDeviceAndStream) {
  DEV_HANDLE d = Open(0);
  DS_HANDLE s0 = Stream(d, 0), s1 = Stream(d, 1);
  ASSERT_EQ(WriteModule(d, KIVSIM_DEV_COMMAND_TIMEOUT, 600000), GC_ERR_SUCCESS);
  EXPECT_EQ(ReadModule(d, KIVSIM_DEV_COMMAND_TIMEOUT), 600000u);
  kivsim_counters before{}, after{};
  p.kivsim_get_counters(0, &before);
  ASSERT_EQ(WriteModule(d, KIVSIM_DEV_STREAM_RESET, 0), GC_ERR_SUCCESS);
  ASSERT_EQ(WriteModule(d, KIVSIM_DEV_STREAM_RESET, 0), GC_ERR_SUCCESS);
  p.kivsim_get_counters(0, &after);
  EXPECT_EQ(after.reset_requests, before.reset_requests + 2);
  EXPECT_EQ(WriteModule(d, 0x106, 1), GC_ERR_INVALID_ADDRESS);
  // Each stream has its own registers; the VSync stream can follow the image stream.
  EXPECT_NE(ReadModule(s0, KIVSIM_DS_LINK), ReadModule(s1, KIVSIM_DS_LINK));
  ASSERT_EQ(WriteModule(s1, KIVSIM_DS_LINK, ReadModule(s0, KIVSIM_DS_LINK)), GC_ERR_SUCCESS);
  EXPECT_EQ(ReadModule(s0, KIVSIM_DS_RUNNING), 0u);
  // The destination written by the controller shows in the camera's stream channel registers.
  PORT_HANDLE port = Port(d);
  ASSERT_EQ(WriteModule(s0, KIVSIM_DS_GIGE_DESTINATION, 0xEF010203), GC_ERR_SUCCESS);
  EXPECT_EQ(Read32(port, 0x0D18, true), 0xEF010203u);
  EXPECT_NE(Read32(port, 0x0D00, true), 0u);
  uint32_t urls = 9;
  EXPECT_EQ(p.GCGetNumPortURLs(d, &urls), GC_ERR_SUCCESS);
  EXPECT_EQ(urls, 0u) << "the device module has no description of its own";
}

class UsbRegisters : public Ports {
 protected:
  UsbRegisters() : Ports(true) {}
};

TEST_F(UsbRegisters, LittleEndianDescriptionAndRegistersWithoutTheGigEBlock) {
  PORT_HANDLE port = Port(Open(0));
  auto [zip, plain] = Descriptions(port);
  ASSERT_FALSE(zip.empty());
  EXPECT_EQ(zip, plain);
  pugi::xml_document doc;
  ASSERT_TRUE(doc.load_string(plain.c_str()));
  pugi::xml_node root = doc.child("RegisterDescription");
  EXPECT_STREQ(root.attribute("StandardNameSpace").value(), "USB");
  EXPECT_FALSE(root.find_child_by_attribute("Integer", "Name", "GevSCPSPacketSize"));
  EXPECT_TRUE(root.find_child_by_attribute("Integer", "Name", "DeviceLinkSelector"));
  for (pugi::xml_node reg : root.children("IntReg")) EXPECT_STREQ(reg.child_value("Endianess"), "LittleEndian");
  // The vendor string register of the description is where the ABRM keeps it.
  pugi::xml_node vendor = root.find_child_by_attribute("StringReg", "Name", "DeviceVendorName");
  EXPECT_EQ(std::strtoul(vendor.child_value("Address"), nullptr, 0), 4u);

  // The streaming registers are reachable from the bootstrap.
  uint64_t sbrm = 0, sirm = 0;
  size_t n = 8;
  ASSERT_EQ(p.GCReadPort(port, 0x01D8, &sbrm, &n), GC_ERR_SUCCESS);
  ASSERT_NE(sbrm, 0u);
  n = 8;
  ASSERT_EQ(p.GCReadPort(port, sbrm + 0x20, &sirm, &n), GC_ERR_SUCCESS);
  ASSERT_NE(sirm, 0u);
  uint32_t info = Read32(port, sirm, false);
  EXPECT_LT(info >> 24, 16u) << "alignment exponent";
  EXPECT_EQ(Read32(port, sirm + 0x10, false), 52u);
  EXPECT_GE(Read32(port, sirm + 0x14, false), 32u);
  EXPECT_EQ(Read32(port, sirm + 0x08, false), Read32(port, 0xA014, false)) << "required payload";
  char vendor_name[65] = {};
  n = 64;
  ASSERT_EQ(p.GCReadPort(port, 0x0004, vendor_name, &n), GC_ERR_SUCCESS);
  EXPECT_STREQ(vendor_name, "KivCam");
  EXPECT_TRUE(InfoOf<bool8_t>(p.GCGetPortInfo, port, PORT_INFO_LITTLE_ENDIAN));
}

}  // namespace
