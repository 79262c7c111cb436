// Loads a virtual producer with dlopen and resolves its GenTL and control
// functions, as a host program would: the tests never link the producers.
#pragma once
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <kivgentl/gentl.h>
#include <kivsim/kivsim.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#define KIVSIM_TEST_GENTL(X)                                                                                   \
  X(GCInitLib) X(GCCloseLib) X(GCGetInfo) X(GCGetLastError) X(TLOpen) X(TLClose) X(TLGetNumInterfaces)        \
  X(TLGetInterfaceID) X(TLOpenInterface) X(TLUpdateInterfaceList) X(IFClose) X(IFGetNumDevices)              \
  X(IFGetDeviceID) X(IFUpdateDeviceList) X(IFGetDeviceInfo) X(IFOpenDevice) X(DevGetPort)                     \
  X(DevGetNumDataStreams) X(DevGetDataStreamID) X(DevOpenDataStream) X(DevGetInfo) X(DevClose)                \
  X(DSAnnounceBuffer) X(DSFlushQueue) X(DSStartAcquisition) X(DSStopAcquisition) X(DSClose) X(DSRevokeBuffer) \
  X(DSQueueBuffer) X(DSGetBufferInfo) X(GCReadPort) X(GCWritePort) X(GCGetNumPortURLs) X(GCGetPortURLInfo)    \
  X(GCRegisterEvent) X(GCUnregisterEvent) X(EventGetData) X(EventFlush) X(EventKill) X(DSGetInfo)             \
  X(GCGetPortInfo) X(EventGetInfo) X(DSAllocAndAnnounceBuffer) X(IFGetInfo) X(GCReadPortStacked) X(GCWritePortStacked)

#define KIVSIM_TEST_CONTROL(X)                                                                               \
  X(kivsim_camera_count) X(kivsim_camera_index) X(kivsim_plug) X(kivsim_raise_interface_event)                \
  X(kivsim_deliver) X(kivsim_free_run) X(kivsim_set_delivery_status) X(kivsim_fail_next) X(kivsim_short_reads) \
  X(kivsim_set_packet_size_limit) X(kivsim_get_counters) X(kivsim_reset_faults) X(kivsim_failures_injected)

struct Producer {
#define KIVSIM_DECLARE(name) P##name name = nullptr;
  KIVSIM_TEST_GENTL(KIVSIM_DECLARE)
#undef KIVSIM_DECLARE
#define KIVSIM_DECLARE(name) decltype(&::name) name = nullptr;
  KIVSIM_TEST_CONTROL(KIVSIM_DECLARE)
#undef KIVSIM_DECLARE
  void* module = nullptr;

  // Loads the producer once per process; it stays loaded.
  static Producer& Get(bool usb) {
    static Producer gige(false), usbp(true);
    return usb ? usbp : gige;
  }
  explicit Producer(bool usb) {
    std::string path = std::string(KIVSIM_LIB_DIR) + (usb ? "/KivUSBGenTL.cti" : "/KivGigEGenTL.cti");
    module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) return;
#define KIVSIM_RESOLVE(name) name = reinterpret_cast<decltype(name)>(dlsym(module, #name));
    KIVSIM_TEST_GENTL(KIVSIM_RESOLVE)
    KIVSIM_TEST_CONTROL(KIVSIM_RESOLVE)
#undef KIVSIM_RESOLVE
  }

  // The calling thread's last error text, and its code in `code`.
  std::string LastError(GC_ERROR* code = nullptr) const {
    GC_ERROR c;
    char text[256] = {};
    size_t n = sizeof text;
    GCGetLastError(code ? code : &c, text, &n);
    return text;
  }
};

// Opens the producer, its system module and every interface; closes all at the end.
class ProducerTest : public ::testing::Test {
 protected:
  explicit ProducerTest(bool usb = false) : p(Producer::Get(usb)) {}
  void SetUp() override {
    ASSERT_NE(p.module, nullptr) << dlerror();
    ASSERT_EQ(p.GCInitLib(), GC_ERR_SUCCESS) << p.LastError();
    ASSERT_EQ(p.TLOpen(&tl), GC_ERR_SUCCESS);
    bool8_t changed = false;
    ASSERT_EQ(p.TLUpdateInterfaceList(tl, &changed, 1000), GC_ERR_SUCCESS);
    uint32_t n = 0;
    ASSERT_EQ(p.TLGetNumInterfaces(tl, &n), GC_ERR_SUCCESS);
    for (uint32_t i = 0; i < n; ++i) {
      char id[256];
      size_t size = sizeof id;
      ASSERT_EQ(p.TLGetInterfaceID(tl, i, id, &size), GC_ERR_SUCCESS);
      IF_HANDLE h = nullptr;
      ASSERT_EQ(p.TLOpenInterface(tl, id, &h), GC_ERR_SUCCESS);
      ASSERT_EQ(p.IFUpdateDeviceList(h, nullptr, 1000), GC_ERR_SUCCESS);
      ifs.push_back(h);
    }
  }
  void TearDown() override {
    if (tl) p.TLClose(tl);
    p.GCCloseLib();
  }

