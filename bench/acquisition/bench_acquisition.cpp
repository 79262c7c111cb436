// Acquisition through the library, side by side with the same virtual GigE
// producer driven directly through GenTL:
//  - per-frame cost of request/complete against a plain GenTL loop (announce,
//    queue, wait, queue again);
//  - the image callback at 64x64 Mono8 with frames delivered on demand:
//    frames per second, and the time from the producer's delivery (its
//    timestamp in the frame's packet information) to the callback;
//  - 1920x1200 BayerRG8 grabbed and converted to 24-bit, against the
//    producer's fill time and the conversion alone.
// The world holds two identical cameras: one streams through a second
// instance of the producer driven by GenTL calls, the other through the
// library. The paired benchmarks keep both open and time blocks of frames of
// each in turn, so every ratio compares neighbours in time; a shared
// machine's noise moves both sides of a ratio alike. The producer makes a
// frame as soon as a buffer is queued (free-run at rate 0) or when asked
// for it, so nothing is lost and the figures are the software's, not a
// frame rate's.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kivcam/kivcam.h"
#include "kivgenapi/KivGenApi.h"
#include "kivgentl/gentl.h"
#include "kivsim/kivsim.h"
#include "private_names.h"

namespace {

namespace fs = std::filesystem;

// The benchmark's world: two identical GigE cameras on the second interface.
const char kWorld[] =
    "[gige]\ninterfaces = 2\n"
    "[camera]\ninterface = 1\nuid = 1\nmodel = BenchRaw\npixel_formats = Mono8 BayerRG8\n"
    "[camera]\ninterface = 1\nuid = 2\nmodel = BenchLib\npixel_formats = Mono8 BayerRG8\n";
constexpr uint32_t kRawCamera = 0;  // producer camera and interface device index
constexpr uint32_t kLibCamera = 1;
constexpr uint64_t kLibUid = 2;
constexpr uint32_t kMono8 = 0x01080001, kBayerRG8 = 0x01080009;
constexpr uint32_t kBuffers = 4;
constexpr uint64_t kWaitMs = 5000;
// Byte offset of the delivery timestamp in the producer's GigE packet information.
constexpr size_t kTimestampOffset = offsetof(kivsim_gige_info, timestamp_ns);

std::string g_lib_dir;

uint64_t MonotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return uint64_t(ts.tv_sec) * 1000000000ull + uint64_t(ts.tv_nsec);
}

// ---- the library ------------------------------------------------------------

#define BENCH_EXPORTS(X)                                                                                      \
  X(KIVCAM_SetStructVersion) X(KIVCAM_Open) X(KIVCAM_Close) X(KIVCAM_GetNodeMap) X(KIVCAM_ResourceAlloc)       \
  X(KIVCAM_ResourceRelease) X(KIVCAM_ImageAlloc) X(KIVCAM_ImageFree) X(KIVCAM_ImageFreeAll) X(KIVCAM_ImageStart) \
  X(KIVCAM_ImageStop) X(KIVCAM_ImageReq) X(KIVCAM_ImageComplete) X(KIVCAM_ImageReqAbortAll)                    \
  X(KIVCAM_SetImageCallBack) X(KIVCAM_ConvMode) X(KIVCAM_ImageConvExec) X(KIVCAM_CreateConvHandle)             \
  X(KIVCAM_CloseConvHandle) X(KIVCAM_ColorConvExec)

