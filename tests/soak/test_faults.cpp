// Fault runs: a scripted session (load, list, open, information, registers,
// features, acquisition by request and by callback, VSync, conversion, the
// USB camera, a register port, close, unload) is run again and again with
// one producer entry point failing once. In `make test` each entry point
// fails at its first call in the session; with KIVCAM_FAULTS=full (`make
// soak`) it fails at every step in turn.
//
// For every run: each step either works or fails with a code its export
// documents; afterwards, in the same process and without the fault, a
// camera opens and grabs a frame (nothing was left wedged); after the
// unload no thread, descriptor, shared-memory name or mapping of the
// library remains; and every entry point the library calls has failed at
// least once over the runs. ASan's leak check at exit covers the rest.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>

#include "cam_env.h"
#include "kivgentl/gentl.h"
#include "kivgenapi/KivGenApi.h"
#include "soak_support.h"

namespace camtest {
namespace {

// Every entry point of the producers the library calls (GCGetLastError is
// how it learns of a failure, and GCCloseLib cannot be made to fail).
const char* const kEntryPoints[] = {
    "GCInitLib", "GCGetInfo", "TLOpen", "TLClose", "TLGetNumInterfaces", "TLGetInterfaceID", "TLOpenInterface",
    "TLUpdateInterfaceList", "IFClose", "IFGetNumDevices", "IFGetDeviceID", "IFUpdateDeviceList", "IFGetDeviceInfo",
    "IFOpenDevice", "DevGetPort", "DevGetNumDataStreams", "DevGetDataStreamID", "DevOpenDataStream", "DevGetInfo",
    "DevClose", "DSAnnounceBuffer", "DSFlushQueue", "DSStartAcquisition", "DSStopAcquisition", "DSClose",
    "DSRevokeBuffer", "DSQueueBuffer", "DSGetBufferInfo", "GCReadPort", "GCWritePort", "GCGetNumPortURLs",
    "GCGetPortURLInfo", "GCRegisterEvent", "GCUnregisterEvent", "EventGetData", "EventFlush", "EventKill"};

constexpr uint32_t kWaitMs = 1000;

// One image callback's count.
struct Calls {
  std::mutex m;
  std::condition_variable cv;
  int n = 0;
};
void Count(HCAMERA, void*, uint32_t, uint32_t, uint32_t, ImageInfo*, void* context) {
  auto* c = static_cast<Calls*>(context);
  std::lock_guard<std::mutex> g(c->m);
  ++c->n;
  c->cv.notify_all();
}

class Faults : public CameraTest {
 protected:
  struct Step {
    std::string name;              // the export whose documented codes apply
    std::function<KIVCAM_BOOL()> run;
  };
  // What a run found wrong.
  std::vector<std::string> problems_;
  std::set<std::string> consumed_;  // entry points whose failure happened
  std::set<std::string> known_;     // what the library cannot mend without a reload

  // The state of one scripted session.
  HCAMERA gige_ = nullptr, usb_ = nullptr;
  HCAMERAPORT port_ = nullptr;
  ImageBuffer* buffers_[2] = {};
  HVSYNC token_ = nullptr;
  Calls calls_;
  std::vector<uint8_t> bgr_ = std::vector<uint8_t>(640 * 480 * 4);
  uint32_t gige_index_ = 0;