  std::string DeviceId(IF_HANDLE h, uint32_t index) {
    char id[256] = {};
    size_t size = sizeof id;
    EXPECT_EQ(p.IFGetDeviceID(h, index, id, &size), GC_ERR_SUCCESS);
    return id;
  }
  uint32_t NumDevices(IF_HANDLE h) {
    uint32_t n = 0;
    EXPECT_EQ(p.IFGetNumDevices(h, &n), GC_ERR_SUCCESS);
    return n;
  }
  // The interface and ID of camera `cam` of the world.
  std::pair<IF_HANDLE, std::string> Camera(uint32_t cam) {
    for (IF_HANDLE h : ifs) {
      for (uint32_t i = 0, n = NumDevices(h); i < n; ++i) {
        std::string id = DeviceId(h, i);
        if (p.kivsim_camera_index(id.c_str()) == static_cast<int32_t>(cam)) return {h, id};
      }
    }
    return {nullptr, ""};
  }
  int32_t AccessStatus(IF_HANDLE h, const std::string& id) {
    int32_t status = -1;
    size_t n = sizeof status;
    INFO_DATATYPE t;
    EXPECT_EQ(p.IFGetDeviceInfo(h, id.c_str(), DEVICE_INFO_ACCESS_STATUS, &t, &status, &n), GC_ERR_SUCCESS);
    return status;
  }
  DEV_HANDLE Open(uint32_t cam, DEVICE_ACCESS_FLAGS access = DEVICE_ACCESS_EXCLUSIVE) {
    auto [h, id] = Camera(cam);
    DEV_HANDLE d = nullptr;
    EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), access, &d), GC_ERR_SUCCESS) << p.LastError();
    return d;
  }
  PORT_HANDLE Port(DEV_HANDLE d) {
    PORT_HANDLE port = nullptr;
    EXPECT_EQ(p.DevGetPort(d, &port), GC_ERR_SUCCESS);
    return port;
  }
  DS_HANDLE Stream(DEV_HANDLE d, uint32_t index) {
    char id[64];
    size_t n = sizeof id;
    EXPECT_EQ(p.DevGetDataStreamID(d, index, id, &n), GC_ERR_SUCCESS);
    DS_HANDLE s = nullptr;
    EXPECT_EQ(p.DevOpenDataStream(d, id, &s), GC_ERR_SUCCESS);
    return s;
  }
  uint32_t Read32(PORT_HANDLE port, uint64_t addr, bool big_endian) {
    uint8_t b[4] = {};
    size_t n = 4;
    EXPECT_EQ(p.GCReadPort(port, addr, b, &n), GC_ERR_SUCCESS) << p.LastError();
    return big_endian ? (uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3])
                      : (uint32_t(b[3]) << 24 | uint32_t(b[2]) << 16 | uint32_t(b[1]) << 8 | b[0]);
  }
  GC_ERROR Write32(PORT_HANDLE port, uint64_t addr, uint32_t v, bool big_endian) {
    uint8_t b[4];
    for (int i = 0; i < 4; ++i) b[big_endian ? i : 3 - i] = uint8_t(v >> (24 - 8 * i));
    size_t n = 4;
    return p.GCWritePort(port, addr, b, &n);
  }
  // Native-order module register access.
  GC_ERROR WriteModule(void* h, uint64_t addr, uint32_t v) {
    size_t n = 4;
    return p.GCWritePort(h, addr, &v, &n);
  }
  uint32_t ReadModule(void* h, uint64_t addr) {
    uint32_t v = 0;
    size_t n = 4;
    EXPECT_EQ(p.GCReadPort(h, addr, &v, &n), GC_ERR_SUCCESS);
    return v;
  }
  // The file behind description URL `index` of `port`, and the URL
  // ("Local:<file>;<hex address>;<hex length>").
  std::string UrlFile(PORT_HANDLE port, uint32_t index, std::string* url_out = nullptr) {
    char url[512] = {};
    size_t n = sizeof url;
    INFO_DATATYPE t;
    EXPECT_EQ(p.GCGetPortURLInfo(port, index, URL_INFO_URL, &t, url, &n), GC_ERR_SUCCESS);
    const std::string u = url;
    if (url_out) *url_out = u;
    const size_t s1 = u.find(';'), s2 = u.find(';', s1 + 1);
    EXPECT_EQ(u.rfind("Local:", 0), 0u) << u;
    if (s2 == std::string::npos) return {};
    const uint64_t len = std::strtoull(u.c_str() + s2 + 1, nullptr, 16);
    std::string bytes((len + 3) / 4 * 4, '\0');  // readers round the length up to whole words
    n = bytes.size();
    EXPECT_EQ(p.GCReadPort(port, std::strtoull(u.c_str() + s1 + 1, nullptr, 16), bytes.data(), &n), GC_ERR_SUCCESS);
    bytes.resize(len);
    return bytes;
  }
  // A fixed-size answer of a Get*Info call: InfoOf<bool8_t>(p.GCGetPortInfo, port, PORT_INFO_BIG_ENDIAN).
  template <class T, class Fn, class H, class Cmd>
  T InfoOf(Fn fn, H h, Cmd cmd) {
    T v{};
    size_t n = sizeof v;
    INFO_DATATYPE t;
    EXPECT_EQ(fn(h, cmd, &t, &v, &n), GC_ERR_SUCCESS) << cmd;
    return v;
  }
  // A string answer of DevGetInfo.
  std::string InfoText(DEV_HANDLE d, int32_t cmd) {
    char text[256] = {};
    size_t n = sizeof text;
    INFO_DATATYPE t;
    EXPECT_EQ(p.DevGetInfo(d, cmd, &t, text, &n), GC_ERR_SUCCESS) << cmd;
    return text;
  }
  kivsim_packet_log PacketLog(DS_HANDLE s) {
    kivsim_packet_log log{};
    size_t n = sizeof log;
    EXPECT_EQ(p.GCReadPort(s, KIVSIM_DS_PACKET_LOG, &log, &n), GC_ERR_SUCCESS);
    return log;
  }
  template <class T>
  T BufferInfo(DS_HANDLE s, BUFFER_HANDLE b, BUFFER_INFO_CMD cmd) {
    T v{};
    size_t n = sizeof v;
    INFO_DATATYPE t;
    EXPECT_EQ(p.DSGetBufferInfo(s, b, cmd, &t, &v, &n), GC_ERR_SUCCESS) << cmd;
    return v;
  }

  Producer& p;
  TL_HANDLE tl = nullptr;
  std::vector<IF_HANDLE> ifs;
};

