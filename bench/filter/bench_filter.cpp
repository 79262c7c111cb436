// The output filter at 1920x1200x4 frames: a copy in (KIVCAMFILTER_OutPut)
// beside a plain memcpy of the frame, and frames filled in place
// (KIVCAMFILTER_GetAddr + KIVCAMFILTER_Flush) with a reader in another
// process taking every one: frames/s and the reader's latency.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "diag/process_objects.h"
#include "kivcam/kivcam.h"
#include "kivcam/kivcam_reader.h"
#include "platform/platform.h"
#include "private_names.h"

namespace {

constexpr uint32_t kWidth = 1920, kHeight = 1200;
constexpr size_t kFrameBytes = size_t{kWidth} * kHeight * 4;

std::string LibraryPath() {
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  exe[n > 0 ? n : 0] = '\0';
  std::string p(exe);
  p = p.substr(0, p.rfind('/'));
  return p.substr(0, p.rfind('/')) + "/lib/libkivcam.so";
}

// The library's filter exports, loaded once the benchmark's names are set.
struct Filter {
  void* lib = nullptr;
  decltype(&KIVCAMFILTER_Alloc) alloc = nullptr;
  decltype(&KIVCAMFILTER_OutPut) output = nullptr;
  decltype(&KIVCAMFILTER_GetAddr) get_addr = nullptr;
  decltype(&KIVCAMFILTER_Flush) flush = nullptr;
  decltype(&KIVCAMFILTER_Free) free = nullptr;

  bool Load() {
    lib = dlopen(LibraryPath().c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!lib) return false;
    alloc = reinterpret_cast<decltype(alloc)>(dlsym(lib, "KIVCAMFILTER_Alloc"));
    output = reinterpret_cast<decltype(output)>(dlsym(lib, "KIVCAMFILTER_OutPut"));
    get_addr = reinterpret_cast<decltype(get_addr)>(dlsym(lib, "KIVCAMFILTER_GetAddr"));
    flush = reinterpret_cast<decltype(flush)>(dlsym(lib, "KIVCAMFILTER_Flush"));
    free = reinterpret_cast<decltype(free)>(dlsym(lib, "KIVCAMFILTER_Free"));
    return alloc && output && get_addr && flush && free;
  }
  ~Filter() {
    if (lib) dlclose(lib);
  }
};

std::vector<unsigned char> Source() {
  std::vector<unsigned char> src(kFrameBytes);
  for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<unsigned char>(i * 7);
  return src;
}

void BM_MemcpyFrame(benchmark::State& state) {
  std::vector<unsigned char> src = Source(), dst(kFrameBytes, 1);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), kFrameBytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFrameBytes));
}
BENCHMARK(BM_MemcpyFrame)->UseRealTime();

// No reader: every frame after the first overwrites the newest (-1); the
// cost is the same copy under the filter mutex.
void BM_OutPut(benchmark::State& state) {
  Filter f;
  if (!f.Load() || f.alloc(kWidth, kHeight, 0) != KIVCAMFILTER_OK) {
    state.SkipWithError("no channel");
    return;
  }
  std::vector<unsigned char> src = Source();
  for (auto _ : state) {
    if (f.output(src.data()) == KIVCAMFILTER_ERROR) state.SkipWithError("OutPut failed");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFrameBytes));
  f.free();
}
BENCHMARK(BM_OutPut)->UseRealTime();

uint64_t NowNs() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

// What the reader process records, shared across the fork.
constexpr size_t kMaxSamples = 1 << 16;
struct Samples {
  uint64_t count;
  uint64_t latency_ns[kMaxSamples];
};

// The reader: opens the writer's channel, takes every frame, reads it whole
// (as a viewer would) and records publication-to-take times. A frame whose
// stamp is 0 ends it.
int Reader(uint32_t writer, Samples* samples) {
  KIVCAMREADER* r = nullptr;
  for (int i = 0; i < 10000 && !(r = KIVCAMREADER_Open(writer)); ++i) usleep(1000);
  if (!r) return 1;
  std::vector<unsigned char> copy(kFrameBytes);
  for (;;) {
    const void* frame = nullptr;
    int32_t taken;
    while ((taken = KIVCAMREADER_Take(r, &frame)) == 0) KIVCAMREADER_Wait(r, 1000);
    uint64_t now = NowNs();
    if (taken < 0) return 1;
    uint64_t stamp;
    std::memcpy(&stamp, frame, sizeof stamp);
    if (stamp == 0) break;
    if (samples->count < kMaxSamples) samples->latency_ns[samples->count++] = now - stamp;
    std::memcpy(copy.data(), frame, kFrameBytes);
    benchmark::DoNotOptimize(copy.data());
  }
  KIVCAMREADER_Close(r);
  return 0;
}

// Arg: 1 the writer fills the whole frame in place (as a converter would),
// 0 it writes only the stamp.
void BM_GetAddrFlushWithReader(benchmark::State& state) {
  const bool fill = state.range(0) != 0;
  auto* samples = static_cast<Samples*>(
      mmap(nullptr, sizeof(Samples), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  if (samples == MAP_FAILED) {
    state.SkipWithError("mmap");
    return;
  }
  samples->count = 0;
  const uint32_t self = static_cast<uint32_t>(getpid());
  pid_t child = fork();
  if (child == 0) _exit(Reader(self, samples));

  Filter f;
  if (!f.Load() || f.alloc(kWidth, kHeight, 0) != KIVCAMFILTER_OK) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    state.SkipWithError("no channel");
    return;
  }
  auto header = kivcam::platform::SharedMapping::Open(kivcam::diag::FilterHeaderName(self),
                                                      sizeof(KIVCAMFILTER_HEADER));
  auto* h = static_cast<volatile KIVCAMFILTER_HEADER*>(header->data());
  // The stamp is taken just before Flush: the latency is Flush, the wake-up
  // and the take, plus any time the reader still spent on the frame before.
  auto publish = [&] {
    void* slot = nullptr;
    f.get_addr(&slot);
    if (fill) std::memset(slot, 0x5A, kFrameBytes);
    uint64_t stamp = NowNs();
    std::memcpy(slot, &stamp, sizeof stamp);
    f.flush();
  };
  // Until the reader has taken the frame just published (or is gone).
  auto wait_taken = [&] {
    while (h->ReadIndex != h->WriteIndex) {
      if (waitpid(child, nullptr, WNOHANG) == child) return false;
      std::this_thread::yield();
    }
    return true;
  };
  for (auto _ : state) {
    publish();
    if (!wait_taken()) {
      state.SkipWithError("the reader ended");
      break;
    }
  }
  // The end: a frame stamped 0.
  void* slot = nullptr;
  f.get_addr(&slot);
  std::memset(slot, 0, sizeof(uint64_t));
  f.flush();
  int status = 0;
  waitpid(child, &status, 0);
  f.free();

  std::vector<uint64_t> lat(samples->latency_ns, samples->latency_ns + samples->count);
  munmap(samples, sizeof(Samples));
  if (lat.empty()) return;
  std::sort(lat.begin(), lat.end());
  state.counters["frames_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["latency_median_us"] = lat[lat.size() / 2] / 1000.0;
  state.counters["latency_p99_us"] = lat[std::min(lat.size() - 1, lat.size() * 99 / 100)] / 1000.0;
}
BENCHMARK(BM_GetAddrFlushWithReader)->Arg(1)->Arg(0)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // Never meet a real reader or monitor.
  kivbench::PrivateNames names("bench_filter_");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
