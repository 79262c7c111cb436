#include "soak_support.h"

#include <dirent.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "kivcam/kivcam.h"

// Under AddressSanitizer malloc's own statistics say nothing: its runtime
// counts the bytes allocated (GCC ships no header for it, the runtime has it).
#if defined(__SANITIZE_ADDRESS__)
#define SOAK_HEAP_FROM_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SOAK_HEAP_FROM_SANITIZER 1
#endif
#endif
#ifdef SOAK_HEAP_FROM_SANITIZER
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

namespace soak {

int EnvSeconds(const char* name, int fallback) {
  const char* v = std::getenv(name);
  return v && *v ? std::atoi(v) : fallback;
}

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

Watchdog::Watchdog(int limit_ms) : limit_ms_(limit_ms) {
  // gdb, started by this process, may attach to it under Yama's rules too.
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
  thread_ = std::thread([this] { Run(); });
}

Watchdog::~Watchdog() {
  stop_ = true;
  thread_.join();
}

CallSlot* Watchdog::Register() {
  std::lock_guard<std::mutex> g(mutex_);
  slots_.emplace_back();
  slots_.back().tid = static_cast<int>(syscall(SYS_gettid));
  return &slots_.back();
}

void Watchdog::Run() {
  while (!stop_) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const int64_t now = NowNs();
    std::lock_guard<std::mutex> g(mutex_);
    for (const CallSlot& s : slots_) {
      const int64_t since = s.since_ns.load();
      if (since == 0) continue;
      const int64_t ran = now - since;
      if (ran > longest_ns_.load()) longest_ns_ = ran;
      if (ran > int64_t{limit_ms_} * 1000000) Trip(s, ran / 1000000);
    }
  }
}

namespace {

std::string ReadFirstLine(const std::string& path) {
  std::ifstream f(path);
  std::string line;
  std::getline(f, line);
  return line;
}

void DumpFromProc() {
  std::fprintf(stderr, "watchdog: no gdb; what /proc tells of each thread:\n");
  DIR* dir = opendir("/proc/self/task");
  if (!dir) return;
  while (dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    const std::string t = std::string("/proc/self/task/") + e->d_name;
    std::fprintf(stderr, "--- thread %s (%s) wchan=%s syscall=%s\n", e->d_name, ReadFirstLine(t + "/comm").c_str(),
                 ReadFirstLine(t + "/wchan").c_str(), ReadFirstLine(t + "/syscall").c_str());
    std::ifstream stack(t + "/stack");
    for (std::string line; std::getline(stack, line);) std::fprintf(stderr, "    %s\n", line.c_str());
  }
  closedir(dir);
}

}  // namespace

