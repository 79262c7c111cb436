// An independent implementation on each side: the producer against Aravis's
// fake GigE Vision camera, and Aravis's test programs against the emulator.
// Aravis's programs discover on every interface they see: they run only in
// the test's own namespace, with the loopback as its only interface.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <deque>

#include "fixture.h"
#include "gvcp_client.h"
#include "kivgenapi/KivGenApi.h"
#include "wire.h"

using namespace gevtest;

namespace {

constexpr uint32_t kLoopback = 0x7F000001, kEmulatorIp = 0x7F000002;

bool Installed(const char* program) { return access(program, X_OK) == 0; }

// Runs a program to its end (or `seconds`, then SIGINT) and returns what it printed.
std::string RunPeer(const std::string& command, int seconds) {
  return Output("timeout -s INT " + std::to_string(seconds) + " stdbuf -oL " + command + " 2>&1");
}

// The value after "name = " in arv-camera-test's closing statistics.
long Statistic(const std::string& out, const std::string& name) {
  const size_t at = out.find(name + " ");
  if (at == std::string::npos) return -1;
  const size_t eq = out.find('=', at);
  return eq == std::string::npos ? -1 : std::strtol(out.c_str() + eq + 1, nullptr, 10);
}

// The node map's access to the camera, through the producer's remote port.
class GenTLPort : public KivGenApi::IPort {
 public:
  GenTLPort(Producer& p, PORT_HANDLE h) : p_(p), h_(h) {}
  KivGenApi::EAccessMode GetAccessMode() const override { return KivGenApi::RW; }
  void Read(void* b, int64_t a, int64_t n) override {
    size_t size = static_cast<size_t>(n);
    if (p_.GCReadPort(h_, static_cast<uint64_t>(a), b, &size) != GC_ERR_SUCCESS) throw std::runtime_error(p_.LastError());
  }
  void Write(const void* b, int64_t a, int64_t n) override {
    size_t size = static_cast<size_t>(n);
    if (p_.GCWritePort(h_, static_cast<uint64_t>(a), b, &size) != GC_ERR_SUCCESS) throw std::runtime_error(p_.LastError());
  }

