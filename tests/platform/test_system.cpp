// Environment, paths, process start, modules and clocks.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child_process.h"
#include "platform/platform.h"

namespace kp = kivcam::platform;

namespace {

// Sets or removes an environment variable for one test and restores it.
class EnvGuard {
 public:
  explicit EnvGuard(const char* name) : name_(name) {
    const char* v = std::getenv(name);
    had_ = v != nullptr;
    if (had_) old_ = v;
  }
  ~EnvGuard() {
    if (had_) setenv(name_, old_.c_str(), 1);
    else unsetenv(name_);
  }
  void Set(const char* value) { setenv(name_, value, 1); }
  void Unset() { unsetenv(name_); }

 private:
  const char* name_;
  bool had_ = false;
  std::string old_;
};

// A private temporary folder, removed with its files.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/kivtest_XXXXXX";
    path_ = mkdtemp(tmpl) ? tmpl : "";
  }
  ~TempDir() {
    if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Reads one line from a descriptor, giving up after the bound.
std::string ReadLine(int fd) {
  std::string line;
  char c;
  pollfd p{fd, POLLIN, 0};
  while (poll(&p, 1, kivtest::kBoundMs) > 0 && read(fd, &c, 1) == 1 && c != '\n') line += c;
  return line;
}

}  // namespace

TEST(Environment, GetEnvTellsUnsetFromEmpty) {
  EnvGuard g("KIVTEST_SOME_VARIABLE");
  bool found = true;
  g.Unset();
  EXPECT_EQ(kp::GetEnv("KIVTEST_SOME_VARIABLE", &found), "");
  EXPECT_FALSE(found);
  g.Set("");
  EXPECT_EQ(kp::GetEnv("KIVTEST_SOME_VARIABLE", &found), "");
  EXPECT_TRUE(found);
  g.Set("value 1");
  EXPECT_EQ(kp::GetEnv("KIVTEST_SOME_VARIABLE"), "value 1");

  EnvGuard monitor("KIVCAM_MONITORPATH");
  monitor.Unset();
  EXPECT_EQ(kp::MonitorPath(), "");
  monitor.Set("/opt/kivcam/bin/kivcam-monitor");
  EXPECT_EQ(kp::MonitorPath(), "/opt/kivcam/bin/kivcam-monitor");
}

TEST(Environment, DataFolderFollowsTheCommonAppDataVariable) {
  EnvGuard g("KIVCAM_COMMON_APPDATA");
  g.Unset();
  EXPECT_EQ(kp::DataFolder(), "/var/lib/Valdrix/KivCam");
  g.Set("/srv/data/");
  EXPECT_EQ(kp::DataFolder(), "/srv/data/Valdrix/KivCam");
  EXPECT_EQ(kp::PathAppend(kp::DataFolder(), "cam_KIVADD.xml"), "/srv/data/Valdrix/KivCam/cam_KIVADD.xml");
}

TEST(Paths, AppendJoinsWithExactlyOneSeparator) {
  EXPECT_EQ(kp::PathAppend("/a", "b"), "/a/b");
  EXPECT_EQ(kp::PathAppend("/a/", "b"), "/a/b");
  EXPECT_EQ(kp::PathAppend("/a//", "/b"), "/a/b");
  EXPECT_EQ(kp::PathAppend("/", "b"), "/b");
  EXPECT_EQ(kp::PathAppend("", "b"), "b");
  EXPECT_EQ(kp::PathAppend("a", ""), "a");
  EXPECT_EQ(kp::PathAppend("rel/dir", "x/y.cti"), "rel/dir/x/y.cti");
}

TEST(Paths, FileExists) {
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const std::string file = kp::PathAppend(dir.path(), "f.txt");
  EXPECT_FALSE(kp::FileExists(file));
  std::ofstream(file) << "x";
  EXPECT_TRUE(kp::FileExists(file));
  EXPECT_TRUE(kp::FileExists(dir.path()));
  EXPECT_FALSE(kp::FileExists(""));
}

