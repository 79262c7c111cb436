// kivcam-monitor: shows what every process using KivCam does, by taking the
// lines of the machine-wide call log as they are written. It does not load
// the library: it maps the shared objects as any outside reader does, so
// nothing of its own ever appears in the log.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "diag/log_reader.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

constexpr int kAlreadyRunning = 3;

void Usage(FILE* out) {
  std::fprintf(out,
               "usage: kivcam-monitor [--level 0|1|2] [--file PATH] [--once] [--keep-level]\n"
               "\n"
               "Prints the lines that every process using the KivCam library writes into\n"
               "the shared call log, until Ctrl-C.\n"
               "  --level N     0 off, 1 normal (default), 2 verbose (per-image lines too)\n"
               "  --file PATH   also append the lines to PATH\n"
               "  --once        take the lines pending now, print them and exit\n"
               "  --keep-level  leave the level set on exit (default: logging off again)\n"
               "Environment: KIVCAM_IPC_NAMESPACE selects a private set of shared objects.\n"
               "Exit codes: 0 done, 1 the shared objects cannot be opened, 2 usage,\n"
               "3 another monitor is already running.\n");
}

struct Options {
  unsigned level = 1;
  const char* file = nullptr;
  bool once = false;
  bool keep_level = false;
};

bool Parse(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--level" && i + 1 < argc) {
      std::string v = argv[++i];
      if (v != "0" && v != "1" && v != "2") return false;
      o->level = static_cast<unsigned>(v[0] - '0');
    } else if (a == "--file" && i + 1 < argc) {
      o->file = argv[++i];
    } else if (a == "--once") {
      o->once = true;
    } else if (a == "--keep-level") {
      o->keep_level = true;
    } else if (a == "--help" || a == "-h") {
      Usage(stdout);
      std::exit(0);
    } else {
      return false;
    }
  }
  return true;
}

void Print(const std::vector<std::string>& lines, FILE* file) {
  for (const std::string& l : lines) {
    std::fputs(l.c_str(), stdout);
    if (file) std::fputs(l.c_str(), file);
  }
  std::fflush(stdout);
  if (file) std::fflush(file);
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  if (!Parse(argc, argv, &opt)) {
    Usage(stderr);
    return 2;
  }

  // The library may start a monitor at every load in every process: only
  // the first one stays.
  kivcam::diag::MonitorInstance instance;
  if (!instance.ok()) {
    std::fprintf(stderr, "kivcam-monitor: cannot create the instance lock\n");
    return 1;
  }
  if (!instance.TryAcquire()) {
    std::fprintf(stderr, "kivcam-monitor: another monitor is already running\n");
    return kAlreadyRunning;
  }

  // What KIVCAM_LogCommonAreaGet does, without loading the library: every
  // process sees at once that this one is the monitor and writes no line for it.
  std::string build_date;
  if (!kivcam::diag::AnnounceMonitor(&build_date)) {
    std::fprintf(stderr, "kivcam-monitor: cannot open the shared data of the library\n");
    return 1;
  }
  if (build_date.empty()) build_date = "?";

  kivcam::diag::LogReader reader;
  if (!reader.Open()) {
    std::fprintf(stderr, "kivcam-monitor: cannot open the shared call log\n");
    return 1;
  }
  FILE* file = nullptr;
  if (opt.file) {
    file = std::fopen(opt.file, "a");
    if (!file) {
      std::fprintf(stderr, "kivcam-monitor: cannot open %s: %s\n", opt.file, std::strerror(errno));
      return 1;
    }
  }
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);

  reader.SetLevel(opt.level);
  if (!opt.once) {
    // Printed once the level is set: from here on every line is seen.
    std::printf("kivcam-monitor: level %u, library built %s; Ctrl-C ends\n", opt.level,
                build_date.c_str());
    std::fflush(stdout);
  }
  // The event wakes us for new lines; the short timeout is the fallback
  // poll and lets Ctrl-C end the loop promptly.
  while (!g_stop && !opt.once) {
    reader.Wait(200);
    Print(reader.Take(), file);
  }
  Print(reader.Take(), file);
  if (!opt.keep_level) reader.SetLevel(0);
  if (file) std::fclose(file);
  return 0;
}