// libkivcam.so, loaded once this process has names of its own, and the
// control interface of the GigE producer instance it loaded.
struct Library {
  Library() {
    handle = dlopen((g_lib_dir + "/libkivcam.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) return;
#define BENCH_BIND(name) name = reinterpret_cast<decltype(&::name)>(dlsym(handle, #name));
    BENCH_EXPORTS(BENCH_BIND)
#undef BENCH_BIND
    if (!KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION)) return;
    cti = dlopen((g_lib_dir + "/KivGigEGenTL.cti").c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    if (!cti) return;
    free_run = reinterpret_cast<decltype(free_run)>(dlsym(cti, "kivsim_free_run"));
    deliver = reinterpret_cast<decltype(deliver)>(dlsym(cti, "kivsim_deliver"));
    counters = reinterpret_cast<decltype(counters)>(dlsym(cti, "kivsim_get_counters"));
    ok = free_run && deliver && counters;
  }
  ~Library() {
    if (cti) dlclose(cti);
    if (handle) dlclose(handle);
  }
  void* handle = nullptr;
  void* cti = nullptr;
  bool ok = false;
#define BENCH_FN(name) decltype(&::name) name = nullptr;
  BENCH_EXPORTS(BENCH_FN)
#undef BENCH_FN
  decltype(&kivsim_free_run) free_run = nullptr;
  decltype(&kivsim_deliver) deliver = nullptr;
  decltype(&kivsim_get_counters) counters = nullptr;
};

std::unique_ptr<Library> g_lib;

Library* Lib() {
  if (!g_lib) g_lib = std::make_unique<Library>();
  return g_lib->ok ? g_lib.get() : nullptr;
}

// A camera opened through the library with the image format set; closed
// (buffers, resources and all) when it goes.
class Camera {
 public:
  Camera(Library& lib, uint64_t uid, uint32_t width, uint32_t height, const char* format) : lib_(lib) {
    if (!lib.KIVCAM_Open(uid, &h_)) return;
    void* raw = nullptr;
    if (!lib.KIVCAM_GetNodeMap(h_, &raw)) return;
    auto* map = static_cast<KivGenApi::CNodeMapRef*>(raw);
    try {
      dynamic_cast<KivGenApi::IInteger&>(*map->_Ptr->GetNode("Width")).SetValue(width);
      dynamic_cast<KivGenApi::IInteger&>(*map->_Ptr->GetNode("Height")).SetValue(height);
      dynamic_cast<KivGenApi::IValue&>(*map->_Ptr->GetNode("PixelFormat")).FromString(format);
    } catch (...) {
      return;
    }
    ok_ = true;
  }
  ~Camera() {
    if (!h_) return;
    if (started_) lib_.KIVCAM_ImageStop(h_);
    lib_.KIVCAM_SetImageCallBack(h_, nullptr, nullptr, 0, 0);
    lib_.KIVCAM_ImageReqAbortAll(h_);
    lib_.KIVCAM_ResourceRelease(h_);
    lib_.KIVCAM_Close(h_);
  }
  bool ok() const { return ok_; }
  HCAMERA h() const { return h_; }
  bool Start() { return started_ = lib_.KIVCAM_ImageStart(h_); }
  // Allocates the resources and `count` buffers, queued.
  bool Requests(uint32_t count) {
    if (!lib_.KIVCAM_ResourceAlloc(h_)) return false;
    for (uint32_t i = 0; i < count; ++i) {
      ImageBuffer* b = nullptr;
      if (!lib_.KIVCAM_ImageAlloc(h_, &b) || !lib_.KIVCAM_ImageReq(h_, b)) return false;
      buffers.push_back(b);
    }
    return true;
  }
  std::vector<ImageBuffer*> buffers;

 private:
  Library& lib_;
  HCAMERA h_ = nullptr;
  bool ok_ = false, started_ = false;
};

// ---- the producer through GenTL alone --------------------------------------

#define RAW_ENTRIES(X)                                                                                         \
  X(GCInitLib) X(GCCloseLib) X(TLOpen) X(TLClose) X(TLUpdateInterfaceList) X(TLGetInterfaceID) X(TLOpenInterface) \
  X(IFUpdateDeviceList) X(IFGetDeviceID) X(IFOpenDevice) X(DevClose) X(DevGetPort) X(DevGetDataStreamID)        \
  X(DevOpenDataStream) X(DSClose) X(GCWritePort) X(DSAnnounceBuffer) X(DSQueueBuffer) X(DSRevokeBuffer)        \
  X(DSStartAcquisition) X(DSStopAcquisition) X(DSFlushQueue) X(GCRegisterEvent) X(GCUnregisterEvent)           \
  X(EventGetData) X(DSGetBufferInfo)

// A second instance of the GigE producer (a copy of the .cti under another
// name), so that the library's instance is left alone; the cameras' state is
// machine-wide and shared by both.
struct RawProducer {
  RawProducer() {
    dir = fs::temp_directory_path() / ("kivbench_raw_" + std::to_string(getpid()));
    fs::create_directories(dir);
    const fs::path copy = dir / "KivGigEGenTL_raw.cti";
    std::error_code ec;
    fs::copy_file(g_lib_dir + "/KivGigEGenTL.cti", copy, fs::copy_options::overwrite_existing, ec);
    module = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) return;
#define RAW_BIND(name) name = reinterpret_cast<P##name>(dlsym(module, #name));
    RAW_ENTRIES(RAW_BIND)
#undef RAW_BIND
    deliver = reinterpret_cast<decltype(deliver)>(dlsym(module, "kivsim_deliver"));
    free_run = reinterpret_cast<decltype(free_run)>(dlsym(module, "kivsim_free_run"));
    if (GCInitLib() != GC_ERR_SUCCESS || TLOpen(&tl) != GC_ERR_SUCCESS) return;
    TLUpdateInterfaceList(tl, nullptr, 1000);
    char id[256];
    size_t size = sizeof id;
    if (TLGetInterfaceID(tl, 1, id, &size) != GC_ERR_SUCCESS || TLOpenInterface(tl, id, &iface) != GC_ERR_SUCCESS) {
      return;
    }
    IFUpdateDeviceList(iface, nullptr, 1000);
    ok = true;
  }
  ~RawProducer() {
    if (tl) TLClose(tl);
    if (GCCloseLib) GCCloseLib();
    if (module) dlclose(module);
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  fs::path dir;
  void* module = nullptr;
  TL_HANDLE tl = nullptr;
  IF_HANDLE iface = nullptr;
  bool ok = false;
#define RAW_FN(name) P##name name = nullptr;
  RAW_ENTRIES(RAW_FN)
#undef RAW_FN
  decltype(&kivsim_deliver) deliver = nullptr;
  decltype(&kivsim_free_run) free_run = nullptr;
};

std::unique_ptr<RawProducer> g_raw;

RawProducer* Raw() {
  if (!g_raw) g_raw = std::make_unique<RawProducer>();
  return g_raw->ok ? g_raw.get() : nullptr;
}

// How the library lays out a GigE camera's buffer: the image, then the
// packet information the producer fills in at `info_offset`.
struct Layout {
  size_t buffer_size = 0;
  uint32_t info_offset = 0;
};

// One camera streaming into `count` buffers of this program, started. With a
// `layout` the buffers and the producer's work per frame are the library's.
class RawStream {
 public:
  RawStream(RawProducer& p, uint32_t camera, uint32_t width, uint32_t height, uint32_t format, uint32_t count,
            Layout layout = {})
      : p_(p) {
    char id[256];
    size_t size = sizeof id;
    if (p.IFGetDeviceID(p.iface, camera, id, &size) != GC_ERR_SUCCESS ||
        p.IFOpenDevice(p.iface, id, DEVICE_ACCESS_EXCLUSIVE, &dev_) != GC_ERR_SUCCESS) {
      dev_ = nullptr;
      return;
    }
    PORT_HANDLE port = nullptr;
    p.DevGetPort(dev_, &port);
    WriteBE(port, 0xA000, width);
    WriteBE(port, 0xA004, height);
    WriteBE(port, 0xA010, format);
    size = sizeof id;
    if (p.DevGetDataStreamID(dev_, 0, id, &size) != GC_ERR_SUCCESS ||
        p.DevOpenDataStream(dev_, id, &ds_) != GC_ERR_SUCCESS) {
      ds_ = nullptr;
      return;
    }
    if (layout.info_offset) {
      size = sizeof layout.info_offset;
      p.GCWritePort(ds_, 0x105, &layout.info_offset, &size);  // where the packet information goes
    }
    memory_.assign(count, std::vector<uint8_t>(std::max(layout.buffer_size, size_t(width) * height)));
    for (auto& m : memory_) {
      BUFFER_HANDLE b = nullptr;
      if (p.DSAnnounceBuffer(ds_, m.data(), m.size(), nullptr, &b) != GC_ERR_SUCCESS) return;
      buffers_.push_back(b);
      p.DSQueueBuffer(ds_, b);
    }
    if (p.GCRegisterEvent(ds_, EVENT_NEW_BUFFER, &event_) != GC_ERR_SUCCESS) return;
    p.DSStartAcquisition(ds_, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE);
    uint32_t one = 1;
    size = sizeof one;
    p.GCWritePort(ds_, 0x102, &one, &size);  // deliver on this stream
    WriteBE(port, 0xA01C, 1);                 // AcquisitionStart
    port_ = port;
    ok_ = true;
  }
  ~RawStream() {
    if (port_) WriteBE(port_, 0xA020, 1);  // AcquisitionStop
    if (ds_) {
      p_.DSStopAcquisition(ds_, ACQ_STOP_FLAGS_KILL);
      p_.DSFlushQueue(ds_, ACQ_QUEUE_INPUT_TO_OUTPUT);
      p_.DSFlushQueue(ds_, ACQ_QUEUE_OUTPUT_DISCARD);
      for (BUFFER_HANDLE b : buffers_) p_.DSRevokeBuffer(ds_, b, nullptr, nullptr);
      if (event_) p_.GCUnregisterEvent(ds_, EVENT_NEW_BUFFER);
      p_.DSClose(ds_);
    }
    if (dev_) p_.DevClose(dev_);
  }
  bool ok() const { return ok_; }
  // Waits for the next frame and queues its buffer again; with `info`, asks
  // for the frame's status and transport value first (buffer information
  // 1000 and 1001), as the library does for every completed frame.
  bool Next(bool info = false) {
    EVENT_NEW_BUFFER_DATA d;
    size_t n = sizeof d;
    if (p_.EventGetData(event_, &d, &n, kWaitMs) != GC_ERR_SUCCESS) return false;
    if (info) {
      uint32_t v = 0;
      INFO_DATATYPE type = 0;
      for (BUFFER_INFO_CMD cmd : {1000, 1001}) {
        size_t size = sizeof v;
        if (p_.DSGetBufferInfo(ds_, d.BufferHandle, cmd, &type, &v, &size) != GC_ERR_SUCCESS) return false;
      }
    }
    return p_.DSQueueBuffer(ds_, d.BufferHandle) == GC_ERR_SUCCESS;
  }

 private:
  void WriteBE(PORT_HANDLE port, uint64_t address, uint32_t v) {
    uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
    size_t n = 4;
    p_.GCWritePort(port, address, b, &n);
  }
  RawProducer& p_;
  DEV_HANDLE dev_ = nullptr;
  DS_HANDLE ds_ = nullptr;
  PORT_HANDLE port_ = nullptr;
  EVENT_HANDLE event_ = nullptr;
  std::vector<std::vector<uint8_t>> memory_;
  std::vector<BUFFER_HANDLE> buffers_;
  bool ok_ = false;
};

// ---- request / complete, and grab with conversion ----------------------------

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
  return v[v.size() / 2];
}

// CPU time of the calling thread.
double ThreadCpuUs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

// Blocks of frames of several loops in turn, the order rotating every
// round; per loop the wall time and this thread's CPU time per frame of each
// block.
class Rounds {
 public:
  using Loop = std::function<bool()>;
  Rounds(std::vector<std::pair<Loop, int>> loops)
      : loops_(std::move(loops)), us_(loops_.size()), cpu_us_(loops_.size()) {}
  // One round: each loop runs its block once. False when a loop failed.
  bool Run() {
    for (size_t k = 0; k < loops_.size(); ++k) {
      const size_t which = (round_ + k) % loops_.size();
      const auto& [loop, frames] = loops_[which];
      const auto t0 = std::chrono::steady_clock::now();
      const double cpu0 = ThreadCpuUs();
      for (int i = 0; i < frames; ++i) {
        if (!loop()) return false;
      }
      cpu_us_[which].push_back((ThreadCpuUs() - cpu0) / frames);
      us_[which].push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count() /
                           frames);
    }
    ++round_;
    return true;
  }
  // Per-frame time of a loop in round r.
  double us(size_t loop, size_t r) const { return us_[loop][r]; }
  double median_us(size_t loop) const { return Median(us_[loop]); }
  double median_cpu_us(size_t loop) const { return Median(cpu_us_[loop]); }
  size_t rounds() const { return round_; }

