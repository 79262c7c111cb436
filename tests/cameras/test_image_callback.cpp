// The image callback on the camera's stream thread: what it is handed, how
// it starts and ends, what it may call (anything: nothing waits for its
// thread), and teardown of cameras and the library while images flow.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "cam_env.h"

namespace camtest {
namespace {

// What the callback saw; an optional action runs inside each call.
struct Seen {
  std::mutex m;
  std::condition_variable cv;
  std::vector<uint32_t> sizes;
  uint32_t width = 0, height = 0;
  uint32_t transport = 99;
  HCAMERA camera = nullptr;
  std::function<void(HCAMERA)> action;

  bool WaitFor(size_t n) {
    std::unique_lock<std::mutex> g(m);
    return cv.wait_for(g, std::chrono::seconds(10), [&] { return sizes.size() >= n; });
  }
  size_t Count() {
    std::lock_guard<std::mutex> g(m);
    return sizes.size();
  }
};

void OnImage(HCAMERA camera, void*, uint32_t size, uint32_t width, uint32_t height, ImageInfo* info,
             void* context) {
  auto* s = static_cast<Seen*>(context);
  std::function<void(HCAMERA)> action;
  {
    std::lock_guard<std::mutex> g(s->m);
    s->sizes.push_back(size);
    s->width = width;
    s->height = height;
    s->camera = camera;
    if (info) s->transport = info->Transport;
    action = s->action;
  }
  if (action) action(camera);
  std::lock_guard<std::mutex> g(s->m);
  s->cv.notify_all();
}

class ImageCallback : public CameraTest {
 protected:
  // What callbacks see lives as long as the fixture, past the unload in
  // TearDown: a stream thread may still be in a callback when a test ends.
  Seen& NewSeen() {
    seen_.push_back(std::make_unique<Seen>());
    return *seen_.back();
  }
  std::vector<std::unique_ptr<Seen>> seen_;

