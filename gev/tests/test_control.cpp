// Discovery, device information, register and memory access over GVCP with
// its error paths, control privilege and descriptions, against emulated
// cameras on veth links of the test's own network namespace.
#include <cstring>

#include "device.h"
#include "fixture.h"
#include "gvcp_client.h"

using namespace gevtest;
using kivgev::EmulatorOptions;

namespace {

// Two links, one camera on each (the mono and the colour model).
class TwoLinks : public GevTest {
 protected:
  TwoLinks() {
    links = 2;
    interfaces = "h0,h1";
  }
  void StartCameras() override {
    AddCamera(CameraIp(0), {}, 0);
    AddCamera(CameraIp(1), {}, 1);
  }
};

TEST_F(TwoLinks, EachInterfaceListsTheCameraOnItsLinkWithItsInformation) {
  ASSERT_EQ(ifs.size(), 2u);
  const char* expect_model[2] = {"KivSim-GC1920M", "KivSim-GC1920C"};
  for (int n = 0; n < 2; ++n) {
    char id[64] = {};
    size_t size = sizeof id;
    ASSERT_EQ(p.TLGetInterfaceID(tl, n, id, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(std::string(id), "KivGEV_h" + std::to_string(n));
    EXPECT_EQ(InfoOf<uint32_t>(p.IFGetInfo, ifs[n], KIVGEV_INTERFACE_IP), HostIp(n));
    EXPECT_EQ(InfoOf<uint32_t>(p.IFGetInfo, ifs[n], KIVGEV_INTERFACE_MASK), 0xFFFFFF00u);
    EXPECT_NE(InfoOf<uint64_t>(p.IFGetInfo, ifs[n], KIVGEV_INTERFACE_MAC), 0u);
    EXPECT_TRUE(InfoOf<bool8_t>(p.IFGetInfo, ifs[n], KIVGEV_INTERFACE_LINK));
    ASSERT_EQ(NumDevices(ifs[n]), 1u) << "a broadcast reaches the camera on its own link only";
    const std::string dev = DeviceId(ifs[n], 0);
    const uint64_t mac = cameras[n]->mac();
    EXPECT_EQ(dev, "KivGEV::" + std::to_string(mac));
    EXPECT_EQ(InfoString(p, ifs[n], dev, DEVICE_INFO_MODEL), expect_model[n]);
    EXPECT_EQ(Info<uint32_t>(p, ifs[n], dev, 1005, INFO_DATATYPE_UINT32), CameraIp(n));
    EXPECT_EQ(Info<uint32_t>(p, ifs[n], dev, 1002, INFO_DATATYPE_UINT32), HostIp(n))
        << "the stream destination is the interface's address";
    EXPECT_EQ(Info<uint32_t>(p, ifs[n], dev, 1003, INFO_DATATYPE_UINT32), 2u);
    EXPECT_EQ(Info<uint64_t>(p, ifs[n], dev, 1011, INFO_DATATYPE_UINT64), mac);
    EXPECT_EQ(AccessStatus(ifs[n], dev), DEVICE_ACCESS_STATUS_READWRITE);
  }
}

TEST_F(TwoLinks, ArrivalAndRemovalRaiseTheInterfaceEvent) {
  EVENT_HANDLE ev = nullptr;
  ASSERT_EQ(p.GCRegisterEvent(ifs[0], EVENT_CUSTOM_ID, &ev), GC_ERR_SUCCESS);
  auto next_code = [&](uint64_t ms) {
    uint32_t code = 0;
    size_t n = sizeof code;
    GC_ERROR e = p.EventGetData(ev, &code, &n, ms);
    return e == GC_ERR_SUCCESS ? code : 0u;
  };
  AddCamera(CameraIp(0, 1), {}, 2);
  EXPECT_EQ(next_code(5000), 1u) << "a camera arrived on h0";
  bool8_t changed = false;
  ASSERT_EQ(p.IFUpdateDeviceList(ifs[0], &changed, 1000), GC_ERR_SUCCESS);
  EXPECT_TRUE(changed);
  EXPECT_EQ(NumDevices(ifs[0]), 2u);
  cameras.back()->Stop();
  EXPECT_EQ(next_code(5000), 1u) << "and left it";
  ASSERT_EQ(p.IFUpdateDeviceList(ifs[0], &changed, 1000), GC_ERR_SUCCESS);
  EXPECT_TRUE(changed);
  EXPECT_EQ(NumDevices(ifs[0]), 1u);
  EXPECT_EQ(NumDevices(ifs[1]), 1u) << "the other interface is not concerned";
}

// A camera reachable only by unicast: its discovery socket listens on another link.
class Unicast : public GevTest {
 protected:
  Unicast() {
    links = 2;
    extra_env = "KIVGEV_DEVICES=10.11.0.9,10.99.0.1";
  }
  void StartCameras() override {
    std::string why;
    ASSERT_TRUE(AddAddress("c1", "10.11.0.9/32", &why)) << why;
    AddCamera(0x0A0B0009);
    AddCamera(CameraIp(1));
  }
};

TEST_F(Unicast, ConfiguredAddressesInTheInterfaceSubnetAreAskedDirectly) {
  ASSERT_EQ(ifs.size(), 1u) << "only h0 is used";
  ASSERT_EQ(NumDevices(ifs[0]), 1u);
  EXPECT_NE(Find(0x0A0B0009).first, nullptr);
  EXPECT_EQ(cameras[1]->stats().discoveries, 0u) << "nothing was sent towards a link the producer may not use";
}

class OneCamera : public GevTest {
 protected:
  void StartCameras() override { AddCamera(CameraIp(0), options); }
  EmulatorOptions options;
  void Open(DEVICE_ACCESS_FLAGS access = DEVICE_ACCESS_EXCLUSIVE) {
    dev = OpenAt(CameraIp(0), access);
    ASSERT_NE(dev, nullptr);
    port = Port(dev);
  }
  uint32_t Reg(uint32_t a) { return Read32(port, a, true); }
  kivgev::EmulatedCamera& cam() { return *cameras[0]; }
  DEV_HANDLE dev = nullptr;
  PORT_HANDLE port = nullptr;
};

TEST_F(OneCamera, RegistersAndMemoryTravelAsTheRightCommands) {
  Open();
  EXPECT_EQ(cam().ReadRegister(kivgev::kRegCcp), kivgev::kCcpControl) << "an open takes control access";
  EXPECT_EQ(Reg(0xA000), 640u);
  // Odd sizes and addresses are whole READMEM words underneath.
  char model[32] = {};
  size_t n = 13;
  ASSERT_EQ(p.GCReadPort(port, 0x69, model, &n), GC_ERR_SUCCESS);
  EXPECT_STREQ(model, "ivSim-GC1920M");
  // A 16-bit register (the packet size) is merged into its word.
  uint8_t size16[2] = {0x05, 0xDC};
  n = 2;
  ASSERT_EQ(p.GCWritePort(port, 0x0D06, size16, &n), GC_ERR_SUCCESS) << p.LastError();
  EXPECT_EQ(cam().ReadRegister(kivgev::kRegScps0) & 0xFFFF, 1500u);
  // Several words at once: WRITEMEM (the camera offers it).
  const char name[16] = "renamed";
  n = sizeof name;
  ASSERT_EQ(p.GCWritePort(port, 0xE8, name, &n), GC_ERR_SUCCESS) << p.LastError();
  char back[16] = {};
  n = sizeof back;
  ASSERT_EQ(p.GCReadPort(port, 0xE8, back, &n), GC_ERR_SUCCESS);
  EXPECT_STREQ(back, "renamed");
  // A stack of registers is one concatenated READREG.
  const uint64_t before = cam().stats().commands;
  uint8_t v[4][4];
  PORT_REGISTER_STACK_ENTRY st[4] = {{0xA000, v[0], 4}, {0xA004, v[1], 4}, {0xA03C, v[2], 4}, {0xA040, v[3], 4}};
  size_t count = 4;
  ASSERT_EQ(p.GCReadPortStacked(port, st, &count), GC_ERR_SUCCESS);
  EXPECT_EQ(cam().stats().commands, before + 1);
  EXPECT_EQ(kivgev::Get32(v[2]), 1920u);
  EXPECT_EQ(kivgev::Get32(v[3]), 1200u);
  uint8_t w[2][4];
  kivgev::Put32(w[0], 320), kivgev::Put32(w[1], 240);
  PORT_REGISTER_STACK_ENTRY ws[2] = {{0xA000, w[0], 4}, {0xA004, w[1], 4}};
  count = 2;
  ASSERT_EQ(p.GCWritePortStacked(port, ws, &count), GC_ERR_SUCCESS);
  EXPECT_EQ(cam().stats().commands, before + 2);
  EXPECT_EQ(Reg(0xA014), 320u * 240u) << "PayloadSize follows";
}

TEST_F(OneCamera, LostAcknowledgesAreRetriedAndAPendingCommandIsWaitedFor) {
  Open();
  cam().faults().silent = 2;  // two tries lost, the third answered
  EXPECT_EQ(Reg(0xA03C), 1920u);
  cam().faults().stale_acks = 3;  // a late ack of another request comes first
  EXPECT_EQ(Reg(0xA040), 1200u);
  // Longer than the 100 ms time-out: the camera announces it with PENDING_ACK.
  cam().faults().pending_ms = 400;
  cam().faults().pending = 1;
  const uint64_t t0 = kivgev::NowNs();
  EXPECT_EQ(Write32(port, 0xA000, 800, true), GC_ERR_SUCCESS) << p.LastError();
  EXPECT_GE(kivgev::NowNs() - t0, 400000000u);
  EXPECT_EQ(cam().ReadRegister(0xA000), 800u);
}

TEST_F(OneCamera, RefusalsAndSilenceBecomeGenTLErrorsWithTheDevicesWords) {
  Open();
  uint8_t b[4];
  size_t n = 4;
  EXPECT_EQ(p.GCReadPort(port, 0x20000, b, &n), GC_ERR_INVALID_ADDRESS);
  EXPECT_NE(p.LastError().find("INVALID_ADDRESS"), std::string::npos) << p.LastError();
  EXPECT_EQ(Write32(port, 0x0000, 1, true), GC_ERR_ACCESS_DENIED) << "the version register is read-only";
  EXPECT_NE(p.LastError().find("WRITE_PROTECT"), std::string::npos) << p.LastError();
  cam().faults().nack_status = kivgev::kStatusBusy;
  cam().faults().nack = 1;
  EXPECT_EQ(p.GCReadPort(port, 0xA000, b, &n), GC_ERR_BUSY);
  EXPECT_NE(p.LastError().find("BUSY"), std::string::npos) << p.LastError();
  cam().faults().silent = 100;  // nothing comes back
  EXPECT_EQ(p.GCReadPort(port, 0xA000, b, &n), GC_ERR_IO);
  EXPECT_NE(p.LastError().find("Device does not answer"), std::string::npos) << p.LastError();
  cam().faults().silent = 0;
  EXPECT_EQ(Reg(0xA004), 480u) << "the channel works again";
}

TEST_F(OneCamera, AnotherControllerRefusesTheOpenButAWatcherMayRead) {
  // Another host takes the camera first.
  kivgev::GvcpClient other;
  std::string err;
  ASSERT_TRUE(other.Open(HostIp(0), CameraIp(0), &err)) << err;
  ASSERT_TRUE(other.WriteReg(kivgev::kRegCcp, kivgev::kCcpControl).ok());
  auto [h, id] = Find(CameraIp(0));
  EXPECT_EQ(AccessStatus(h, id), DEVICE_ACCESS_STATUS_BUSY);
  DEV_HANDLE d = nullptr;
  EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_EXCLUSIVE, &d), GC_ERR_ACCESS_DENIED);
  EXPECT_EQ(p.LastError(), "Device already open") << "the text the library looks for";
  ASSERT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_READONLY, &d), GC_ERR_SUCCESS) << p.LastError();
  PORT_HANDLE rp = Port(d);
  EXPECT_EQ(Read32(rp, 0xA03C, true), 1920u);
  EXPECT_EQ(Write32(rp, 0xA000, 64, true), GC_ERR_ACCESS_DENIED);
  EXPECT_EQ(ReadModule(d, KIVSIM_DEV_STREAM_TEST_RESULT), 0u);
  // Exclusive access keeps even readers out.
  ASSERT_TRUE(other.WriteReg(kivgev::kRegCcp, kivgev::kCcpExclusive).ok());
  uint8_t b[4];
  size_t n = 4;
  EXPECT_EQ(p.GCReadPort(rp, 0xA03C, b, &n), GC_ERR_ACCESS_DENIED);
  EXPECT_EQ(p.DevClose(d), GC_ERR_SUCCESS);
  ASSERT_TRUE(other.WriteReg(kivgev::kRegCcp, 0).ok());
  d = OpenAt(CameraIp(0));
  ASSERT_NE(d, nullptr) << "free again";
  DEV_HANDLE twice = nullptr;
  EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_EXCLUSIVE, &twice), GC_ERR_RESOURCE_IN_USE);
  EXPECT_EQ(p.LastError(), "Device already open");
  EXPECT_EQ(p.DevClose(d), GC_ERR_SUCCESS);
  EXPECT_EQ(cam().ReadRegister(kivgev::kRegCcp), 0u) << "closing gives the camera up";
}

