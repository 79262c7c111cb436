// Library lifetime, enumeration, device information, opening and fault injection.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include "gentl_api.h"

namespace {

uint64_t ParseUid(const std::string& id) {
  size_t sep = id.find("::");
  return sep == std::string::npos ? 0 : std::strtoull(id.c_str() + sep + 2, nullptr, 10);
}

using Discovery = ProducerTest;
using UsbDiscovery = UsbProducerTest;

TEST_F(Discovery, DefaultWorldHasAnEmptyAdapterThenTwoCameras) {
  ASSERT_EQ(ifs.size(), 2u);
  EXPECT_EQ(NumDevices(ifs[0]), 0u);
  ASSERT_EQ(NumDevices(ifs[1]), 2u);
  std::string a = DeviceId(ifs[1], 0), b = DeviceId(ifs[1], 1);
  EXPECT_EQ(a.rfind("KivGEV::", 0), 0u);
  EXPECT_NE(ParseUid(a), 0u);
  EXPECT_NE(ParseUid(a), ParseUid(b));
  EXPECT_EQ(std::to_string(ParseUid(a)), a.substr(a.find("::") + 2));
  // One mono and one Bayer colour camera.
  EXPECT_NE(InfoString(p, ifs[1], a, DEVICE_INFO_MODEL), InfoString(p, ifs[1], b, DEVICE_INFO_MODEL));
}

TEST_F(Discovery, ListsChangeOnlyWhenUpdated) {
  bool8_t changed = true;
  EXPECT_EQ(p.TLUpdateInterfaceList(tl, &changed, 1000), GC_ERR_SUCCESS);
  EXPECT_FALSE(changed);
  EXPECT_EQ(p.IFUpdateDeviceList(ifs[1], &changed, 1000), GC_ERR_SUCCESS);
  EXPECT_FALSE(changed);
  ASSERT_EQ(p.kivsim_plug(0, 0), 0);
  EXPECT_EQ(NumDevices(ifs[1]), 2u) << "the cached list stays until the next update";
  for (uint32_t plugged : {0u, 1u}) {
    ASSERT_EQ(p.kivsim_plug(0, plugged), 0);
    EXPECT_EQ(p.IFUpdateDeviceList(ifs[1], &changed, 1000), GC_ERR_SUCCESS);
    EXPECT_TRUE(changed);
    EXPECT_EQ(NumDevices(ifs[1]), 1u + plugged);
  }
}

TEST_F(Discovery, CustomDeviceInformationOfGigECameras) {
  std::string id = DeviceId(ifs[1], 0);
  EXPECT_EQ(Info<uint8_t>(p, ifs[1], id, 1000, INFO_DATATYPE_BOOL8), 1);
  uint32_t link = Info<uint32_t>(p, ifs[1], id, 1001, INFO_DATATYPE_UINT32);
  EXPECT_TRUE(link == 100 || link == 1000);
  uint32_t dest = Info<uint32_t>(p, ifs[1], id, 1002, INFO_DATATYPE_UINT32);
  EXPECT_EQ(dest >> 24, 192u) << "the adapter's address";
  EXPECT_EQ(Info<uint32_t>(p, ifs[1], id, 1003, INFO_DATATYPE_UINT32), 2u);
  for (DEVICE_INFO_CMD cmd : {1004, 1005}) Info<uint32_t>(p, ifs[1], id, cmd, INFO_DATATYPE_UINT32);
  for (DEVICE_INFO_CMD cmd : {1006, 1007, 1008, 1009, 1010}) EXPECT_FALSE(InfoString(p, ifs[1], id, cmd).empty());
  EXPECT_EQ(InfoString(p, ifs[1], id, 1008), InfoString(p, ifs[1], id, DEVICE_INFO_SERIAL_NUMBER));
  EXPECT_EQ(InfoString(p, ifs[1], id, 1009), InfoString(p, ifs[1], id, DEVICE_INFO_USER_DEFINED_NAME));
  EXPECT_EQ(Info<uint64_t>(p, ifs[1], id, 1011, INFO_DATATYPE_UINT64), ParseUid(id));
  EXPECT_NE(InfoString(p, ifs[1], id, 1009), InfoString(p, ifs[1], DeviceId(ifs[1], 1), 1009));

  // The opened device answers the same through DevGetInfo.
  DEV_HANDLE d = Open(0);
  EXPECT_EQ(InfoOf<uint32_t>(p.DevGetInfo, d, 1002), dest);
  EXPECT_EQ(InfoText(d, 1009), InfoString(p, ifs[1], id, 1009));
  char name[64];
  size_t n = sizeof name;
  INFO_DATATYPE t;
  EXPECT_EQ(p.DevGetInfo(d, 1012, &t, name, &n), GC_ERR_NOT_IMPLEMENTED);

  // A host renames the camera through its user-name register (16 bytes at
  // 0xE8): every answer follows, before and after opening.
  char renamed[16] = "line-3-top";
  n = sizeof renamed;
  ASSERT_EQ(p.GCWritePort(Port(d), 0xE8, renamed, &n), GC_ERR_SUCCESS);
  EXPECT_EQ(InfoString(p, ifs[1], id, 1009), "line-3-top");
  EXPECT_EQ(InfoString(p, ifs[1], id, DEVICE_INFO_USER_DEFINED_NAME), "line-3-top");
  EXPECT_EQ(InfoText(d, DEVICE_INFO_USER_DEFINED_NAME), "line-3-top");
}

TEST_F(UsbDiscovery, UsbWorldAndLinkSpeed) {
  ASSERT_EQ(ifs.size(), 1u);
  ASSERT_EQ(NumDevices(ifs[0]), 1u);
  std::string id = DeviceId(ifs[0], 0);
  EXPECT_EQ(id.rfind("KivU3V::", 0), 0u);
  uint32_t link = Info<uint32_t>(p, ifs[0], id, 1001, INFO_DATATYPE_UINT32);
  EXPECT_TRUE(link == 0x200 || link == 0x300);
  EXPECT_EQ(InfoString(p, ifs[0], id, DEVICE_INFO_TLTYPE), "U3V");
}

TEST_F(Discovery, InformationSizeNegotiation) {
  std::string id = DeviceId(ifs[1], 0);
  size_t n = 0;
  INFO_DATATYPE t = 0;
  ASSERT_EQ(p.IFGetDeviceInfo(ifs[1], id.c_str(), DEVICE_INFO_ID, &t, nullptr, &n), GC_ERR_SUCCESS);
  EXPECT_EQ(n, id.size() + 1);
  EXPECT_EQ(t, INFO_DATATYPE_STRING);
  std::vector<char> small(n - 1);
  size_t m = small.size();
  EXPECT_EQ(p.IFGetDeviceInfo(ifs[1], id.c_str(), DEVICE_INFO_ID, &t, small.data(), &m), GC_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(p.IFGetDeviceInfo(ifs[1], id.c_str(), DEVICE_INFO_ID, &t, small.data(), nullptr), GC_ERR_INVALID_PARAMETER);
  EXPECT_EQ(p.IFGetDeviceInfo(ifs[1], "KivGEV::1", DEVICE_INFO_ID, &t, nullptr, &n), GC_ERR_INVALID_ID);
  char tl_id[8];
  size_t k = sizeof tl_id;
  EXPECT_EQ(p.GCGetInfo(TL_INFO_ID, &t, tl_id, &k), GC_ERR_BUFFER_TOO_SMALL);
  uint32_t major = 0;
  k = sizeof major;
  EXPECT_EQ(p.GCGetInfo(TL_INFO_GENTL_VER_MAJOR, &t, &major, &k), GC_ERR_SUCCESS);
  EXPECT_EQ(major, 1u);
}

TEST_F(Discovery, LifetimeRulesInvalidHandlesAndAPerThreadLastError) {
  EXPECT_EQ(p.GCInitLib(), GC_ERR_RESOURCE_IN_USE);
  TL_HANDLE second;
  EXPECT_EQ(p.TLOpen(&second), GC_ERR_RESOURCE_IN_USE);
  uint32_t n;
  EXPECT_EQ(p.IFGetNumDevices(nullptr, &n), GC_ERR_INVALID_HANDLE);
  GC_ERROR code = 0;
  p.LastError(&code);
  EXPECT_EQ(code, GC_ERR_INVALID_HANDLE);
  std::thread([&] {
    GC_ERROR c = -1;
    EXPECT_EQ(p.LastError(&c), "No Error");
    EXPECT_EQ(c, GC_ERR_SUCCESS);
  }).join();
  EXPECT_EQ(p.IFGetNumDevices(tl, &n), GC_ERR_INVALID_HANDLE) << "a system handle is no interface";
  int junk = 0;
  EXPECT_EQ(p.DevClose(&junk), GC_ERR_INVALID_HANDLE);
  DEV_HANDLE d = Open(0);
  PORT_HANDLE port = Port(d);
  EXPECT_EQ(p.DevClose(port), GC_ERR_INVALID_HANDLE) << "the remote port is not a device";
  EVENT_HANDLE e;
  EXPECT_EQ(p.GCRegisterEvent(port, EVENT_ERROR, &e), GC_ERR_INVALID_HANDLE);
  EXPECT_EQ(p.IFClose(ifs[1]), GC_ERR_SUCCESS);
  EXPECT_EQ(p.DevGetNumDataStreams(d, &n), GC_ERR_INVALID_HANDLE) << "closing the interface closed its device";
  ifs.pop_back();
}

TEST_F(Discovery, OpeningTwiceInOneProcessIsRefusedWithTheOpenText) {
  auto [h, id] = Camera(0);
  DEV_HANDLE d1 = nullptr, d2 = nullptr;
  ASSERT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_EXCLUSIVE, &d1), GC_ERR_SUCCESS);
  EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_EXCLUSIVE, &d2), GC_ERR_RESOURCE_IN_USE);
  EXPECT_EQ(p.LastError(), "Device already open");
  EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_READONLY, &d2), GC_ERR_RESOURCE_IN_USE);
  EXPECT_EQ(AccessStatus(h, id), DEVICE_ACCESS_STATUS_OPEN_READWRITE);
  ASSERT_EQ(p.DevClose(d1), GC_ERR_SUCCESS);
  ASSERT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_READONLY, &d2), GC_ERR_SUCCESS);
  EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), 7, &d1), GC_ERR_INVALID_PARAMETER);
}

