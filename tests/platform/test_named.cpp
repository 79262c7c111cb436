// Machine-wide named objects, shared between real processes.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "platform/platform.h"

namespace kp = kivcam::platform;
using kivtest::ChildProcess;
using kivtest::kBoundMs;
using kivtest::Pipe;
using MW = kp::MutexWait;

namespace {

// Gives each test its own names and removes them afterwards: POSIX names
// outlive the processes that made them.
class Named : public ::testing::Test {
 protected:
  std::string Name(const char* what) {
    names_.push_back(std::string("KivTest_") +
                     ::testing::UnitTest::GetInstance()->current_test_info()->name() + "_" + what);
    return names_.back();
  }
  void TearDown() override {
    for (const auto& n : names_) kp::RemoveMachineWideName(n);
  }

 private:
  std::vector<std::string> names_;
};

MW WaitOnOtherThread(kp::NamedMutex& m, uint32_t timeout_ms) {
  MW r = MW::kFailed;
  std::thread([&] {
    if ((r = m.Wait(timeout_ms)) == MW::kAcquired) m.Release();
  }).join();
  return r;
}

}  // namespace

// Sharing between processes is exercised by the call log and process table tests.
TEST_F(Named, MappingIsZeroFilledWhenNewAndADetachedViewOutlivesItsObject) {
  const std::string name = Name("map");
  auto m = kp::SharedMapping::CreateOrOpen(name, 4096);
  ASSERT_TRUE(m);
  EXPECT_FALSE(m->already_existed());
  auto* bytes = static_cast<char*>(m->data());
  EXPECT_EQ(std::count(bytes, bytes + 4096, 0), 4096);
  auto* view = static_cast<int*>(m->Detach());
  m.reset();
  view[10] = 1234;  // still mapped
  auto again = kp::SharedMapping::CreateOrOpen(name, 4096);
  ASSERT_TRUE(again);
  EXPECT_TRUE(again->already_existed());
  EXPECT_EQ(static_cast<int*>(again->data())[10], 1234);
  kp::RemoveMachineWideName(name);
  auto fresh = kp::SharedMapping::CreateOrOpen(name, 4096);
  ASSERT_TRUE(fresh);
  EXPECT_FALSE(fresh->already_existed());
  EXPECT_EQ(static_cast<int*>(fresh->data())[10], 0);
}

// Unprotected read-modify-write of a shared counter by two processes running
// at the same time: any gap in the exclusion loses increments.
TEST_F(Named, MutexSerialisesUpdatesFromTwoProcesses) {
  struct Shared {
    std::atomic<int> arrived;
    long counter;
  };
  const std::string mutex_name = Name("mutex"), map_name = Name("map");
  auto map = kp::SharedMapping::CreateOrOpen(map_name, sizeof(Shared));
  ASSERT_TRUE(map);
  auto* shared = static_cast<Shared*>(map->data());
  const int kLoops = 20000;
  auto work = [&]() {
    auto mm = kp::NamedMutex::CreateOrOpen(mutex_name);  // both race to create it
    if (!mm) return 1;
    // Both must be running before either counts, or one may finish first.
    shared->arrived.fetch_add(1);
    for (uint32_t start = kp::TickCount(); shared->arrived.load() < 2; sched_yield()) {
      if (kp::TickCount() - start > static_cast<uint32_t>(kBoundMs)) return 2;
    }
    volatile long* counter = &shared->counter;
    for (int i = 0; i < kLoops; ++i) {
      if (mm->Wait() != MW::kAcquired) return 3;
      long v = *counter;
      for (volatile int spin = 0; spin < 50; spin = spin + 1) {
      }
      *counter = v + 1;
      mm->Release();
    }
    return 0;
  };
  ChildProcess child(work);
  EXPECT_EQ(work(), 0);
  EXPECT_EQ(child.Join(), 0);
  EXPECT_EQ(shared->counter, 2L * kLoops);
}

