// Machine-wide named objects, shared between real processes.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <sys/stat.h>
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
  // Held once before the fork: the child must not pass for this thread.
  ASSERT_EQ(m->Wait(), MW::kAcquired);
  m->Release();
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

// The object of a named mutex as another process may leave it: its first
// word names the owner, bits 0-21 the thread id, bits 22-30 a stamp of that
// thread's start time (never 0), bit 31 waiters.
constexpr uint32_t kStampBits = 0x1FFu << 22;

// Whatever is written into the object, a wait ends: an owner that is no live
// thread (garbage, a word without a stamp, an id now used by a thread of
// another start) is taken over as abandoned, while a live owner is never
// joined by a second holder.
TEST_F(Named, MutexWithAGoneOrMadeUpOwnerIsTakenOverButALiveOwnerIsNot) {
  const std::string name = Name("mutex");
  auto m = kp::NamedMutex::CreateOrOpen(name);
  auto raw = kp::SharedMapping::CreateOrOpen(name, 16);
  ASSERT_TRUE(m && raw);
  auto* word = static_cast<uint32_t*>(raw->data());

  std::memset(word, 0x11, 16);
  uint32_t start = kp::TickCount();
  EXPECT_EQ(m->Wait(kBoundMs), MW::kAbandoned);
  EXPECT_LT(kp::TickCount() - start, 2000u);
  m->Release();
  EXPECT_EQ(*word, 0u);  // released for real

  // Another thread of this process really holds it.
  Pipe held, done;
  uint32_t owner = 0, holder_tid = 0;
  std::thread holder([&] {
    holder_tid = kp::ThreadId();
    auto own = kp::NamedMutex::CreateOrOpen(name);
    if (!own || own->Wait() != MW::kAcquired) return;
    held.Send('h');
    done.Receive();
    own->Release();  // taken over meanwhile: gives up nothing
  });
  ASSERT_EQ(held.Receive(), 'h');
  owner = *word & ~0x80000000u;
  EXPECT_EQ(owner & 0x3FFFFFu, holder_tid);
  EXPECT_NE(owner & kStampBits, 0u);
  EXPECT_EQ(m->Wait(150), MW::kTimeout);
  // The same id, but the stamp of a thread started at another time.
  uint32_t stamp = (owner & kStampBits) >> 22;
  *word = (owner & ~kStampBits) | ((stamp % 511 + 1) << 22);
  EXPECT_EQ(m->Wait(kBoundMs), MW::kAbandoned);
  m->Release();
  *word = owner & ~kStampBits;  // a live thread's id without a stamp
  EXPECT_EQ(m->Wait(kBoundMs), MW::kAbandoned);
  m->Release();
  done.Send('d');
  holder.join();
  EXPECT_EQ(*word, 0u);

  // This thread's own id with no hold counted: nobody's hold.
  *word = kp::ThreadId() | (1u << 22);
  EXPECT_EQ(m->Wait(0), MW::kAbandoned);
  m->Release();
  EXPECT_EQ(*word, 0u);
}

TEST(Processes, AnEndedChildIsNotAliveEvenBeforeItIsReaped) {
  Pipe go;
  ChildProcess child([&] { return go.Receive() == 'x' ? 0 : 1; });
  const uint32_t pid = static_cast<uint32_t>(child.pid());
  EXPECT_TRUE(kp::ProcessAlive(pid));
  EXPECT_NE(kp::ThreadStartTime(pid), 0u);
  go.Send('x');
  // A zombie until joined: gone all the same.
  for (uint32_t t0 = kp::TickCount(); kp::ProcessAlive(pid) && kp::TickCount() - t0 < 10000;) sched_yield();
  EXPECT_FALSE(kp::ProcessAlive(pid));
  EXPECT_EQ(child.Join(), 0);
  EXPECT_FALSE(kp::ProcessAlive(0));
  EXPECT_FALSE(kp::ProcessAlive(0xFFFFFFF0u));
  EXPECT_TRUE(kp::ProcessAlive(kp::ProcessId()));
}

// Objects are made for their owner and group unless a setting widens (or
// narrows) that, whatever the umask says; the names are listed back.
TEST_F(Named, NewObjectsAreForOwnerAndGroupUnlessTheSettingSaysOtherwise) {
  auto mode = [](const std::string& name) {
    struct stat st {};
    if (stat(("/dev/shm" + kp::MachineWideName(name)).c_str(), &st) != 0) return 0u;
    return static_cast<unsigned>(st.st_mode & 0777);
  };
  const mode_t old_mask = umask(0);
  const std::string map = Name("map"), mutex = Name("mutex"), event = Name("event");
  {
    auto a = kp::SharedMapping::CreateOrOpen(map, 64);
    auto b = kp::NamedMutex::CreateOrOpen(mutex);
    auto c = kp::NamedEvent::CreateOrOpen(event);
    ASSERT_TRUE(a && b && c);
  }
  EXPECT_EQ(mode(map), 0660u);
  EXPECT_EQ(mode(mutex), 0660u);
  EXPECT_EQ(mode(event), 0660u);
  std::vector<std::string> listed = kp::ListMachineWideNames();
  for (const auto& n : {map, mutex, event}) {
    EXPECT_NE(std::find(listed.begin(), listed.end(), n), listed.end()) << n;
  }
  for (const char* setting : {"all", "owner"}) {
    setenv("KIVCAM_IPC_ACCESS", setting, 1);
    const std::string wide = Name(setting), wide_event = Name((std::string(setting) + "_event").c_str());
    EXPECT_TRUE(kp::SharedMapping::CreateOrOpen(wide, 64));
    EXPECT_TRUE(kp::NamedEvent::CreateOrOpen(wide_event));
    unsigned want = setting[0] == 'a' ? 0666u : 0600u;
    EXPECT_EQ(mode(wide), want);
    EXPECT_EQ(mode(wide_event), want);
  }
  unsetenv("KIVCAM_IPC_ACCESS");
  umask(old_mask);
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
