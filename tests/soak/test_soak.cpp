// The soak: four virtual cameras and eight threads doing what hosts do, all
// at once, for KIVCAM_SOAK_SECONDS (20 in `make test`, 600 in `make soak`):
// request/complete sessions and callback sessions in every offered pixel
// format, conversions checked against the recomputed test pattern, feature
// writes read back, presence and information queries, unplug and replug,
// open and close (also close under a running session).
//
// What must hold:
//  - no call takes longer than 5 s (the watchdog dumps every stack and ends
//    the process otherwise);
//  - a call fails only when something disturbed its camera (unplug, forced
//    close), and then only with a code its export documents;
//  - every frame the producer put into one of our buffers reached us, in an
//    undisturbed session exactly: frames delivered = frames completed or
//    called back, nothing lost to a missing buffer, and each frame's bytes
//    are the pattern of its block ID;
//  - at every checkpoint (all threads parked, all cameras closed) threads,
//    descriptors, mappings and shared-memory names are what they were at the
//    second, and, over a run of two minutes or more, the heap has not grown
//    (ASan's leak check at exit adds anything unreachable).
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "cam_env.h"
#include "kivgenapi/KivGenApi.h"
#include "pixfmt.h"
#include "soak_support.h"

namespace camtest {
namespace {

#if defined(__SANITIZE_THREAD__)
constexpr bool kUnderTsan = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kUnderTsan = true;
#else
constexpr bool kUnderTsan = false;
#endif
#else
constexpr bool kUnderTsan = false;
#endif
// Conversions on a team of threads, except under ThreadSanitizer, which
// cannot see into the OpenMP runtime's own synchronisation.
constexpr bool kTeams = !kUnderTsan;

constexpr int kThreads = 8;
constexpr uint32_t kWaitMs = 2000;  // completion and callback waits; well under the watchdog's 5 s
constexpr int kWatchdogMs = 5000;

const char* const kWorld =
    "[gige]\ninterfaces = 1\n"
    "[camera]\ntransport = gige\ninterface = 0\nuid = 101\nmodel = Soak-G1\nwidth = 64\nheight = 48\n"
    "[camera]\ntransport = gige\ninterface = 0\nuid = 102\nmodel = Soak-G2\nwidth = 64\nheight = 48\n"
    "[camera]\ntransport = usb\nuid = 201\nmodel = Soak-U1\nwidth = 64\nheight = 48\n"
    "[camera]\ntransport = usb\nuid = 202\nmodel = Soak-U2\nwidth = 64\nheight = 48\n";

// One camera as the threads share it.
struct Slot {
  uint64_t uid = 0;
  bool usb = false;
  Sim* sim = nullptr;
  uint32_t index = 0;
  std::vector<uint32_t> formats;  // offered pixel formats the converters know

  std::mutex m;  // guards h, busy, acquiring, users
  HCAMERA h = nullptr;
  bool busy = false;       // a session, an open or a close holds the camera
  bool acquiring = false;  // the session is past its node-map work: it may be closed under it
  bool closing = false;    // a close under a session has not returned yet: no open meanwhile
  int users = 0;           // feature and information calls that hold the node map or the handle
  std::condition_variable released;  // users went down
  std::mutex features;     // a feature write and its read-back

  // Raised before an unplug and after the replug (one at a time, so it is
  // odd while the camera is away), and twice for a forced close: a failure
  // that sees it changed since its operation began, or began while it was
  // odd, had a cause.
  std::atomic<uint32_t> disturb{0};
  std::mutex unplugging;
  // A session was disturbed with its resources allocated: the camera may
  // still have its transport parameters locked (the release could not reach
  // it), which a real camera forgets only at a power cycle or when its
  // controller is gone. The next session unlocks them first.
  std::atomic<bool> locked_left{false};
  // A forced close frees the buffers a session may be reading: it raises
  // `closings` under `frames_in_use` first, and a session reads a completed
  // buffer only under that lock and only if no close came since it began.
  std::mutex frames_in_use;
  std::atomic<uint32_t> closings{0};

  std::atomic<uint64_t> frames{0}, callbacks{0}, failed_frames{0}, sessions{0}, exact{0}, disturbed{0};
};

// A frame handed to the application, checked against the pattern of its block ID.
bool MatchesPattern(const void* data, uint32_t size, uint32_t format, uint32_t w, uint32_t h, uint64_t block) {
  auto pattern = kivsim::GetPattern(format, w, h);
  return pattern && block > 0 && pattern->payload() == size &&
         std::memcmp(data, pattern->frame(block - 1), size) == 0;
}

uint64_t BlockOf(const ImageInfo& info) {
  if (info.Transport == KIVCAM_CAMERAKIND_USB) return info.USB.BlockID;  // packed: by value
  uint32_t block = 0;
  std::memcpy(&block, info.GigE.PacketInfo, sizeof block);
  return block;
}

class Soak : public CameraTest {
 protected:
  void TearDown() override {
    for (auto& s : slots_) s.reset();
    CameraTest::TearDown();
  }

