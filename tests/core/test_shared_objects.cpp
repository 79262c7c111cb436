// The machine-wide objects as many processes leave them: per-process names go
// with their process (at unload, or reclaimed after a kill), and garbage
// written into any shared object costs no crash, no hang and no lasting harm.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "core/process_table.h"
#include "diag/call_log.h"
#include "diag/process_objects.h"
#include "kivcam_loader.h"
#include "diag/log_reader.h"
#include "platform/platform.h"

namespace {

using kivtest::KivCamLibrary;
namespace platform = kivcam::platform;
namespace diag = kivcam::diag;

std::set<std::string> Names() {
  auto v = platform::ListMachineWideNames();
  return {v.begin(), v.end()};
}

std::string UsbEventName(uint32_t pid) { return KIVCAM_PROCESS_USB_EVENT_PREFIX + std::to_string(pid); }

bool Exists(const std::string& name) { return Names().count(name) != 0; }

// A library session in a child process: load, find the cameras (which makes
// the per-process USB event) and unload; or load and end the process with
// the library loaded, its producers not loaded (their threads would race
// the producers' own end of process).
int Session(bool unload) {
  auto* lib = new KivCamLibrary;
  if (!lib->loaded() || !lib->KIVCAM_SetStructVersion(unload ? KIVCAM_LIBRARY_REVISION : 0)) return 1;
  if (!unload) {
    setenv("KIVTEST_NO_LEAK_CHECK", "1", 1);
    std::exit(0);  // the process ends with the library loaded
  }
  delete lib;
  return 0;
}

std::vector<uint32_t> TablePids() {
  auto mapping = platform::SharedMapping::CreateOrOpen(KIVCAM_PROCESS_TABLE_NAME, kivcam::core::kProcessTableSize);
  std::vector<uint32_t> pids;
  if (!mapping) return pids;
  auto* t = static_cast<kivcam::core::ProcessTable*>(mapping->data());
  for (uint32_t i = 0; i < std::min(t->Count, kivcam::core::kProcessTableCapacity); ++i) pids.push_back(t->ProcessId[i]);
  return pids;
}

TEST(ProcessObjects, TwoHundredProcessesInARowLeaveTheNamesAsTheyFoundThem) {
  kivtest::ChildProcess first([] { return Session(true); });
  ASSERT_EQ(first.Join(), 0);
  const std::set<std::string> before = Names();  // the machine-wide objects are made by now
  ASSERT_TRUE(before.count(KIVCAM_LOG_MUTEX_NAME));
  for (int i = 0; i < 200; ++i) {
    kivtest::ChildProcess child([i] { return Session(i % 2 == 0); });
    ASSERT_EQ(child.Join(), 0) << "process " << i;
  }
  EXPECT_EQ(Names(), before);
  EXPECT_TRUE(TablePids().empty());
}

TEST(ProcessObjects, AKilledProcesssObjectsAndEntryAreReclaimedByTheNextToLoad) {
  kivtest::Pipe ready, never;
  kivtest::ChildProcess victim([&] {
    KivCamLibrary lib;
    if (!lib.KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION)) return 1;
    ready.Send('r');
    never.Receive();
    return 0;
  });
  ASSERT_EQ(ready.Receive(), 'r');
  const uint32_t pid = static_cast<uint32_t>(victim.pid());
  EXPECT_TRUE(Exists(diag::FilterMutexName(pid)));
  EXPECT_TRUE(Exists(UsbEventName(pid)));
  kill(victim.pid(), SIGKILL);
  EXPECT_EQ(victim.Join(), -1);
  auto pids = TablePids();
  EXPECT_NE(std::find(pids.begin(), pids.end(), pid), pids.end());
  EXPECT_TRUE(Exists(UsbEventName(pid)));  // nobody removed them yet

  kivtest::ChildProcess next([] { return Session(true); });
  ASSERT_EQ(next.Join(), 0);
  EXPECT_FALSE(Exists(diag::FilterMutexName(pid)));
  EXPECT_FALSE(Exists(UsbEventName(pid)));
  pids = TablePids();
  EXPECT_EQ(std::find(pids.begin(), pids.end(), pid), pids.end());
}

TEST(ProcessObjects, OnlyThePerProcessNamesOfThisNamespaceAreRecognised) {
  uint32_t pid = 0;
  EXPECT_TRUE(diag::ProcessOfObject("KIVCAMOutFilterMutex_Orvanta_4711_3", &pid));
  EXPECT_EQ(pid, 4711u);
  EXPECT_TRUE(diag::ProcessOfObject("KIVCAMOutFilterDataFile_Orvanta_12", &pid));
  EXPECT_EQ(pid, 12u);
  EXPECT_TRUE(diag::ProcessOfObject("KIVCAMProcessIdTBLIIDCEvent_Orvanta99", &pid));
  EXPECT_EQ(pid, 99u);
  for (const char* other : {"KIVCAMLogMutex_Orvanta", "KIVCAMOutFilterMutex_Orvanta_4711_3_t1_x",
                            "KIVCAMOutFilterMutex_Orvanta_4711", "KIVCAMProcessIdTBLUSBEvent_Orvanta",
                            "KIVCAMProcessIdTBLUSBEvent_Orvanta12x", "KIVCAMOutFilterFile_Orvanta_99999999999",
                            "KIVCAMOutFilterFile_Orvanta_0", "KIVCAMOutFilterFile_Orvanta_-5"}) {
    EXPECT_FALSE(diag::ProcessOfObject(other, &pid)) << other;
  }
}

