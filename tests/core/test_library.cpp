// The library as a host sees it: loaded with dlopen, driven through its
// exports, observed through the shared call log and the process-ID table.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <regex>
#include <thread>
#include <vector>

#include "child_process.h"
#include "core/process_table.h"
#include "kivcam_loader.h"
#include "diag/log_reader.h"
#include "platform/platform.h"

namespace {

using kivtest::KivCamLibrary;
namespace platform = kivcam::platform;

const std::regex kTime(R"(^\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2}'\d{3}  )");

std::string Body(const std::string& line) {
  std::smatch m;
  if (!std::regex_search(line, m, kTime)) return "BAD TIME: " + line;
  return line.substr(m.length(0));
}

std::string Ids() {
  return "ThreadID=" + std::to_string(platform::ThreadId()) +
         ", ProcessID=" + std::to_string(platform::ProcessId()) + "\n";
}

std::vector<std::string> Bodies(const std::vector<std::string>& lines) {
  std::vector<std::string> out;
  for (const auto& l : lines) out.push_back(Body(l));
  return out;
}

bool Contains(const std::vector<std::string>& lines, const std::string& text) {
  for (const auto& l : lines) {
    if (l.find(text) != std::string::npos) return true;
  }
  return false;
}

class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(log_.Open());
    log_.Take();  // whatever earlier tests of this process left
  }
  void TearDown() override { log_.SetLevel(0); }
  kivcam::diag::LogReader log_;
};

TEST_F(LibraryTest, StructureVersionOnlyRisesAndRevisionClearsTheError) {
  KivCamLibrary lib;
  ASSERT_TRUE(lib.loaded());
  EXPECT_EQ(lib.KIVCAM_SetStructVersion(0), KIVCAM_TRUE);
  EXPECT_EQ(lib.KIVCAM_GetLastError(), 0u);
  EXPECT_EQ(lib.KIVCAM_SetStructVersion(10107), KIVCAM_FALSE);
  EXPECT_EQ(lib.KIVCAM_GetLastError(), 16u);
  EXPECT_EQ(lib.KIVCAM_GetLastError(), 16u);  // reading does not clear it
  EXPECT_EQ(lib.KIVCAM_SetStructVersion(10106), KIVCAM_TRUE);
  EXPECT_EQ(lib.KIVCAM_GetLastError(), 0u);
  EXPECT_EQ(lib.KIVCAM_SetStructVersion(10102), KIVCAM_FALSE);
  EXPECT_EQ(lib.KIVCAM_GetLastError(), 16u);
  EXPECT_EQ(lib.KIVCAM_SetStructVersion(10106), KIVCAM_TRUE);  // the same one again
  EXPECT_EQ(lib.KIVCAM_SetStructVersion(10102), KIVCAM_FALSE);
  // The revision query clears the last error too.
  EXPECT_EQ(lib.KIVCAM_GetLibraryRevision(), 10106u);
  EXPECT_EQ(lib.KIVCAM_GetLastError(), 0u);
}

TEST_F(LibraryTest, LastErrorBelongsToTheCallingThread) {
  KivCamLibrary lib;
  EXPECT_EQ(lib.KIVCAM_SetStructVersion(10107), KIVCAM_FALSE);
  uint32_t fresh = 99, after = 99;
  std::thread([&] {
    fresh = lib.KIVCAM_GetLastError();
    lib.KIVCAM_SetStructVersion(0);
    after = lib.KIVCAM_GetLastError();
  }).join();
  EXPECT_EQ(fresh, 0u);
  EXPECT_EQ(after, 0u);
  EXPECT_EQ(lib.KIVCAM_GetLastError(), 16u);  // untouched by the other thread's calls
}

TEST_F(LibraryTest, FrameLinesAreWrittenExactly) {
  log_.SetLevel(1);
  KivCamLibrary lib;
  log_.Take();  // load lines
  lib.KIVCAM_SetCallBack(nullptr, nullptr);
  lib.KIVCAM_SetStructVersion(10107);
  lib.KIVCAM_GetLibraryRevision();  // writes nothing
  lib.KIVCAM_GetLastError();        // writes nothing
  const std::string ids = Ids();
  // Only this thread's lines: the callback thread starts on its own time.
  std::vector<std::string> lines;
  for (const auto& l : Bodies(log_.Take())) {
    if (l.find(ids) != std::string::npos) lines.push_back(l);
  }
  std::vector<std::string> expected = {
      "KIVCAM_SetCallBack           Start " + ids,
      "KIVCAM_SetCallBack           End   " + ids,
      "KIVCAM_SetStructVersion      Start " + ids,
      "KIVCAM_SetStructVersion      Error=16, " + ids,
      "KIVCAM_SetStructVersion      End   " + ids,
  };
  EXPECT_EQ(lines, expected);
}