TEST_F(OneCamera, TheHeartbeatKeepsControlAndItsStopLosesIt) {
  Open();
  ASSERT_EQ(Write32(port, kivgev::kRegHeartbeatTimeout, 600, true), GC_ERR_SUCCESS);
  ASSERT_EQ(WriteModule(dev, KIVSIM_DEV_HEARTBEAT, 600), GC_ERR_SUCCESS);
  // Three time-outs long nothing else is said: the heartbeat alone keeps the camera.
  std::this_thread::sleep_for(std::chrono::milliseconds(1800));
  EXPECT_EQ(cam().stats().heartbeat_losses, 0u);
  EXPECT_EQ(cam().ReadRegister(kivgev::kRegCcp), kivgev::kCcpControl);
  EVENT_HANDLE ev = nullptr;
  auto [h, id] = Find(CameraIp(0));
  ASSERT_EQ(p.GCRegisterEvent(h, EVENT_CUSTOM_ID, &ev), GC_ERR_SUCCESS);
  ASSERT_EQ(WriteModule(dev, KIVSIM_DEV_HEARTBEAT, 0), GC_ERR_SUCCESS);  // heartbeat off
  ASSERT_TRUE(WaitFor([&] { return cam().stats().heartbeat_losses == 1; })) << "the camera drops the silent host";
  EXPECT_EQ(Write32(port, 0xA000, 64, true), GC_ERR_ACCESS_DENIED);
  ASSERT_EQ(WriteModule(dev, KIVSIM_DEV_HEARTBEAT, 600), GC_ERR_SUCCESS);
  uint32_t code = 0;
  size_t n = sizeof code;
  ASSERT_EQ(p.EventGetData(ev, &code, &n, 5000), GC_ERR_SUCCESS) << "the next heartbeat finds control lost";
  EXPECT_EQ(code, 1u);
  EXPECT_FALSE(InfoOf<bool8_t>(p.DevGetInfo, dev, 1000)) << "presence";
}

