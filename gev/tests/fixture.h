// The network producer under test, driven through its GenTL entry points as
// the virtual producers' tests drive theirs (producers/tests/gentl_api.h),
// against emulated cameras in the test's own network namespace.
#pragma once
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "emulator.h"
#include "gentl_api.h"
#include "kivgev/kivgev.h"
#include "net.h"
#include "netns.h"
#include "world.h"

namespace gevtest {

// Waits until `cond` holds or `ms` pass; true when it held.
template <class F>
bool WaitFor(F cond, int ms = 5000) {
  const uint64_t deadline = kivgev::NowNs() + uint64_t(ms) * 1000000ULL;
  while (!cond()) {
    if (kivgev::NowNs() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// What a shell command printed, and its exit code.
inline std::string Output(const std::string& command, int* code = nullptr) {
  std::string out;
  FILE* f = popen(command.c_str(), "r");
  if (!f) return out;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
  const int status = pclose(f);
  if (code) *code = WEXITSTATUS(status);
  return out;
}

// The receive path the producer is meant to take: these tests run as root
// (they need a namespace), so the ring unless KIVGEV_RECEIVE says socket.
inline bool RingExpected() {
  const char* v = std::getenv("KIVGEV_RECEIVE");
  return !v || std::string(v) != "socket";
}

class GevTest : public ProducerTest {
 protected:
  // Links of the namespace and the interfaces the producer may use.
  int links = 1;
  std::string interfaces = "h0";
  std::string extra_env;  // "NAME=value NAME=value" set before GCInitLib

  // Cameras to start before the producer opens (tests override).
  virtual void StartCameras() {}

  void SetUp() override {
    std::string why;
    if (!EnterPrivateNetwork(&why)) GTEST_SKIP() << "network test skipped: " << why;
    for (int i = 0; i < links; ++i) ASSERT_TRUE(AddLink(i, &why)) << why;
    // The producer may use only the namespace's own interfaces: never a real one.
    setenv("KIVGEV_INTERFACES", interfaces.c_str(), 1);
    setenv("KIVGEV_DISCOVERY_MS", "150", 1);
    setenv("KIVGEV_WATCH_MS", "100", 1);
    setenv("KIVGEV_TIMEOUT_MS", "100", 1);
    setenv("KIVGEV_RETRIES", "3", 1);
    unsetenv("KIVGEV_DEVICES");
    for (size_t at = 0; at < extra_env.size();) {
      size_t end = extra_env.find(' ', at);
      if (end == std::string::npos) end = extra_env.size();
      const std::string kv = extra_env.substr(at, end - at);
      const size_t eq = kv.find('=');
      if (eq != std::string::npos) setenv(kv.substr(0, eq).c_str(), kv.substr(eq + 1).c_str(), 1);
      at = end + 1;
    }
    StartCameras();
    if (IsSkipped() || HasFatalFailure()) return;
    ProducerTest::SetUp();
  }

  void TearDown() override {
    if (p.module && tl) ProducerTest::TearDown();
    cameras.clear();
  }

  kivgev::EmulatedCamera& AddCamera(uint32_t ip, const kivgev::EmulatorOptions& opt = {}, size_t model = 0) {
    // Further cameras of link n get further addresses on cN.
    const int n = int((ip >> 16) & 0xFF) - 11;
    if ((ip >> 24) == 10 && n >= 0 && n < links && (ip & 0xFF) > 2) {
      std::string why;
      EXPECT_TRUE(AddAddress("c" + std::to_string(n), kivgev::IpText(ip) + "/24", &why)) << why;
    }
    cameras.emplace_back(new kivgev::EmulatedCamera(kivgev::DefaultEmulatedCamera(model), ip, opt));
    std::string err;
    EXPECT_TRUE(cameras.back()->Start(&err)) << err;
    return *cameras.back();
  }

  // The interface and device ID under which the camera at `ip` is listed.
  std::pair<IF_HANDLE, std::string> Find(uint32_t ip) {
    for (IF_HANDLE h : ifs)
      for (uint32_t i = 0, n = NumDevices(h); i < n; ++i) {
        std::string id = DeviceId(h, i);
        uint32_t v = 0;
        size_t size = sizeof v;
        INFO_DATATYPE t;
        if (p.IFGetDeviceInfo(h, id.c_str(), 1005, &t, &v, &size) == GC_ERR_SUCCESS && v == ip) return {h, id};
      }
    return {nullptr, ""};
  }
  DEV_HANDLE OpenAt(uint32_t ip, DEVICE_ACCESS_FLAGS access = DEVICE_ACCESS_EXCLUSIVE) {
    auto [h, id] = Find(ip);
    DEV_HANDLE d = nullptr;
    EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), access, &d), GC_ERR_SUCCESS) << p.LastError();
    return d;
  }
  // Whether the started stream `ds` takes the path this run means.
  ::testing::AssertionResult OnExpectedPath(DS_HANDLE ds) {
    const bool ring = InfoOf<bool8_t>(p.DSGetInfo, ds, KIVGEV_STREAM_RING) != 0;
    if (ring == RingExpected()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "received through the " << (ring ? "ring" : "socket");
  }

  std::vector<std::unique_ptr<kivgev::EmulatedCamera>> cameras;
};

}  // namespace gevtest