  // Resources allocated, acquisition started and the callback installed
  // with `buffers` of its own: what it will see.
  Seen& Installed(const Cam& c, uint32_t buffers = 2) {
    Ready(c);
    Seen& seen = NewSeen();
    EXPECT_EQ(lib_->KIVCAM_SetImageCallBack(c.h, &seen, &OnImage, buffers, 0), KIVCAM_TRUE)
        << lib_->KIVCAM_GetLastError();
    return seen;
  }
  // One more frame delivered, and handed to the callback as its `n`th.
  ::testing::AssertionResult Handed(const Cam& c, Seen& seen, size_t n) {
    if (int r = c.sim->deliver(c.index, 1)) return ::testing::AssertionFailure() << "deliver: " << r;
    if (!seen.WaitFor(n)) return ::testing::AssertionFailure() << "seen " << seen.Count() << " of " << n;
    return ::testing::AssertionSuccess();
  }
};

TEST_F(ImageCallback, InstalledWithItsBuffersHandedEveryImageAndEndedByARelease) {
  Load();
  Cam c = OpenOnDemand(kGigE1);
  CamLib& l = *lib_;
  Ready(c);
  Seen& seen = NewSeen();
  const uint32_t announced = Counters(c).announces;
  ASSERT_EQ(l.KIVCAM_SetImageCallBack(c.h, &seen, &OnImage, 4, 1), KIVCAM_TRUE);
  // Four producer-allocated buffers, announced before the export returned.
  EXPECT_EQ(Counters(c).announces, announced + 4);
  EXPECT_EQ(Err(l.KIVCAM_SetImageCallBack(c.h, &seen, &OnImage, 4, 1)), KIVCAM_ERR_BUFFER_BUSY);
  // One at a time: a frame that finds no buffer queued is lost.
  for (size_t n = 1; n <= 6; ++n) ASSERT_TRUE(Handed(c, seen, n));
  {
    std::lock_guard<std::mutex> g(seen.m);
    EXPECT_EQ(seen.width, 640u);
    EXPECT_EQ(seen.height, 480u);
    EXPECT_EQ(seen.camera, c.h);
    EXPECT_EQ(seen.transport, KIVCAM_CAMERAKIND_GIGE);
    for (uint32_t s : seen.sizes) EXPECT_EQ(s, 640u * 480u);
  }
  // An informational status is a good image here; an error status has size 0.
  ASSERT_EQ(c.sim->set_delivery_status(c.index, KIVSIM_STATUS_INFO, 0, 0, 1), 0);
  ASSERT_TRUE(Handed(c, seen, 7));
  ASSERT_EQ(c.sim->set_delivery_status(c.index, KIVSIM_STATUS_BUFFER_TOO_SMALL, 0, 0, 1), 0);
  ASSERT_TRUE(Handed(c, seen, 8));
  {
    std::lock_guard<std::mutex> g(seen.m);
    EXPECT_EQ(seen.sizes[6], 640u * 480u);
    EXPECT_EQ(seen.sizes[7], 0u);
  }
  ASSERT_EQ(l.KIVCAM_SetImageCallBack(c.h, nullptr, nullptr, 0, 0), KIVCAM_TRUE);
  EXPECT_EQ(Counters(c).revokes, Counters(c).announces);  // the thread gave its buffers back
  // Installed again after removal.
  ASSERT_EQ(l.KIVCAM_SetImageCallBack(c.h, &seen, &OnImage, 3, 0), KIVCAM_TRUE);
  ASSERT_TRUE(Handed(c, seen, 9));
  // A release ends the thread; the removal then finds it ended.
  ASSERT_EQ(l.KIVCAM_ImageStop(c.h), KIVCAM_TRUE);
  ASSERT_EQ(l.KIVCAM_ResourceRelease(c.h), KIVCAM_TRUE);
  ASSERT_TRUE(log_->WaitFor("CCamera::Stream_Thread", "End  "));
  EXPECT_EQ(l.KIVCAM_SetImageCallBack(c.h, nullptr, nullptr, 0, 0), KIVCAM_TRUE);
  EXPECT_EQ(Counters(c).revokes, Counters(c).announces);
}

TEST_F(ImageCallback, AUsbTransferFailureGetsOneStreamResetAtTheNextThreadStart) {
  Load();
  Cam c = OpenOnDemand(kUsb1);
  Seen& seen = Installed(c);
  ASSERT_EQ(c.sim->set_delivery_status(c.index, KIVSIM_STATUS_TRANSFER_ERROR, 0, 0, 1), 0);
  ASSERT_TRUE(Handed(c, seen, 1));
  const uint32_t resets = Counters(c).reset_requests;
  for (int restart = 0; restart < 2; ++restart) {
    SCOPED_TRACE(restart);
    ASSERT_EQ(lib_->KIVCAM_SetImageCallBack(c.h, nullptr, nullptr, 0, 0), KIVCAM_TRUE);
    ASSERT_EQ(lib_->KIVCAM_SetImageCallBack(c.h, &seen, &OnImage, 2, 0), KIVCAM_TRUE);
    EXPECT_EQ(Counters(c).reset_requests, resets + 1);  // the first restart's only
  }
}

// Exports called from the image callback: of its own camera (taking its
// lock while another thread removes the callback), of the library, and the
// removal of the callback itself.
TEST_F(ImageCallback, TheCallbackMayCallAnyExport) {
  Load();
  Cam c = OpenOnDemand(kGigE1);
  CamLib& l = *lib_;
  Seen& seen = Installed(c);
  std::atomic<int> failures{0};
  std::atomic<bool> removed_itself{false};
  seen.action = [&](HCAMERA h) {
    CameraListEntry e;
    uint32_t state = 0, size = 0;
    if (!l.KIVCAM_CameraInfo(h, &e)) ++failures;
    if (!l.KIVCAM_Camera(h, &state)) ++failures;
    if (!l.KIVCAM_GetBMPINFO(h, nullptr, &size, 0)) ++failures;
    CameraList head{};
    if (!l.KIVCAM_GetList(&head)) ++failures;
    if (removed_itself) return;
    if (seen.Count() == 3) {
      // Removing the callback from inside itself returns at once.
      if (!l.KIVCAM_SetImageCallBack(h, nullptr, nullptr, 0, 0)) ++failures;
      removed_itself = true;
    }
  };
  for (size_t n = 1; n <= 3; ++n) ASSERT_TRUE(Handed(c, seen, n));
  EXPECT_TRUE(removed_itself);
  // A new installation works once the old thread has ended by itself; until
  // then it is refused as busy. (Not waited for through the call log: a
  // starved reader lets the log drop lines.)
  seen.action = nullptr;
  for (auto t0 = std::chrono::steady_clock::now(); !l.KIVCAM_SetImageCallBack(c.h, &seen, &OnImage, 2, 0);) {
    ASSERT_EQ(l.KIVCAM_GetLastError(), KIVCAM_ERR_BUFFER_BUSY);
    ASSERT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10));
    std::this_thread::yield();
  }
  EXPECT_EQ(failures.load(), 0);
  // Another thread removes the callback while it takes the camera lock.
  std::atomic<bool> in_callback{false}, release{false};
  seen.action = [&](HCAMERA h) {
    in_callback = true;
    while (!release) std::this_thread::yield();
    uint32_t state = 0;
    if (!l.KIVCAM_Camera(h, &state)) ++failures;  // the remover holds no lock while it waits
  };
  ASSERT_EQ(c.sim->deliver(c.index, 1), 0);
  while (!in_callback) std::this_thread::yield();
  std::thread remover([&] { EXPECT_EQ(l.KIVCAM_SetImageCallBack(c.h, nullptr, nullptr, 0, 0), KIVCAM_TRUE); });
  release = true;
  remover.join();
  EXPECT_EQ(failures.load(), 0);
}

