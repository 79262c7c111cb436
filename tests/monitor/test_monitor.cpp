// kivcam-monitor as a user runs it: a real process that takes the lines of
// other processes, keeps a second instance out and ends on Ctrl-C.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "child_process.h"
#include "kivcam_loader.h"

namespace {

using Child = kivtest::Program;

std::string Monitor() { return kivtest::BuildDir() + "/bin/kivcam-monitor"; }

TEST(Monitor, ShowsOtherProcessesLinesKeepsASecondOneOutAndEndsOnCtrlC) {
  std::string file = testing::TempDir() + "kivmon_" + std::to_string(getpid()) + ".log";
  unlink(file.c_str());
  Child monitor;
  ASSERT_TRUE(monitor.Start({Monitor(), "--level", "1", "--file", file}));
  ASSERT_TRUE(monitor.ReadUntil("Ctrl-C ends\n"));

  Child second;
  ASSERT_TRUE(second.Start({Monitor()}));
  EXPECT_TRUE(second.ReadUntil("already running"));
  EXPECT_EQ(second.Wait(), 3);

  {
    kivtest::KivCamLibrary lib;  // this test process is not the monitor: it is logged
    lib.KIVCAM_SetStructVersion(10107);
  }
  EXPECT_TRUE(monitor.ReadUntil("DLL DETACH ProcessID=" + std::to_string(getpid())));
  kill(monitor.pid, SIGINT);
  EXPECT_EQ(monitor.Wait(), 0);

  EXPECT_NE(monitor.text.find("KIVCAM_SetStructVersion      Error=16"), std::string::npos);
  std::ifstream in(file);
  std::stringstream saved;
  saved << in.rdbuf();
  EXPECT_NE(saved.str().find("KIVCAM_SetStructVersion      Error=16"), std::string::npos);
  // Nothing of either monitor is ever in the log it shows.
  EXPECT_EQ(monitor.text.find("ProcessID=" + std::to_string(monitor.pid) + "\n"), std::string::npos);
  EXPECT_EQ(monitor.text.find("ProcessID=" + std::to_string(second.pid) + "\n"), std::string::npos);
  unlink(file.c_str());
}

TEST(Monitor, RefusesAWrongLevel) {
  Child c;
  ASSERT_TRUE(c.Start({Monitor(), "--level", "7"}));
  EXPECT_EQ(c.Wait(), 2);
}

}  // namespace