 private:
  Producer& p_;
  PORT_HANDLE h_;
};

class AravisFake : public GevTest {
 protected:
  AravisFake() {
    links = 0;
    interfaces = "lo";
  }
  void StartCameras() override {
    if (!Installed("/usr/bin/arv-fake-gv-camera-0.8"))
      GTEST_SKIP() << "Aravis's fake camera is missing (Debian package aravis-tools; scripts/setup-deps.sh installs it)";
    fake = fork();
    if (fake == 0) {
      freopen("/dev/null", "w", stdout);
      freopen("/dev/null", "w", stderr);
      execl("/usr/bin/arv-fake-gv-camera-0.8", "arv-fake-gv-camera-0.8", "-i", "127.0.0.1", static_cast<char*>(nullptr));
      _exit(127);
    }
    // It listens once it answers a register read.
    kivgev::GvcpClient probe;
    std::string err;
    ASSERT_TRUE(probe.Open(kLoopback, kLoopback, &err)) << err;
    probe.SetTimeout(50, 1);
    uint32_t v = 0;
    ASSERT_TRUE(WaitFor([&] { return probe.ReadReg(kivgev::kRegCurrentIp, &v).ok(); })) << "the fake camera never answered";
  }
  void TearDown() override {
    GevTest::TearDown();
    if (fake > 0) {
      kill(fake, SIGTERM);
      waitpid(fake, nullptr, 0);
    }
  }
  pid_t fake = 0;
};

TEST_F(AravisFake, ItIsFoundOpenedAndEveryFeatureOfItsDescriptionReads) {
  ASSERT_EQ(ifs.size(), 1u);
  ASSERT_EQ(NumDevices(ifs[0]), 1u);
  DEV_HANDLE d = OpenAt(kLoopback);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(InfoText(d, DEVICE_INFO_VENDOR), "Aravis");
  EXPECT_EQ(InfoText(d, DEVICE_INFO_MODEL), "Fake");
  EXPECT_EQ(InfoText(d, 1008), "GV01");
  EXPECT_EQ(DeviceId(ifs[0], 0), "KivGEV::2130706433") << "no MAC: known by its address";
  PORT_HANDLE port = Port(d);
  std::string url;
  const std::string xml = UrlFile(port, 0, &url);
  EXPECT_EQ(url.rfind("Local:arv-fake-camera.xml;", 0), 0u) << url;
  ASSERT_NE(xml.find("RegisterDescription"), std::string::npos);
  KivGenApi::CNodeMapRef map;
  map._LoadXMLFromString(xml.c_str());
  GenTLPort gp(p, port);
  ASSERT_TRUE(map._Connect(&gp, "Device"));
  KivGenApi::NodeList_t nodes;
  map._GetNodes(nodes);
  size_t read = 0;
  for (KivGenApi::INode* n : nodes) {
    auto* v = dynamic_cast<KivGenApi::IValue*>(n);
    if (!v || !n->IsFeature() || !KivGenApi::IsReadable(n)) continue;
    EXPECT_NO_THROW(v->ToString()) << n->GetName();
    ++read;
  }
  EXPECT_GE(read, 20u);
  KivGenApi::CIntegerPtr width = map._GetNode("Width");
  ASSERT_TRUE(width.IsValid());
  EXPECT_EQ(width->GetValue(), 512);
  width->SetValue(256);
  EXPECT_EQ(Read32(port, 0x100, true), 256u) << "written through the producer";
  width->SetValue(512);
  EXPECT_EQ(p.DevClose(d), GC_ERR_SUCCESS);
}

TEST_F(AravisFake, ItsFramesArriveWholeAtItsRateAcrossTheBlockIdWrap) {
  DEV_HANDLE d = OpenAt(kLoopback);
  ASSERT_NE(d, nullptr);
  PORT_HANDLE port = Port(d);
  DS_HANDLE ds = Stream(d, 0);
  EVENT_HANDLE ev = nullptr;
  ASSERT_EQ(p.GCRegisterEvent(ds, EVENT_NEW_BUFFER, &ev), GC_ERR_SUCCESS);
  const uint32_t payload = 512 * 512, info = payload;
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_GIGE_INFO_OFFSET, info), GC_ERR_SUCCESS);
  for (int i = 0; i < 8; ++i) {
    BUFFER_HANDLE b = nullptr;
    ASSERT_EQ(p.DSAnnounceBuffer(ds, nullptr, info + 1024, nullptr, &b), GC_ERR_SUCCESS);
    ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
  }
  ASSERT_EQ(p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS) << p.LastError();
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_RUNNING, 1), GC_ERR_SUCCESS);
  ASSERT_EQ(Write32(port, 0x124, 1, true), GC_ERR_SUCCESS);  // its AcquisitionCommandRegister
  // Its block IDs start at 65401 and wrap to 1 after 65535.
  uint64_t first_ns = 0, last_ns = 0, wraps = 0, previous = 0;
  const int frames = 140;
  for (int i = 0; i < frames; ++i) {
    EVENT_NEW_BUFFER_DATA e{};
    size_t n = sizeof e;
    ASSERT_EQ(p.EventGetData(ev, &e, &n, 5000), GC_ERR_SUCCESS) << i << " " << p.LastError();
    last_ns = kivgev::NowNs();
    if (i == 1) first_ns = last_ns;  // the first frame after a start comes off the fake's grid
    EXPECT_EQ(BufferInfo<uint32_t>(ds, e.BufferHandle, 1000), 0u) << i;
    EXPECT_EQ(BufferInfo<size_t>(ds, e.BufferHandle, BUFFER_INFO_SIZE_FILLED), payload);
    EXPECT_EQ(BufferInfo<size_t>(ds, e.BufferHandle, BUFFER_INFO_WIDTH), 512u);
    uint32_t missing;
    std::memcpy(&missing, static_cast<uint8_t*>(e.pUserPointer) + info + 540, 4);
    EXPECT_EQ(missing, 0u);
    const uint64_t id = BufferInfo<uint64_t>(ds, e.BufferHandle, BUFFER_INFO_FRAMEID);
    if (previous && id < previous) ++wraps;
    previous = id;
    ASSERT_EQ(p.DSQueueBuffer(ds, e.BufferHandle), GC_ERR_SUCCESS);
  }
  EXPECT_EQ(wraps, 1u);
  const double period_ms = double(last_ns - first_ns) / 1e6 / (frames - 2);
  EXPECT_GT(period_ms, 30.0) << "its 25 frames/s";
  EXPECT_LT(period_ms, 60.0);
  EXPECT_EQ(PacketLog(ds).incomplete, 0u);
  ASSERT_EQ(Write32(port, 0x124, 0, true), GC_ERR_SUCCESS);
  EXPECT_EQ(p.DevClose(d), GC_ERR_SUCCESS);
}