  // ---- failures -------------------------------------------------------------
  void Fail(const std::string& what) {
    std::lock_guard<std::mutex> g(fail_mutex_);
    if (failures_.size() < 40) failures_.push_back(what);
    ++failure_count_;
  }

  // ---- the shared state -----------------------------------------------------
  std::vector<std::unique_ptr<Slot>> slots_;
  std::mutex fail_mutex_;
  std::vector<std::string> failures_;
  std::atomic<uint64_t> failure_count_{0};
  std::atomic<uint64_t> bus_events_{0}, conversions_{0}, feature_writes_{0}, opens_{0}, closes_{0}, forced_closes_{0},
      unplugs_{0}, queries_{0}, tolerated_{0};
  std::atomic<bool> stop_{false};
  std::mutex park_mutex_;
  std::condition_variable park_cv_;
  bool pause_ = false;
  int parked_ = 0;

  friend class Worker;
};

// What a callback session's stream thread reports into.
struct CallbackSeen {
  std::mutex m;
  std::condition_variable cv;
  uint64_t count = 0, bad = 0, failed = 0;
  uint32_t format = 0, width = 0, height = 0;
};

void OnImage(HCAMERA, void* data, uint32_t size, uint32_t width, uint32_t height, ImageInfo* info, void* context) {
  auto* seen = static_cast<CallbackSeen*>(context);
  std::lock_guard<std::mutex> g(seen->m);
  if (size == 0) {
    ++seen->failed;
  } else if (!info || width != seen->width || height != seen->height ||
             !MatchesPattern(data, size, seen->format, width, height, BlockOf(*info))) {
    ++seen->bad;
  }
  ++seen->count;
  seen->cv.notify_all();
}

void OnBusEvent(uint32_t, void* context) { ++*static_cast<std::atomic<uint64_t>*>(context); }

class Worker {
 public:
  Worker(Soak& t, CamLib& lib, soak::CallSlot* call, unsigned seed) : t_(t), lib_(lib), call_(call), rng_(seed) {}

  void Run() {
    while (!t_.stop_) {
      Park();
      if (t_.stop_) break;
      Slot& s = *t_.slots_[Pick(t_.slots_.size())];
      const unsigned op = Pick(100);
      if (op < 30) Session(s, false);
      else if (op < 50) Session(s, true);
      else if (op < 65) Features(s);
      else if (op < 76) OpenClose(s);
      else if (op < 77) Unplug(s);
      else if (op < 89) Convert();
      else Query(s);
      // Eight threads on a shared machine: leave the others some air.
      std::this_thread::sleep_for(std::chrono::microseconds(Pick(2000)));
    }
  }

 private:
  unsigned Pick(size_t n) { return static_cast<unsigned>(rng_() % n); }

  // Stops here while the test takes a checkpoint.
  void Park() {
    std::unique_lock<std::mutex> g(t_.park_mutex_);
    if (!t_.pause_) return;
    ++t_.parked_;
    t_.park_cv_.notify_all();
    t_.park_cv_.wait(g, [&] { return !t_.pause_ || t_.stop_; });
    --t_.parked_;
  }

  // One library call under the watchdog.
  template <class F>
  KIVCAM_BOOL Call(const char* name, F&& f) {
    soak::InCall in(call_, name);
    return f();
  }

  // A failed call: tolerated with a documented code when its camera was
  // disturbed since `since`, else a failure of the soak.
  bool Check(const char* name, KIVCAM_BOOL ok, Slot* s, uint32_t since) {
    if (ok) return true;
    const uint32_t code = lib_.KIVCAM_GetLastError();
    const bool disturbed = s && (s->disturb.load() != since || since % 2);
    const auto& documented = soak::Documented(name);
    if (disturbed && documented.count(code)) {
      ++t_.tolerated_;
      return false;
    }
    Unexpected(std::string(name) + " failed with " + std::to_string(code) +
                   (disturbed ? " (not a documented code)" : " on an undisturbed camera"), s);
    return false;
  }

  // The open camera's handle, held open (no close takes it) until Release.
  HCAMERA Hold(Slot& s) {
    std::lock_guard<std::mutex> g(s.m);
    if (s.h) ++s.users;
    return s.h;
  }
  void Release(Slot& s) {
    std::lock_guard<std::mutex> g(s.m);
    --s.users;
    s.released.notify_all();
  }

  // Nothing disturbed the camera since `since` was read.
  static bool Calm(const Slot& s, uint32_t since) { return s.disturb.load() == since && since % 2 == 0; }

