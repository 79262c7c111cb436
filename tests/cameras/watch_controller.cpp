// The controlling side of the watch-mode tests, a program of its own so that
// it starts clean in every build (a fork of a threaded test would not):
//   watch_controller UID GROUP   (GROUP a.b.c.d, or "unicast")
// It opens the camera, streams and answers on stdout, one 64-bit word each:
// 0 once streaming (else a failure code); for each word read on stdin (1),
// the block ID of one more frame it made the camera deliver and received.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cam_env.h"

int main(int argc, char** argv) {
  using camtest::CamLib;
  using camtest::Sim;
  if (argc != 3) return 2;
  const uint64_t uid = std::strtoull(argv[1], nullptr, 0);
  uint8_t group[4] = {};
  const bool multicast = std::strcmp(argv[2], "unicast") != 0;
  if (multicast && std::sscanf(argv[2], "%hhu.%hhu.%hhu.%hhu", &group[0], &group[1], &group[2], &group[3]) != 4) {
    return 2;
  }
  auto answer = [](uint64_t v) { (void)!write(1, &v, sizeof v); };
  CamLib l;
  HCAMERA h = nullptr;
  if (!l.loaded() || !l.KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION) || !l.KIVCAM_Open(uid, &h)) {
    answer(100 + l.KIVCAM_GetLastError());
    return 1;
  }
  Sim sim(camtest::LibDir() + "/KivGigEGenTL.cti");
  const uint32_t index = static_cast<uint32_t>(sim.camera_index(("KivGEV::" + std::to_string(uid)).c_str()));
  sim.deliver(index, 0);
  if (!l.KIVCAM_ResourceAllocGigE(h, multicast ? group : nullptr, 0) || !l.KIVCAM_ImageStart(h)) {
    answer(200 + l.KIVCAM_GetLastError());
    return 1;
  }
  std::vector<ImageBuffer*> buffers(4);
  for (ImageBuffer*& b : buffers) {
    if (!l.KIVCAM_ImageAlloc(h, &b) || !l.KIVCAM_ImageReq(h, b)) return 1;
  }
  answer(0);
  size_t next = 0;
  for (uint64_t cmd = 0; read(0, &cmd, sizeof cmd) == sizeof cmd && cmd == 1;) {
    sim.deliver(index, 1);
    ImageBuffer* b = buffers[next++ % buffers.size()];
    ImageInfo info{};
    if (!l.KIVCAM_ImageComplete(h, b, 5000, &info)) return 3;
    uint32_t block;
    std::memcpy(&block, info.GigE.PacketInfo, sizeof block);
    answer(block);
    l.KIVCAM_ImageReq(h, b);
  }
  l.KIVCAM_CloseAll();
  return 0;
}