  std::vector<Step> Script() {
    auto deliver = [this](uint32_t n) { Deliver(n); };
    std::vector<Step> s;
    s.push_back({"KIVCAM_SetStructVersion", [] { return KIVCAM_TRUE; }});  // the load itself, done before
    s.push_back({"KIVCAM_GetList", [this] {
                   CameraList head{};
                   if (!lib_->KIVCAM_GetList(&head)) return KIVCAM_FALSE;
                   std::vector<unsigned char> mem(KIVCAM_CAMERALIST_BYTES(head.Count + 1));
                   auto* list = reinterpret_cast<CameraList*>(mem.data());
                   list->Count = head.Count + 1;
                   return lib_->KIVCAM_GetList(list);
                 }});
    s.push_back({"KIVCAM_Open", [this] {
                   const KIVCAM_BOOL ok = lib_->KIVCAM_Open(kGigE1, &gige_);
                   if (ok) Deliver(0);  // frames on demand from here on
                   return ok;
                 }});
    s.push_back({"KIVCAM_CameraInfo", [this] {
                   CameraListEntry e{};
                   return lib_->KIVCAM_CameraInfo(gige_, &e);
                 }});
    s.push_back({"KIVCAM_CameraInfoGigE", [this] {
                   GigECameraInfo i{};
                   return lib_->KIVCAM_CameraInfoGigE(gige_, &i);
                 }});
    s.push_back({"KIVCAM_ReadPort", [this] {
                   uint8_t b[4];
                   uint32_t n = 4;
                   return lib_->KIVCAM_ReadPort(gige_, 0x0A00, b, &n);
                 }});
    s.push_back({"KIVCAM_WritePort", [this] {
                   const uint8_t heartbeat[4] = {0, 0, 0x0B, 0xB8};  // 3000 ms
                   uint32_t n = 4;
                   return lib_->KIVCAM_WritePort(gige_, 0x0938, heartbeat, &n);
                 }});
    s.push_back({"KIVCAM_GetNodeMap", [this] {
                   void* raw = nullptr;
                   if (!lib_->KIVCAM_GetNodeMap(gige_, &raw)) return KIVCAM_FALSE;
                   auto* map = static_cast<KivGenApi::CNodeMapRef*>(raw);
                   try {
                     KivGenApi::CFloatPtr(map->_GetNode("ExposureTime"))->SetValue(2000.0);
                     (void)KivGenApi::CIntegerPtr(map->_GetNode("Width"))->GetValue();
                   } catch (const std::exception&) {
                     // A feature access that meets the fault throws; that is its way to fail.
                   }
                   return KIVCAM_TRUE;
                 }});
    s.push_back({"KIVCAM_SetCmdTimeOut", [this] { return lib_->KIVCAM_SetCmdTimeOut(gige_, 1000); }});
    s.push_back({"KIVCAM_ResourceAlloc", [this] { return lib_->KIVCAM_ResourceAlloc(gige_); }});
    s.push_back({"KIVCAM_ImageAlloc", [this] {
                   return lib_->KIVCAM_ImageAlloc(gige_, &buffers_[0]) && lib_->KIVCAM_ImageAlloc(gige_, &buffers_[1]);
                 }});
    s.push_back({"KIVCAM_ImageStart", [this] { return lib_->KIVCAM_ImageStart(gige_); }});
    s.push_back({"KIVCAM_ImageReq", [this] { return lib_->KIVCAM_ImageReq(gige_, buffers_[0]); }});
    s.push_back({"KIVCAM_ImageComplete", [this, deliver] {
                   deliver(1);
                   ImageInfo info{};
                   return lib_->KIVCAM_ImageComplete(gige_, buffers_[0], kWaitMs, &info);
                 }});
    s.push_back({"KIVCAM_GetBMPINFO", [this] {
                   KIVCAM_BITMAPINFO_GRAY info;
                   uint32_t size = sizeof info;
                   return lib_->KIVCAM_GetBMPINFO(gige_, reinterpret_cast<KIVCAM_BITMAPINFO*>(&info), &size, 0);
                 }});
    s.push_back({"KIVCAM_ImageConvExec", [this] { return lib_->KIVCAM_ImageConvExec(gige_, buffers_[0], bgr_.data()); }});
    s.push_back({"KIVCAM_VSyncReq", [this] { return lib_->KIVCAM_VSyncReq(gige_, &token_); }});
    s.push_back({"KIVCAM_VSyncComplete", [this, deliver] {
                   if (!lib_->KIVCAM_ImageReq(gige_, buffers_[1])) return KIVCAM_FALSE;
                   deliver(1);
                   return lib_->KIVCAM_VSyncComplete(gige_, token_, kWaitMs);
                 }});
    s.push_back({"KIVCAM_ImageComplete", [this] {
                   return lib_->KIVCAM_ImageComplete(gige_, buffers_[1], kWaitMs, nullptr);
                 }});
    s.push_back({"KIVCAM_GetGigEPktLog", [this] {
                   GigEPacketLog log{};
                   return lib_->KIVCAM_GetGigEPktLog(gige_, &log);
                 }});
    s.push_back({"KIVCAM_ImageStop", [this] { return lib_->KIVCAM_ImageStop(gige_); }});
    s.push_back({"KIVCAM_ImageReqAbortAll", [this] { return lib_->KIVCAM_ImageReqAbortAll(gige_); }});
    s.push_back({"KIVCAM_SetImageCallBack", [this] {
                   return lib_->KIVCAM_SetImageCallBack(gige_, &calls_, &Count, 2, 1);
                 }});
    s.push_back({"KIVCAM_ImageStart", [this, deliver] {
                   if (!lib_->KIVCAM_ImageStart(gige_)) return KIVCAM_FALSE;
                   deliver(1);
                   std::unique_lock<std::mutex> g(calls_.m);
                   calls_.cv.wait_for(g, std::chrono::milliseconds(kWaitMs), [&] { return calls_.n > 0; });
                   return KIVCAM_TRUE;
                 }});
    s.push_back({"KIVCAM_SetImageCallBack", [this] {
                   return lib_->KIVCAM_SetImageCallBack(gige_, nullptr, nullptr, 0, 0);
                 }});
    s.push_back({"KIVCAM_ImageStop", [this] { return lib_->KIVCAM_ImageStop(gige_); }});
    s.push_back({"KIVCAM_ResourceRelease", [this] { return lib_->KIVCAM_ResourceRelease(gige_); }});
    s.push_back({"KIVCAM_ImageFreeAll", [this] { return lib_->KIVCAM_ImageFreeAll(gige_); }});
    s.push_back({"KIVCAM_TestStream", [this] { return lib_->KIVCAM_TestStream(gige_); }});
    s.push_back({"KIVCAM_Camera", [this] {
                   uint32_t state = 0;
                   return lib_->KIVCAM_Camera(gige_, &state);
                 }});
    s.push_back({"KIVCAM_Close", [this] { return lib_->KIVCAM_Close(gige_); }});
    s.push_back({"KIVCAM_OpenUSB", [this] {
                   const KIVCAM_OPENPARAM p = Param(kUsb1);
                   return lib_->KIVCAM_OpenUSB(&p, &usb_);
                 }});
    s.push_back({"KIVCAM_CameraInfoUSB", [this] {
                   USBCameraInfo i{};
                   return lib_->KIVCAM_CameraInfoUSB(usb_, &i);
                 }});
    s.push_back({"KIVCAM_Close", [this] { return lib_->KIVCAM_Close(usb_); }});
    s.push_back({"KIVCAM_OpenReg", [this] { return lib_->KIVCAM_OpenReg(&port_); }});
    s.push_back({"KIVCAM_ReadReg", [this] {
                   uint8_t b[4];
                   uint32_t n = 4;
                   return lib_->KIVCAM_ReadReg(port_, 0, b, &n);
                 }});
    s.push_back({"KIVCAM_CameraRegInfo", [this] {
                   CameraListEntry e{};
                   return lib_->KIVCAM_CameraRegInfo(port_, &e);
                 }});
    s.push_back({"KIVCAM_CloseReg", [this] { return lib_->KIVCAM_CloseReg(port_); }});
    s.push_back({"KIVCAM_ReDetection", [this] {
                   lib_->KIVCAM_ReDetection();
                   return KIVCAM_TRUE;
                 }});
    s.push_back({"unload", [] { return KIVCAM_TRUE; }});  // done by the run
    return s;
  }

