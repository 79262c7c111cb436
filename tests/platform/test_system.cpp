// Environment, paths and process start. (Modules are loaded by every
// camera test: producers by bare name, two copies of one side by side.)
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include "child_process.h"
#include "platform/platform.h"

namespace kp = kivcam::platform;

TEST(Environment, GetEnvTellsEmptyFromMissingAndDataFolderFollowsCommonAppData) {
  bool found = true;
  unsetenv("KIVTEST_SOME_VARIABLE");
  EXPECT_EQ(kp::GetEnv("KIVTEST_SOME_VARIABLE", &found), "");
  EXPECT_FALSE(found);
  setenv("KIVTEST_SOME_VARIABLE", "", 1);
  EXPECT_EQ(kp::GetEnv("KIVTEST_SOME_VARIABLE", &found), "");
  EXPECT_TRUE(found);
  unsetenv("KIVCAM_COMMON_APPDATA");
  EXPECT_EQ(kp::DataFolder(), "/var/lib/Valdrix/KivCam");
  setenv("KIVCAM_COMMON_APPDATA", "/srv/data/", 1);
  EXPECT_EQ(kp::DataFolder(), "/srv/data/Valdrix/KivCam");
  unsetenv("KIVCAM_COMMON_APPDATA");
  unsetenv("KIVTEST_SOME_VARIABLE");
}

TEST(Paths, AppendJoinsWithExactlyOneSeparator) {
  const char* cases[][3] = {{"/a//", "/b", "/a/b"}, {"/", "b", "/b"}, {"", "b", "b"},
                            {"a/", "", "a"},        {"rel/dir", "x/y.cti", "rel/dir/x/y.cti"}};
  for (const auto& c : cases) EXPECT_EQ(kp::PathAppend(c[0], c[1]), c[2]) << c[0] << " + " << c[1];
}

// The started program reports its argv[0] and argument count through a FIFO
// named in the environment it inherits.
TEST(StartProcess, StartsTheProgramWithoutArgumentsAndLeavesNoChild) {
  char tmpl[] = "/tmp/kivtest_XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl, fifo = dir + "/out", script = dir + "/monitor.sh";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::ofstream(script) << "#!/bin/sh\nprintf '%s %s\\n' \"$0\" \"$#\" > \"$KIVTEST_START_OUT\"\n";
  ASSERT_EQ(chmod(script.c_str(), 0755), 0);
  int fd = open(fifo.c_str(), O_RDWR | O_CLOEXEC);  // read-write: opening never blocks
  ASSERT_GE(fd, 0);
  setenv("KIVTEST_START_OUT", fifo.c_str(), 1);

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

  EXPECT_FALSE(kp::StartProcess(dir + "/missing"));
  std::ofstream(dir + "/plain") << "data";
  EXPECT_FALSE(kp::StartProcess(dir + "/plain"));  // not executable
  EXPECT_FALSE(kp::StartProcess(""));
  unsetenv("KIVTEST_START_OUT");
  std::filesystem::remove_all(dir);
}
