// Real child processes and pipes for the multi-process tests.
#pragma once

#include <cerrno>
#include <functional>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kivtest {

// Upper bound on every wait for another process: reached only when something
// is broken, so a fault fails the test instead of hanging it.
constexpr int kBoundMs = 10000;

// A one-way byte channel between a parent and its children.
class Pipe {
 public:
  Pipe() {
    if (pipe(fd_) != 0) fd_[0] = fd_[1] = -1;
  }
  ~Pipe() {
    close(fd_[0]);
    close(fd_[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  void Send(char c) const { (void)!write(fd_[1], &c, 1); }
  // The next byte, or 0 when none came within the bound.
  char Receive() const {
    pollfd p{fd_[0], POLLIN, 0};
    char c = 0;
    if (poll(&p, 1, kBoundMs) <= 0 || read(fd_[0], &c, 1) != 1) return 0;
    return c;
  }

 private:
  int fd_[2];
};

// A forked child that runs `body` and exits with its result. The body must
// not use test assertions: it reports through its exit code.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<int()>& body) : pid_(fork()) {
    if (pid_ == 0) _exit(body());
  }
  ~ChildProcess() { Join(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  // The exit code; -1 when the child did not start or was killed.
  int Join() {
    if (pid_ <= 0) return exit_code_;
    int status = 0;
    pid_t r;
    do {
      r = waitpid(pid_, &status, 0);
    } while (r < 0 && errno == EINTR);
    pid_ = -1;
    exit_code_ = (r > 0 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
    return exit_code_;
  }

 private:
  pid_t pid_;
  int exit_code_ = -1;
};

}  // namespace kivtest