  static constexpr int kLoadStep = 0;

  // `n` more frames of the GigE camera (0: on demand from now on).
  void Deliver(uint32_t n) {
    if (GigE().loaded()) GigE().deliver(gige_index_, n);
  }

  void Arm(const char* entry) {
    for (Sim* sim : {&GigE(), &USB()})
      if (sim->loaded()) sim->fail_next(entry, GC_ERR_ERROR, "injected", 1);
  }
  void Disarm(const char* entry) {
    for (Sim* sim : {&GigE(), &USB()})
      if (sim->loaded()) sim->fail_next(entry, 0, nullptr, 0);  // refused once a producer is closed: nothing armed then
  }
  // Failures the producers injected so far (their count lives as long as the module).
  uint64_t Injected() {
    uint64_t n = 0;
    for (Sim* sim : {&GigE(), &USB()})
      if (sim->loaded()) n += sim->failures_injected();
    return n;
  }
  // Holds both producer modules while the library loads them, so that the
  // count of one whose start failed (and which the library let go) can be read.
  class HeldProducers {
   public:
    HeldProducers() {
      for (const char* cti : {"/KivGigEGenTL.cti", "/KivUSBGenTL.cti"})
        if (void* h = dlopen((LibDir() + cti).c_str(), RTLD_NOW | RTLD_LOCAL)) held_.push_back(h);
    }
    ~HeldProducers() {
      for (void* h : held_) dlclose(h);
    }
    uint64_t Injected() const {
      uint64_t n = 0;
      for (void* h : held_)
        if (auto fn = reinterpret_cast<decltype(&kivsim_failures_injected)>(dlsym(h, "kivsim_failures_injected")))
          n += fn();
      return n;
    }

