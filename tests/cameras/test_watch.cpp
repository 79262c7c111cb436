// Watch mode and the loss of a camera while images flow: a controlling
// process streams a GigE camera to a multicast group, watchers in other
// processes receive the same frames; a camera that goes away ends every wait
// for its images at once.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <condition_variable>
#include <string>
#include <thread>
#include <vector>

#include "cam_env.h"
#include <sys/wait.h>

namespace camtest {
namespace {

// The controlling process (watch_controller): it streams the camera to
// `group` (null: unicast) and, per command, lets it make one frame and
// completes it. Commands and answers go through pipes, a 64-bit word each.
class Controller {
 public:
  Controller(uint64_t uid, const uint8_t* group) {
    signal(SIGPIPE, SIG_IGN);  // a killed controller: its pipe's end is gone
    int in[2], out[2];
    // Close-on-exec: the controller holds only its ends, so closing ours ends its loop.
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    char where[32] = "unicast";
    if (group) std::snprintf(where, sizeof where, "%u.%u.%u.%u", group[0], group[1], group[2], group[3]);
    const std::string program = BuildDir() + "/bin/watch_controller", id = std::to_string(uid);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      execl(program.c_str(), program.c_str(), id.c_str(), where, static_cast<char*>(nullptr));
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    to_child_ = in[1];
    from_child_ = out[0];
  }
  ~Controller() {
    close(to_child_);  // ends its loop
    close(from_child_);
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }
  // 0 once streaming; else a failure code.
  uint64_t Ready() { return Receive(); }
  // The block ID of one more frame, as the controller received it.
  uint64_t Frame() {
    uint64_t cmd = 1;
    (void)!write(to_child_, &cmd, sizeof cmd);
    return Receive();
  }
  void Kill() { kill(pid_, SIGKILL); }