TEST_F(OneCamera, ACameraThatStopsAnsweringIsLost) {
  Open();
  ASSERT_EQ(WriteModule(dev, KIVSIM_DEV_HEARTBEAT, 300), GC_ERR_SUCCESS);
  auto [h, id] = Find(CameraIp(0));
  EVENT_HANDLE ev = nullptr;
  ASSERT_EQ(p.GCRegisterEvent(h, EVENT_CUSTOM_ID, &ev), GC_ERR_SUCCESS);
  cam().Stop();
  uint32_t code = 0;
  size_t n = sizeof code;
  ASSERT_EQ(p.EventGetData(ev, &code, &n, 5000), GC_ERR_SUCCESS);
  EXPECT_EQ(code, 1u);
  // The list changed at once; the heartbeat finds the camera gone within its retries.
  EXPECT_TRUE(WaitFor([&] { return !InfoOf<bool8_t>(p.DevGetInfo, dev, 1000); }));
  const uint64_t t0 = kivgev::NowNs();
  uint8_t b[4];
  n = 4;
  EXPECT_EQ(p.GCReadPort(port, 0xA000, b, &n), GC_ERR_IO);
  EXPECT_LT(kivgev::NowNs() - t0, 50000000u) << "a lost camera fails at once, without time-outs";
  bool8_t changed = false;
  ASSERT_EQ(p.IFUpdateDeviceList(h, &changed, 1000), GC_ERR_SUCCESS);
  EXPECT_TRUE(changed);
  EXPECT_EQ(NumDevices(h), 0u);
  EXPECT_EQ(p.DevClose(dev), GC_ERR_SUCCESS);
}