  // Takes the camera for a session (or an open or close) if no one holds it.
  HCAMERA Take(Slot& s, bool need_open) {
    std::lock_guard<std::mutex> g(s.m);
    if (s.busy || (need_open && !s.h)) return nullptr;
    s.busy = true;
    s.acquiring = false;
    return need_open ? s.h : reinterpret_cast<HCAMERA>(1);
  }
  void Give(Slot& s) {
    std::lock_guard<std::mutex> g(s.m);
    s.busy = false;
    s.acquiring = false;
  }
  // After a disturbed session: the camera is closed, whatever state it is in,
  // once no one uses its node map any more.
  void Retire(Slot& s, HCAMERA h) {
    s.locked_left = true;
    {
      std::unique_lock<std::mutex> g(s.m);
      s.released.wait(g, [&] { return s.users == 0; });
      if (s.h != h) return;  // someone closed it already
      s.h = nullptr;
    }
    Call("KIVCAM_Close", [&] { return lib_.KIVCAM_Close(h); });
  }

  // ---- request/complete or callback session ---------------------------------
  // Runs until the first failure, then undoes what it set up.
  void Session(Slot& s, bool callback) {
    HCAMERA h = Take(s, true);
    if (!h) return;
    const uint32_t since = s.disturb.load(), closings = s.closings.load();
    ++s.sessions;
    std::string trace;  // what the completions said, for a report
    kivsim_counters before{}, after{};
    s.sim->get_counters(s.index, &before);
    uint64_t got = 0, outstanding = 0;
    bool ok = true, allocated = false, started = false, installed = false;
    HCTBL conv = nullptr;
    // The next step, if every step so far worked.
    auto step = [&](const char* name, auto&& call) {
      if (ok) ok = Check(name, Call(name, call), &s, since);
      return ok;
    };
    // A step of the undoing: it runs whatever happened before.
    auto undo = [&](const char* name, auto&& call) { Check(name, Call(name, call), &s, since); };

    uint32_t state = 0;
    step("KIVCAM_Camera", [&] { return lib_.KIVCAM_Camera(h, &state); });
    if (ok && state == 0) ok = false;  // still away: nothing to do with it now
    const uint32_t format = s.formats[Pick(s.formats.size())], width = Pick(2) ? 64 : 32, height = Pick(2) ? 48 : 16;
    if (ok) ok = SetGeometry(s, h, format, width, height, since);
    const KIVCAM_CONVMODE mode{0, 4, 0, 0, kTeams ? Pick(2) : 0u};
    step("KIVCAM_ConvMode", [&] { return lib_.KIVCAM_ConvMode(h, &mode, nullptr); });
    s.sim->free_run(s.index, 0);  // drops credits a disturbed session left
    s.sim->deliver(s.index, 0);
    allocated = step("KIVCAM_ResourceAlloc", [&] { return lib_.KIVCAM_ResourceAlloc(h); });
    {
      std::lock_guard<std::mutex> g(s.m);
      s.acquiring = true;
    }
    step("KIVCAM_CreateConvHandle", [&] { return lib_.KIVCAM_CreateConvHandle(&conv, &mode, nullptr); });
    std::vector<uint8_t> grabbed(64 * 48 * 4), recomputed(64 * 48 * 4);
    const KIVCAM_IMAGEDESC base{width, height, nullptr, 0, format, 1};

    if (callback) {
      CallbackSeen seen;
      seen.format = format;
      seen.width = width;
      seen.height = height;
      installed = step("KIVCAM_SetImageCallBack", [&] { return lib_.KIVCAM_SetImageCallBack(h, &seen, &OnImage, 4, 1); });
      started = step("KIVCAM_ImageStart", [&] { return lib_.KIVCAM_ImageStart(h); });
      // One frame at a time: the stream thread requeues its buffer after
      // the callback, and a frame that finds none queued would be lost.
      const uint32_t frames = 1 + Pick(8);
      for (uint32_t n = 1; ok && n <= frames; ++n) {
        s.sim->deliver(s.index, 1);
        std::unique_lock<std::mutex> g(seen.m);
        soak::InCall in(call_, "waiting for an image callback");
        if (!seen.cv.wait_for(g, std::chrono::milliseconds(kWaitMs), [&] { return seen.count >= n; })) {
          if (Calm(s, since)) Unexpected("callback session: frame " + std::to_string(n) + " never came", &s);
          ok = false;
        }
      }
      if (installed) undo("KIVCAM_SetImageCallBack", [&] { return lib_.KIVCAM_SetImageCallBack(h, nullptr, nullptr, 0, 0); });
      std::lock_guard<std::mutex> g(seen.m);
      got = seen.count;
      s.callbacks += seen.count;
      s.failed_frames += seen.failed;
      if (seen.bad) Unexpected(std::to_string(seen.bad) + " called-back frames differ from the pattern", &s);
      if (seen.failed && Calm(s, since)) Unexpected("a called-back frame failed on an undisturbed camera", &s);
    } else {
      std::vector<ImageBuffer*> buffers(1 + Pick(4), nullptr);
      for (auto& b : buffers) step("KIVCAM_ImageAlloc", [&] { return lib_.KIVCAM_ImageAlloc(h, &b); });
      started = step("KIVCAM_ImageStart", [&] { return lib_.KIVCAM_ImageStart(h); });
      const uint32_t rounds = 1 + Pick(4);
      for (uint32_t r = 0; ok && r < rounds; ++r) {
        for (ImageBuffer* b : buffers)
          if (step("KIVCAM_ImageReq", [&] { return lib_.KIVCAM_ImageReq(h, b); })) ++outstanding;
        if (!ok) break;
        s.sim->deliver(s.index, static_cast<uint32_t>(buffers.size()));
        for (ImageBuffer* b : buffers) {
          ImageInfo info{};
          const KIVCAM_BOOL done =
              Call("KIVCAM_ImageComplete", [&] { return lib_.KIVCAM_ImageComplete(h, b, kWaitMs, &info); });
          const uint32_t code = done ? 0 : lib_.KIVCAM_GetLastError();
          trace += " " + std::to_string(code);
          std::unique_lock<std::mutex> frames(s.frames_in_use);
          if (s.closings.load() != closings) {  // the buffers are gone
            Check("KIVCAM_ImageComplete", done, &s, since);
            ok = false;
            break;
          }
          if (done || code == KIVCAM_ERR_NO_IMAGE) --outstanding;
          if (code == KIVCAM_ERR_NO_IMAGE && b->Status == KIVCAM_BUFFER_STATUS_FAILED) {
            ++got;
            ++s.failed_frames;
          }
          if (!(ok = Check("KIVCAM_ImageComplete", done, &s, since))) break;
          ++got;
          ++s.frames;
          if (!MatchesPattern(b->Data, b->PayloadSize, format, width, height, BlockOf(info))) {
            auto pattern = kivsim::GetPattern(format, width, height);
            size_t differ = 0;
            for (size_t i = 0; pattern && i < std::min<size_t>(b->PayloadSize, pattern->payload()); ++i)
              differ += static_cast<const uint8_t*>(b->Data)[i] != pattern->frame(BlockOf(info) - 1)[i];
            Unexpected("a completed frame differs from the pattern of its block " + std::to_string(BlockOf(info)) +
                           " (format " + std::to_string(format) + ", " + std::to_string(width) + "x" +
                           std::to_string(height) + ", payload " + std::to_string(b->PayloadSize) + " of " +
                           std::to_string(pattern ? pattern->payload() : 0) + ", " + std::to_string(differ) +
                           " bytes differ, buffer " + std::to_string(b->Width) + "x" + std::to_string(b->Height) +
                           " format " + std::to_string(b->PixelFormat) + (Calm(s, since) ? "" : ", disturbed") + ")",
                       &s);
          }
          if (conv && Pick(4) == 0) CompareConversion(s, h, conv, b, base, grabbed, recomputed, since);
        }
      }
    }
    // Whatever is still requested is given up; that is no lost frame as long
    // as it was never filled (checked below).
    if (started) undo("KIVCAM_ImageStop", [&] { return lib_.KIVCAM_ImageStop(h); });
    if (allocated) {
      undo("KIVCAM_ImageReqAbortAll", [&] { return lib_.KIVCAM_ImageReqAbortAll(h); });
      undo("KIVCAM_ResourceRelease", [&] { return lib_.KIVCAM_ResourceRelease(h); });
    }
    undo("KIVCAM_ImageFreeAll", [&] { return lib_.KIVCAM_ImageFreeAll(h); });
    if (conv) Call("KIVCAM_CloseConvHandle", [&] { lib_.KIVCAM_CloseConvHandle(conv); return KIVCAM_TRUE; });

    // The producer's count of frames put into this process's buffers.
    s.sim->get_counters(s.index, &after);
    const uint64_t delivered = after.frames_delivered - before.frames_delivered;
    const uint64_t lost = after.underruns - before.underruns;
    const uint64_t produced = after.frames_produced - before.frames_produced;
    if (Calm(s, since) && ok) {
      ++s.exact;
      if (delivered != got || lost != 0 || produced != delivered)
        Unexpected(std::string(callback ? "callback" : "request") + " session: produced " + std::to_string(produced) +
                   ", delivered " + std::to_string(delivered) + ", handed over " + std::to_string(got) +
                   ", lost for want of a buffer " + std::to_string(lost), &s);
    } else {
      ++s.disturbed;
      // Disturbed: nothing handed over that was not delivered, nothing
      // delivered that was neither handed over nor still requested.
      if (got > delivered || delivered > got + outstanding + (callback ? 4 : 0))
        Unexpected(std::string(callback ? "callback" : "request") + " session, disturbed: delivered " +
                       std::to_string(delivered) + ", handed over " + std::to_string(got) + ", outstanding " +
                       std::to_string(outstanding) + ", completions:" + trace,
                   &s);
      Retire(s, h);
    }
    Give(s);
  }