 private:
  uint64_t Receive() {
    uint64_t v = ~0ull;
    return read(from_child_, &v, sizeof v) == sizeof v ? v : ~0ull;
  }
  pid_t pid_ = -1;
  int to_child_ = -1;
  int from_child_ = -1;
};

class Watch : public CameraTest {
 protected:
  void TearDown() override {
    controller_.reset();  // before the library and the data folder go
    CameraTest::TearDown();
  }
  // A controlling process streaming `uid` to `group` (null: unicast), then
  // the library loaded here.
  void StartController(uint64_t uid, const uint8_t* group) {
    controller_ = std::make_unique<Controller>(uid, group);
    ASSERT_EQ(controller_->Ready(), 0u);
    Load();
  }
  HCAMERA WatchOpen(uint64_t uid) {
    HCAMERA h = nullptr;
    EXPECT_EQ(lib_->KIVCAM_WatchOpen(uid, &h), KIVCAM_TRUE) << lib_->KIVCAM_GetLastError();
    return h;
  }
  // WatchOpen, then the controller's stream found, received and started.
  HCAMERA Watching(uint64_t uid) {
    HCAMERA h = WatchOpen(uid);
    uint32_t state = 7;
    EXPECT_EQ(lib_->KIVCAM_WatchCamera(h, &state), KIVCAM_TRUE);
    EXPECT_EQ(state, 1u);
    EXPECT_EQ(lib_->KIVCAM_WatchAlloc(h), KIVCAM_TRUE) << lib_->KIVCAM_GetLastError();
    EXPECT_EQ(lib_->KIVCAM_WatchStart(h), KIVCAM_TRUE) << lib_->KIVCAM_GetLastError();
    return h;
  }
  std::unique_ptr<Controller> controller_;
};

const uint8_t kGroup[4] = {239, 1, 1, 1};

TEST_F(Watch, WatchersInAnotherProcessReceiveTheControllersFrames) {
  ASSERT_NO_FATAL_FAILURE(StartController(kGigE1, kGroup));
  CamLib& l = *lib_;
  HCAMERA w = Watching(kGigE1);
  std::vector<ImageBuffer*> buffers(3);
  for (ImageBuffer*& b : buffers) {
    b = Alloc(w);
    ASSERT_EQ(l.KIVCAM_ImageReq(w, b), KIVCAM_TRUE);
  }
  for (int i = 0; i < 6; ++i) {
    SCOPED_TRACE(i);
    const uint64_t sent = controller_->Frame();
    ImageBuffer* b = buffers[i % buffers.size()];
    ImageInfo info{};
    ASSERT_EQ(l.KIVCAM_ImageComplete(w, b, kWait, &info), KIVCAM_TRUE) << l.KIVCAM_GetLastError();
    uint32_t block;
    std::memcpy(&block, info.GigE.PacketInfo, sizeof block);
    EXPECT_EQ(block, sent);
    EXPECT_EQ(info.GigE.Complete, 1u);
    // The pixels are the controller's: the pattern of that frame.
    const uint8_t* p = static_cast<const uint8_t*>(b->Data);
    const uint32_t frame = block - 1, y = 5, x = 7;
    EXPECT_EQ(p[y * b->Width + x], (x + ((y + 2 * (frame % 128)) & 0xFF)) & 0xFF);
    ASSERT_EQ(l.KIVCAM_ImageReq(w, b), KIVCAM_TRUE);
  }
  // What the watcher leaves to the controller: the camera keeps streaming.
  EXPECT_EQ(l.KIVCAM_WatchStop(w), KIVCAM_TRUE);
  EXPECT_EQ(l.KIVCAM_WatchRelease(w), KIVCAM_TRUE);
  EXPECT_NE(controller_->Frame(), ~0ull);
  EXPECT_EQ(l.KIVCAM_WatchClose(w), KIVCAM_TRUE);
}

// An unplugged camera is still stopped; its release then says it is gone.
TEST_F(Watch, StopWorksOnAnAbsentCameraReleaseDoesNot) {
  ASSERT_NO_FATAL_FAILURE(StartController(kGigE1, kGroup));
  CamLib& l = *lib_;
  HCAMERA w = Watching(kGigE1);
  ASSERT_NO_FATAL_FAILURE(Unplug(w, kGigE1, false));
  EXPECT_EQ(l.KIVCAM_WatchStop(w), KIVCAM_TRUE);
  EXPECT_EQ(Err(l.KIVCAM_WatchStart(w)), KIVCAM_ERR_NO_CAMERA);
  EXPECT_EQ(Err(l.KIVCAM_WatchRelease(w)), KIVCAM_ERR_NO_CAMERA);
  ASSERT_EQ(GigE().plug(CameraIndex(kGigE1, false), 1), 0);
}

TEST_F(Watch, AUnicastStreamIsNothingToWatch) {
  ASSERT_NO_FATAL_FAILURE(StartController(kGigE1, nullptr));
  CamLib& l = *lib_;
  HCAMERA w = WatchOpen(kGigE1);
  EXPECT_EQ(Err(l.KIVCAM_WatchAlloc(w)), KIVCAM_ERR_NOT_RUNNING);  // no KIVCAM_WatchCamera yet
  uint32_t state = 7;
  ASSERT_EQ(l.KIVCAM_WatchCamera(w, &state), KIVCAM_TRUE);
  EXPECT_EQ(state, 0u);
  EXPECT_EQ(Err(l.KIVCAM_WatchAlloc(w)), KIVCAM_ERR_NOT_RUNNING);
}

TEST_F(Watch, AControllerThatDiesEndsTheWatchersWaits) {
  ASSERT_NO_FATAL_FAILURE(StartController(kGigE2, kGroup));
  CamLib& l = *lib_;
  HCAMERA w = Watching(kGigE2);
  ImageBuffer* b = Alloc(w);
  ASSERT_EQ(l.KIVCAM_ImageReq(w, b), KIVCAM_TRUE);
  std::atomic<uint32_t> error{0};
  std::thread waiter([&] { error = Err(l.KIVCAM_ImageComplete(w, b, KIVCAM_INFINITE, nullptr)); });
  controller_->Kill();
  auto t0 = std::chrono::steady_clock::now();
  waiter.join();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(3));
  EXPECT_NE(error.load(), kSucceeded);
}

// Watch exports refuse cameras opened for control and the reverse; USB
// cameras can't be watched.
TEST_F(Watch, EachModeRefusesTheOthersExports) {
  Load();
  CamLib& l = *lib_;
  HCAMERA control = OpenUid(kGigE1);
  HCAMERA watch = WatchOpen(kGigE2);
  uint32_t state = 0;
  for (auto f : {l.KIVCAM_WatchClose, l.KIVCAM_WatchAlloc, l.KIVCAM_WatchRelease, l.KIVCAM_WatchStart,
                 l.KIVCAM_WatchStop}) {
    EXPECT_EQ(Err(f(control)), KIVCAM_ERR_MODE);
  }
  EXPECT_EQ(Err(l.KIVCAM_WatchCamera(control, &state)), KIVCAM_ERR_MODE);
  EXPECT_EQ(Err(l.KIVCAM_WatchCamera(watch, nullptr)), KIVCAM_ERR_PARAM);
  for (auto f : {l.KIVCAM_Close, l.KIVCAM_ResourceAlloc, l.KIVCAM_ResourceRelease, l.KIVCAM_ImageStart,
                 l.KIVCAM_ImageStop, l.KIVCAM_TestStream}) {
    EXPECT_EQ(Err(f(watch)), KIVCAM_ERR_MODE);
  }
  EXPECT_EQ(Err(l.KIVCAM_ResourceAllocGigE(watch, nullptr, 0)), KIVCAM_ERR_MODE);
  EXPECT_EQ(Err(l.KIVCAM_SetCmdTimeOut(watch, 1000)), KIVCAM_ERR_MODE);
  // The control camera is as usable as before.
  EXPECT_EQ(l.KIVCAM_ResourceAlloc(control), KIVCAM_TRUE);
  // No USB camera in watch mode: by UID it is not supported.
  HCAMERA none = nullptr;
  EXPECT_EQ(Err(l.KIVCAM_WatchOpen(kUsb1, &none)), KIVCAM_ERR_NOT_SUPPORTED);
  l.KIVCAM_CloseAll();  // closes the watch-mode camera too
  EXPECT_EQ(Err(l.KIVCAM_WatchCamera(watch, &state)), KIVCAM_ERR_PARAM);
}

std::atomic<int> g_bus_resets{0};
void OnBusEvent(uint32_t event, void*) {
  if (event == KIVCAM_EVENT_BUSRESET) ++g_bus_resets;
}

// A camera unplugged while images flow: a completion without a time limit
// and the stream thread end within about a second, the application hears of
// the bus reset; stopping still works.
TEST_F(Watch, UnpluggingEndsTheWaitsForImages) {
  Load();
  CamLib& l = *lib_;
  g_bus_resets = 0;
  l.KIVCAM_SetCallBack(nullptr, &OnBusEvent);
  Cam c = OpenOnDemand(kUsb1);
  ASSERT_NO_FATAL_FAILURE(Ready(c));
  auto cb = [](HCAMERA, void*, uint32_t, uint32_t, uint32_t, ImageInfo*, void*) {};
  ASSERT_EQ(l.KIVCAM_SetImageCallBack(c.h, nullptr, cb, 2, 0), KIVCAM_TRUE);
  // Two endless completions and the stream thread wait on one stream; an
  // unplug ends every one of them, not just the first to wake.
  ImageBuffer* b[2] = {};
  std::atomic<uint32_t> error[2] = {{0}, {0}};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 2; ++i) {
    b[i] = Alloc(c.h);
    ASSERT_EQ(l.KIVCAM_ImageReq(c.h, b[i]), KIVCAM_TRUE);
  }
  for (int i = 0; i < 2; ++i)
    waiters.emplace_back([&, i] { error[i] = Err(l.KIVCAM_ImageComplete(c.h, b[i], KIVCAM_INFINITE, nullptr)); });
  auto t0 = std::chrono::steady_clock::now();
  ASSERT_EQ(c.sim->plug(c.index, 0), 0);
  for (auto& w : waiters) w.join();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(3));
  EXPECT_EQ(error[0].load(), KIVCAM_ERR_NO_CAMERA);
  EXPECT_EQ(error[1].load(), KIVCAM_ERR_NO_CAMERA);
  EXPECT_TRUE(log_->WaitFor("CCamera::Stream_Thread", "End  "));
  EXPECT_TRUE(log_->WaitFor("CKivCamDLL::UserCallBack_Thread", "BusReset User Proc End"));
  EXPECT_GE(g_bus_resets.load(), 1);
  EXPECT_EQ(Err(l.KIVCAM_ImageStart(c.h)), KIVCAM_ERR_NO_CAMERA);
  EXPECT_EQ(l.KIVCAM_ImageStop(c.h), KIVCAM_TRUE);  // stopping needs no camera
  EXPECT_EQ(l.KIVCAM_SetImageCallBack(c.h, nullptr, nullptr, 0, 0), KIVCAM_TRUE);
  // Back again: it opens anew.
  ASSERT_EQ(c.sim->plug(c.index, 1), 0);
  ASSERT_EQ(l.KIVCAM_Close(c.h), KIVCAM_TRUE);
  EXPECT_NE(OpenUid(kUsb1), nullptr);
}

}  // namespace
}  // namespace camtest
