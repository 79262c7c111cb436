// Locks, unnamed events, the wait for any of several objects, and threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <thread>
#include <vector>

#include "child_process.h"
#include "platform/platform.h"

namespace kp = kivcam::platform;
using kivtest::kBoundMs;

namespace {

bool TryLockElsewhere(kp::RecursiveLock& lock) {
  bool got = false;
  std::thread([&] {
    if ((got = lock.TryLock())) lock.Unlock();
  }).join();
  return got;
}

}  // namespace

TEST(RecursiveLock, OwnerReentersAndOthersWaitForTheLastUnlock) {
  kp::RecursiveLock lock;
  lock.Lock();
  {
    kp::LockGuard nested(lock);
    EXPECT_FALSE(TryLockElsewhere(lock));
  }
  EXPECT_FALSE(TryLockElsewhere(lock));
  lock.Unlock();
  EXPECT_TRUE(TryLockElsewhere(lock));
}

TEST(Event, ManualResetReleasesEveryWaiterAutoResetOneWaitAndNeitherCounts) {
  kp::Event manual(true, false), automatic(false, false), initially(false, true);
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) waiters.emplace_back([&] { released += manual.Wait(kp::kInfinite); });
  manual.Set();
  for (auto& t : waiters) t.join();
  EXPECT_EQ(released.load(), 4);
  EXPECT_TRUE(manual.Wait(0));
  manual.Reset();
  EXPECT_FALSE(manual.Wait(0));

  EXPECT_TRUE(initially.Wait(0));
  EXPECT_FALSE(initially.Wait(0));
  automatic.Set();
  automatic.Set();  // not a counter
  EXPECT_TRUE(automatic.Wait(0));
  EXPECT_FALSE(automatic.Wait(0));
  automatic.Set();
  automatic.Reset();
  EXPECT_FALSE(automatic.Wait(0));
}

TEST(WaitAny, LowestSignalledIndexWinsAndOnlyTheReportedObjectIsConsumed) {
  kp::Event a(false, false), b(false, false), manual(true, false);
  kp::Waitable* objs[] = {&a, &b, &manual};
  b.Set();
  manual.Set();
  EXPECT_EQ(kp::WaitAny(objs, 3, 0), 1);
  EXPECT_EQ(kp::WaitAny(objs, 3, 0), 2);  // b was consumed
  EXPECT_EQ(kp::WaitAny(objs, 3, 0), 2);  // manual reset stays set
  a.Set();
  b.Set();
  EXPECT_EQ(kp::WaitAny(objs, 3, 0), 0);
  EXPECT_TRUE(b.Wait(0));  // not reported, so not consumed
  EXPECT_FALSE(a.Wait(0));
}

TEST(WaitAny, ReportsTimeoutAndRefusesBadArguments) {
  kp::Event a(false, false), b(true, false);
  kp::Waitable* objs[] = {&a, &b};
  uint32_t start = kp::TickCount();
  EXPECT_EQ(kp::WaitAny(objs, 2, 30), kp::kWaitTimeout);
  EXPECT_GE(kp::TickCount() - start, 30u);
  b.Set();
  kp::Waitable* with_null[] = {&b, nullptr};
  std::vector<kp::Waitable*> too_many(65, &b);
  EXPECT_EQ(kp::WaitAny(objs, 0, 0), kp::kWaitFailed);
  EXPECT_EQ(kp::WaitAny(nullptr, 1, 0), kp::kWaitFailed);
  EXPECT_EQ(kp::WaitAny(with_null, 2, 0), kp::kWaitFailed);
  EXPECT_EQ(kp::WaitAny(too_many.data(), too_many.size(), 0), kp::kWaitFailed);
}

// Each Set of an auto-reset event lets exactly one of several threads waiting
// without a bound through; the manual-reset stop event then ends all of them.
TEST(WaitAny, OneOfSeveralWaitingThreadsTakesEachSet) {
  kp::Event stop(true, false), work(false, false);
  std::mutex m;
  std::condition_variable cv;
  int taken = 0;
  std::vector<std::thread> workers;
  for (int i = 0; i < 4; ++i) {
    workers.emplace_back([&] {
      kp::Waitable* objs[] = {&stop, &work};
      while (kp::WaitAny(objs, 2, kp::kInfinite) == 1) {
        std::lock_guard<std::mutex> g(m);
        ++taken;
        cv.notify_all();
      }
    });
  }
  const int kSets = 50;
  for (int k = 1; k <= kSets; ++k) {
    work.Set();
    std::unique_lock<std::mutex> g(m);
    cv.wait_for(g, std::chrono::milliseconds(kBoundMs), [&] { return taken >= k; });
    ASSERT_EQ(taken, k) << "set " << k;
  }
  stop.Set();
  for (auto& t : workers) t.join();
  EXPECT_EQ(taken, kSets);
  EXPECT_FALSE(work.Wait(0));
}

// A Set that lands between a waiter's check and its poll must not be lost:
// two threads hand a token back and forth many times.
TEST(WaitAny, PingPongNeverLosesASet) {
  kp::Event ping(false, false), pong(false, false), never(true, false);
  const int kRounds = 3000;
  std::atomic<int> answered{0};
  std::thread other([&] {
    kp::Waitable* objs[] = {&never, &ping};
    while (answered < kRounds && kp::WaitAny(objs, 2, kBoundMs) == 1) {
      ++answered;
      pong.Set();
    }
  });
  kp::Waitable* objs[] = {&never, &pong};
  int done = 0;
  while (done < kRounds && (ping.Set(), kp::WaitAny(objs, 2, kBoundMs) == 1)) ++done;
  other.join();
  EXPECT_EQ(done, kRounds);
  EXPECT_EQ(answered.load(), kRounds);
}

namespace {

struct Probe {
  kp::Event go{true, false}, done{true, false};
  uint32_t tid = 0;
  int policy = -1, priority = -1;
};

// Looks at its own priority once told to, so the test can set it first.
void ProbeProc(void* arg) {
  auto* p = static_cast<Probe*>(arg);
  p->tid = kp::ThreadId();
  p->go.Wait(kBoundMs);
  sched_param param;
  pthread_getschedparam(pthread_self(), &p->policy, &param);
  p->priority = param.sched_priority;
  p->done.Set();
}

}  // namespace

TEST(Thread, RunsJoinsDetachesAndTakesTimeCriticalPriorityWhenAllowed) {
  Probe joined;
  auto t = kp::Thread::Start(ProbeProc, &joined);
  ASSERT_TRUE(t);
  t->SetTimeCritical();
  joined.go.Set();
  t->Join();
  EXPECT_TRUE(joined.done.Wait(0));
  EXPECT_NE(joined.tid, kp::ThreadId());
  // Highest real-time priority, or (without the right to it) unchanged.
  if (joined.policy == SCHED_FIFO) {
    EXPECT_EQ(joined.priority, sched_get_priority_max(SCHED_FIFO));
  } else {
    EXPECT_EQ(joined.policy, SCHED_OTHER);
  }

  static Probe& detached = *new Probe;  // outlives the detached thread
  detached.go.Set();
  t = kp::Thread::Start(ProbeProc, &detached);
  ASSERT_TRUE(t);
  t->Detach();
  t.reset();
  EXPECT_TRUE(detached.done.Wait(kBoundMs));
  EXPECT_FALSE(kp::Thread::Start(nullptr, nullptr));
}