 private:
  std::vector<std::pair<Loop, int>> loops_;
  std::vector<std::vector<double>> us_, cpu_us_;
  size_t round_ = 0;
};

// Request/complete on the library's camera; with `convert`, each frame also
// goes through KIVCAM_ImageConvExec into `bgr`.
class LibraryLoop {
 public:
  LibraryLoop(Library& lib, Camera& cam, uint8_t* bgr) : lib_(lib), cam_(cam), bgr_(bgr) {}
  bool operator()() {
    ImageBuffer* b = cam_.buffers[i_++ % cam_.buffers.size()];
    return lib_.KIVCAM_ImageComplete(cam_.h(), b, kWaitMs, nullptr) &&
           (!bgr_ || lib_.KIVCAM_ImageConvExec(cam_.h(), b, bgr_)) && lib_.KIVCAM_ImageReq(cam_.h(), b);
  }

 private:
  Library& lib_;
  Camera& cam_;
  uint8_t* bgr_;
  size_t i_ = 0;
};

// The raw camera and the library's camera, both streaming the same format
// into kBuffers buffers; frames as fast as buffers come back.
struct Pair {
  Pair(uint32_t w, uint32_t h, uint32_t format, const char* format_name) : w_(w), h_(h), format_(format) {
    p = Raw();
    lib = Lib();
    if (!p || !lib) return;
    p->free_run(kRawCamera, 0);
    p->free_run(kLibCamera, 0);
    cam = std::make_unique<Camera>(*lib, kLibUid, w, h, format_name);
  }
  // Allocates the library camera's buffers and starts both; the raw stream's
  // buffers are laid out as the library's, so the producer does the same
  // work for a frame of either.
  bool Start() {
    if (!p || !cam || !cam->ok() || !cam->Requests(kBuffers)) return false;
    const ImageBuffer& b = *cam->buffers[0];
    raw = std::make_unique<RawStream>(*p, kRawCamera, w_, h_, format_, kBuffers, Layout{b.BufferSize, b.InfoOffset});
    return raw->ok() && cam->Start();
  }
  RawProducer* p = nullptr;
  Library* lib = nullptr;
  std::unique_ptr<RawStream> raw;
  std::unique_ptr<Camera> cam;
  uint32_t w_ = 0, h_ = 0, format_ = 0;
};

