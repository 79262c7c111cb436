// Locks, unnamed events, the wait for any of several objects, and threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "child_process.h"
#include "platform/platform.h"

namespace kp = kivcam::platform;
using kivtest::kBoundMs;

namespace {

// Counts happenings on other threads and lets the test wait for a number of
// them, independently of the events under test.
class Counter {
 public:
  void Add() {
    std::lock_guard<std::mutex> g(m_);
    ++n_;
    cv_.notify_all();
  }
  // True when the count reached n within the bound.
  bool WaitFor(int n) {
    std::unique_lock<std::mutex> g(m_);
    return cv_.wait_for(g, std::chrono::milliseconds(kBoundMs), [&] { return n_ >= n; });
  }
  int value() {
    std::lock_guard<std::mutex> g(m_);
    return n_;
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  int n_ = 0;
};

bool TryLockElsewhere(kp::RecursiveLock& lock) {
  bool got = false;
  std::thread t([&] {
    got = lock.TryLock();
    if (got) lock.Unlock();
  });
  t.join();
  return got;
}

}  // namespace

TEST(RecursiveLock, OwnerReentersAndOthersWaitForTheLastUnlock) {
  kp::RecursiveLock lock;
  lock.Lock();
  EXPECT_TRUE(lock.TryLock());
  {
    kp::LockGuard nested(lock);
    EXPECT_FALSE(TryLockElsewhere(lock));
  }
  lock.Unlock();
  EXPECT_FALSE(TryLockElsewhere(lock));
  lock.Unlock();
  EXPECT_TRUE(TryLockElsewhere(lock));
}

TEST(Event, ManualResetStaysSetUntilResetAndReleasesEveryWaiter) {
  kp::Event e(true, false);
  ASSERT_TRUE(e.ok());
  EXPECT_FALSE(e.Wait(0));
  std::vector<std::thread> waiters;
  std::atomic<int> released{0};
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      if (e.Wait(kp::kInfinite)) ++released;
    });
  }
  e.Set();
  for (auto& t : waiters) t.join();
  EXPECT_EQ(released.load(), 4);
  EXPECT_TRUE(e.Wait(0));
  EXPECT_TRUE(e.Wait(0));
  e.Reset();
  EXPECT_FALSE(e.Wait(0));
}

TEST(Event, AutoResetIsABooleanTakenByOneWait) {
  kp::Event initially(false, true);
  EXPECT_TRUE(initially.Wait(0));
  EXPECT_FALSE(initially.Wait(0));

  kp::Event e(false, false);
  e.Set();
  e.Set();  // not a counter: still one signal
  EXPECT_TRUE(e.Wait(0));
  EXPECT_FALSE(e.Wait(0));
  e.Set();
  e.Reset();
  EXPECT_FALSE(e.Wait(0));
}

TEST(Event, FiniteWaitTimesOutAfterItsTimeAndInfiniteWaitEndsOnSet) {
  kp::Event e(false, false);
  uint32_t start = kp::TickCount();
  EXPECT_FALSE(e.Wait(40));
  EXPECT_GE(kp::TickCount() - start, 40u);

  kp::Event started(true, false);
  std::atomic<bool> woke{false};
  std::thread waiter([&] {
    started.Set();
    woke = e.Wait(kp::kInfinite);
  });
  ASSERT_TRUE(started.Wait(kBoundMs));
  e.Set();
  waiter.join();
  EXPECT_TRUE(woke.load());
  EXPECT_FALSE(e.Wait(0));
}

TEST(WaitAny, LowestSignalledIndexWinsAndOnlyTheReportedObjectIsConsumed) {
  kp::Event a(false, false), b(false, false), manual(true, false);
  kp::Waitable* objs[] = {&a, &b, &manual};

  b.Set();
  manual.Set();
  EXPECT_EQ(kp::WaitAny(objs, 3, 0), 1);
  EXPECT_FALSE(b.Wait(0));        // consumed by the wait that reported it
  EXPECT_EQ(kp::WaitAny(objs, 3, 0), 2);
  EXPECT_EQ(kp::WaitAny(objs, 3, 0), 2);  // manual reset stays set

  a.Set();
  b.Set();
  EXPECT_EQ(kp::WaitAny(objs, 3, 0), 0);
  EXPECT_TRUE(b.Wait(0));  // index 0 won: b kept its signal
  EXPECT_FALSE(a.Wait(0));
}

TEST(WaitAny, ReportsTimeoutAndRefusesBadArguments) {
  kp::Event a(false, false), b(true, false);
  kp::Waitable* objs[] = {&a, &b};
  uint32_t start = kp::TickCount();
  EXPECT_EQ(kp::WaitAny(objs, 2, 30), kp::kWaitTimeout);
  EXPECT_GE(kp::TickCount() - start, 30u);
  EXPECT_EQ(kp::WaitAny(objs, 2, 0), kp::kWaitTimeout);

  EXPECT_EQ(kp::WaitAny(objs, 0, 0), kp::kWaitFailed);
  EXPECT_EQ(kp::WaitAny(nullptr, 1, 0), kp::kWaitFailed);
  kp::Waitable* with_null[] = {&a, nullptr};
  EXPECT_EQ(kp::WaitAny(with_null, 2, 0), kp::kWaitFailed);
  std::vector<kp::Waitable*> too_many(65, &b);
  b.Set();
  EXPECT_EQ(kp::WaitAny(too_many.data(), too_many.size(), 0), kp::kWaitFailed);
}

