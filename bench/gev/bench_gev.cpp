// The network producer against Aravis on the same emulator, side by side in
// one run, inside a network namespace of the program's own (loopback only):
//   Receive/<who>/fps:<n>  1920x1200 Mono8 in 8192-byte packets from kivgev-sim
//                          (fps 0: as fast as the emulator sends); frames/s,
//                          complete share, CPU per frame of the receiver alone
//                          and of receiver plus emulator. KivGEV-ring and
//                          KivGEV-socket are the producer's two receive paths
//                          (KIVGEV_RECEIVE).
//   Control/<who>          1000 register reads; median and 99th percentile of
//                          the round trip as the camera sees it (time between
//                          consecutive commands)
// Aravis is arv-camera-test-0.8 (with its automatic socket buffer) and
// arv-tool-0.8, run as programs. See bench/README.md.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <kivgentl/gentl.h>
#include <kivsim/kivsim.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "emulator.h"
#include "net.h"
#include "world.h"

namespace {

constexpr uint32_t kCamera = 0x7F000002;  // 127.0.0.2
constexpr double kSeconds = 4.0;

std::string g_dir;  // this program's folder

double CpuSeconds(const rusage& r) {
  return r.ru_utime.tv_sec + r.ru_stime.tv_sec + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}

// CPU seconds a running process has used so far.
double ProcessCpu(pid_t pid) {
  std::string stat;
  if (FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r")) {
    char b[1024];
    size_t n = std::fread(b, 1, sizeof b - 1, f);
    stat.assign(b, n);
    std::fclose(f);
  }
  const size_t close = stat.rfind(')');
  if (close == std::string::npos) return 0;
  unsigned long utime = 0, stime = 0;
  // Fields after the command name: state is field 3; utime and stime are fields 14 and 15.
  std::sscanf(stat.c_str() + close + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime);
  return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
}

double SelfCpu() {
  rusage r{};
  getrusage(RUSAGE_SELF, &r);
  return CpuSeconds(r);
}

// A child process; its CPU time when it is reaped.
struct Child {
  pid_t pid = -1;
  double cpu = 0;
  void Stop(int sig = SIGINT) {
    if (pid <= 0) return;
    kill(pid, sig);
    Reap();
  }
  void Reap() {
    int status;
    rusage r{};
    wait4(pid, &status, 0, &r);
    cpu = CpuSeconds(r);
    pid = -1;
  }
};

Child Spawn(const std::vector<std::string>& argv, const std::string& out_file) {
  Child c;
  c.pid = fork();
  if (c.pid == 0) {
    FILE* f = std::fopen(out_file.c_str(), "w");
    if (f) dup2(fileno(f), 1), dup2(fileno(f), 2);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  return c;
}

std::string Slurp(const std::string& file) {
  std::string s;
  if (FILE* f = std::fopen(file.c_str(), "r")) {
    char b[4096];
    for (size_t n; (n = std::fread(b, 1, sizeof b, f)) > 0;) s.append(b, n);
    std::fclose(f);
  }
  return s;
}

long Statistic(const std::string& out, const std::string& name) {
  const size_t at = out.find(name + " ");
  if (at == std::string::npos) return -1;
  return std::strtol(out.c_str() + out.find('=', at) + 1, nullptr, 10);
}

// kivgev-sim with one 1920x1200 Mono8 camera sending 8192-byte packets.
Child StartEmulator(int fps) {
  const std::string config = "/tmp/bench_gev_camera.ini", out = "/tmp/bench_gev_sim.out";
  if (FILE* f = std::fopen(config.c_str(), "w")) {
    std::fputs("[camera]\nmodel = KivSim-GC1920M\nwidth = 1920\nheight = 1200\npixel_formats = Mono8\n", f);
    std::fclose(f);
  }
  std::remove(out.c_str());  // a word from an earlier run must not count
  Child c = Spawn({g_dir + "/kivgev-sim", "--config", config, "--camera", "127.0.0.2", "--fps", std::to_string(fps),
                   "--packet-size", "8192", "--link", "100000"},
                  out);
  for (int i = 0; i < 500 && Slurp(out).find("ready") == std::string::npos; ++i) usleep(10000);
  return c;
}

// The entry points the benchmarks call, listed once.
#define GEV_ENTRY_POINTS(X)                                                                                   \
  X(GCInitLib) X(GCCloseLib) X(TLOpen) X(TLClose) X(TLUpdateInterfaceList) X(TLGetInterfaceID)              \
  X(TLOpenInterface) X(IFUpdateDeviceList) X(IFGetNumDevices) X(IFGetDeviceID) X(IFOpenDevice) X(DevGetPort) \
  X(DevOpenDataStream) X(GCWritePort) X(GCReadPort) X(DSAnnounceBuffer) X(DSQueueBuffer)                      \
  X(DSStartAcquisition) X(DSStopAcquisition) X(GCRegisterEvent) X(EventGetData) X(DSGetBufferInfo)           \
  X(DevClose) X(DSGetInfo)

struct Producer {
#define GEV_FN(name) P##name name = nullptr;
  GEV_ENTRY_POINTS(GEV_FN)
#undef GEV_FN
  void* module = nullptr;
  TL_HANDLE tl = nullptr;
  IF_HANDLE iface = nullptr;
  DEV_HANDLE dev = nullptr;
  PORT_HANDLE port = nullptr;

  bool Open() {
    setenv("KIVGEV_INTERFACES", "lo", 1);
    setenv("KIVGEV_DISCOVERY_MS", "200", 1);
    module = dlopen((g_dir + "/../lib/gev/KivGigEGenTL.cti").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) return false;
#define GEV_FN(name) name = reinterpret_cast<P##name>(dlsym(module, #name));
    GEV_ENTRY_POINTS(GEV_FN)
#undef GEV_FN
    char id[256];
    size_t n = sizeof id;
    uint32_t count = 0;
    if (GCInitLib() || TLOpen(&tl) || TLUpdateInterfaceList(tl, nullptr, 1000) || TLGetInterfaceID(tl, 0, id, &n) ||
        TLOpenInterface(tl, id, &iface) || IFUpdateDeviceList(iface, nullptr, 1000) || IFGetNumDevices(iface, &count) ||
        count == 0)
      return false;
    n = sizeof id;
    return !IFGetDeviceID(iface, 0, id, &n) && !IFOpenDevice(iface, id, DEVICE_ACCESS_EXCLUSIVE, &dev) &&
           !DevGetPort(dev, &port);
  }
  void Close() {
    if (dev) DevClose(dev);
    if (tl) TLClose(tl);
    GCCloseLib();
    dev = nullptr;
    tl = nullptr;
  }
  bool Write(PORT_HANDLE h, uint64_t a, uint32_t v, bool big) {
    uint8_t b[4];
    for (int i = 0; i < 4; ++i) b[big ? i : 3 - i] = uint8_t(v >> (24 - 8 * i));
    if (!big) std::memcpy(b, &v, 4);
    size_t n = 4;
    return GCWritePort(h, a, b, &n) == GC_ERR_SUCCESS;
  }
};

Producer& TheProducer() {
  static Producer p;
  return p;
}

void ReceiveKivGev(benchmark::State& state, int fps, const char* path) {
  Child sim = StartEmulator(fps);
  Producer& p = TheProducer();
  setenv("KIVGEV_RECEIVE", path, 1);
  if (!p.Open()) {
    sim.Stop();
    state.SkipWithError("the network producer found no camera");
    return;
  }
  const uint32_t payload = 1920 * 1200, info = payload;
  DS_HANDLE ds = nullptr;
  EVENT_HANDLE ev = nullptr;
  p.DevOpenDataStream(p.dev, "Stream0", &ds);
  p.GCRegisterEvent(ds, EVENT_NEW_BUFFER, &ev);
  p.Write(ds, KIVSIM_DS_GIGE_INFO_OFFSET, info, false);
  for (int i = 0; i < 16; ++i) {
    BUFFER_HANDLE b = nullptr;
    p.DSAnnounceBuffer(ds, nullptr, info + 1024, nullptr, &b);
    p.DSQueueBuffer(ds, b);
  }
  if (p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE) != GC_ERR_SUCCESS) {
    p.Close();
    sim.Stop();
    state.SkipWithError("the stream does not start on this receive path");
    return;
  }
  p.Write(ds, KIVSIM_DS_RUNNING, 1, false);
  p.Write(p.port, 0xA01C, 1, true);
  uint64_t frames = 0, complete = 0;
  auto next = [&]() {
    EVENT_NEW_BUFFER_DATA d{};
    size_t n = sizeof d;
    if (p.EventGetData(ev, &d, &n, 2000) != GC_ERR_SUCCESS) return false;
    uint32_t status = 1;
    size_t sn = sizeof status;
    INFO_DATATYPE t;
    p.DSGetBufferInfo(ds, d.BufferHandle, 1000, &t, &status, &sn);
    frames++;
    complete += status == 0;
    p.DSQueueBuffer(ds, d.BufferHandle);
    return true;
  };
  for (int i = 0; i < 20; ++i) next();  // settle
  uint64_t in_place_before = 0;
  size_t qn = sizeof in_place_before;
  INFO_DATATYPE qt;
  p.DSGetInfo(ds, 1003, &qt, &in_place_before, &qn);  // the measured frames' only
  frames = complete = 0;
  double seconds = 0, cpu = 0, sim_cpu = 0;
  for (auto _ : state) {
    const double c0 = SelfCpu(), s0 = ProcessCpu(sim.pid);
    const uint64_t t0 = kivgev::NowNs();
    while (kivgev::NowNs() - t0 < uint64_t(kSeconds * 1e9) && next()) {
    }
    seconds = (kivgev::NowNs() - t0) / 1e9;
    cpu = SelfCpu() - c0;
    sim_cpu = ProcessCpu(sim.pid) - s0;
    state.SetIterationTime(seconds);
  }
  uint64_t in_place = 0;
  qn = sizeof in_place;
  p.DSGetInfo(ds, 1003, &qt, &in_place, &qn);
  in_place -= in_place_before;
  uint8_t ring = 0;
  qn = sizeof ring;
  p.DSGetInfo(ds, 1004, &qt, &ring, &qn);
  state.counters["ring"] = ring;
  state.counters["in_place_pct"] = frames ? 100.0 * in_place / (frames * ((payload + 8155) / 8156)) : 0;
  p.Write(p.port, 0xA020, 1, true);
  p.DSStopAcquisition(ds, ACQ_STOP_FLAGS_KILL);
  p.Close();
  sim.Stop();
  state.counters["frames_per_s"] = frames / seconds;
  state.counters["complete_pct"] = frames ? 100.0 * complete / frames : 0;
  state.counters["cpu_ms_per_frame"] = frames ? 1000.0 * cpu / frames : 0;
  state.counters["with_emulator_ms_per_frame"] = frames ? 1000.0 * (cpu + sim_cpu) / frames : 0;
}

// arv-camera-test for `seconds`: its completed frames and CPU time.
struct AravisRun {
  long frames = 0, failures = 0;
  double cpu = 0, emulator_cpu = 0;
};

AravisRun RunAravis(int fps, double seconds) {
  Child sim = StartEmulator(fps);
  const std::string out = "/tmp/bench_gev_arv.out";
  Child arv = Spawn({"/usr/bin/arv-camera-test-0.8", "-a", "-i", "8192"}, out);
  usleep(static_cast<useconds_t>(seconds * 1e6));
  arv.Stop(SIGINT);
  sim.Stop();
  const std::string text = Slurp(out);
  AravisRun r;
  r.frames = Statistic(text, "n_completed_buffers");
  r.failures = Statistic(text, "n_failures");
  r.cpu = arv.cpu;
  r.emulator_cpu = sim.cpu;
  return r;
}

void ReceiveAravis(benchmark::State& state, int fps) {
  if (access("/usr/bin/arv-camera-test-0.8", X_OK) != 0) {
    state.SkipWithError("arv-camera-test-0.8 missing (Debian package aravis-tools)");
    return;
  }
  // Two runs of different length: the difference is the streaming alone, without Aravis's start-up.
  AravisRun shorter, longer;
  for (auto _ : state) {
    shorter = RunAravis(fps, 1.5);
    longer = RunAravis(fps, 1.5 + kSeconds);
    state.SetIterationTime(kSeconds);
  }
  const double frames = double(longer.frames - shorter.frames);
  state.counters["frames_per_s"] = frames / kSeconds;
  state.counters["complete_pct"] = longer.frames > 0 ? 100.0 * longer.frames / (longer.frames + longer.failures) : 0;
  state.counters["cpu_ms_per_frame"] = frames > 0 ? 1000.0 * (longer.cpu - shorter.cpu) / frames : 0;
  state.counters["with_emulator_ms_per_frame"] =
      frames > 0 ? 1000.0 * (longer.cpu - shorter.cpu + longer.emulator_cpu - shorter.emulator_cpu) / frames : 0;
}

// Round trips of consecutive register reads as the camera sees them.
void Report(benchmark::State& state, std::vector<uint64_t> times) {
  std::vector<double> gaps;
  for (size_t i = 1; i < times.size(); ++i) gaps.push_back((times[i] - times[i - 1]) / 1e3);
  if (gaps.empty()) {
    state.SkipWithError("no commands seen");
    return;
  }
  std::sort(gaps.begin(), gaps.end());
  state.counters["median_us"] = gaps[gaps.size() / 2];
  state.counters["p99_us"] = gaps[gaps.size() * 99 / 100];
}

void ControlKivGev(benchmark::State& state) {
  kivgev::EmulatedCamera cam(kivgev::DefaultEmulatedCamera(0), kCamera, {});
  std::string err;
  if (!cam.Start(&err)) return state.SkipWithError(err.c_str());
  Producer& p = TheProducer();
  if (!p.Open()) return state.SkipWithError("the network producer found no camera");
  std::vector<uint64_t> times;
  for (auto _ : state) {
    const uint64_t t0 = kivgev::NowNs();
    for (int i = 0; i < 1000; ++i) {
      uint8_t b[4];
      size_t n = 4;
      p.GCReadPort(p.port, 0xA03C, b, &n);
    }
    state.SetIterationTime((kivgev::NowNs() - t0) / 1e9);
    times = cam.CommandTimes();
  }
  p.Close();
  times.erase(times.begin(), times.end() - std::min<size_t>(times.size(), 1000));
  Report(state, times);
}

void ControlAravis(benchmark::State& state) {
  if (access("/usr/bin/arv-tool-0.8", X_OK) != 0) {
    state.SkipWithError("arv-tool-0.8 missing (Debian package aravis-tools-cli)");
    return;
  }
  kivgev::EmulatedCamera cam(kivgev::DefaultEmulatedCamera(0), kCamera, {});
  std::string err;
  if (!cam.Start(&err)) return state.SkipWithError(err.c_str());
  std::vector<std::string> argv = {"/usr/bin/arv-tool-0.8", "-a", "127.0.0.2", "--register-cache=disable", "control"};
  for (int i = 0; i < 1000; ++i) argv.push_back("R[0xA03C]");
  std::vector<uint64_t> times;
  for (auto _ : state) {
    const uint64_t t0 = kivgev::NowNs();
    Child c = Spawn(argv, "/tmp/bench_gev_tool.out");
    c.Reap();
    state.SetIterationTime((kivgev::NowNs() - t0) / 1e9);
    times = cam.CommandTimes();
  }
  // The reads are the run of the last 1000 commands before it gave control back.
  if (times.size() > 1002) times.erase(times.begin(), times.end() - 1002);
  if (times.size() > 2) times.resize(times.size() - 2);
  Report(state, times);
}

}  // namespace

int main(int argc, char** argv) {
  char exe[4096] = {};
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  g_dir = n > 0 ? std::string(exe, size_t(n)) : "./x";
  g_dir = g_dir.substr(0, g_dir.find_last_of('/'));
  // Nothing of this program may reach a network: it works on its own namespace's loopback.
  if (unshare(CLONE_NEWNET) != 0) {
    std::fprintf(stderr, "bench_gev: needs a network namespace of its own (run as root): skipped\n");
    return 0;
  }
  if (std::system("ip link set lo up") != 0) return 1;
  signal(SIGPIPE, SIG_IGN);
  for (int fps : {200, 400, 0}) {
    const std::string suffix = "/fps:" + std::to_string(fps);
    for (const char* path : {"ring", "socket"})
      benchmark::RegisterBenchmark(("Receive/KivGEV-" + std::string(path) + suffix).c_str(), ReceiveKivGev, fps, path)
          ->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
    benchmark::RegisterBenchmark(("Receive/Aravis" + suffix).c_str(), ReceiveAravis, fps)
        ->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
  }
  benchmark::RegisterBenchmark("Control/KivGEV", ControlKivGev)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("Control/Aravis", ControlAravis)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