  // A failure of the soak, with what the call log says this thread did last.
  void Unexpected(const std::string& what, const Slot* s) {
    std::string text = what + (s ? " (camera " + std::to_string(s->uid) + ")" : "");
    for (const auto& line : t_.log_->Tail("ThreadID=" + std::to_string(call_->tid) + ",", 6)) text += "\n    " + line;
    t_.Fail(text);
  }

  bool SetGeometry(Slot& s, HCAMERA h, uint32_t format, uint32_t width, uint32_t height, uint32_t since) {
    void* raw = nullptr;
    if (!Check("KIVCAM_GetNodeMap", Call("KIVCAM_GetNodeMap", [&] { return lib_.KIVCAM_GetNodeMap(h, &raw); }), &s,
               since))
      return false;
    auto* map = static_cast<KivGenApi::CNodeMapRef*>(raw);
    try {
      soak::InCall in(call_, "node map: geometry");
      if (s.locked_left.exchange(false)) KivGenApi::CIntegerPtr(map->_GetNode("TLParamsLocked"))->SetValue(0);
      KivGenApi::CIntegerPtr(map->_GetNode("Width"))->SetValue(width);
      KivGenApi::CIntegerPtr(map->_GetNode("Height"))->SetValue(height);
      KivGenApi::CEnumerationPtr(map->_GetNode("PixelFormat"))->SetIntValue(format);
      return true;
    } catch (const std::exception& e) {  // GenICam errors, and "Unable to ... Register" from the port
      if (Calm(s, since)) Unexpected(std::string("node map write on an undisturbed camera: ") + e.what(), &s);
      else ++t_.tolerated_;
      return false;
    }
  }