// Request/complete against the raw loop, and against the raw loop that also
// asks for each frame's status and value as the library must.
void PairedRequestComplete(benchmark::State& state) {
  Pair pair(64, 64, kMono8, "Mono8");
  if (!pair.Start()) return state.SkipWithError("cameras not started");
  LibraryLoop library(*pair.lib, *pair.cam, nullptr);
  RawStream& raw = *pair.raw;
  constexpr int kBlock = 500;
  Rounds rounds({{[&] { return raw.Next(false); }, kBlock},
                 {[&] { return raw.Next(true); }, kBlock},
                 {std::ref(library), kBlock}});
  for (auto _ : state) {
    if (!rounds.Run()) return state.SkipWithError("no frame");
  }
  std::vector<double> ratio, ratio_info;
  for (size_t r = 0; r < rounds.rounds(); ++r) {
    ratio.push_back(rounds.us(2, r) / rounds.us(0, r));
    ratio_info.push_back(rounds.us(2, r) / rounds.us(1, r));
  }
  state.counters["raw_us"] = rounds.median_us(0);
  state.counters["raw_info_us"] = rounds.median_us(1);
  state.counters["lib_us"] = rounds.median_us(2);
  state.counters["raw_cpu_us"] = rounds.median_cpu_us(0);
  state.counters["raw_info_cpu_us"] = rounds.median_cpu_us(1);
  state.counters["lib_cpu_us"] = rounds.median_cpu_us(2);
  state.counters["lib_per_raw"] = Median(ratio);
  state.counters["lib_per_raw_info"] = Median(ratio_info);
}

