// Real child processes and pipes for the multi-process tests.
#pragma once

#include <cerrno>
#include <functional>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

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

}  // namespace kivtest