  // The camera's conversion of a grabbed frame against a handle's conversion
  // of the recomputed pattern, with the same settings.
  void CompareConversion(Slot& s, HCAMERA h, HCTBL conv, const ImageBuffer* b, KIVCAM_IMAGEDESC desc,
                         std::vector<uint8_t>& grabbed, std::vector<uint8_t>& recomputed, uint32_t since) {
    desc.Data = b->Data;
    desc.DataSize = b->PayloadSize;
    std::fill(grabbed.begin(), grabbed.end(), 0x11);
    std::fill(recomputed.begin(), recomputed.end(), 0x11);
    if (!Check("KIVCAM_ImageConvExec", Call("KIVCAM_ImageConvExec", [&] {
                 return lib_.KIVCAM_ImageConvExec(h, b, grabbed.data());
               }), &s, since))
      return;
    if (!Check("KIVCAM_ColorConvExec", Call("KIVCAM_ColorConvExec", [&] {
                 return lib_.KIVCAM_ColorConvExec(conv, &desc, recomputed.data());
               }), nullptr, 0))
      return;
    ++t_.conversions_;
    if (grabbed != recomputed) {
      size_t differ = 0;
      for (size_t i = 0; i < grabbed.size(); ++i) differ += grabbed[i] != recomputed[i];
      Unexpected("the camera's conversion differs from the handle's (format " + std::to_string(desc.PixelFormat) +
                     ", " + std::to_string(desc.Width) + "x" + std::to_string(desc.Height) + ", " +
                     std::to_string(differ) + " bytes differ, buffer little-endian " + std::to_string(b->LittleEndian) +
                     (Calm(s, since) ? "" : ", disturbed") + ")",
                 &s);
    }
  }

  // ---- feature writes, read back --------------------------------------------
  void Features(Slot& s) {
    HCAMERA h = Hold(s);
    if (!h) return;
    const uint32_t since = s.disturb.load();
    void* raw = nullptr;
    if (Check("KIVCAM_GetNodeMap", Call("KIVCAM_GetNodeMap", [&] { return lib_.KIVCAM_GetNodeMap(h, &raw); }), &s, since)) {
      auto* map = static_cast<KivGenApi::CNodeMapRef*>(raw);
      std::lock_guard<std::mutex> g(s.features);
      try {
        soak::InCall in(call_, "node map: features");
        const double exposure = 10.0 * (1 + Pick(10000));
        const int64_t black = Pick(256), gain = Pick(25);
        const char* const selectors[] = {"All", "Red", "Green", "Blue"};
        KivGenApi::CFloatPtr e = map->_GetNode("ExposureTime");
        KivGenApi::CIntegerPtr bl = map->_GetNode("BlackLevel");
        KivGenApi::CEnumerationPtr sel = map->_GetNode("GainSelector");
        KivGenApi::CFloatPtr g = map->_GetNode("Gain");
        e->SetValue(exposure);
        bl->SetValue(black);
        sel->FromString(selectors[Pick(4)]);
        g->SetValue(static_cast<double>(gain));
        ++t_.feature_writes_;
        if (e->GetValue() != exposure || bl->GetValue() != black || g->GetValue() != static_cast<double>(gain))
          Unexpected("a feature read back differs from what was written", &s);
      } catch (const std::exception& e) {  // GenICam errors, and "Unable to ... Register" from the port
        if (Calm(s, since)) Unexpected(std::string("feature write on an undisturbed camera: ") + e.what(), &s);
        else ++t_.tolerated_;
      }
    }
    Release(s);
  }

