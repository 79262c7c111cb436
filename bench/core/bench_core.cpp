// Cost of the call log and of the call frame every export runs.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "diag/call_log.h"
#include "kivcam/kivcam.h"
#include "diag/log_reader.h"
#include "private_names.h"

namespace {

namespace diag = kivcam::diag;

struct LogFixture {
  LogFixture() {
    reader.Open();
    diag::OpenCallLog();
  }
  kivcam::diag::LogReader reader;
};

LogFixture& Log() {
  static LogFixture f;
  return f;
}

void BM_LogLineLevel0(benchmark::State& state) {
  Log().reader.SetLevel(0);
  for (auto _ : state) {
    diag::LogEvent(false, "CCamera::ImageReq", "Start");
  }
}
BENCHMARK(BM_LogLineLevel0);

void BM_LogLineLevel1(benchmark::State& state) {
  LogFixture& f = Log();
  f.reader.SetLevel(1);
  for (auto _ : state) {
    diag::LogEvent(false, "CCamera::ImageReq", "Start");
    // Play a reader that keeps up, so every line is really written.
    diag::LogArea* area = diag::CurrentLogArea();
    if (area->Pending >= diag::kLogSlots) area->Pending = 0;
  }
  f.reader.SetLevel(0);
  f.reader.Take();
}
BENCHMARK(BM_LogLineLevel1);

std::string LibraryPath() {
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  exe[n > 0 ? n : 0] = '\0';
  std::string p(exe);
  p = p.substr(0, p.rfind('/'));
  return p.substr(0, p.rfind('/')) + "/lib/libkivcam.so";
}

// An export with nothing to do: Start line, last error 0, API lock, End line.
void BM_EmptyExportFrameLevel0(benchmark::State& state) {
  Log().reader.SetLevel(0);
  void* lib = dlopen(LibraryPath().c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!lib) {
    state.SkipWithError("libkivcam.so not found");
    return;
  }
  auto set_callback = reinterpret_cast<decltype(&KIVCAM_SetCallBack)>(dlsym(lib, "KIVCAM_SetCallBack"));
  for (auto _ : state) {
    set_callback(nullptr, nullptr);
  }
  dlclose(lib);
}
BENCHMARK(BM_EmptyExportFrameLevel0);

}  // namespace

int main(int argc, char** argv) {
  // Never disturb a real monitor.
  kivbench::PrivateNames names("bench_core_");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
