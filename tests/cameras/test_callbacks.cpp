// Bus-event callbacks: what the application's function is told, and that it
// may call any export there: each works or fails at once, and nothing ever
// waits for the thread the function runs on.
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "cam_env.h"
#include "platform/platform.h"

namespace camtest {
namespace {

// What the application's function saw. It can hold the callback thread in
// its first call until released, and run a script inside every call.
struct Calls {
  std::mutex m;
  std::condition_variable cv;
  std::vector<uint32_t> events;
  std::vector<void*> contexts;
  bool block_first = false, release = false;
  size_t returned = 0;
  std::function<void()> script;

  bool WaitFor(size_t n) {
    std::unique_lock<std::mutex> g(m);
    return cv.wait_for(g, std::chrono::seconds(10), [&] { return events.size() >= n; });
  }
  bool WaitReturned(size_t n) {
    std::unique_lock<std::mutex> g(m);
    return cv.wait_for(g, std::chrono::seconds(20), [&] { return returned >= n; });
  }
  void Release() {
    std::lock_guard<std::mutex> g(m);
    release = true;
    cv.notify_all();
  }
  size_t Count() {
    std::lock_guard<std::mutex> g(m);
    return events.size();
  }
};

void Fn(uint32_t event, void* context) {
  auto* c = static_cast<Calls*>(context);
  std::function<void()> script;
  {
    std::unique_lock<std::mutex> g(c->m);
    c->events.push_back(event);
    c->contexts.push_back(context);
    c->cv.notify_all();
    if (c->block_first && c->events.size() == 1) c->cv.wait(g, [c] { return c->release; });
    script = c->script;
  }
  if (script) script();
  std::lock_guard<std::mutex> g(c->m);
  ++c->returned;
  c->cv.notify_all();
}

class Callbacks : public CameraTest {
 protected:
  // Members, not locals: the library may still call the function with them
  // after a test body ends, until TearDown unloads it.
  Calls calls, first, second;

