// The plain GenTL acquisition loop on a virtual camera: announce 8 buffers,
// queue them, wait for each new-buffer event and queue the buffer again. This
// is the baseline against which the library's own per-frame cost is measured.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <kivgentl/gentl.h>
#include <kivsim/kivsim.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Api {
#define KIVSIM_FN(name) P##name name = nullptr;
  KIVSIM_FN(GCInitLib) KIVSIM_FN(GCCloseLib) KIVSIM_FN(TLOpen) KIVSIM_FN(TLClose) KIVSIM_FN(TLUpdateInterfaceList)
  KIVSIM_FN(TLGetNumInterfaces) KIVSIM_FN(TLGetInterfaceID) KIVSIM_FN(TLOpenInterface) KIVSIM_FN(IFUpdateDeviceList)
  KIVSIM_FN(IFGetNumDevices) KIVSIM_FN(IFGetDeviceID) KIVSIM_FN(IFOpenDevice) KIVSIM_FN(DevGetPort)
  KIVSIM_FN(DevGetDataStreamID) KIVSIM_FN(DevOpenDataStream) KIVSIM_FN(GCWritePort) KIVSIM_FN(GCReadPort)
  KIVSIM_FN(DSAnnounceBuffer) KIVSIM_FN(DSQueueBuffer) KIVSIM_FN(DSStartAcquisition) KIVSIM_FN(DSStopAcquisition)
  KIVSIM_FN(DSFlushQueue) KIVSIM_FN(DSRevokeBuffer) KIVSIM_FN(GCRegisterEvent) KIVSIM_FN(EventGetData)
#undef KIVSIM_FN
  decltype(&kivsim_free_run) free_run = nullptr;
  void* module = nullptr;

  Api() {
    // The producers sit in ../lib beside this program's folder.
    char exe[4096] = {};
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string dir = n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string("./x");
    dir = dir.substr(0, dir.find_last_of('/'));
    module = dlopen((dir + "/../lib/KivGigEGenTL.cti").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) return;
#define KIVSIM_FN(name) name = reinterpret_cast<P##name>(dlsym(module, #name));
    KIVSIM_FN(GCInitLib) KIVSIM_FN(GCCloseLib) KIVSIM_FN(TLOpen) KIVSIM_FN(TLClose) KIVSIM_FN(TLUpdateInterfaceList)
    KIVSIM_FN(TLGetNumInterfaces) KIVSIM_FN(TLGetInterfaceID) KIVSIM_FN(TLOpenInterface)
    KIVSIM_FN(IFUpdateDeviceList) KIVSIM_FN(IFGetNumDevices) KIVSIM_FN(IFGetDeviceID) KIVSIM_FN(IFOpenDevice)
    KIVSIM_FN(DevGetPort) KIVSIM_FN(DevGetDataStreamID) KIVSIM_FN(DevOpenDataStream) KIVSIM_FN(GCWritePort)
    KIVSIM_FN(GCReadPort) KIVSIM_FN(DSAnnounceBuffer) KIVSIM_FN(DSQueueBuffer) KIVSIM_FN(DSStartAcquisition)
    KIVSIM_FN(DSStopAcquisition) KIVSIM_FN(DSFlushQueue) KIVSIM_FN(DSRevokeBuffer) KIVSIM_FN(GCRegisterEvent)
    KIVSIM_FN(EventGetData)
#undef KIVSIM_FN
    free_run = reinterpret_cast<decltype(free_run)>(dlsym(module, "kivsim_free_run"));
  }
};

void WriteBE(Api& a, PORT_HANDLE port, uint64_t addr, uint32_t v) {
  uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
  size_t n = 4;
  a.GCWritePort(port, addr, b, &n);
}

void AcquisitionLoop(benchmark::State& state) {
  static Api api;
  Api& a = api;
  if (!a.module) {
    state.SkipWithError("KivGigEGenTL.cti not found");
    return;
  }
  const uint32_t w = static_cast<uint32_t>(state.range(0)), h = static_cast<uint32_t>(state.range(1));
  a.GCInitLib();
  TL_HANDLE tl;
  a.TLOpen(&tl);
  a.TLUpdateInterfaceList(tl, nullptr, 1000);
  // The default world: the cameras are on the second adapter.
  char id[256];
  size_t size = sizeof id;
  a.TLGetInterfaceID(tl, 1, id, &size);
  IF_HANDLE iface;
  a.TLOpenInterface(tl, id, &iface);
  a.IFUpdateDeviceList(iface, nullptr, 1000);
  size = sizeof id;
  a.IFGetDeviceID(iface, 0, id, &size);
  DEV_HANDLE dev;
  if (a.IFOpenDevice(iface, id, DEVICE_ACCESS_EXCLUSIVE, &dev) != GC_ERR_SUCCESS) {
    state.SkipWithError("cannot open the camera");
    a.GCCloseLib();
    return;
  }
  PORT_HANDLE port;
  a.DevGetPort(dev, &port);
  WriteBE(a, port, 0xA000, w);  // Width
  WriteBE(a, port, 0xA004, h);  // Height
  WriteBE(a, port, 0xA010, 0x01080001);  // Mono8
  a.free_run(0, 0);                      // as fast as buffers come back
  size = sizeof id;
  a.DevGetDataStreamID(dev, 0, id, &size);
  DS_HANDLE ds;
  a.DevOpenDataStream(dev, id, &ds);
  const size_t payload = size_t(w) * h;
  std::vector<std::vector<uint8_t>> memory(8, std::vector<uint8_t>(payload));
  for (auto& m : memory) {
    BUFFER_HANDLE b;
    a.DSAnnounceBuffer(ds, m.data(), m.size(), nullptr, &b);
    a.DSQueueBuffer(ds, b);
  }
  EVENT_HANDLE ev;
  a.GCRegisterEvent(ds, EVENT_NEW_BUFFER, &ev);
  a.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE);
  uint32_t one = 1;
  size = 4;
  a.GCWritePort(ds, 0x102, &one, &size);
  WriteBE(a, port, 0xA01C, 1);  // AcquisitionStart
  for (auto _ : state) {
    EVENT_NEW_BUFFER_DATA d;
    size_t n = sizeof d;
    if (a.EventGetData(ev, &d, &n, 5000) != GC_ERR_SUCCESS) {
      state.SkipWithError("no frame");
      break;
    }
    a.DSQueueBuffer(ds, d.BufferHandle);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * payload));
  a.DSStopAcquisition(ds, ACQ_STOP_FLAGS_KILL);
  a.TLClose(tl);
  a.GCCloseLib();
}
BENCHMARK(AcquisitionLoop)->Args({64, 64})->Args({1920, 1200})->UseRealTime()->Unit(benchmark::kMicrosecond);

// The machine's memory-copy rate for the same traffic: one 1920x1200 Mono8
// image per iteration from a moving source into eight rotating buffers, the
// ceiling of the loop above.
void MemoryCopy(benchmark::State& state) {
  const size_t n = 1920 * 1200, row = 1920;
  std::vector<uint8_t> src(n + 254 * row, 1);
  std::vector<std::vector<uint8_t>> dst(8, std::vector<uint8_t>(n));
  size_t i = 0;
  for (auto _ : state) {
    std::memcpy(dst[i % 8].data(), src.data() + row * (2 * (i % 128)), n);
    benchmark::DoNotOptimize(dst[i % 8].data());
    ++i;
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
}
BENCHMARK(MemoryCopy)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