// Aravis's programs against the project's emulator on the loopback.
class AravisPeers : public GevTest {
 protected:
  AravisPeers() {
    links = 0;
    interfaces = "lo";
  }
  void StartCameras() override {
    if (!Installed("/usr/bin/arv-test-0.8") || !Installed("/usr/bin/arv-camera-test-0.8"))
      GTEST_SKIP() << "Aravis's test programs are missing (Debian package aravis-tools; scripts/setup-deps.sh installs it)";
    kivgev::EmulatorOptions o;
    o.fps = 30;
    o.link_mbps = 200;  // 30 frames/s of 640x480 need 74 Mbit/s; bursts stay short of its socket buffer
    AddCamera(kEmulatorIp, o);
  }
};

TEST_F(AravisPeers, ArvTestPassesItsDeviceChecksAgainstTheEmulator) {
  const std::string out = RunPeer("/usr/bin/arv-test-0.8", 120);
  ASSERT_NE(out.find("Testing 'KivCam:KivSim-GC1920M'"), std::string::npos) << out;
  for (const char* check : {"Genicam:Load", "Properties:SensorSizeReadout", "Properties:GainAvailable",
                            "Properties:GainReadout", "Properties:ExposureTimeAvailable", "Properties:ExposureTimeReadout",
                            "MultipleAcquisitionA:BufferCheck", "SingleAcquisition:BufferCheck",
                            "SoftwareTrigger:BufferCheck", "MultipleAcquisitionB:BufferCheck",
                            "GigEVision:NNetworkInterfaces", "GigEVision:NStreamChannels", "GigEVision:StreamChannel"}) {
    const size_t at = out.find(check);
    ASSERT_NE(at, std::string::npos) << check << "\n" << out;
    const std::string line = out.substr(at, out.find('\n', at) - at);
    EXPECT_NE(line.find("SUCCESS"), std::string::npos) << line;
  }
  // Without an entry of its own in arv-test's configuration the schema check is skipped, not failed.
  const size_t schema = out.find("Genicam:Schema");
  ASSERT_NE(schema, std::string::npos);
  EXPECT_EQ(out.substr(schema, out.find('\n', schema) - schema).find("FAILURE"), std::string::npos);
}

TEST_F(AravisPeers, ArvCameraTestStreamsFromTheEmulatorWithoutErrors) {
  const std::string out = RunPeer("/usr/bin/arv-camera-test-0.8", 4);
  const long completed = Statistic(out, "n_completed_buffers");
  EXPECT_GE(completed, 3 * 30 * 8 / 10) << out;  // about 30 frames/s for its 4 s, the first one setting up
  EXPECT_EQ(Statistic(out, "n_failures"), 0) << out;
  EXPECT_EQ(Statistic(out, "n_timeouts"), 0) << out;
  EXPECT_EQ(Statistic(out, "n_missing_packets"), 0) << out;
  EXPECT_EQ(cameras[0]->stats().bad_commands, 0u);
}

}  // namespace
