// The library over the network: the command-line tool, started with the
// network producer first on its loader path, sees, describes, configures and
// grabs an emulated camera, and negotiates its packet size against the path's limit.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fixture.h"
#include "pixfmt.h"
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
    return Output("LD_LIBRARY_PATH=" KIVGEV_PRODUCER_DIR " " KIVCAM_CLI " " + args + " 2>&1", code);
  }
};

TEST_F(Library, KivcamListsDescribesConfiguresAndGrabsTheCameraOverTheNetwork) {
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

  // Raw files hold the frames as the emulator sent them: its test pattern of
  // frames it produced meanwhile, in order.
  namespace fs = std::filesystem;
  const std::string dir = testing::TempDir() + "kivgev_grab_" + std::to_string(getpid());
  fs::remove_all(dir);
  const uint64_t before = cameras[0]->frames();
  out = Kivcam("grab first -n 4 --format raw -o " + dir + " --set Width=64 Height=32", &code);
  const uint64_t after = cameras[0]->frames();
  ASSERT_EQ(code, 0) << out;
  EXPECT_NE(out.find("64x32 Mono8\n"), std::string::npos) << out;
  EXPECT_NE(out.find("problems  0 incomplete, 0 errors"), std::string::npos) << out;
  auto pattern = kivsim::GetPattern(0x01080001 /* Mono8 */, 64, 32);
  uint64_t next = before;  // the earliest frame the next file may hold
  for (int i = 1; i <= 4; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "/KivSim-GC1920M-%llu-%06d.raw",
                  static_cast<unsigned long long>(cameras[0]->mac()), i);
    std::ifstream in(dir + name, std::ios::binary);
    const std::string raw((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(raw.size(), 64u * 32u) << name;
    uint64_t f = next;
    while (f < after && std::memcmp(raw.data(), pattern->frame(f), raw.size()) != 0) ++f;
    EXPECT_LT(f, after) << name << " is no frame the emulator sent after frame " << next;
    next = f + 1;
  }
  fs::remove_all(dir);
}

}  // namespace