// The started program reports its argv[0] and argument count through a FIFO
// named in the environment it inherits.
TEST(StartProcess, StartsTheProgramWithoutArgumentsAndLeavesNoChild) {
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const std::string fifo = kp::PathAppend(dir.path(), "out");
  const std::string script = kp::PathAppend(dir.path(), "monitor.sh");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::ofstream(script) << "#!/bin/sh\nprintf '%s %s\\n' \"$0\" \"$#\" > \"$KIVTEST_START_OUT\"\n";
  ASSERT_EQ(chmod(script.c_str(), 0755), 0);
  int fd = open(fifo.c_str(), O_RDWR | O_CLOEXEC);  // read-write: never blocks, never EOF
  ASSERT_GE(fd, 0);
  EnvGuard out("KIVTEST_START_OUT");
  out.Set(fifo.c_str());

  ASSERT_TRUE(kp::StartProcess(script));
  EXPECT_EQ(ReadLine(fd), script + " 0");
  close(fd);
  // The program is not our child, and neither is anything used to start it.
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);

  EXPECT_FALSE(kp::StartProcess(kp::PathAppend(dir.path(), "missing")));
  const std::string plain = kp::PathAppend(dir.path(), "not_executable");
  std::ofstream(plain) << "data";
  EXPECT_FALSE(kp::StartProcess(plain));
  EXPECT_FALSE(kp::StartProcess(""));
}

TEST(Module, LoadsByBareNameKeepsSymbolsLocalAndReallyUnloads) {
  std::string error;
  auto m = kp::Module::Load(KIVTEST_MODULE_NAME, &error);
  ASSERT_TRUE(m) << error;
  EXPECT_EQ(m->path(), KIVTEST_MODULE_NAME);
  auto set = reinterpret_cast<void (*)(int)>(m->Symbol("kivtest_set"));
  auto get = reinterpret_cast<int (*)()>(m->Symbol("kivtest_get"));
  ASSERT_TRUE(set && get);
  EXPECT_EQ(m->Symbol("kivtest_absent"), nullptr);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "kivtest_set"), nullptr);  // loaded locally
  set(42);
  EXPECT_EQ(get(), 42);
  m.reset();

  auto again = kp::Module::Load(KIVTEST_MODULE_NAME);
  ASSERT_TRUE(again);
  get = reinterpret_cast<int (*)()>(again->Symbol("kivtest_get"));
  ASSERT_TRUE(get);
  EXPECT_EQ(get(), 0);  // a fresh copy: the first one was unloaded
}

TEST(Module, FailureGivesTheLoaderReason) {
  std::string error;
  EXPECT_FALSE(kp::Module::Load("kivtest_no_such_module.so", &error));
  EXPECT_NE(error.find("kivtest_no_such_module.so"), std::string::npos) << error;
  error.clear();
  EXPECT_FALSE(kp::Module::Load("", &error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(kp::Module::Load("/nonexistent/dir/x.cti"));
}

TEST(Clock, TickCountAdvancesWithSleepAndLocalTimeIsInRange) {
  uint32_t start = kp::TickCount();
  kp::SleepMs(25);
  uint32_t elapsed = kp::TickCount() - start;
  EXPECT_GE(elapsed, 25u);

  time_t now = time(nullptr);
  tm expected;
  localtime_r(&now, &expected);
  kp::LocalTime t = kp::GetLocalTime();
  EXPECT_EQ(t.year, expected.tm_year + 1900);
  EXPECT_GE(t.month, 1);
  EXPECT_LE(t.month, 12);
  EXPECT_GE(t.day, 1);
  EXPECT_LE(t.day, 31);
  EXPECT_LT(t.hour, 24);
  EXPECT_LT(t.minute, 60);
  EXPECT_LT(t.second, 61);
  EXPECT_GE(t.millisecond, 0);
  EXPECT_LT(t.millisecond, 1000);
}