TEST(WaitAny, MixesNamedAndUnnamedEvents) {
  auto named = kp::NamedEvent::CreateOrOpen("KivTestWaitAnyMix");
  ASSERT_TRUE(named);
  kp::Event unnamed(false, false);
  kp::Waitable* objs[] = {&unnamed, named.get()};

  named->Set();
  EXPECT_EQ(kp::WaitAny(objs, 2, 0), 1);
  EXPECT_EQ(kp::WaitAny(objs, 2, 0), kp::kWaitTimeout);

  named->Set();
  unnamed.Set();
  EXPECT_EQ(kp::WaitAny(objs, 2, 0), 0);
  EXPECT_EQ(kp::WaitAny(objs, 2, 0), 1);  // the named one kept its signal

  std::thread setter([&] { named->Set(); });
  EXPECT_EQ(kp::WaitAny(objs, 2, kBoundMs), 1);
  setter.join();
  kp::RemoveMachineWideName("KivTestWaitAnyMix");
}

// Each Set of an auto-reset event lets exactly one of several waiting threads
// through; a manual-reset stop event ends all of them.
TEST(WaitAny, OneOfSeveralWaitingThreadsTakesEachSet) {
  kp::Event stop(true, false), work(false, false);
  Counter taken;
  std::vector<std::thread> workers;
  for (int i = 0; i < 4; ++i) {
    workers.emplace_back([&] {
      kp::Waitable* objs[] = {&stop, &work};
      for (;;) {
        int r = kp::WaitAny(objs, 2, kp::kInfinite);
        if (r != 1) return;
        taken.Add();
      }
    });
  }
  const int kSets = 50;
  for (int k = 1; k <= kSets; ++k) {
    work.Set();
    ASSERT_TRUE(taken.WaitFor(k)) << "set " << k << " was lost";
    EXPECT_EQ(taken.value(), k);
  }
  stop.Set();
  for (auto& t : workers) t.join();
  EXPECT_EQ(taken.value(), kSets);
  EXPECT_FALSE(work.Wait(0));
}

// A Set that lands between a waiter's check and its poll must not be lost:
// two threads hand a token back and forth many times.
TEST(WaitAny, PingPongNeverLosesASet) {
  kp::Event ping(false, false), pong(false, false), never(true, false);
  const int kRounds = 3000;
  std::atomic<int> failures{0};
  std::thread other([&] {
    kp::Waitable* objs[] = {&never, &ping};
    for (int i = 0; i < kRounds; ++i) {
      if (kp::WaitAny(objs, 2, kBoundMs) != 1) {
        ++failures;
        return;
      }
      pong.Set();
    }
  });
  kp::Waitable* objs[] = {&never, &pong};
  int done = 0;
  for (; done < kRounds; ++done) {
    ping.Set();
    if (kp::WaitAny(objs, 2, kBoundMs) != 1) break;
  }
  other.join();
  EXPECT_EQ(done, kRounds);
  EXPECT_EQ(failures.load(), 0);
}

namespace {

struct ThreadProbe {
  kp::Event finish{true, false};
  kp::Event ran{true, false};
  uint32_t tid = 0;
  uint32_t tid_again = 0;
};

void ProbeProc(void* arg) {
  auto* p = static_cast<ThreadProbe*>(arg);
  p->tid = kp::ThreadId();
  p->finish.Wait(kBoundMs);
  p->tid_again = kp::ThreadId();
  p->ran.Set();
}

}  // namespace

TEST(Thread, JoinWaitsForTheProcAndThreadIdsAreDistinctAndStable) {
  ThreadProbe probe;
  auto t = kp::Thread::Start(ProbeProc, &probe);
  ASSERT_TRUE(t);
  t->SetTimeCritical();  // permitted or not, the thread keeps running
  probe.finish.Set();
  t->Join();
  EXPECT_TRUE(probe.ran.Wait(0));
  EXPECT_NE(probe.tid, 0u);
  EXPECT_EQ(probe.tid, probe.tid_again);
  EXPECT_NE(probe.tid, kp::ThreadId());
  EXPECT_EQ(kp::ThreadId(), kp::ThreadId());
}

TEST(Thread, DetachedThreadRunsToItsEnd) {
  ThreadProbe probe;
  {
    auto t = kp::Thread::Start(ProbeProc, &probe);
    ASSERT_TRUE(t);
    t->Detach();
  }
  probe.finish.Set();
  EXPECT_TRUE(probe.ran.Wait(kBoundMs));
  EXPECT_FALSE(kp::Thread::Start(nullptr, nullptr));
}