class UsbProducerTest : public ProducerTest {
 protected:
  UsbProducerTest() : ProducerTest(true) {}
};

// A device-information answer of a fixed size and type, or a string.
template <class T>
inline T Info(Producer& p, IF_HANDLE h, const std::string& id, DEVICE_INFO_CMD cmd, INFO_DATATYPE expect) {
  T v{};
  size_t n = sizeof v;
  INFO_DATATYPE t = 0;
  EXPECT_EQ(p.IFGetDeviceInfo(h, id.c_str(), cmd, &t, &v, &n), GC_ERR_SUCCESS) << cmd;
  EXPECT_EQ(t, expect) << cmd;
  EXPECT_EQ(n, sizeof v) << cmd;
  return v;
}

inline std::string InfoString(Producer& p, IF_HANDLE h, const std::string& id, DEVICE_INFO_CMD cmd) {
  char buf[512] = {};
  size_t n = sizeof buf;
  INFO_DATATYPE t = 0;
  EXPECT_EQ(p.IFGetDeviceInfo(h, id.c_str(), cmd, &t, buf, &n), GC_ERR_SUCCESS) << cmd;
  EXPECT_EQ(t, INFO_DATATYPE_STRING);
  EXPECT_EQ(n, std::strlen(buf) + 1);
  return buf;
}

// The test pattern, computed independently of the producer.
inline uint32_t Pattern8(uint32_t x, uint32_t y, uint64_t frame, uint32_t c) {
  return (x + (y + 2 * (frame % 128)) % 256 + 85 * c) % 256;
}