// Both description files of the model, and a URL the producer cannot follow.
class Descriptions : public OneCamera {
 protected:
  void StartCameras() override {
    AddCamera(CameraIp(0), {}, 0);  // the ZIP first
    AddCamera(CameraIp(0, 1), {}, 1);  // the plain XML first
    EmulatorOptions file;
    file.first_url = "File:///opt/camera/description.xml";
    AddCamera(CameraIp(0, 2), file, 2);
  }
};

TEST_F(Descriptions, LocalZipAndPlainFilesReadByteExactAndOtherSchemesRefusedInWords) {
  for (size_t model = 0; model < 2; ++model) {
    DEV_HANDLE d = OpenAt(CameraIp(0, int(model)));
    PORT_HANDLE rp = Port(d);
    uint32_t urls = 0;
    ASSERT_EQ(p.GCGetNumPortURLs(rp, &urls), GC_ERR_SUCCESS);
    ASSERT_EQ(urls, 2u);
    kivsim::CameraConfig cfg = kivgev::DefaultEmulatedCamera(model);
    kivsim::VirtualDevice reference(kivsim::Transport::GigE, cfg, kivsim::InterfaceConfig());
    for (uint32_t u = 0; u < 2; ++u) {
      std::string url;
      const std::string bytes = UrlFile(rp, u, &url);
      const std::vector<uint8_t>& want = reference.File(u);
      EXPECT_EQ(bytes, std::string(want.begin(), want.end())) << url;
      EXPECT_EQ(bytes.substr(0, 2) == "PK", reference.FileIsZip(u)) << url;
      EXPECT_EQ(InfoOf<int32_t>([&](PORT_HANDLE h, URL_INFO_CMD c, INFO_DATATYPE* t, void* b, size_t* n) {
                  return p.GCGetPortURLInfo(h, u, c, t, b, n);
                }, rp, URL_INFO_SCHEME),
                URL_SCHEME_LOCAL);
    }
    EXPECT_EQ(p.DevClose(d), GC_ERR_SUCCESS);
  }
  DEV_HANDLE d = OpenAt(CameraIp(0, 2));
  PORT_HANDLE rp = Port(d);
  char url[256] = {};
  size_t n = sizeof url;
  INFO_DATATYPE t;
  ASSERT_EQ(p.GCGetPortURLInfo(rp, 0, URL_INFO_URL, &t, url, &n), GC_ERR_SUCCESS);
  EXPECT_STREQ(url, "File:///opt/camera/description.xml");
  int32_t scheme = 0;
  n = sizeof scheme;
  ASSERT_EQ(p.GCGetPortURLInfo(rp, 0, URL_INFO_SCHEME, &t, &scheme, &n), GC_ERR_SUCCESS);
  EXPECT_EQ(scheme, URL_SCHEME_FILE);
  uint64_t address = 0;
  n = sizeof address;
  EXPECT_EQ(p.GCGetPortURLInfo(rp, 0, URL_INFO_FILE_REGISTER_ADDRESS, &t, &address, &n), GC_ERR_NOT_IMPLEMENTED);
  EXPECT_NE(p.LastError().find("only Local: descriptions"), std::string::npos) << p.LastError();
  EXPECT_EQ(p.DevClose(d), GC_ERR_SUCCESS);
}

}  // namespace
