// Real child processes and pipes for the multi-process tests.
#pragma once

#include <cerrno>
#include <functional>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

namespace kivtest {

// Bound on every wait for another party: reached only when something is
// broken, so a fault fails the test instead of hanging it.
constexpr int kBoundMs = 10000;

// One-way byte channel; Receive gives 0 when nothing came within the bound.
struct Pipe {
  int fd[2];
  Pipe() {
    if (pipe(fd) != 0) fd[0] = fd[1] = -1;
  }
  ~Pipe() {
    close(fd[0]);
    close(fd[1]);
  }
  void Send(char c) const { (void)!write(fd[1], &c, 1); }
  char Receive() const {
    pollfd p{fd[0], POLLIN, 0};
    char c = 0;
    return poll(&p, 1, kBoundMs) > 0 && read(fd[0], &c, 1) == 1 ? c : 0;
  }
};

// A forked child that exits with the body's result; the body reports through
// that code, never through test assertions.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<int()>& body) : pid_(fork()) {
    if (pid_ == 0) _exit(body());
  }
  ~ChildProcess() { Join(); }
  pid_t pid() const { return pid_; }
  // The exit code; -1 when the child did not start or was killed.
  int Join() {
    int status = 0;
    pid_t r = -1;
    while (pid_ > 0 && (r = waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
    }
    if (pid_ > 0) code_ = r > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    pid_ = -1;
    return code_;
  }

 private:
  pid_t pid_;
  int code_ = -1;
};

// A program started with arguments, its stdout and stderr read through one pipe.
struct Program {
  pid_t pid = -1;
  int out = -1;
  std::string text;  // everything read so far

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
  bool ReadUntil(const std::string& needle, int timeout_ms = kBoundMs) {
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
  // The exit code once it ended, after reading the rest of its output; -1
  // when it was killed, or still ran after the bound (it is killed then).
  int Wait() {
    for (;;) {
      pollfd pfd{out, POLLIN, 0};
      if (poll(&pfd, 1, kBoundMs) <= 0) {
        kill(pid, SIGKILL);
        break;
      }
      char buf[4096];
      ssize_t n = read(out, buf, sizeof buf);
      if (n <= 0) break;
      text.append(buf, static_cast<size_t>(n));
    }
    int status = 0;
    pid_t r = waitpid(pid, &status, 0);
    if (out >= 0) close(out);
    out = -1;
    return r == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

}  // namespace kivtest
