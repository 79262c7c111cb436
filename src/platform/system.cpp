// Environment, files and starting processes.
#include "platform/platform.h"

#include <cerrno>
#include <cstdlib>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace kivcam::platform {

std::string GetEnv(const char* name, bool* found) {
  const char* value = name ? std::getenv(name) : nullptr;
  if (found) *found = value != nullptr;
  return value ? value : "";
}

std::string MonitorPath() { return GetEnv("KIVCAM_MONITORPATH"); }

bool StartProcess(const std::string& path) {
  if (path.empty()) return false;
  // Double fork: the program becomes a child of init, so this process never
  // has to reap it and leaves no zombie. Only the short-lived middle process
  // is waited for, by its own pid, which disturbs no other child of the host.
  // Everything the middle process needs is ready before the fork: in a
  // threaded host it may do little more than start the program and exit.
  char* argv[] = {const_cast<char*>(path.c_str()), nullptr};
  pid_t middle = fork();
  if (middle < 0) return false;
  if (middle == 0) {
    pid_t pid;
    int r = posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environ);
    _exit(r == 0 ? 0 : 127);
  }
  int status = 0;
  pid_t r;
  do {
    r = waitpid(middle, &status, 0);
  } while (r < 0 && errno == EINTR);
  // A host that ignores SIGCHLD has its children reaped for it (ECHILD); the
  // outcome is then unknown and the start is taken as done.
  if (r < 0) return errno == ECHILD;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string PathAppend(const std::string& dir, const std::string& component) {
  size_t end = dir.size();
  while (end > 1 && dir[end - 1] == '/') --end;
  size_t begin = 0;
  while (begin < component.size() && component[begin] == '/') ++begin;
  std::string joined = dir.substr(0, end);
  if (component.size() == begin) return joined;
  if (joined.empty()) return component.substr(begin);
  if (joined.back() != '/') joined += '/';
  return joined + component.substr(begin);
}

std::string DataFolder() {
  bool found = false;
  std::string base = GetEnv("KIVCAM_COMMON_APPDATA", &found);
  if (!found || base.empty()) base = "/var/lib";
  return PathAppend(PathAppend(base, "Valdrix"), "KivCam");
}

}  // namespace kivcam::platform