TEST_F(LibraryTest, LoadAndUnloadLinesAndRealUnload) {
  log_.SetLevel(1);
  // The views of the machine-wide objects go with the library: a host that
  // loads it again and again keeps no mapping of it (the soak found three
  // more per round).
  auto shared_views = [] {
    std::ifstream maps("/proc/self/maps");
    size_t n = 0;
    for (std::string line; std::getline(maps, line);) n += line.find("/dev/shm/KIVCAM") != std::string::npos;
    return n;
  };
  const size_t views = shared_views();
  for (int round = 0; round < 2; ++round) {
    KivCamLibrary lib;
    ASSERT_TRUE(lib.loaded());
    ASSERT_TRUE(lib.Unload()) << "the library stayed in the process";
    EXPECT_EQ(shared_views(), views) << "round " << round;
  }
  auto lines = Bodies(log_.Take());
  const std::string pid = "ProcessID=" + std::to_string(platform::ProcessId()) + "\n";
  std::vector<std::string> loads;
  for (const auto& l : lines) {
    if (l.rfind("DLL ", 0) == 0) loads.push_back(l);
  }
  std::vector<std::string> expected = {"DLL ATTACH " + pid, "DLL DETACH " + pid,
                                       "DLL ATTACH " + pid, "DLL DETACH " + pid};
  EXPECT_EQ(loads, expected);
  // The callback thread starts and ends with each library object.
  EXPECT_TRUE(Contains(lines, "CKivCamDLL::UserCallBack_Thread    Start "));
  EXPECT_TRUE(Contains(lines, "CKivCamDLL::UserCallBack_Thread    End   "));
}

// Loading registers the process and unloading removes it, keeping the order
// of the others and announcing each change; an entry of a process that ended
// goes at the next registration; a table full of running processes leaves the
// process out.
TEST(ProcessTable, LoadRegistersUnloadRemovesAndAFullTableLeavesTheProcessOut) {
  auto mapping = platform::SharedMapping::CreateOrOpen(KIVCAM_PROCESS_TABLE_NAME, kivcam::core::kProcessTableSize);
  auto event = platform::NamedEvent::CreateOrOpen(KIVCAM_PROCESS_EVENT_NAME);
  ASSERT_TRUE(mapping && event);
  kivtest::Pipe hold;  // the "other processes" run until told to end
  auto wait = [&] { return hold.Receive() ? 0 : 1; };
  kivtest::ChildProcess a(wait), b(wait), c(wait);
  uint32_t dead;
  {
    kivtest::ChildProcess gone([] { return 0; });
    dead = static_cast<uint32_t>(gone.pid());
  }
  const uint32_t pa = a.pid(), pb = b.pid(), pc = c.pid();
  auto* table = static_cast<kivcam::core::ProcessTable*>(mapping->data());
  *table = {4, {pa, dead, pb, pc}};
  while (event->Wait(0)) {}
  {
    KivCamLibrary lib;
    ASSERT_EQ(table->Count, 4u);
    EXPECT_EQ(table->ProcessId[0], pa);
    EXPECT_EQ(table->ProcessId[1], pb);
    EXPECT_EQ(table->ProcessId[3], platform::ProcessId());
    EXPECT_TRUE(event->Wait(0));
    table->ProcessId[3] = pb;  // move our entry into the middle
    table->ProcessId[1] = platform::ProcessId();
  }
  EXPECT_EQ(table->Count, 3u);
  EXPECT_EQ(table->ProcessId[0], pa);
  EXPECT_EQ(table->ProcessId[1], pc);
  EXPECT_EQ(table->ProcessId[2], pb);
  EXPECT_TRUE(event->Wait(0));

  table->Count = 256;
  for (uint32_t i = 0; i < 256; ++i) table->ProcessId[i] = i % 2 ? pa : pb;
  {
    KivCamLibrary lib;
    EXPECT_EQ(table->Count, 256u);
    EXPECT_EQ(lib.KIVCAM_SetStructVersion(0), KIVCAM_TRUE);  // the library works all the same
  }
  EXPECT_EQ(table->Count, 256u);
  for (uint32_t i = 0; i < 256; ++i) ASSERT_EQ(table->ProcessId[i], i % 2 ? pa : pb);
  for (int i = 0; i < 3; ++i) hold.Send('x');
  EXPECT_EQ(a.Join() + b.Join() + c.Join(), 0);
}

}  // namespace