TEST_F(Named, MutexOfAProcessThatDiedHoldingItIsReportedAbandoned) {
  const std::string name = Name("mutex");
  auto m = kp::NamedMutex::CreateOrOpen(name);
  ASSERT_TRUE(m);
  Pipe to_parent, to_child;
  ChildProcess child([&] {
    auto c = kp::NamedMutex::CreateOrOpen(name);
    if (!c || c->Wait() != MW::kAcquired) return 1;
    to_parent.Send('h');
    to_child.Receive();  // dies holding it once the parent is about to wait
    return 0;
  });
  ASSERT_EQ(to_parent.Receive(), 'h');
  EXPECT_EQ(m->Wait(0), MW::kTimeout);
  to_child.Send('x');
  EXPECT_EQ(m->Wait(kBoundMs), MW::kAbandoned);
  EXPECT_EQ(child.Join(), 0);
  // The waiter owns it now, and it works normally afterwards.
  EXPECT_EQ(WaitOnOtherThread(*m, 0), MW::kTimeout);
  m->Release();
  EXPECT_EQ(WaitOnOtherThread(*m, 0), MW::kAcquired);
}

TEST_F(Named, MutexIsReentrantByItsOwningThreadAcrossHandles) {
  const std::string name = Name("mutex");
  auto m = kp::NamedMutex::CreateOrOpen(name);
  auto second = kp::NamedMutex::CreateOrOpen(name);
  ASSERT_TRUE(m && second);
  ASSERT_EQ(m->Wait(), MW::kAcquired);
  EXPECT_EQ(m->Wait(0), MW::kAcquired);
  EXPECT_EQ(second->Wait(0), MW::kAcquired);
  std::thread([&] { m->Release(); }).join();  // not the owner: changes nothing
  m->Release();
  second->Release();
  uint32_t start = kp::TickCount();
  EXPECT_EQ(WaitOnOtherThread(*second, 30), MW::kTimeout);
  EXPECT_GE(kp::TickCount() - start, 30u);
  m->Release();
  EXPECT_EQ(WaitOnOtherThread(*second, 0), MW::kAcquired);
}

// A Set with nobody waiting is kept for one wait (it is no counter); each
// Set wakes exactly one of two waiting processes.
TEST_F(Named, EventSetsReachOneWaitInAnotherProcessEach) {
  const std::string name = Name("event");
  auto e = kp::NamedEvent::CreateOrOpen(name);
  ASSERT_TRUE(e);
  e->Set();
  e->Set();
  Pipe ready, woke;
  auto waiter = [&](char id) {
    return [&, id] {
      auto c = kp::NamedEvent::CreateOrOpen(name);
      if (!c) return 1;
      ready.Send('r');
      if (!c->Wait(kBoundMs)) return 2;
      woke.Send(id);
      return 0;
    };
  };
  ChildProcess kept(waiter('k'));
  ASSERT_EQ(ready.Receive(), 'r');
  ASSERT_EQ(woke.Receive(), 'k');
  ASSERT_EQ(kept.Join(), 0);
  EXPECT_FALSE(e->Wait(0));  // the second Set added nothing

  ChildProcess first(waiter('1')), second(waiter('2'));
  ASSERT_EQ(ready.Receive(), 'r');
  ASSERT_EQ(ready.Receive(), 'r');
  e->Set();
  const char a = woke.Receive();
  e->Set();
  const char b = woke.Receive();
  EXPECT_EQ(first.Join(), 0);
  EXPECT_EQ(second.Join(), 0);
  EXPECT_TRUE(a && b && a != b) << a << b;
  EXPECT_FALSE(e->Wait(0));  // two Sets, two waits: nothing left over
}

TEST(Ids, AForkedChildSeesItsOwnProcessAndThreadIds) {
  const uint32_t parent_pid = kp::ProcessId(), parent_tid = kp::ThreadId();
  EXPECT_EQ(parent_pid, static_cast<uint32_t>(getpid()));
  ChildProcess child([&] {
    const uint32_t pid = static_cast<uint32_t>(getpid());
    // The child's only thread has the process's id as its thread id.
    return kp::ProcessId() == pid && kp::ThreadId() == pid && pid != parent_pid && pid != parent_tid ? 0 : 1;
  });
  EXPECT_EQ(child.Join(), 0);
}