TEST_F(Discovery, InjectedFailuresCarryTheirTextAndExpire) {
  auto [h, id] = Camera(1);
  ASSERT_EQ(p.kivsim_fail_next("IFOpenDevice", GC_ERR_IO, "link down", 1), 0);
  DEV_HANDLE d = nullptr;
  EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_EXCLUSIVE, &d), GC_ERR_IO);
  EXPECT_EQ(p.LastError(), "link down");
  EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_EXCLUSIVE, &d), GC_ERR_SUCCESS);
  uint8_t present = 9;
  auto present_rc = [&] {  // the custom "present" information of the open device
    size_t n = 1;
    INFO_DATATYPE t;
    return p.DevGetInfo(d, 1000, &t, &present, &n);
  };
  const uint64_t injected = p.kivsim_failures_injected();
  ASSERT_EQ(p.kivsim_fail_next("DevGetInfo", GC_ERR_NOT_AVAILABLE, "gone", 2), 0);
  EXPECT_EQ(present_rc(), GC_ERR_NOT_AVAILABLE);
  EXPECT_EQ(p.kivsim_failures_injected(), injected + 1);
  ASSERT_EQ(p.kivsim_reset_faults(), 0);
  EXPECT_EQ(present_rc(), GC_ERR_SUCCESS);
  EXPECT_EQ(p.kivsim_failures_injected(), injected + 1) << "cleared before it happened again";
  EXPECT_EQ(present_rc(), GC_ERR_SUCCESS);
  EXPECT_EQ(present, 1);
  ASSERT_EQ(p.kivsim_plug(1, 0), 0);
  EXPECT_EQ(present_rc(), GC_ERR_SUCCESS);
  EXPECT_EQ(present, 0) << "an unplugged camera answers absent";
}