// Closing (or closing all) from another thread ends the stream thread before
// it takes the library-level lock, which the callback may be waiting for.
TEST_F(ImageCallback, CloseWhileTheCallbackCallsALibraryLevelExport) {
  Load();
  for (bool all : {false, true}) {
    SCOPED_TRACE(all ? "CloseAll" : "Close");
    Cam c = OpenOnDemand(kGigE1);
    CamLib& l = *lib_;
    Seen& seen = Installed(c);
    std::atomic<bool> in_callback{false}, release{false};
    std::atomic<uint32_t> list_error{7777};
    seen.action = [&](HCAMERA) {
      in_callback = true;
      while (!release) std::this_thread::yield();
      CameraList head{};
      list_error = l.Err(l.KIVCAM_GetList(&head));
    };
    ASSERT_EQ(c.sim->deliver(c.index, 1), 0);
    while (!in_callback) std::this_thread::yield();
    std::atomic<pid_t> closer_tid{0};
    std::thread closer([&] {
      closer_tid = static_cast<pid_t>(syscall(SYS_gettid));
      if (all) {
        l.KIVCAM_CloseAll();
      } else {
        EXPECT_EQ(l.KIVCAM_Close(c.h), KIVCAM_TRUE);
      }
    });
    // The close has told the thread to stop and sleeps until it ends: nothing
    // else can put it to sleep, the callback holds no lock.
    while (!closer_tid) std::this_thread::yield();
    EXPECT_TRUE(WaitAsleep(closer_tid));
    release = true;
    closer.join();
    EXPECT_EQ(list_error.load(), kSucceeded);
  }
}

TEST_F(ImageCallback, CloseFromItsOwnCallbackReleasesTheCameraAtOnce) {
  Load();
  Cam c = OpenOnDemand(kGigE1);
  CamLib& l = *lib_;
  Seen& seen = Installed(c);
  std::atomic<uint32_t> close_error{7777};
  seen.action = [&](HCAMERA h) { close_error = l.Err(l.KIVCAM_Close(h)); };
  ASSERT_TRUE(Handed(c, seen, 1));
  ASSERT_TRUE(log_->WaitFor("CCamera::Stream_Thread", "End  "));
  EXPECT_EQ(close_error.load(), kSucceeded);
  uint32_t state = 0;
  EXPECT_EQ(Err(l.KIVCAM_Camera(c.h, &state)), KIVCAM_ERR_PARAM);
  // The device is free again: it opens.
  EXPECT_NE(OpenUid(kGigE1), nullptr);
}