// One of the three loops of PairedRequestComplete alone (0 raw, 1 raw with
// status and value, 2 request/complete), for profiling one at a time
// (`perf stat`, `perf record`): the process then does nothing else.
// Counters per frame: the calling thread's CPU time (and its user and
// system parts), its context switches (voluntary, involuntary), and the
// whole process's switches and CPU time.
void LoopAlone(benchmark::State& state, int which) {
  Pair pair(64, 64, kMono8, "Mono8");
  if (!pair.Start()) return state.SkipWithError("cameras not started");
  LibraryLoop library(*pair.lib, *pair.cam, nullptr);
  RawStream& raw = *pair.raw;
  std::function<bool()> loop = which == 2 ? std::function<bool()>(std::ref(library))
                                          : [&raw, which] { return raw.Next(which == 1); };
  constexpr int kBlock = 500;
  rusage thread0{}, process0{}, thread1{}, process1{};
  getrusage(RUSAGE_THREAD, &thread0);
  getrusage(RUSAGE_SELF, &process0);
  const double cpu0 = ThreadCpuUs();
  for (auto _ : state) {
    for (int i = 0; i < kBlock; ++i) {
      if (!loop()) return state.SkipWithError("no frame");
    }
  }
  const double frames = static_cast<double>(state.iterations()) * kBlock;
  getrusage(RUSAGE_THREAD, &thread1);
  getrusage(RUSAGE_SELF, &process1);
  state.counters["cpu_us"] = (ThreadCpuUs() - cpu0) / frames;
  state.counters["vcsw"] = (thread1.ru_nvcsw - thread0.ru_nvcsw) / frames;
  state.counters["ivcsw"] = (thread1.ru_nivcsw - thread0.ru_nivcsw) / frames;
  state.counters["proc_csw"] =
      (process1.ru_nvcsw + process1.ru_nivcsw - process0.ru_nvcsw - process0.ru_nivcsw) / frames;
  auto us = [](const timeval& a, const timeval& b) { return (b.tv_sec - a.tv_sec) * 1e6 + (b.tv_usec - a.tv_usec); };
  state.counters["user_us"] = us(thread0.ru_utime, thread1.ru_utime) / frames;
  state.counters["sys_us"] = us(thread0.ru_stime, thread1.ru_stime) / frames;
  state.counters["proc_cpu_us"] =
      (us(process0.ru_utime, process1.ru_utime) + us(process0.ru_stime, process1.ru_stime)) / frames;
  state.SetItemsProcessed(static_cast<int64_t>(frames));
}

