// Environment, paths and process start. (Modules are loaded by every
// camera test: producers by bare name, two copies of one side by side.)
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include "child_process.h"
#include "platform/platform.h"

namespace kp = kivcam::platform;

namespace {

// Sets an environment variable for one test and restores it.
class EnvGuard {
 public:
  explicit EnvGuard(const char* name) : name_(name), had_(std::getenv(name) != nullptr) {
    if (had_) old_ = std::getenv(name);
  }
  ~EnvGuard() { had_ ? setenv(name_, old_.c_str(), 1) : unsetenv(name_); }
  void Set(const char* value) { value ? setenv(name_, value, 1) : unsetenv(name_); }

 private:
  const char* name_;
  bool had_;
  std::string old_;
};

// A private temporary folder, removed with its files.
struct TempDir {
  std::string path;
  TempDir() {
    char tmpl[] = "/tmp/kivtest_XXXXXX";
    if (mkdtemp(tmpl)) path = tmpl;
  }
  ~TempDir() {
    if (!path.empty()) (void)!std::system(("rm -rf '" + path + "'").c_str());
  }
};

}  // namespace

TEST(Environment, GetEnvTellsEmptyFromMissingAndDataFolderFollowsCommonAppData) {
  EnvGuard var("KIVTEST_SOME_VARIABLE"), appdata("KIVCAM_COMMON_APPDATA");
  bool found = true;
  var.Set(nullptr);
  EXPECT_EQ(kp::GetEnv("KIVTEST_SOME_VARIABLE", &found), "");
  EXPECT_FALSE(found);
  var.Set("");
  EXPECT_EQ(kp::GetEnv("KIVTEST_SOME_VARIABLE", &found), "");
  EXPECT_TRUE(found);
  appdata.Set(nullptr);
  EXPECT_EQ(kp::DataFolder(), "/var/lib/Valdrix/KivCam");
  appdata.Set("/srv/data/");
  EXPECT_EQ(kp::DataFolder(), "/srv/data/Valdrix/KivCam");
}

TEST(Paths, AppendJoinsWithExactlyOneSeparator) {
  const char* cases[][3] = {{"/a//", "/b", "/a/b"}, {"/", "b", "/b"}, {"", "b", "b"},
                            {"a/", "", "a"},        {"rel/dir", "x/y.cti", "rel/dir/x/y.cti"}};
  for (const auto& c : cases) EXPECT_EQ(kp::PathAppend(c[0], c[1]), c[2]) << c[0] << " + " << c[1];
}

// The started program reports its argv[0] and argument count through a FIFO
// named in the environment it inherits.
TEST(StartProcess, StartsTheProgramWithoutArgumentsAndLeavesNoChild) {
  TempDir dir;
  ASSERT_FALSE(dir.path.empty());
  const std::string fifo = dir.path + "/out", script = dir.path + "/monitor.sh";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::ofstream(script) << "#!/bin/sh\nprintf '%s %s\\n' \"$0\" \"$#\" > \"$KIVTEST_START_OUT\"\n";
  ASSERT_EQ(chmod(script.c_str(), 0755), 0);
  int fd = open(fifo.c_str(), O_RDWR | O_CLOEXEC);  // read-write: opening never blocks
  ASSERT_GE(fd, 0);
  EnvGuard out("KIVTEST_START_OUT");
  out.Set(fifo.c_str());

  ASSERT_TRUE(kp::StartProcess(script));
  std::string line;
  char c;
  pollfd p{fd, POLLIN, 0};
  while (poll(&p, 1, kivtest::kBoundMs) > 0 && read(fd, &c, 1) == 1 && c != '\n') line += c;
  close(fd);
  EXPECT_EQ(line, script + " 0");
  // Neither the program nor anything used to start it is left as our child.
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);

  EXPECT_FALSE(kp::StartProcess(dir.path + "/missing"));
  std::ofstream(dir.path + "/plain") << "data";
  EXPECT_FALSE(kp::StartProcess(dir.path + "/plain"));  // not executable
  EXPECT_FALSE(kp::StartProcess(""));
}