TEST_F(Discovery, InterfaceEventsCarryTheirCode) {
  EVENT_HANDLE e = nullptr;
  ASSERT_EQ(p.GCRegisterEvent(ifs[1], EVENT_CUSTOM_ID, &e), GC_ERR_SUCCESS);
  EXPECT_EQ(p.GCRegisterEvent(ifs[1], EVENT_CUSTOM_ID, &e), GC_ERR_RESOURCE_IN_USE);
  auto next = [&](uint64_t timeout) {  // the next event's code, or the error
    uint32_t code = 0;
    size_t n = 8;
    const GC_ERROR rc = p.EventGetData(e, &code, &n, timeout);
    if (rc != GC_ERR_SUCCESS) return int64_t{rc};
    EXPECT_EQ(n, 4u);
    return int64_t{code};
  };
  ASSERT_EQ(p.kivsim_raise_interface_event(1, KIVSIM_EVENT_POWER_UP), 0);
  EXPECT_EQ(next(10000), KIVSIM_EVENT_POWER_UP);
  ASSERT_EQ(p.kivsim_plug(1, 0), 0);  // unplugging resets the bus
  EXPECT_EQ(next(10000), KIVSIM_EVENT_BUS_RESET);
  EXPECT_EQ(next(0), GC_ERR_TIMEOUT);
  EXPECT_EQ(p.GCUnregisterEvent(ifs[1], EVENT_CUSTOM_ID), GC_ERR_SUCCESS);
  EXPECT_EQ(p.GCUnregisterEvent(ifs[1], EVENT_CUSTOM_ID), GC_ERR_NOT_INITIALIZED);
}

