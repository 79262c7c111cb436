// Several processes on one camera: watchers of a multicast stream beside
// its controller, and the emulator program killed in the middle of a stream.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <deque>

#include "fixture.h"
#include "pixfmt.h"
#include "wire.h"

using namespace gevtest;

namespace {

constexpr uint32_t kAcqStart = 0xA01C, kPayload = 0xA014;
constexpr uint32_t kGroup = 0xEF010203;  // 239.1.2.3

// Starts this test program again as a child running `filter`, in the same namespace.
pid_t SpawnSelf(const std::string& filter) {
  pid_t pid = fork();
  if (pid == 0) {
    setenv(kSharedNetwork, "1", 1);
    const std::string arg = "--gtest_filter=" + filter;
    execl("/proc/self/exe", "kivgev_tests", arg.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

// Waits for a child; its exit code, or -1 after `ms`.
int Reap(pid_t pid, int ms) {
  int status = 0;
  if (!WaitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, ms)) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Acquire : public GevTest {
 protected:
  void Begin(DEVICE_ACCESS_FLAGS access, uint32_t ip) {
    dev = OpenAt(ip, access);
    ASSERT_NE(dev, nullptr);
    port = Port(dev);
    ds = Stream(dev, 0);
    ASSERT_EQ(p.GCRegisterEvent(ds, EVENT_NEW_BUFFER, &ev), GC_ERR_SUCCESS);
    payload = Read32(port, kPayload, true);
    info = (payload + 15) / 8 * 8;
    ASSERT_EQ(WriteModule(ds, KIVSIM_DS_GIGE_INFO_OFFSET, info), GC_ERR_SUCCESS);
    for (int i = 0; i < 4; ++i) {
      BUFFER_HANDLE b = nullptr;
      ASSERT_EQ(p.DSAnnounceBuffer(ds, nullptr, info + 1024, nullptr, &b), GC_ERR_SUCCESS);
      ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
    }
  }
  void Go() {
    ASSERT_EQ(p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS) << p.LastError();
    ASSERT_TRUE(OnExpectedPath(ds));
    ASSERT_EQ(WriteModule(ds, KIVSIM_DS_RUNNING, 1), GC_ERR_SUCCESS);
  }
  // One image: complete and exactly the pattern of its block; requeued.
  void Frame(uint64_t ms = 5000) {
    EVENT_NEW_BUFFER_DATA d{};
    size_t n = sizeof d;
    ASSERT_EQ(p.EventGetData(ev, &d, &n, ms), GC_ERR_SUCCESS) << p.LastError();
    const uint64_t frame = BufferInfo<uint64_t>(ds, d.BufferHandle, BUFFER_INFO_FRAMEID) - 1;
    EXPECT_EQ(BufferInfo<uint32_t>(ds, d.BufferHandle, 1000), 0u);
    EXPECT_EQ(std::memcmp(d.pUserPointer, kivsim::GetPattern(0x01080001, 640, 480)->frame(frame), payload), 0);
    ASSERT_EQ(p.DSQueueBuffer(ds, d.BufferHandle), GC_ERR_SUCCESS);
  }
  DEV_HANDLE dev = nullptr;
  PORT_HANDLE port = nullptr;
  DS_HANDLE ds = nullptr;
  EVENT_HANDLE ev = nullptr;
  uint32_t payload = 0, info = 0;
};

class Multicast : public Acquire {
 protected:
  void StartCameras() override {
    kivgev::EmulatorOptions o;
    o.fps = 50;
    if (!std::getenv(kSharedNetwork)) AddCamera(CameraIp(0), o);
  }
};

// The child: watches the camera read-only and takes ten whole images.
TEST_F(Multicast, WatcherRole) {
  if (!std::getenv(kSharedNetwork)) GTEST_SKIP() << "the other process of a test";
  Begin(DEVICE_ACCESS_READONLY, CameraIp(0));
  Go();
  for (int i = 0; i < 10; ++i) Frame(10000);
  EXPECT_EQ(InfoOf<uint32_t>(p.IFGetInfo, ifs[0], KIVGEV_INTERFACE_IP), HostIp(0));
}

TEST_F(Multicast, TwoWatchersReceiveTheStreamTheControllerSendsToAGroup) {
  Begin(DEVICE_ACCESS_EXCLUSIVE, CameraIp(0));
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_GIGE_DESTINATION, kGroup), GC_ERR_SUCCESS) << p.LastError();
  EXPECT_EQ(cameras[0]->ReadRegister(kivgev::kRegScda0), kGroup);
  Go();
  ASSERT_EQ(Write32(port, kAcqStart, 1, true), GC_ERR_SUCCESS);
  Frame();
  pid_t a = SpawnSelf("Multicast.WatcherRole"), b = SpawnSelf("Multicast.WatcherRole");
  // The controller keeps taking its own images while the watchers take theirs.
  int done = 0, codes[2] = {-1, -1};
  const uint64_t deadline = kivgev::NowNs() + 30000000000ULL;
  while (done < 2 && kivgev::NowNs() < deadline) {
    Frame();
    int status = 0;
    for (int k = 0; k < 2; ++k) {
      pid_t& pid = k ? b : a;
      if (pid > 0 && waitpid(pid, &status, WNOHANG) == pid) {
        codes[k] = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        pid = 0;
        ++done;
      }
    }
  }
  if (a > 0) codes[0] = Reap(a, 1);
  if (b > 0) codes[1] = Reap(b, 1);
  EXPECT_EQ(codes[0], 0);
  EXPECT_EQ(codes[1], 0);
  EXPECT_EQ(cameras[0]->ReadRegister(kivgev::kRegCcp), kivgev::kCcpControl) << "the controller kept the camera";
}

// A host may leave without closing anything while the producer's threads run.
class ExitWithoutClose : public Acquire {
 protected:
  void StartCameras() override {
    if (!std::getenv(kSharedNetwork)) AddCamera(CameraIp(0));
  }
};

TEST_F(ExitWithoutClose, LeaverRole) {
  if (!std::getenv(kSharedNetwork)) GTEST_SKIP() << "the other process of a test";
  dev = OpenAt(CameraIp(0));
  ASSERT_NE(dev, nullptr);
  std::exit(0);  // the heartbeat still running
}

TEST_F(ExitWithoutClose, TheProcessEndsCleanly) {
  EXPECT_EQ(Reap(SpawnSelf("ExitWithoutClose.LeaverRole"), 20000), 0);
  EXPECT_EQ(cameras[0]->ReadRegister(kivgev::kRegCcp), kivgev::kCcpControl) << "it did take the camera";
}

// The emulator program, killed while it streams.
class KilledEmulator : public Acquire {
 protected:
  void StartCameras() override {
    std::string why;
    ASSERT_TRUE(AddAddress("c0", "10.11.0.7/24", &why)) << why;
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    sim = fork();
    if (sim == 0) {
      dup2(fds[1], 1);
      close(fds[0]);
      execl(KIVGEV_SIM, "kivgev-sim", "--camera", "10.11.0.7", "--fps", "30", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(fds[1]);
    // Wait for its word that it listens.
    std::string out;
    char c;
    while (out.find("kivgev-sim: ready") == std::string::npos && read(fds[0], &c, 1) == 1) out += c;
    close(fds[0]);
    ASSERT_NE(out.find("ready"), std::string::npos) << out;
    ASSERT_NE(out.find("at 10.11.0.7 on c0"), std::string::npos) << out;
  }
  void TearDown() override {
    if (sim > 0) Reap(sim, 1);
    Acquire::TearDown();
  }
  pid_t sim = 0;
};

TEST_F(KilledEmulator, WaitsEndAndTheCameraIsReportedGone) {
  Begin(DEVICE_ACCESS_EXCLUSIVE, 0x0A0B0007);
  EVENT_HANDLE iface_ev = nullptr;
  ASSERT_EQ(p.GCRegisterEvent(ifs[0], EVENT_CUSTOM_ID, &iface_ev), GC_ERR_SUCCESS);
  Go();
  ASSERT_EQ(Write32(port, kAcqStart, 1, true), GC_ERR_SUCCESS);
  Frame();
  Frame();
  ASSERT_EQ(kill(sim, SIGKILL), 0);
  ASSERT_EQ(Reap(sim, 5000), -1) << "killed, not exited";
  sim = 0;
  // A host waiting for the next image without limit is let go.
  const uint64_t t0 = kivgev::NowNs();
  GC_ERROR e = GC_ERR_SUCCESS;
  for (int i = 0; i < 8 && e == GC_ERR_SUCCESS; ++i) {
    EVENT_NEW_BUFFER_DATA d{};
    size_t n = sizeof d;
    e = p.EventGetData(ev, &d, &n, GENTL_INFINITE);
    if (e == GC_ERR_SUCCESS) p.DSQueueBuffer(ds, d.BufferHandle);  // an image still on its way, or cut short
  }
  EXPECT_EQ(e, GC_ERR_IO);
  EXPECT_NE(p.LastError().find("camera was lost"), std::string::npos) << p.LastError();
  EXPECT_LT(kivgev::NowNs() - t0, 5000000000u);
  uint32_t code = 0;
  size_t n = sizeof code;
  ASSERT_EQ(p.EventGetData(iface_ev, &code, &n, 5000), GC_ERR_SUCCESS);
  EXPECT_EQ(code, 1u);
  EXPECT_FALSE(InfoOf<bool8_t>(p.DevGetInfo, dev, 1000));
  EXPECT_EQ(p.DSStopAcquisition(ds, ACQ_STOP_FLAGS_KILL), GC_ERR_SUCCESS);
  EXPECT_EQ(p.DevClose(dev), GC_ERR_SUCCESS);
}

}  // namespace