  // ---- open, close, close under a session -----------------------------------
  void OpenClose(Slot& s) {
    std::unique_lock<std::mutex> g(s.m);
    if (!s.h && !s.busy && !s.closing) {
      s.busy = true;
      g.unlock();
      const uint32_t since = s.disturb.load();
      HCAMERA h = nullptr;
      if (Check("KIVCAM_Open", Call("KIVCAM_Open", [&] { return lib_.KIVCAM_Open(s.uid, &h); }), &s, since)) ++t_.opens_;
      g.lock();
      s.h = h;
      s.busy = false;
      return;
    }
    if (!s.h || s.users > 0) return;
    const bool forced = s.busy && s.acquiring && Pick(3) == 0;
    if (s.busy && !forced) return;
    HCAMERA h = s.h;
    s.h = nullptr;
    if (forced) {
      s.disturb += 2;
      s.closing = true;
      ++t_.forced_closes_;
    } else {
      s.busy = true;
    }
    g.unlock();
    if (forced) {
      std::lock_guard<std::mutex> frames(s.frames_in_use);
      ++s.closings;
    }
    Check("KIVCAM_Close", Call("KIVCAM_Close", [&] { return lib_.KIVCAM_Close(h); }), nullptr, 0);
    ++t_.closes_;
    if (!forced) {
      Give(s);
    } else {
      std::lock_guard<std::mutex> done(s.m);
      s.closing = false;
    }
  }

