// kivgev-sim: GigE Vision cameras of the virtual camera model on real
// addresses of this machine. See gev/README.md.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "emulator.h"
#include "net.h"
#include "world.h"

namespace {

volatile sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

int Usage() {
  std::fprintf(stderr,
               "usage: kivgev-sim --camera ADDRESS [--camera ADDRESS ...] [options]\n"
               "  --camera ADDRESS     serve one camera on this IPv4 address (e.g. 127.0.0.2)\n"
               "  --config FILE        camera models from a virtual-camera configuration file\n"
               "  --fps N              frame rate (default: the camera's, 30)\n"
               "  --packet-size N      initial stream packet size (default 1500)\n"
               "  --size-limit N       largest datagram the path carries (default: any)\n"
               "  --link MBPS          link speed the stream packets leave at (default 1000)\n"
               "  --loss P             share of stream packets lost on first send (0..1)\n"
               "  --reorder P          share of stream packets sent after their successor (0..1)\n"
               "  --extended-ids       64-bit block IDs from the start\n"
               "  --seed N             random source of loss and reordering\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  // Only the main thread takes the stop signals: the cameras' threads inherit this mask.
  sigset_t stops, old;
  sigemptyset(&stops);
  sigaddset(&stops, SIGINT);
  sigaddset(&stops, SIGTERM);
  sigprocmask(SIG_BLOCK, &stops, &old);
  kivgev::EmulatorOptions opt;
  std::vector<uint32_t> addresses;
  std::vector<kivsim::CameraConfig> models;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    const char* v = nullptr;
    if (a == "--extended-ids") {
      opt.extended_ids = true;
      continue;
    }
    if (a == "-h" || a == "--help" || !(v = value())) return Usage();
    if (a == "--camera") {
      uint32_t ip;
      if (!kivgev::ParseIp(v, &ip)) return Usage();
      addresses.push_back(ip);
    } else if (a == "--config") {
      std::ifstream f(v);
      std::stringstream ss;
      ss << f.rdbuf();
      kivsim::World w = kivsim::ParseWorld(kivsim::Transport::GigE, ss.str());
      if (!f || !w.error.empty()) {
        std::fprintf(stderr, "kivgev-sim: %s: %s\n", v, f ? w.error.c_str() : "cannot read");
        return 1;
      }
      models = w.cameras;
    } else if (a == "--fps") {
      opt.fps = std::atof(v);
    } else if (a == "--packet-size") {
      opt.packet_size = static_cast<uint32_t>(std::atoi(v));
    } else if (a == "--size-limit") {
      opt.packet_size_limit = static_cast<uint32_t>(std::atoi(v));
    } else if (a == "--link") {
      opt.link_mbps = std::atof(v);
    } else if (a == "--loss") {
      opt.loss = std::atof(v);
    } else if (a == "--reorder") {
      opt.reorder = std::atof(v);
    } else if (a == "--seed") {
      opt.seed = std::strtoull(v, nullptr, 0);
    } else {
      return Usage();
    }
  }
  if (addresses.empty()) return Usage();

  std::vector<std::unique_ptr<kivgev::EmulatedCamera>> cams;
  for (size_t i = 0; i < addresses.size(); ++i) {
    kivsim::CameraConfig model = i < models.size() ? models[i] : kivgev::DefaultEmulatedCamera(i);
    cams.emplace_back(new kivgev::EmulatedCamera(model, addresses[i], opt));
    std::string err;
    if (!cams.back()->Start(&err)) {
      std::fprintf(stderr, "kivgev-sim: %s\n", err.c_str());
      return 1;
    }
    std::printf("kivgev-sim: %s\n", cams.back()->Describe().c_str());
  }
  struct sigaction sa {};
  sa.sa_handler = OnSignal;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  std::printf("kivgev-sim: ready\n");
  std::fflush(stdout);
  while (!g_stop) sigsuspend(&old);
  for (auto& c : cams) c->Stop();
  return 0;
}