// A world from a configuration file.
class ConfiguredWorld : public ProducerTest {
 protected:
  void SetUp() override {
    path = ::testing::TempDir() + "kivsim_world_" + std::to_string(getpid()) + ".ini";
    std::ofstream(path) << "# two adapters, one camera on the second\n"
                           "[gige]\ninterfaces = 2\n"
                           "[camera]\ntransport = gige\ninterface = 1\nuid = 4242\nmodel = Probe-1\n"
                           "user_name = probe\npixel_formats = Mono8 Mono12 BayerRG8\npixel_format = Mono12\n"
                           "pixel_values = legacy\ndescription = plain\nstreams = 1\npacket_size_limit = 1500\n"
                           "width = 320\nheight = 200\n"
                           "[camera]\ntransport = usb\nuid = 7\n";
    setenv("KIVSIM_CONFIG", path.c_str(), 1);
    ProducerTest::SetUp();
  }
  void TearDown() override {
    ProducerTest::TearDown();
    unsetenv("KIVSIM_CONFIG");
    std::remove(path.c_str());
  }
  std::string path;
};

TEST_F(ConfiguredWorld, CamerasFollowTheFile) {
  ASSERT_EQ(ifs.size(), 2u);
  ASSERT_EQ(p.kivsim_camera_count(), 1) << "the USB camera belongs to the other producer";
  auto [h, id] = Camera(0);
  EXPECT_EQ(h, ifs[1]);
  EXPECT_EQ(id, "KivGEV::4242");
  DEV_HANDLE d = Open(0);
  uint32_t n = 0;
  ASSERT_EQ(p.DevGetNumDataStreams(d, &n), GC_ERR_SUCCESS);
  EXPECT_EQ(n, 1u);
  PORT_HANDLE port = Port(d);
  EXPECT_EQ(Read32(port, 0xA010, true), 5u) << "Mono12 as a legacy value";
  EXPECT_EQ(Read32(port, 0xA014, true), 320u * 200u * 2u);
  std::string url;
  UrlFile(port, 0, &url);
  EXPECT_NE(url.find(".xml;"), std::string::npos) << url;
  // The stream test passes at the limit and fails above it.
  for (uint32_t packet : {1500u, 1504u}) {
    ASSERT_EQ(Write32(port, 0x0D04, packet, true), GC_ERR_SUCCESS);
    ASSERT_EQ(WriteModule(d, KIVSIM_DEV_STREAM_TEST, 100), GC_ERR_SUCCESS);
    EXPECT_EQ(ReadModule(d, KIVSIM_DEV_STREAM_TEST_RESULT) != 0, packet > 1500) << packet;
  }
}

TEST(ConfigFile, AnUnusableFileMakesInitialisationFail) {
  Producer& p = Producer::Get(false);
  setenv("KIVSIM_CONFIG", "/nonexistent/kivsim.ini", 1);
  EXPECT_EQ(p.GCInitLib(), GC_ERR_ERROR);
  EXPECT_NE(p.LastError().find("KIVSIM_CONFIG"), std::string::npos);
  std::string path = ::testing::TempDir() + "kivsim_bad_" + std::to_string(getpid()) + ".ini";
  std::ofstream(path) << "[camera]\npixel_formats = Mono7\n";
  setenv("KIVSIM_CONFIG", path.c_str(), 1);
  EXPECT_EQ(p.GCInitLib(), GC_ERR_ERROR);
  EXPECT_NE(p.LastError().find("Mono7"), std::string::npos);
  unsetenv("KIVSIM_CONFIG");
  std::remove(path.c_str());
  EXPECT_EQ(p.GCCloseLib(), GC_ERR_NOT_INITIALIZED);
}

// Failures armed before GCInitLib could be asked: each named entry point
// fails once; GCInitLib itself fails while it is named.
TEST(FailNextVariable, ArmsTheNamedEntryPointsOnceBeforeAnythingRuns) {
  Producer& p = Producer::Get(false);
  const uint64_t injected = p.kivsim_failures_injected();
  setenv("KIVSIM_FAIL_NEXT", "GCInitLib", 1);
  EXPECT_EQ(p.GCInitLib(), GC_ERR_ERROR);
  EXPECT_EQ(p.LastError(), "KIVSIM_FAIL_NEXT");
  EXPECT_EQ(p.kivsim_failures_injected(), injected + 1) << "counted without an initialised producer";
  setenv("KIVSIM_FAIL_NEXT", "TLOpen,,TLClose", 1);
  ASSERT_EQ(p.GCInitLib(), GC_ERR_SUCCESS);
  unsetenv("KIVSIM_FAIL_NEXT");
  TL_HANDLE tl = nullptr;
  EXPECT_EQ(p.TLOpen(&tl), GC_ERR_ERROR);
  EXPECT_EQ(p.LastError(), "KIVSIM_FAIL_NEXT");
  EXPECT_EQ(p.TLOpen(&tl), GC_ERR_SUCCESS);
  EXPECT_EQ(p.TLClose(tl), GC_ERR_ERROR);
  EXPECT_EQ(p.TLClose(tl), GC_ERR_SUCCESS);
  EXPECT_EQ(p.GCCloseLib(), GC_ERR_SUCCESS);
  EXPECT_EQ(p.kivsim_failures_injected(), injected + 3);
}

}  // namespace