// ---- garbage in the shared objects -------------------------------------------

// Every machine-wide object a process meets, with the size of its contents
// (0: an event, which takes bytes through its pipe).
struct Target {
  std::string name;
  size_t size;
};

std::vector<Target> Targets(uint32_t pid) {
  return {
      {KIVCAM_LOG_MAPPING_NAME, diag::kLogAreaSize},
      {KIVCAM_SHARED_DATA_NAME, diag::kSharedDataSize},
      {KIVCAM_PROCESS_TABLE_NAME, kivcam::core::kProcessTableSize},
      {KIVCAM_LOG_MUTEX_NAME, 16},
      {KIVCAM_PROCESS_MUTEX_NAME, 16},
      {diag::FilterMutexName(pid), 16},
      {KIVCAM_LOG_EVENT_NAME, 0},
      {KIVCAM_PROCESS_EVENT_NAME, 0},
      {UsbEventName(pid), 0},
  };
}

void Scribble(const Target& t, std::mt19937& rng) {
  std::vector<unsigned char> bytes(t.size ? t.size : 1 + rng() % 64);
  for (auto& b : bytes) b = static_cast<unsigned char>(rng());
  if (t.size) {
    auto m = platform::SharedMapping::CreateOrOpen(t.name, t.size);
    if (m) std::copy(bytes.begin(), bytes.end(), static_cast<unsigned char*>(m->data()));
    return;
  }
  int fd = open(("/dev/shm" + platform::MachineWideName(t.name)).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd >= 0) {
    (void)!write(fd, bytes.data(), bytes.size());
    close(fd);
  }
}

// One call may wait out a few bounded waits, never more.
constexpr auto kCallBound = std::chrono::milliseconds(3000);

// The child's exit codes say what went wrong.
enum : int { kOk = 0, kNoLoad = 10, kSlowCall = 11, kLogDead = 12, kNotRegistered = 13 };

int GarbageSession() {
  std::mt19937 rng(14);
  const uint32_t self = platform::ProcessId();
  kivcam::diag::LogReader reader;
  if (!reader.Open()) return kNoLoad;
  auto timed = [](auto&& call) {
    auto t0 = std::chrono::steady_clock::now();
    call();
    return std::chrono::steady_clock::now() - t0 <= kCallBound;
  };
  for (int round = 0; round < 3; ++round) {
    auto* lib = new KivCamLibrary;
    if (!lib->loaded()) return kNoLoad;
    auto get_list = lib->Get<KIVCAM_BOOL (*)(CameraList*)>("KIVCAM_GetList");
    for (const Target& t : Targets(self)) {
      Scribble(t, rng);
      CameraList query{};
      bool in_time = timed([&] { lib->KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION); }) &&
                     timed([&] { get_list(&query); }) &&
                     timed([&] { reader.Take(); });
      if (!in_time) return kSlowCall;
    }
    if (!timed([&] { delete lib; })) return kSlowCall;
  }
  // Whatever was left in the objects, logging and registration work again.
  for (const Target& t : Targets(self)) Scribble(t, rng);
  KivCamLibrary lib;
  auto pids = TablePids();
  if (std::find(pids.begin(), pids.end(), self) == pids.end()) return kNotRegistered;
  reader.Take();  // clears the pending count, whatever the garbage left in it
  reader.SetLevel(1);
  lib.KIVCAM_SetStructVersion(0);
  for (const std::string& line : reader.Take()) {
    if (line.find("KIVCAM_SetStructVersion      End") != std::string::npos) return kOk;
  }
  return kLogDead;
}

TEST(SharedGarbage, RandomBytesInEveryObjectCostNoCrashNoHangAndNoLastingHarm) {
  kivtest::ChildProcess child(GarbageSession);
  // Bounded, so that a hang fails the test instead of stopping the suite.
  const pid_t pid = child.pid();
  int status = 0;
  pid_t done = 0;
  for (auto t0 = std::chrono::steady_clock::now();
       (done = waitpid(pid, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() - t0 < std::chrono::seconds(120);) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (done == 0) {
    kill(pid, SIGKILL);
    child.Join();
    FAIL() << "the session hung";
  }
  ASSERT_TRUE(WIFEXITED(status)) << "the session crashed, signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  EXPECT_EQ(WEXITSTATUS(status), kOk);
}

}  // namespace

extern "C" int __lsan_is_turned_off() { return std::getenv("KIVTEST_NO_LEAK_CHECK") != nullptr; }