// 1920x1200 BayerRG8 grabbed through the library and converted to 24-bit
// with the camera's engine, against the producer filling frames alone (the
// raw loop) and the same conversion alone (a handle, one frame over and over).
void PairedGrabAndConvert(benchmark::State& state, uint32_t threads) {
  constexpr uint32_t w = 1920, h = 1200;
  Pair pair(w, h, kBayerRG8, "BayerRG8");
  if (!pair.lib) return state.SkipWithError("library not loaded");
  Library& lib = *pair.lib;
  const uint32_t parallel = threads > 1 ? 1u : 0u;
  KIVCAM_CONVMODE camera_mode = {KIVCAM_GEOMETRY_AS_IS, KIVCAM_SHIFT_AUTO, KIVCAM_OUTPUT_BGR24, 0, parallel};
  KIVCAM_CONVMODE handle_mode = {KIVCAM_GEOMETRY_AS_IS, 0, KIVCAM_OUTPUT_BGR24, 0, parallel};
  HCTBL conv = nullptr;
  if (!pair.cam || !pair.cam->ok() || !lib.KIVCAM_ConvMode(pair.cam->h(), &camera_mode, nullptr) ||
      !lib.KIVCAM_CreateConvHandle(&conv, &handle_mode, nullptr) || !pair.Start()) {
    return state.SkipWithError("cameras not started");
  }
  std::vector<uint8_t> raw_pixels(size_t(w) * h), alone(size_t((w * 3 + 3) / 4 * 4) * h), grabbed(alone.size());
  for (size_t i = 0; i < raw_pixels.size(); ++i) raw_pixels[i] = static_cast<uint8_t>(i * 7 + i / w);
  KIVCAM_IMAGEDESC desc = {w, h, raw_pixels.data(), static_cast<uint32_t>(raw_pixels.size()), kBayerRG8, 1};
  LibraryLoop library(lib, *pair.cam, grabbed.data());
  RawStream& raw = *pair.raw;
  Rounds rounds({{[&] { return raw.Next(false); }, 40},
                 {[&] { return lib.KIVCAM_ColorConvExec(conv, &desc, alone.data()) != 0; }, 10},
                 {std::ref(library), 10}});
  for (auto _ : state) {
    if (!rounds.Run()) return state.SkipWithError("no frame");
  }
  lib.KIVCAM_CloseConvHandle(conv);
  std::vector<double> ratio;
  for (size_t r = 0; r < rounds.rounds(); ++r) ratio.push_back(rounds.us(2, r) / (rounds.us(0, r) + rounds.us(1, r)));
  state.counters["fill_us"] = rounds.median_us(0);
  state.counters["convert_us"] = rounds.median_us(1);
  state.counters["grab_convert_us"] = rounds.median_us(2);
  state.counters["fill_cpu_us"] = rounds.median_cpu_us(0);
  state.counters["grab_convert_cpu_us"] = rounds.median_cpu_us(2);
  state.counters["ratio"] = Median(ratio);
}