  // A bus reset as another process reports one: the USB interface's
  // per-process event, which its bus-reset thread never misses.
  void RaiseBusReset() {
    log_->Clear();
    auto e = kivcam::platform::NamedEvent::CreateOrOpen(KIVCAM_PROCESS_USB_EVENT_PREFIX +
                                                        std::to_string(getpid()));
    ASSERT_TRUE(e);
    e->Set();
    ASSERT_TRUE(log_->WaitFor("CKivCamDLL::UserBusEvent", "BusReset Detection"));
  }
};

TEST_F(Callbacks, ResetsWhileTheFunctionRunsArriveAsOneMoreCall) {
  Load();
  calls.block_first = true;
  lib_->KIVCAM_SetCallBack(&calls, &Fn);
  RaiseBusReset();
  ASSERT_TRUE(calls.WaitFor(1));  // the thread is inside the first call
  RaiseBusReset();
  RaiseBusReset();
  calls.Release();
  ASSERT_TRUE(calls.WaitReturned(2));
  EXPECT_TRUE(log_->WaitFor("CKivCamDLL::UserCallBack_Thread", "BusReset User Proc End  "));
  Unload();  // the thread has delivered everything pending before it ends
  ASSERT_EQ(calls.events, (std::vector<uint32_t>{KIVCAM_EVENT_BUSRESET, KIVCAM_EVENT_BUSRESET}));
  EXPECT_EQ(calls.contexts[1], &calls);
}

// Interfaces in list order: GigE adapters 0 and 1, then the USB host.
TEST_F(Callbacks, OnlyTheFirstProducersPowerUpIsDelivered) {
  Load();
  lib_->KIVCAM_SetCallBack(&calls, &Fn);
  ASSERT_TRUE(USB().loaded());
  ASSERT_TRUE(GigE().loaded());
  // The second producer's power-up only wakes its interface. A following
  // event of the same thread proves it was handled. (Each producer listens
  // from TLOpen on, and the library registers for an interface's events
  // before the load returns: nothing raised now is lost.)
  USB().raise_interface_event(0, KIVSIM_EVENT_POWER_UP);
  ASSERT_TRUE(log_->WaitFor("CInterface::BusEventGet_Thread", "PowerUP Event"));
  USB().raise_interface_event(0, KIVSIM_EVENT_BUS_RESET);
  ASSERT_TRUE(log_->WaitFor("CInterface::BusEventGet_Thread", "BusReset Event"));
  EXPECT_FALSE(log_->Saw("PowerWakeUP Detection"));
  // The first producer's power-up reaches the function, once.
  GigE().raise_interface_event(1, KIVSIM_EVENT_POWER_UP);
  ASSERT_TRUE(log_->WaitFor("CKivCamDLL::PowerUpEvent", "PowerWakeUP Detection"));
  ASSERT_TRUE(log_->WaitFor("CKivCamDLL::UserCallBack_Thread", "PowerWakeUP User Proc End  "));
  std::lock_guard<std::mutex> g(calls.m);
  EXPECT_EQ(std::count(calls.events.begin(), calls.events.end(), KIVCAM_EVENT_POWERUP), 1);
}

TEST_F(Callbacks, NullFunctionDropsHappeningsAndANewOneSeesOnlyNewOnes) {
  Load();
  lib_->KIVCAM_SetCallBack(&first, &Fn);
  RaiseBusReset();
  ASSERT_TRUE(first.WaitReturned(1));
  lib_->KIVCAM_SetCallBack(nullptr, nullptr);
  EXPECT_EQ(lib_->KIVCAM_GetLastError(), 0u);
  RaiseBusReset();  // dropped: nobody to tell
  EXPECT_FALSE(log_->Saw("BusReset User Proc Start"));
  Unload();  // the thread has taken (and dropped) it before it ends
  EXPECT_EQ(first.Count(), 1u);

  Load();
  lib_->KIVCAM_SetCallBack(&second, &Fn);
  RaiseBusReset();
  ASSERT_TRUE(second.WaitReturned(1));
  EXPECT_EQ(second.contexts[0], &second);
  EXPECT_EQ(first.Count(), 1u);
}

TEST_F(Callbacks, UnloadWaitsForARunningFunction) {
  Load();
  calls.block_first = true;
  lib_->KIVCAM_SetCallBack(&calls, &Fn);
  RaiseBusReset();
  ASSERT_TRUE(calls.WaitFor(1));
  std::atomic<bool> unloaded{false};
  size_t returned_at_unload = 0;
  std::atomic<pid_t> unloader_tid{0};
  std::thread unloader([&] {
    unloader_tid = static_cast<pid_t>(syscall(SYS_gettid));
    Unload();
    std::lock_guard<std::mutex> g(calls.m);
    returned_at_unload = calls.returned;
    unloaded = true;
  });
  // The unload sleeps until the function returns.
  while (!unloader_tid) std::this_thread::yield();
  EXPECT_TRUE(WaitAsleep(unloader_tid));
  EXPECT_FALSE(unloaded.load());
  calls.Release();
  unloader.join();
  EXPECT_EQ(returned_at_unload, 1u);
}

// Every export family, called from the function: each returns at once with
// its usual result, so the function returns and the library can unload.
TEST_F(Callbacks, EveryExportWorksFromTheFunction) {
  Load();
  CamLib& l = *lib_;
  std::vector<std::pair<const char*, uint32_t>> results;  // export, last error (kSucceeded when it worked)
  auto note = [&](const char* name, KIVCAM_BOOL r) { results.emplace_back(name, l.Err(r)); };
  calls.script = [&] {
    note("SetStructVersion", l.KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION));
    CameraList head{};
    note("GetList", l.KIVCAM_GetList(&head));
    HCAMERA cam = nullptr;
    note("Open", l.KIVCAM_Open(kGigE1, &cam));
    CameraListEntry entry;
    note("CameraInfo", l.KIVCAM_CameraInfo(cam, &entry));
    unsigned char reg[4];
    uint32_t size = 4;
    note("ReadPort", l.KIVCAM_ReadPort(cam, 0x0A00, reg, &size));
    void* map = nullptr;
    note("GetNodeMap", l.KIVCAM_GetNodeMap(cam, &map));
    note("SetCmdTimeOut", l.KIVCAM_SetCmdTimeOut(cam, 1000));
    uint32_t state = 0;
    note("Camera", l.KIVCAM_Camera(cam, &state));
    note("Close", l.KIVCAM_Close(cam));
    note("Close again", l.KIVCAM_Close(cam));  // fails
    HCAMERAPORT port = nullptr;
    note("OpenReg", l.KIVCAM_OpenReg(&port));
    size = 4;
    note("ReadReg", l.KIVCAM_ReadReg(port, 0x0A00, reg, &size));
    note("CloseReg", l.KIVCAM_CloseReg(port));
    HCTBL conv = nullptr;
    note("CreateConvHandle", l.KIVCAM_CreateConvHandle(&conv, nullptr, nullptr));
    unsigned char pixels[4] = {1, 2, 3, 4}, out[4 * 4];
    KIVCAM_IMAGEDESC image{2, 2, pixels, 4, 0x01080001 /* Mono8 */, 1};
    note("ColorConvExec", l.KIVCAM_ColorConvExec(conv, &image, out));
    l.KIVCAM_CloseConvHandle(conv);
    l.KIVCAM_CloseAllConvHandle();
    note("Open for CloseAll", l.KIVCAM_Open(KIVCAM_UID_ANY, &cam));
    l.KIVCAM_CloseAll();
    note("Camera after CloseAll", l.KIVCAM_Camera(cam, &state));  // fails
    l.KIVCAM_ReDetection();
    note("Reset", l.KIVCAM_Reset());
    l.KIVCAM_SetCallBack(&calls, &Fn);  // replaces itself
    note("GetLastError after SetCallBack", l.KIVCAM_GetLastError() == 0);
  };
  lib_->KIVCAM_SetCallBack(&calls, &Fn);
  RaiseBusReset();
  ASSERT_TRUE(calls.WaitReturned(1)) << "an export called from the callback did not return";
  Unload();  // no later call may run the script, which refers to this body's locals
  ASSERT_EQ(results.size(), 19u);
  for (const auto& [name, error] : results) {
    const bool fails = std::string(name) == "Close again" || std::string(name) == "Camera after CloseAll";
    EXPECT_EQ(error, fails ? KIVCAM_ERR_PARAM : kSucceeded) << name;
  }
}

// Freeing the library from its own callback used to wait for that very
// thread. Now it returns at once; the thread ends the object after the
// function returns, and the unload joins it.
TEST_F(Callbacks, FreeLibraryFromTheFunctionReturnsAtOnce) {
  Load();
  HCAMERA cam = OpenUid(kUsb1);
  CamLib& l = *lib_;
  KIVCAM_BOOL after = KIVCAM_TRUE;
  calls.script = [&] {
    l.KIVCAM_FreeLibrary();
    after = l.KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION);  // no object any more
  };
  lib_->KIVCAM_SetCallBack(&calls, &Fn);
  RaiseBusReset();
  ASSERT_TRUE(calls.WaitReturned(1)) << "KIVCAM_FreeLibrary from the callback did not return";
  EXPECT_EQ(after, KIVCAM_FALSE);
  EXPECT_EQ(l.KIVCAM_Close(cam), KIVCAM_FALSE);
  // The thread has closed the camera: another opener gets it once the thread is done.
  Unload();
  Load();
  EXPECT_NE(OpenUid(kUsb1), nullptr);
}

}  // namespace
}  // namespace camtest
