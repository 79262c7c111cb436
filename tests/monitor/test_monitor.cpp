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

#include "kivcam_loader.h"

extern char** environ;

namespace {

struct Child {
  pid_t pid = -1;
  int out = -1;  // the child's stdout and stderr
  std::string text;

  bool Start(const std::vector<std::string>& args) {
    int p[2];
    if (pipe(p) != 0) return false;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, p[1], 1);
    posix_spawn_file_actions_adddup2(&fa, p[1], 2);
    posix_spawn_file_actions_addclose(&fa, p[0]);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(p[1]);
    out = p[0];
    return rc == 0;
  }
  // Reads until `needle` shows up (bounded), true when it did.
  bool ReadUntil(const std::string& needle, int timeout_ms = 10000) {
    while (text.find(needle) == std::string::npos) {
      pollfd pfd{out, POLLIN, 0};
      if (poll(&pfd, 1, timeout_ms) <= 0) return false;
      char buf[4096];
      ssize_t n = read(out, buf, sizeof buf);
      if (n <= 0) return text.find(needle) != std::string::npos;
      text.append(buf, static_cast<size_t>(n));
    }
    return true;
  }
  int Wait() {
    int status = 0;
    waitpid(pid, &status, 0);
    if (out >= 0) close(out);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

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