// ---- the image callback, frames on demand ------------------------------------

// Counts the callback's frames and keeps the latency of each; wakes the
// benchmark thread when the frame it waits for has come.
struct Probe {
  explicit Probe(size_t info_offset) : info_offset(info_offset) { latency_ns.resize(1u << 21); }
  static void OnImage(HCAMERA, void* data, uint32_t size, uint32_t, uint32_t, ImageInfo*, void* context) {
    const uint64_t now = MonotonicNs();
    auto* p = static_cast<Probe*>(context);
    uint64_t delivered = 0;
    if (size) std::memcpy(&delivered, static_cast<uint8_t*>(data) + p->info_offset + kTimestampOffset, 8);
    const uint64_t n = p->count.load(std::memory_order_relaxed) + 1;  // only this thread writes
    if (n <= p->latency_ns.size()) p->latency_ns[n - 1] = static_cast<int64_t>(now - delivered);
    p->count.store(n, std::memory_order_release);
    if (n == p->target.load(std::memory_order_acquire)) {
      std::lock_guard<std::mutex> l(p->mutex);
      p->cv.notify_one();
    }
  }
  bool WaitFor(uint64_t n) {
    std::unique_lock<std::mutex> l(mutex);
    return cv.wait_for(l, std::chrono::milliseconds(kWaitMs), [&] { return count.load() >= n; });
  }
  double Percentile(double q) const {
    std::vector<int64_t> v(latency_ns.begin(), latency_ns.begin() + std::min<size_t>(count, latency_ns.size()));
    if (v.empty()) return 0;
    size_t k = std::min(v.size() - 1, static_cast<size_t>(q * (v.size() - 1) + 0.5));
    std::nth_element(v.begin(), v.begin() + k, v.end());
    return v[k] / 1000.0;
  }

  const size_t info_offset;
  std::atomic<uint64_t> count{0}, target{0};
  std::vector<int64_t> latency_ns;
  std::mutex mutex;
  std::condition_variable cv;
};