   private:
    std::vector<void*> held_;
  };

  // A camera opens and grabs a frame: the fault left nothing wedged.
  bool Healthy(std::string* why) {
    CamLib& l = *lib_;
    l.KIVCAM_CloseAll();
    if (port_) l.KIVCAM_CloseReg(port_);
    HCAMERA h = nullptr;
    ImageBuffer* b = nullptr;
    auto fail = [&](const char* what) {
      *why = std::string(what) + " failed with " + std::to_string(l.KIVCAM_GetLastError());
      if (h) l.KIVCAM_Close(h);
      return false;
    };
    if (!l.KIVCAM_Open(kGigE1, &h)) return fail("KIVCAM_Open");
    Deliver(0);
    if (!l.KIVCAM_ResourceAlloc(h)) return fail("KIVCAM_ResourceAlloc");
    if (!l.KIVCAM_ImageAlloc(h, &b)) return fail("KIVCAM_ImageAlloc");
    if (!l.KIVCAM_ImageStart(h)) return fail("KIVCAM_ImageStart");
    if (!l.KIVCAM_ImageReq(h, b)) return fail("KIVCAM_ImageReq");
    Deliver(1);
    if (!l.KIVCAM_ImageComplete(h, b, kWaitMs, nullptr)) return fail("KIVCAM_ImageComplete");
    if (!l.KIVCAM_ImageStop(h)) return fail("KIVCAM_ImageStop");
    if (!l.KIVCAM_Close(h)) return fail("KIVCAM_Close");
    return true;
  }

