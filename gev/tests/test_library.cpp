// The library over the network: the command-line tool, started with the
// network producer first on its loader path, sees, describes and configures
// an emulated camera, and negotiates its packet size against the path's limit.
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>

#include "fixture.h"
#include "wire.h"

using namespace gevtest;

namespace {

class Library : public GevTest {
 protected:
  void StartCameras() override {
    kivgev::EmulatorOptions o;
    o.packet_size_limit = 1500;  // the path carries no jumbo packets
    AddCamera(CameraIp(0), o);
  }
  // `kivcam ARGS` with the network producer; what it printed, and its exit code.
  std::string Kivcam(const std::string& args, int* code = nullptr) {
    const std::string line = "LD_LIBRARY_PATH=" KIVGEV_PRODUCER_DIR " " KIVCAM_CLI " " + args + " 2>&1";
    std::string out;
    FILE* f = popen(line.c_str(), "r");
    if (!f) return out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
    const int status = pclose(f);
    if (code) *code = WEXITSTATUS(status);
    return out;
  }
};

TEST_F(Library, KivcamListsDescribesAndConfiguresTheCameraOverTheNetwork) {
  int code = -1;
  std::string out = Kivcam("list", &code);
  EXPECT_EQ(code, 0) << out;
  EXPECT_NE(out.find("KivSim-GC1920M           00:A0:B7:01:00:01"), std::string::npos) << out;
  out = Kivcam("info first", &code);
  EXPECT_EQ(code, 0) << out;
  EXPECT_NE(out.find("camera IP    10.11.0.2"), std::string::npos) << out;
  EXPECT_NE(out.find("stream dest  10.11.0.1"), std::string::npos) << out;
  // Opening negotiated the packet size: 9000 failed the stream test, 1500 is kept.
  out = Kivcam("get first GevSCPSPacketSize GevHeartbeatTimeout", &code);
  EXPECT_EQ(code, 0) << out;
  EXPECT_NE(out.find("GevSCPSPacketSize = 1500"), std::string::npos) << out;
  EXPECT_GE(cameras[0]->stats().test_packets, 2u);
  out = Kivcam("set first Width=320", &code);
  EXPECT_EQ(code, 0) << out;
  EXPECT_EQ(cameras[0]->ReadRegister(0xA000), 320u) << "the camera keeps what the tool set";
  EXPECT_EQ(cameras[0]->ReadRegister(kivgev::kRegCcp), 0u) << "and each command gave it up again";
}

}  // namespace