  // ---- unplug and replug ----------------------------------------------------
  void Unplug(Slot& s) {
    std::unique_lock<std::mutex> g(s.unplugging, std::try_to_lock);
    if (!g.owns_lock()) return;
    ++s.disturb;
    s.sim->plug(s.index, 0);
    ++t_.unplugs_;
    std::this_thread::sleep_for(std::chrono::milliseconds(Pick(20)));
    s.sim->plug(s.index, 1);
    // The library learns of the return on its bus-reset thread, in its own
    // time; a host that wants to know now asks, as this does, and only then
    // counts the camera as back.
    if (HCAMERA h = Hold(s)) {
      uint32_t state = 0;
      for (int i = 0; i < 100 && state == 0; ++i) {
        if (!Check("KIVCAM_Camera", Call("KIVCAM_Camera", [&] { return lib_.KIVCAM_Camera(h, &state); }), nullptr, 0)) break;
        if (!state) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      if (!state) Unexpected("the camera is still absent after it was plugged in again", &s);
      Release(s);
    }
    ++s.disturb;
  }

  // ---- a free-standing conversion, serial against parallel ------------------
  void Convert() {
    const Slot& s = *t_.slots_[Pick(t_.slots_.size())];
    const uint32_t format = s.formats[Pick(s.formats.size())];
    auto pattern = kivsim::GetPattern(format, 64, 48);
    if (!pattern) return;
    const KIVCAM_CONVMODE serial{Pick(4), static_cast<int32_t>(Pick(9)), Pick(2), Pick(2), 0};
    KIVCAM_CONVMODE parallel = serial;
    parallel.Parallel = kTeams ? 1 : 0;
    HCTBL a = nullptr, b = nullptr;
    if (!Check("KIVCAM_CreateConvHandle",
               Call("KIVCAM_CreateConvHandle", [&] { return lib_.KIVCAM_CreateConvHandle(&a, &serial, nullptr); }),
               nullptr, 0) ||
        !Check("KIVCAM_CreateConvHandle",
               Call("KIVCAM_CreateConvHandle", [&] { return lib_.KIVCAM_CreateConvHandle(&b, &parallel, nullptr); }),
               nullptr, 0)) {
      if (a) lib_.KIVCAM_CloseConvHandle(a);
      return;
    }
    const KIVCAM_IMAGEDESC desc{64, 48, pattern->frame(Pick(128)), static_cast<uint32_t>(pattern->payload()), format, 1};
    std::vector<uint8_t> one(64 * 48 * 4, 0x22), team(64 * 48 * 4, 0x22);
    if (Check("KIVCAM_ColorConvExec",
              Call("KIVCAM_ColorConvExec", [&] { return lib_.KIVCAM_ColorConvExec(a, &desc, one.data()); }), nullptr,
              0) &&
        Check("KIVCAM_ColorConvExec",
              Call("KIVCAM_ColorConvExec", [&] { return lib_.KIVCAM_ColorConvExec(b, &desc, team.data()); }), nullptr,
              0)) {
      ++t_.conversions_;
      if (one != team) Unexpected("a conversion on a team differs from the serial one (format " + std::to_string(format) + ")", nullptr);
    }
    Call("KIVCAM_CloseConvHandle", [&] {
      lib_.KIVCAM_CloseConvHandle(a);
      lib_.KIVCAM_CloseConvHandle(b);
      return KIVCAM_TRUE;
    });
  }

  // ---- presence, information, list, registers -------------------------------
  void Query(Slot& s) {
    ++t_.queries_;
    if (Pick(4) == 0) {
      CameraList head{};
      Check("KIVCAM_GetList", Call("KIVCAM_GetList", [&] { return lib_.KIVCAM_GetList(&head); }), nullptr, 0);
      return;
    }
    HCAMERA h = Hold(s);
    if (!h) return;
    const uint32_t since = s.disturb.load();
    CameraListEntry e{};
    uint32_t state = 0;
    Check("KIVCAM_Camera", Call("KIVCAM_Camera", [&] { return lib_.KIVCAM_Camera(h, &state); }), &s, since);
    if (state) {
      Check("KIVCAM_CameraInfo", Call("KIVCAM_CameraInfo", [&] { return lib_.KIVCAM_CameraInfo(h, &e); }), &s, since);
      uint8_t reg[4];
      uint32_t size = 4;
      Check("KIVCAM_ReadPort", Call("KIVCAM_ReadPort", [&] { return lib_.KIVCAM_ReadPort(h, 0, reg, &size); }), &s,
            since);
    }
    Release(s);
  }

  Soak& t_;
  CamLib& lib_;
  soak::CallSlot* call_;
  std::mt19937 rng_;
};

TEST_F(Soak, FourCamerasEightThreadsMixingEverything) {
  const int seconds = soak::EnvSeconds("KIVCAM_SOAK_SECONDS", 20);
  const int checkpoints = std::max(3, std::min(10, seconds / 10));
  const std::string ns = std::getenv("KIVCAM_IPC_NAMESPACE");
  World(kWorld);
  Load();
  CamLib& l = *lib_;
  l.KIVCAM_SetCallBack(&bus_events_, &OnBusEvent);
  for (uint64_t uid : {101ull, 102ull, 201ull, 202ull}) {
    auto s = std::make_unique<Slot>();
    s->uid = uid;
    s->usb = uid > 200;
    s->sim = s->usb ? &USB() : &GigE();
    s->index = static_cast<uint32_t>(s->sim->camera_index(((s->usb ? "KivU3V::" : "KivGEV::") + std::to_string(uid)).c_str()));
    ASSERT_EQ(s->sim->deliver(s->index, 0), 0);
    // The formats this camera offers that the converters know.
    HCAMERA h = OpenUid(uid);
    ASSERT_NE(h, nullptr);
    void* raw = nullptr;
    ASSERT_EQ(l.KIVCAM_GetNodeMap(h, &raw), KIVCAM_TRUE);
    KivGenApi::CEnumerationPtr format = static_cast<KivGenApi::CNodeMapRef*>(raw)->_GetNode("PixelFormat");
    KivGenApi::NodeList_t entries;
    format->GetEntries(entries);
    HCTBL probe = nullptr;
    ASSERT_EQ(l.KIVCAM_CreateConvHandle(&probe, nullptr, nullptr), KIVCAM_TRUE);
    for (KivGenApi::INode* n : entries) {
      KivGenApi::CEnumEntryPtr e = n;
      if (!KivGenApi::IsAvailable(e)) continue;
      const uint32_t code = static_cast<uint32_t>(e->GetValue());
      auto pattern = kivsim::GetPattern(code, 64, 48);
      std::vector<uint8_t> out(64 * 48 * 4);
      const KIVCAM_IMAGEDESC d{64, 48, pattern ? pattern->frame(0) : nullptr, 0, code, 1};
      if (pattern && l.KIVCAM_ColorConvExec(probe, &d, out.data())) s->formats.push_back(code);
    }
    l.KIVCAM_CloseConvHandle(probe);
    ASSERT_FALSE(s->formats.empty());
    ASSERT_EQ(l.KIVCAM_Close(h), KIVCAM_TRUE);
    slots_.push_back(std::move(s));
  }

  soak::Watchdog watchdog(kWatchdogMs);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      Worker w(*this, l, watchdog.Register(), 1000u + static_cast<unsigned>(i));
      w.Run();
    });
  }