  // One scripted session with `entry` failing once at step `at` (or, with
  // `at` negative, at its first call from step 1 on). Returns the step at
  // which the failure happened, or -1.
  int Run(const char* entry, int at) {
    const std::string ns = std::getenv("KIVCAM_IPC_NAMESPACE");
    const std::string where = std::string(entry) + (at < 0 ? " at its first call" : " at step " + std::to_string(at));
    gige_ = usb_ = nullptr;
    port_ = nullptr;
    buffers_[0] = buffers_[1] = nullptr;
    token_ = nullptr;
    calls_.n = 0;
    const std::vector<Step> script = Script();
    const int unload = static_cast<int>(script.size()) - 1;
    int failed_at = -1;
    std::unique_ptr<HeldProducers> held;
    if (at == kLoadStep) {
      held = std::make_unique<HeldProducers>();
      setenv("KIVSIM_FAIL_NEXT", entry, 1);
    }
    const uint64_t before_load = held ? held->Injected() : 0;
    Load();
    unsetenv("KIVSIM_FAIL_NEXT");
    CamLib& l = *lib_;
    if (held) {
      Disarm(entry);
      if (held->Injected() > before_load) failed_at = kLoadStep;
      l.KIVCAM_ReDetection();  // what a host does to retry producers that did not start
      held.reset();
    }
    uint64_t injected = 0;
    if (GigE().loaded())
      gige_index_ = static_cast<uint32_t>(GigE().camera_index(("KivGEV::" + std::to_string(kGigE1)).c_str()));
    injected = Injected();
    if (at < 0) Arm(entry);
    for (int i = 1; i < unload; ++i) {
      if (i == at) Arm(entry);
      const KIVCAM_BOOL ok = script[i].run();
      const uint32_t code = ok ? 0 : l.KIVCAM_GetLastError();
      if (i == at) Disarm(entry);
      if (failed_at < 0 && (i == at || at < 0) && Injected() > injected) {
        failed_at = i;
        if (at < 0) Disarm(entry);
      }
      if (!ok && !soak::Documented(script[i].name).count(code) && script[i].name != "KIVCAM_TestStream")
        problems_.push_back(where + ": step " + std::to_string(i) + " " + script[i].name + " failed with " +
                            std::to_string(code) + ", which it does not document");
    }
    Disarm(entry);
    std::string why;
    if (!Healthy(&why)) {
      // Two failures the library cannot mend on its own; a reload does (the
      // next run starts with one):
      //  - the producer's first interface count failing at load: the
      //    producer has reported its change once and reports none again, and
      //    an update without a change leaves the (empty) interface list alone;
      //  - DevClose failing: the producer keeps the device open, and every
      //    later open of it is refused as already open.
      const bool known = (at == kLoadStep && std::string(entry) == "TLGetNumInterfaces" &&
                          why == "KIVCAM_Open failed with 5") ||
                         (std::string(entry) == "DevClose" && why == "KIVCAM_Open failed with 4");
      if (known) known_.insert(where + ": afterwards " + why);
      else problems_.push_back(where + ": afterwards " + why);
    }
    // The unload, with the fault at its first call there.
    if (at == unload || (at < 0 && failed_at < 0)) {
      injected = Injected();
      Arm(entry);
      l.KIVCAM_FreeLibrary();
      if (Injected() > injected) failed_at = unload;
      Disarm(entry);
    }
    Unload();
    log_->Clear();  // the drain keeps every line; none is needed past the run
    if (failed_at >= 0) consumed_.insert(entry);
    const soak::Counts after = soak::Sample(ns);
    if (after.library_maps != 0) problems_.push_back(where + ": the library or a producer is still mapped");
    if (after.threads != baseline_.threads || after.fds != baseline_.fds || after.shm != baseline_.shm)
      problems_.push_back(where + ": left behind: " + soak::Describe(after) + " against " + soak::Describe(baseline_));
    return failed_at;
  }

  void Report(int runs, int hits) {
    std::printf("%d runs, %d with the failure happening during the session; %zu of %zu entry points failed at least once\n",
                runs, hits, consumed_.size(), std::size(kEntryPoints));
    for (const char* e : kEntryPoints)
      if (!consumed_.count(e)) ADD_FAILURE() << e << " never failed: the session does not reach it";
    for (const auto& p : problems_) ADD_FAILURE() << p;
    for (const auto& k : known_) std::printf("known, mended by a reload: %s\n", k.c_str());
    const soak::Counts end = soak::Sample(std::getenv("KIVCAM_IPC_NAMESPACE"));
    std::printf("before: %s\nafter:  %s\n", soak::Describe(baseline_).c_str(), soak::Describe(end).c_str());
    EXPECT_LE(end.heap, baseline_.heap + (1u << 20)) << "the heap grew over the runs";
  }

  soak::Counts baseline_;
};

TEST_F(Faults, EveryEntryPointFailingOnceLeavesTheRightErrorAndNothingBehind) {
  // One clean run first: caches and thread pools that stay are not leaks.
  Run("none", -1);
  problems_.clear();
  baseline_ = soak::Sample(std::getenv("KIVCAM_IPC_NAMESPACE"));
  const bool full = std::getenv("KIVCAM_FAULTS") && std::string(std::getenv("KIVCAM_FAULTS")) == "full";
  const int steps = static_cast<int>(Script().size());
  int runs = 0, hits = 0;
  for (const char* entry : kEntryPoints) {
    if (!full) {
      // At the load, and at its first call after it.
      hits += Run(entry, kLoadStep) >= 0;
      hits += Run(entry, -1) >= 0;
      runs += 2;
      continue;
    }
    for (int at = 0; at < steps; ++at) {
      hits += Run(entry, at) >= 0;
      ++runs;
    }
  }
  Report(runs, hits);
}

}  // namespace
}  // namespace camtest
