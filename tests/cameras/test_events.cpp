// Bus events: the producer's interface events and the per-process event an
// outside process sets, as they reach the interface's threads and the library.
#include <unistd.h>

#include "cam_env.h"
#include "child_process.h"
#include "platform/platform.h"

namespace camtest {
namespace {

using Events = CameraTest;

// Interfaces in list order: GigE adapter 0 and 1, then the USB host.
TEST_F(Events, PowerUpCountsOnlyFromTheFirstProducer) {
  Load();
  ASSERT_TRUE(GigE().loaded());
  ASSERT_TRUE(USB().loaded());
  // The second producer's power-up wakes its interface but tells the library nothing.
  ASSERT_TRUE(log_->RaiseUntil([&] { USB().raise_interface_event(0, KIVSIM_EVENT_POWER_UP); },
                               "CInterface::BusEventGet_Thread", "PowerUP Event"));
  // A following event of the same thread proves the power-up was handled.
  ASSERT_TRUE(log_->RaiseUntil([&] { USB().raise_interface_event(0, KIVSIM_EVENT_BUS_RESET); },
                               "CInterface::BusEventGet_Thread", "BusReset Event"));
  EXPECT_FALSE(log_->Saw("PowerWakeUP Detection"));
  // The first producer's power-up reaches the library.
  ASSERT_TRUE(log_->RaiseUntil([&] { GigE().raise_interface_event(1, KIVSIM_EVENT_POWER_UP); },
                               "CKivCamDLL::PowerUpEvent", "PowerWakeUP Detection"));
}

TEST_F(Events, AnotherProcessWakesTheUsbInterface) {
  Load();
  const uint32_t parent = static_cast<uint32_t>(getpid());
  kivtest::ChildProcess child([parent]() -> int {
    auto e = kivcam::platform::NamedEvent::CreateOrOpen(KIVCAM_PROCESS_USB_EVENT_PREFIX + std::to_string(parent));
    if (!e) return 2;
    e->Set();
    return 0;
  });
  ASSERT_EQ(child.Join(), 0);
  ASSERT_TRUE(log_->WaitFor("CInterface::BusReset_Thread", "BusReset "));
  ASSERT_TRUE(log_->WaitFor("CKivCamDLL::UserBusEvent", "BusReset Detection"));
  EXPECT_FALSE(log_->Saw("BusEventGet_Thread", "BusReset Event"));  // not the producer's event
}

}  // namespace
}  // namespace camtest