// Asks the producer for `batch` frames at a time and waits until the callback
// has had them all. With 2 x batch buffers a buffer is queued for every frame
// asked for: the callbacks before the last one of a batch have returned, so
// their buffers are queued again, when the next batch is asked for.
void CallbackOnDemand(benchmark::State& state, uint32_t batch) {
  Library* lib = Lib();
  if (!lib) return state.SkipWithError("library not loaded");
  Camera cam(*lib, kLibUid, 64, 64, "Mono8");
  if (!cam.ok() || !lib->KIVCAM_ResourceAlloc(cam.h())) return state.SkipWithError("camera not ready");
  // Where the packet information sits in a buffer: the producer fills it
  // there in the callback's buffers too.
  ImageBuffer* probe_buffer = nullptr;
  if (!lib->KIVCAM_ImageAlloc(cam.h(), &probe_buffer)) return state.SkipWithError("ImageAlloc");
  Probe probe(probe_buffer->InfoOffset);
  lib->KIVCAM_ImageFree(cam.h(), probe_buffer);
  kivsim_counters before{}, after{};
  lib->deliver(kLibCamera, 0);  // on demand, nothing asked for yet
  lib->counters(kLibCamera, &before);
  if (!lib->KIVCAM_SetImageCallBack(cam.h(), &probe, &Probe::OnImage, 2 * batch, 0) || !cam.Start()) {
    return state.SkipWithError("callback not installed");
  }
  for (auto _ : state) {
    const uint64_t target = probe.count + batch;
    probe.target = target;
    lib->deliver(kLibCamera, batch);
    if (!probe.WaitFor(target)) return state.SkipWithError("frames missing");
  }
  lib->KIVCAM_SetImageCallBack(cam.h(), nullptr, nullptr, 0, 0);
  lib->counters(kLibCamera, &after);
  state.SetItemsProcessed(state.iterations() * batch);
  state.counters["lat_p50_us"] = probe.Percentile(0.50);
  state.counters["lat_p99_us"] = probe.Percentile(0.99);
  state.counters["dropped"] = static_cast<double>(after.underruns - before.underruns);
}

// The same on-demand batches straight through GenTL: the producer's own ceiling.
void RawOnDemand(benchmark::State& state, uint32_t batch) {
  RawProducer* p = Raw();
  if (!p) return state.SkipWithError("no raw producer");
  p->deliver(kRawCamera, 0);
  RawStream s(*p, kRawCamera, 64, 64, kMono8, 2 * batch);
  if (!s.ok()) return state.SkipWithError("raw stream not started");
  for (auto _ : state) {
    p->deliver(kRawCamera, batch);
    for (uint32_t i = 0; i < batch; ++i) {
      if (!s.Next()) return state.SkipWithError("no frame");
    }
  }
  state.SetItemsProcessed(state.iterations() * batch);
}

void Register() {
  auto add = [](const std::string& name, auto fn) {
    return benchmark::RegisterBenchmark(name.c_str(), fn)->UseRealTime()->Unit(benchmark::kMillisecond);
  };
  add("PairedRequestComplete/64x64/Mono8", PairedRequestComplete);
  const char* const alone[] = {"raw", "raw_info", "library"};
  for (int k = 0; k < 3; ++k) {
    add(std::string("LoopAlone/64x64/Mono8/") + alone[k], [k](benchmark::State& s) { LoopAlone(s, k); })
        ->Unit(benchmark::kMicrosecond);
  }
  // The parallel flag's team has the runtime's default size: 2 on the
  // machines these figures come from.
  for (uint32_t t : {1u, 2u}) {
    add("PairedGrabAndConvert/1920x1200/BayerRG8_24/t" + std::to_string(t),
        [t](benchmark::State& s) { PairedGrabAndConvert(s, t); });
  }
  for (uint32_t batch : {1u, 32u}) {
    add("CallbackOnDemand/64x64/batch:" + std::to_string(batch),
        [batch](benchmark::State& s) { CallbackOnDemand(s, batch); })
        ->Unit(benchmark::kMicrosecond);
    add("RawOnDemand/64x64/batch:" + std::to_string(batch), [batch](benchmark::State& s) { RawOnDemand(s, batch); })
        ->Unit(benchmark::kMicrosecond);
  }
}

}  // namespace

int main(int argc, char** argv) {
  kivbench::PrivateNames names("benchacq");
  g_lib_dir = (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "lib").string();
  const fs::path world = fs::temp_directory_path() / ("kivbench_world_" + std::to_string(getpid()) + ".ini");
  std::ofstream(world) << kWorld;
  setenv("KIVSIM_CONFIG", world.c_str(), 1);
  Register();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  g_raw.reset();
  g_lib.reset();
  fs::remove(world);
  return 0;
}