TEST_F(ImageCallback, FreeLibraryFromTheCallbackReturnsAndTheUnloadJoinsTheThread) {
  Load();
  Cam c = OpenOnDemand(kUsb1);
  CamLib& l = *lib_;
  Seen& seen = Installed(c);
  std::atomic<bool> freed{false};
  seen.action = [&](HCAMERA) {
    l.KIVCAM_FreeLibrary();
    freed = true;
  };
  ASSERT_TRUE(Handed(c, seen, 1));
  for (int i = 0; i < 1000 && !freed; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_TRUE(freed.load());
  EXPECT_EQ(l.KIVCAM_ImageStop(c.h), KIVCAM_FALSE);  // no library object any more
  Unload();
  Load();
  EXPECT_NE(OpenUid(kUsb1), nullptr);
}

// Close, close-all, unplug and unload while a callback runs and another
// thread waits without a time limit: each ends, in a bounded time, again
// and again.
TEST_F(ImageCallback, TeardownUnderLoadNeverHangs) {
  enum Way { kClose, kCloseAll, kUnplug, kUnload };
  for (int round = 0; round < 8; ++round) {
    const Way way = static_cast<Way>(round % 4);
    SCOPED_TRACE(round);
    Load();
    Cam c = OpenOnDemand(kGigE2);
    CamLib& l = *lib_;
    Ready(c);
    ASSERT_EQ(c.sim->free_run(c.index, 0), 0);  // as fast as buffers come back
    Seen& seen = NewSeen();
    ASSERT_EQ(l.KIVCAM_SetImageCallBack(c.h, &seen, &OnImage, 3, 1), KIVCAM_TRUE);
    ImageBuffer* b = Alloc(c.h);
    ASSERT_EQ(l.KIVCAM_ImageReq(c.h, b), KIVCAM_TRUE);
    ASSERT_TRUE(seen.WaitFor(2));
    std::atomic<bool> waiter_done{false};
    std::thread waiter([&] {
      // Requests until the camera goes; every failure ends the loop.
      while (l.KIVCAM_ImageComplete(c.h, b, KIVCAM_INFINITE, nullptr) || l.KIVCAM_GetLastError() == 14) {
        if (!l.KIVCAM_ImageReq(c.h, b)) break;
      }
      waiter_done = true;
    });
    auto t0 = std::chrono::steady_clock::now();
    switch (way) {
      case kClose: EXPECT_EQ(l.KIVCAM_Close(c.h), KIVCAM_TRUE); break;
      case kCloseAll: l.KIVCAM_CloseAll(); break;
      case kUnplug:
        // The producer stops delivering; the waiter ends with the abort of a release.
        Unplug(c.h, kGigE2, false);
        l.KIVCAM_ImageReqAbortAll(c.h);
        l.KIVCAM_SetImageCallBack(c.h, nullptr, nullptr, 0, 0);
        break;
      case kUnload: l.KIVCAM_FreeLibrary(); break;
    }
    waiter.join();
    EXPECT_TRUE(waiter_done.load());
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
    Unload();
  }
}

// Two removals and a close at the same moment, while images flow: each
// waits for the same thread's end, and none may miss it because another
// finished first (the soak found a close that waited for ever).
TEST_F(ImageCallback, RemovalsAndACloseAtOnceAllReturn) {
  Load();
  CamLib& l = *lib_;
  for (int round = 0; round < 150; ++round) {
    SCOPED_TRACE(round);
    Cam c = OpenOnDemand(kGigE2);
    Ready(c);
    ASSERT_EQ(c.sim->free_run(c.index, 0), 0);  // as fast as buffers come back
    Seen& seen = NewSeen();
    seen.action = [](HCAMERA) { std::this_thread::sleep_for(std::chrono::microseconds(200)); };
    ASSERT_EQ(l.KIVCAM_SetImageCallBack(c.h, &seen, &OnImage, 3, 0), KIVCAM_TRUE);
    ASSERT_TRUE(seen.WaitFor(1));
    std::atomic<int> ready{0}, done{0};
    auto racer = [&](bool close) {
      ++ready;
      while (ready < 3) std::this_thread::yield();
      if (close) l.KIVCAM_Close(c.h);
      else l.KIVCAM_SetImageCallBack(c.h, nullptr, nullptr, 0, 0);
      ++done;
    };
    std::thread a(racer, false), b(racer, false), d(racer, true);
    for (auto t0 = std::chrono::steady_clock::now(); done < 3;) {
      if (std::chrono::steady_clock::now() - t0 > std::chrono::seconds(10)) {
        ADD_FAILURE() << "a removal or the close never returned";
        std::fflush(nullptr);
        std::_Exit(1);  // the stuck call can't be joined
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    a.join();
    b.join();
    d.join();
  }
}

// A producer call that fails on the way to a frame: its code, its text in
// the call log, and nothing left behind.
TEST_F(ImageCallback, ProducerFailuresOnTheWayToAFrame) {
  Load();
  Cam c = OpenOnDemand(kGigE1);
  CamLib& l = *lib_;
  struct Case {
    const char* call;
    uint32_t error;
  };
  // Allocation: every failure is undone, so the next allocation works.
  for (Case k : {Case{"GCRegisterEvent", KIVCAM_ERR_OTHER}, Case{"DSStartAcquisition", KIVCAM_ERR_OTHER}}) {
    SCOPED_TRACE(k.call);
    std::string text = std::string("Injected ") + k.call;
    ASSERT_EQ(c.sim->fail_next(k.call, -1001, text.c_str(), 1), 0);
    log_->Clear();
    EXPECT_EQ(Err(l.KIVCAM_ResourceAlloc(c.h)), k.error);
    EXPECT_TRUE(log_->Saw("CCamera::AllocResources", text));
    ASSERT_EQ(l.KIVCAM_ResourceAlloc(c.h), KIVCAM_TRUE);
    ASSERT_EQ(l.KIVCAM_ResourceRelease(c.h), KIVCAM_TRUE);
  }
  ASSERT_NO_FATAL_FAILURE(Ready(c));
  ImageBuffer* b = Alloc(c.h);
  // Requests: the buffer stays free (not announced), or announced and not queued.
  for (const char* call : {"DSAnnounceBuffer", "DSQueueBuffer"}) {
    SCOPED_TRACE(call);
    std::string text = std::string("Injected ") + call;
    ASSERT_EQ(c.sim->fail_next(call, -1001, text.c_str(), 1), 0);
    log_->SetLevel(2);
    log_->Clear();
    EXPECT_EQ(Err(l.KIVCAM_ImageReq(c.h, b)), KIVCAM_ERR_OTHER);
    EXPECT_TRUE(log_->Saw("CCamera::ImageReq", text));
    EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, b, 0, nullptr)), KIVCAM_ERR_PARAM);  // not requested
  }
  // Completion: the buffer information.
  ASSERT_EQ(l.KIVCAM_ImageReq(c.h, b), KIVCAM_TRUE);
  ASSERT_EQ(c.sim->deliver(c.index, 1), 0);
  ASSERT_EQ(c.sim->fail_next("DSGetBufferInfo", -1001, "Injected info", 1), 0);
  log_->Clear();
  EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, b, kWait, nullptr)), KIVCAM_ERR_OTHER);
  EXPECT_TRUE(log_->Saw("CCamera::ImageComplete", "Injected info"));
  // The stream thread: a failing announcement ends it, logged, and the
  // installation still counts (it is removed as usual).
  ASSERT_EQ(l.KIVCAM_ImageReqAbortAll(c.h), KIVCAM_TRUE);
  ASSERT_EQ(c.sim->fail_next("DSAnnounceBuffer", -1001, "Injected thread", 1), 0);
  Seen& seen = NewSeen();
  log_->Clear();
  ASSERT_EQ(l.KIVCAM_SetImageCallBack(c.h, &seen, &OnImage, 2, 0), KIVCAM_TRUE);
  EXPECT_TRUE(log_->WaitFor("CCamera::Stream_Thread", "Injected thread"));
  EXPECT_EQ(Err(l.KIVCAM_SetImageCallBack(c.h, &seen, &OnImage, 2, 0)), KIVCAM_ERR_BUFFER_BUSY);
  EXPECT_EQ(l.KIVCAM_SetImageCallBack(c.h, nullptr, nullptr, 0, 0), KIVCAM_TRUE);
  kivsim_counters k = Counters(c);
  EXPECT_EQ(k.revokes, k.announces);
}

}  // namespace
}  // namespace camtest