// LeakSanitizer's exit-time scan trips over the library's threads still
// running at exit; the child of the exit test switches it off.
extern "C" int __lsan_is_turned_off() { return std::getenv("KIVTEST_NO_LEAK_CHECK") != nullptr; }

namespace {

// At process exit the library leaves its objects to the system but still says
// goodbye. (That the exit waits for no running callback is the C host
// program's case.)
TEST_F(LibraryTest, ProcessExitStillWritesTheDetachLine) {
  log_.SetLevel(1);
  kivtest::ChildProcess child([] {
    static KivCamLibrary* lib = new KivCamLibrary;  // never unloaded: the process just ends
    setenv("KIVTEST_NO_LEAK_CHECK", "1", 1);
    std::exit(lib->loaded() ? 0 : 2);
    return 3;
  });
  const int pid = child.pid();
  ASSERT_EQ(child.Join(), 0);
  EXPECT_TRUE(Contains(log_.Take(), "DLL DETACH ProcessID=" + std::to_string(pid) + "\n"));
}

TEST_F(LibraryTest, FreeLibraryThenUnloadDestroysNothingTwice) {
  KivCamLibrary lib;
  lib.KIVCAM_FreeLibrary();
  lib.KIVCAM_FreeLibrary();  // a second call finds nothing to destroy
  EXPECT_EQ(lib.KIVCAM_SetStructVersion(0), KIVCAM_FALSE);  // no library object any more
  EXPECT_EQ(lib.KIVCAM_GetLibraryRevision(), 10106u);
  EXPECT_TRUE(lib.Unload());
}

TEST_F(LibraryTest, LogCommonAreaGetSilencesOnlyTheMonitorProcess) {
  log_.SetLevel(1);
  KivCamLibrary lib;
  log_.Take();
  void* date = nullptr;
  lib.KIVCAM_LogCommonAreaGet(platform::ProcessId(), &date);
  ASSERT_NE(date, nullptr);
  EXPECT_TRUE(std::regex_match(static_cast<const char*>(date),
                               std::regex(R"([A-Z][a-z]{2} [ 123]\d \d{4})")));
  // The library object is gone with its thread; nothing of this process is logged.
  EXPECT_EQ(lib.KIVCAM_SetStructVersion(0), KIVCAM_FALSE);
  lib.Unload();
  EXPECT_EQ(log_.Take().size(), 0u);

  // Another process is the monitor now: this process logs again.
  {
    KivCamLibrary other;
    void* ignored = nullptr;
    other.KIVCAM_LogCommonAreaGet(platform::ProcessId() + 1, &ignored);
  }
  EXPECT_TRUE(Contains(log_.Take(), "DLL DETACH"));
}

TEST_F(LibraryTest, MonitorProgramIsStartedAtLoad) {
  const std::string dir = testing::TempDir() + "kivmon" + std::to_string(platform::ProcessId());
  const std::string script = dir + "/monitor.sh", fifo = dir + "/started";
  mkdir(dir.c_str(), 0700);
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::ofstream(script) << "#!/bin/sh\necho started > '" << fifo << "'\n";
  chmod(script.c_str(), 0700);
  int fd = open(fifo.c_str(), O_RDWR | O_CLOEXEC);  // read-write: opening never blocks
  ASSERT_GE(fd, 0);
  setenv("KIVCAM_MONITORPATH", script.c_str(), 1);
  { KivCamLibrary lib; }
  unsetenv("KIVCAM_MONITORPATH");
  pollfd p{fd, POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 10000), 1) << "the monitor program never ran";
  close(fd);
  unlink(fifo.c_str());
  unlink(script.c_str());
  rmdir(dir.c_str());
}

}  // namespace
