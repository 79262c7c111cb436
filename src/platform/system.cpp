// Environment, files and starting processes.
#include "platform/platform.h"

#include <cerrno>
#include <climits>
#include <dirent.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
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

namespace {

// State letter and start time (clock ticks since boot) of a thread, from
// /proc/<tid>/stat. False when the file cannot be read.
bool ReadThreadStat(uint32_t tid, char* state, uint64_t* start) {
  char path[48];
  std::snprintf(path, sizeof path, "/proc/%u/stat", tid);
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[1024];
  ssize_t n;
  do {
    n = read(fd, buf, sizeof buf - 1);
  } while (n < 0 && errno == EINTR);
  close(fd);
  if (n <= 0) return false;
  buf[n] = '\0';
  // The command name may hold anything, blanks and parentheses included:
  // the fields start after its last closing parenthesis.
  const char* p = std::strrchr(buf, ')');
  if (!p || p[1] != ' ') return false;
  p += 2;
  *state = *p;
  // Field 22 is the start time; the state is field 3.
  for (int field = 3; field < 22; ++field) {
    p = std::strchr(p, ' ');
    if (!p) return false;
    ++p;
  }
  *start = std::strtoull(p, nullptr, 10);
  return true;
}

}  // namespace

uint64_t ThreadStartTime(uint32_t tid) {
  char state;
  uint64_t start = 0;
  return ReadThreadStat(tid, &state, &start) ? start : 0;
}

bool ThreadGone(uint32_t tid, uint64_t start) {
  if (tid == 0 || tid > static_cast<uint32_t>(INT_MAX)) return true;
  if (kill(static_cast<pid_t>(tid), 0) != 0 && errno == ESRCH) return true;
  char state;
  uint64_t now_start;
  // Unreadable (another user's thread under hidepid): it exists, so it lives.
  if (!ReadThreadStat(tid, &state, &now_start)) return false;
  if (state == 'Z' || state == 'X') return true;  // ended, not yet reaped
  return start != 0 && now_start != start;        // the id went to a newer thread
}

bool ProcessAlive(uint32_t pid) {
  if (!ThreadGone(pid, 0)) return true;
  if (pid == 0 || pid > static_cast<uint32_t>(INT_MAX)) return false;
  // A first thread that ended while others run leaves the process alive.
  char path[48];
  std::snprintf(path, sizeof path, "/proc/%u/task", pid);
  DIR* dir = opendir(path);
  if (!dir) return false;
  int threads = 0;
  while (dirent* e = readdir(dir)) {
    if (e->d_name[0] != '.') ++threads;
  }
  closedir(dir);
  return threads > 1;
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
