// Camera layer costs against the virtual cameras: listing, opening (ZIP
// description read from the device) and closing, and feature reads through
// the node map and the camera's port.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <memory>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kivcam/kivcam.h"
#include "kivgenapi/KivGenApi.h"
#include "private_names.h"

namespace {

constexpr uint64_t kGigE1 = 0x00A0B7000001ULL;

struct Lib {
  void* handle = nullptr;
  decltype(&KIVCAM_SetStructVersion) SetStructVersion = nullptr;
  decltype(&KIVCAM_GetList) GetList = nullptr;
  decltype(&KIVCAM_Open) Open = nullptr;
  decltype(&KIVCAM_Close) Close = nullptr;
  decltype(&KIVCAM_GetNodeMap) GetNodeMap = nullptr;

  Lib() {
    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return;
    exe[n] = '\0';
    std::string dir(exe);
    dir = dir.substr(0, dir.rfind('/'));
    dir = dir.substr(0, dir.rfind('/')) + "/lib/libkivcam.so";
    handle = dlopen(dir.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) return;
    SetStructVersion = reinterpret_cast<decltype(SetStructVersion)>(dlsym(handle, "KIVCAM_SetStructVersion"));
    GetList = reinterpret_cast<decltype(GetList)>(dlsym(handle, "KIVCAM_GetList"));
    Open = reinterpret_cast<decltype(Open)>(dlsym(handle, "KIVCAM_Open"));
    Close = reinterpret_cast<decltype(Close)>(dlsym(handle, "KIVCAM_Close"));
    GetNodeMap = reinterpret_cast<decltype(GetNodeMap)>(dlsym(handle, "KIVCAM_GetNodeMap"));
    SetStructVersion(KIVCAM_LIBRARY_REVISION);
  }
  ~Lib() {
    if (handle) dlclose(handle);
  }
};

std::unique_ptr<Lib> g_lib;

Lib& TheLib() {
  if (!g_lib) g_lib = std::make_unique<Lib>();
  return *g_lib;
}

void BM_ListCameras(benchmark::State& state) {
  Lib& lib = TheLib();
  std::vector<unsigned char> buf(KIVCAM_CAMERALIST_BYTES(8));
  auto* list = reinterpret_cast<CameraList*>(buf.data());
  for (auto _ : state) {
    list->Count = 8;
    if (!lib.GetList(list) || list->Count != 3) state.SkipWithError("list failed");
  }
}
BENCHMARK(BM_ListCameras)->Unit(benchmark::kMicrosecond);

void BM_OpenAndCloseZipFromDevice(benchmark::State& state) {
  Lib& lib = TheLib();
  for (auto _ : state) {
    HCAMERA cam = nullptr;
    if (!lib.Open(kGigE1, &cam)) {
      state.SkipWithError("open failed");
      break;
    }
    lib.Close(cam);
  }
}
BENCHMARK(BM_OpenAndCloseZipFromDevice)->Unit(benchmark::kMillisecond);

// Width through the camera's node map: from the cache, or from the device.
void ReadWidth(benchmark::State& state, bool ignore_cache) {
  Lib& lib = TheLib();
  HCAMERA cam = nullptr;
  void* raw = nullptr;
  if (!lib.Open(kGigE1, &cam) || !lib.GetNodeMap(cam, &raw)) {
    state.SkipWithError("open failed");
    return;
  }
  auto* map = static_cast<KivGenApi::CNodeMapRef*>(raw);
  auto* width = dynamic_cast<KivGenApi::IInteger*>(map->_Ptr->GetNode("Width"));
  int64_t sum = 0;
  for (auto _ : state) sum += width->GetValue(false, ignore_cache);
  benchmark::DoNotOptimize(sum);
  lib.Close(cam);
}

void BM_FeatureReadCached(benchmark::State& state) { ReadWidth(state, false); }
BENCHMARK(BM_FeatureReadCached);
void BM_FeatureReadUncached(benchmark::State& state) { ReadWidth(state, true); }
BENCHMARK(BM_FeatureReadUncached);

}  // namespace

int main(int argc, char** argv) {
  kivbench::PrivateNames names("bench");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  g_lib.reset();
  return 0;
}