  // Checkpoints: every thread parked, every camera closed and plugged.
  std::vector<soak::Counts> counts;
  const auto start = std::chrono::steady_clock::now();
  for (int c = 1; c <= checkpoints; ++c) {
    std::this_thread::sleep_until(start + std::chrono::milliseconds(int64_t{seconds} * 1000 * c / checkpoints));
    {
      std::unique_lock<std::mutex> g(park_mutex_);
      pause_ = true;
      ASSERT_TRUE(park_cv_.wait_for(g, std::chrono::seconds(30), [&] { return parked_ == kThreads; }))
          << "the threads did not park";
    }
    l.KIVCAM_CloseAll();
    for (auto& s : slots_) {
      std::lock_guard<std::mutex> g(s->m);
      s->h = nullptr;
      s->sim->plug(s->index, 1);
    }
    log_->Clear();  // what the drain kept so far is only for reports of failures
    counts.push_back(soak::Sample(ns));
    std::printf("checkpoint %d at %llds: %s; %llu frames, %llu failures\n", c,
                static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(
                                           std::chrono::steady_clock::now() - start).count()),
                soak::Describe(counts.back()).c_str(),
                static_cast<unsigned long long>([&] {
                  uint64_t f = 0;
                  for (auto& s : slots_) f += s->frames + s->callbacks;
                  return f;
                }()),
                static_cast<unsigned long long>(failure_count_.load()));
    std::fflush(stdout);
    std::lock_guard<std::mutex> g(park_mutex_);
    if (c == checkpoints) stop_ = true;
    pause_ = false;
    park_cv_.notify_all();
  }
  for (auto& t : threads) t.join();
  l.KIVCAM_SetCallBack(nullptr, nullptr);

  // ---- what it did --------------------------------------------------------
  uint64_t frames = 0, sessions = 0, exact = 0;
  std::string report;
  for (auto& s : slots_) {
    frames += s->frames + s->callbacks;
    sessions += s->sessions;
    exact += s->exact;
    report += "  camera " + std::to_string(s->uid) + ": " + std::to_string(s->sessions.load()) + " sessions (" +
              std::to_string(s->exact.load()) + " undisturbed, reconciled exactly; " + std::to_string(s->disturbed.load()) +
              " disturbed), " + std::to_string(s->frames.load()) + " frames completed, " +
              std::to_string(s->callbacks.load()) + " called back, " + std::to_string(s->failed_frames.load()) +
              " with an error status\n";
  }
  report += "  " + std::to_string(conversions_.load()) + " conversions compared, " +
            std::to_string(feature_writes_.load()) + " feature write rounds, " + std::to_string(opens_.load()) +
            " opens, " + std::to_string(closes_.load()) + " closes (" + std::to_string(forced_closes_.load()) +
            " under a session), " + std::to_string(unplugs_.load()) + " unplugs, " + std::to_string(bus_events_.load()) +
            " bus-event callbacks, " + std::to_string(queries_.load()) + " queries, " +
            std::to_string(tolerated_.load()) + " failures on disturbed cameras (documented codes)\n";
  report += "  longest call " + std::to_string(watchdog.longest_ms()) + " ms; first checkpoint " +
            soak::Describe(counts.front()) + "; last " + soak::Describe(counts.back()) + "\n";
  std::printf("soak of %d s, %d threads, %zu cameras:\n%s", seconds, kThreads, slots_.size(), report.c_str());
  if (const char* file = std::getenv("KIVCAM_SOAK_REPORT")) std::ofstream(file, std::ios::app) << report;

  {
    std::lock_guard<std::mutex> g(fail_mutex_);
    for (const auto& f : failures_) ADD_FAILURE() << f;
  }
  EXPECT_EQ(failure_count_.load(), 0u);
  EXPECT_GT(frames, 0u);
  EXPECT_GT(exact, sessions / 4) << "too few sessions ran undisturbed to reconcile";
  // Flat over time: the second checkpoint on (the first warms caches and
  // thread pools up) against the last.
  const soak::Counts& warm = counts[1];
  const soak::Counts& last = counts.back();
  EXPECT_EQ(last.threads, warm.threads);
  EXPECT_EQ(last.fds, warm.fds);
  EXPECT_EQ(last.shm, warm.shm);
  // ThreadSanitizer splits its own anonymous shadow and heap regions as the
  // process touches more memory; there only mappings with a name count.
  const uint32_t warm_maps = kUnderTsan ? warm.named_maps : warm.maps;
  const uint32_t last_maps = kUnderTsan ? last.named_maps : last.maps;
  EXPECT_LE(last_maps, warm_maps + 8) << "mappings grow; new since the second checkpoint:\n"
                                      << soak::NewMappings(warm, last);
  // The test pattern of every format and size is rendered once and kept, by
  // this test and by the producers: a short run is still filling those
  // caches, so the heap is held to flat over a long one only.
  if (seconds >= 120) {
    EXPECT_LE(last.heap, warm.heap + (1u << 20)) << "the heap grows: " << soak::Describe(warm) << " -> "
                                                 << soak::Describe(last);
  }
}

}  // namespace
}  // namespace camtest