void Watchdog::Trip(const CallSlot& slot, int64_t ms) {
  const char* name = slot.name.load();
  std::fprintf(stderr, "\nwatchdog: %s on thread %d has not returned for %lld ms (limit %d ms); stacks follow\n",
               name ? name : "?", slot.tid, static_cast<long long>(ms), limit_ms_);
  std::fflush(stderr);
  const std::string pid = std::to_string(getpid());
  const pid_t child = fork();
  if (child == 0) {
    dup2(2, 1);
    execlp("gdb", "gdb", "-p", pid.c_str(), "-batch", "-nx", "-ex", "set pagination off", "-ex",
           "thread apply all bt", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  if (child > 0) waitpid(child, &status, 0);
  if (child < 0 || !WIFEXITED(status) || WEXITSTATUS(status) == 127) DumpFromProc();
  std::fprintf(stderr, "watchdog: FAILED: %s took longer than %d ms\n", name ? name : "?", limit_ms_);
  std::fflush(stderr);
  std::_Exit(86);
}

InCall::InCall(CallSlot* slot, const char* name) : slot_(slot) {
  slot_->name = name;
  slot_->since_ns = NowNs();
}

InCall::~InCall() { slot_->since_ns = 0; }

namespace {

uint32_t CountEntries(const char* dir_path, const std::string& containing = "") {
  DIR* dir = opendir(dir_path);
  if (!dir) return 0;
  uint32_t n = 0;
  while (dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    if (containing.empty() || std::string(e->d_name).find(containing) != std::string::npos) ++n;
  }
  closedir(dir);
  return n;
}

}  // namespace

Counts Sample(const std::string& ipc_namespace) {
  Counts c;
#ifdef SOAK_HEAP_FROM_SANITIZER
  c.heap = __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 m = mallinfo2();
  c.heap = m.uordblks + m.hblkhd;
#endif
  std::ifstream statm("/proc/self/statm");
  uint64_t size = 0, resident = 0;
  statm >> size >> resident;
  c.rss = resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  c.fds = CountEntries("/proc/self/fd") - 1;  // the directory listing itself holds one
  c.threads = CountEntries("/proc/self/task");
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    ++c.maps;
    c.map_lines.push_back(line);
    // Range, rights, offset, device and inode come first; a name follows them.
    std::istringstream fields(line);
    std::string field, name;
    for (int i = 0; i < 5 && fields >> field; ++i) {
    }
    if (fields >> name) ++c.named_maps;
    if (line.find("libkivcam.so") != std::string::npos || line.find(".cti") != std::string::npos) ++c.library_maps;
  }
  c.shm = ipc_namespace.empty() ? 0 : CountEntries("/dev/shm", ipc_namespace);
  return c;
}

std::string NewMappings(const Counts& before, const Counts& now) {
  std::set<std::string> had(before.map_lines.begin(), before.map_lines.end());
  std::string out;
  for (const std::string& line : now.map_lines)
    if (!had.count(line)) out += line + "\n";
  return out;
}

std::string Describe(const Counts& c) {
  std::ostringstream o;
  o << "heap " << c.heap / 1024 << " KiB, rss " << c.rss / 1024 << " KiB, fds " << c.fds << ", threads " << c.threads
    << ", maps " << c.maps << " (library " << c.library_maps << "), shm " << c.shm;
  return o.str();
}

const std::set<uint32_t>& Documented(const std::string& export_name) {
  enum : uint32_t {
    PARAM = KIVCAM_ERR_PARAM, BUFFER_SIZE = KIVCAM_ERR_BUFFER_SIZE, NOT_SUPPORTED = KIVCAM_ERR_NOT_SUPPORTED,
    ALREADY_OPEN = KIVCAM_ERR_ALREADY_OPEN, NO_CAMERA = KIVCAM_ERR_NO_CAMERA, MODE = KIVCAM_ERR_MODE,
    ACCESS = KIVCAM_ERR_ACCESS, ALLOCATED = KIVCAM_ERR_ALLOCATED, NOT_ALLOCATED = KIVCAM_ERR_NOT_ALLOCATED,
    RUNNING = KIVCAM_ERR_RUNNING, NOT_RUNNING = KIVCAM_ERR_NOT_RUNNING, BUFFER_BUSY = KIVCAM_ERR_BUFFER_BUSY,
    TIMEOUT = KIVCAM_ERR_TIMEOUT, NO_IMAGE = KIVCAM_ERR_NO_IMAGE, BUFFER = KIVCAM_ERR_BUFFER,
    VERSION = KIVCAM_ERR_VERSION, NOT_GIGE = KIVCAM_ERR_NOT_GIGE, NO_ADDRESS = KIVCAM_ERR_NO_ADDRESS,
    NOT_USB = KIVCAM_ERR_NOT_USB,
    FORMAT = KIVCAM_ERR_FORMAT, OTHER = KIVCAM_ERR_OTHER
  };
  // As kivcam.h lists them for each export ("Errors: ..."); a failed
  // KIVCAM_ImageAlloc may also leave 0.
  static const std::map<std::string, std::set<uint32_t>> table = {
      {"KIVCAM_SetStructVersion", {VERSION}},
      {"KIVCAM_GetList", {PARAM, BUFFER_SIZE}},
      {"KIVCAM_Open", {PARAM, NOT_SUPPORTED, ALREADY_OPEN, NO_CAMERA}},
      {"KIVCAM_OpenGigE", {PARAM, NOT_SUPPORTED, ALREADY_OPEN, NO_CAMERA}},
      {"KIVCAM_OpenUSB", {PARAM, NOT_SUPPORTED, ALREADY_OPEN, NO_CAMERA}},
      {"KIVCAM_Close", {PARAM, MODE}},
      {"KIVCAM_Camera", {PARAM}},
      {"KIVCAM_ReadPort", {PARAM, ACCESS}},
      {"KIVCAM_WritePort", {PARAM, ACCESS}},
      {"KIVCAM_OpenReg", {PARAM, NO_CAMERA}},
      {"KIVCAM_CloseReg", {PARAM}},
      {"KIVCAM_ReadReg", {PARAM, ACCESS}},
      {"KIVCAM_WriteReg", {PARAM, ACCESS}},
      {"KIVCAM_CameraRegInfo", {PARAM, OTHER}},
      {"KIVCAM_CameraInfo", {PARAM, NO_CAMERA, OTHER}},
      {"KIVCAM_CameraInfoGigE", {PARAM, NOT_GIGE, NO_CAMERA, OTHER}},
      {"KIVCAM_CameraInfoUSB", {PARAM, NOT_USB, NO_CAMERA, OTHER}},
      {"KIVCAM_GetNodeMap", {PARAM, NO_CAMERA}},
      {"KIVCAM_SetCmdTimeOut", {VERSION, PARAM, MODE, OTHER}},
      {"KIVCAM_ResourceAlloc", {PARAM, NO_CAMERA, MODE, ALLOCATED, NO_ADDRESS, ACCESS, OTHER}},
      {"KIVCAM_ResourceRelease", {PARAM, MODE, NOT_ALLOCATED, RUNNING}},
      {"KIVCAM_ImageAlloc", {0, PARAM, NO_CAMERA, NOT_ALLOCATED}},
      {"KIVCAM_ImageFree", {PARAM, BUFFER, BUFFER_BUSY}},
      {"KIVCAM_ImageFreeAll", {PARAM, RUNNING}},
      {"KIVCAM_ImageStart", {PARAM, NO_CAMERA, MODE, NOT_ALLOCATED, RUNNING, ACCESS, OTHER}},
      {"KIVCAM_ImageStop", {PARAM, MODE, NOT_ALLOCATED, NOT_RUNNING}},
      {"KIVCAM_ImageReq", {PARAM, NO_CAMERA, NOT_ALLOCATED, BUFFER, BUFFER_BUSY, OTHER}},
      {"KIVCAM_ImageComplete", {PARAM, NO_CAMERA, NOT_ALLOCATED, BUFFER, TIMEOUT, NO_IMAGE, OTHER}},
      {"KIVCAM_ImageReqAbortAll", {PARAM}},
      {"KIVCAM_VSyncReq", {PARAM, NO_CAMERA, NOT_ALLOCATED, OTHER}},
      {"KIVCAM_VSyncComplete", {PARAM, NO_CAMERA, NOT_ALLOCATED, TIMEOUT, NO_IMAGE, OTHER}},
      {"KIVCAM_SetImageCallBack", {PARAM, NO_CAMERA, NOT_ALLOCATED, BUFFER_BUSY, OTHER}},
      {"KIVCAM_GetGigEPktLog", {PARAM, NOT_GIGE, NO_CAMERA, NOT_ALLOCATED}},
      {"KIVCAM_SetBMPINFO", {PARAM, NO_CAMERA, NOT_ALLOCATED, FORMAT, BUFFER_SIZE, ACCESS}},
      {"KIVCAM_GetBMPINFO", {PARAM, NO_CAMERA, NOT_ALLOCATED, FORMAT, BUFFER_SIZE, ACCESS}},
      {"KIVCAM_ConvMode", {PARAM, NO_CAMERA, OTHER}},
      {"KIVCAM_ImageConvExec", {PARAM, NO_CAMERA, NOT_ALLOCATED, OTHER}},
      {"KIVCAM_CreateConvHandle", {PARAM, OTHER}},
      {"KIVCAM_ColorConvExec", {PARAM, OTHER}},
  };
  static const std::set<uint32_t> none;
  auto it = table.find(export_name);
  return it == table.end() ? none : it->second;
}

}  // namespace soak
