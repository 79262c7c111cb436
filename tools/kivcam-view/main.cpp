// kivcam-view: takes the frames another process publishes through its output
// filter (KIVCAMFILTER_OutPut, or KIVCAMFILTER_GetAddr and _Flush), counts
// them and, if asked, saves them as PNG files. A worked example of the reader
// interface, include/kivcam/kivcam_reader.h; it does not load the library.
#include <png.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kivcam/kivcam_reader.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

enum Exit { kDone = 0, kNoChannel = 1, kUsage = 2 };

void Usage(FILE* out) {
  std::fprintf(out,
               "usage: kivcam-view PID [--save DIR [--every N]] [--once]\n"
               "       kivcam-view --list\n"
               "\n"
               "Takes the frames that process PID publishes through its KivCam output\n"
               "filter, and prints every second how many came (frames/s) and how many it\n"
               "missed because the writer was faster (dropped).\n"
               "  --list       the processes using KivCam that have a frame channel now\n"
               "  --save DIR   write frames to DIR as frame_NNNNNN.png (NNNNNN counts the\n"
               "               frames taken), 4-byte B, G, R, X pixels, first row on top\n"
               "  --every N    with --save: only every Nth frame taken (default 1)\n"
               "  --once       take one frame, print it, exit\n"
               "Ctrl-C ends and prints the totals. Environment: KIVCAM_IPC_NAMESPACE\n"
               "selects a private set of shared objects.\n"
               "Exit codes: 0 done, 1 no channel (or it went away), 2 usage.\n");
}

struct Options {
  bool list = false;
  uint32_t pid = 0;
  const char* save = nullptr;
  unsigned long every = 1;
  bool once = false;
};

bool Number(const char* text, unsigned long max, unsigned long* out) {
  if (!text || !*text || *text == '-' || *text == '+') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(text, &end, 10);
  if (errno || *end || v == 0 || v > max) return false;
  *out = v;
  return true;
}

// False with a message for the first thing that is wrong.
bool Parse(int argc, char** argv, Options* o) {
  bool have_pid = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      Usage(stdout);
      std::exit(kDone);
    } else if (a == "--list") {
      o->list = true;
    } else if (a == "--once") {
      o->once = true;
    } else if (a == "--save" && i + 1 < argc) {
      o->save = argv[++i];
    } else if (a == "--every" && i + 1 < argc) {
      if (!Number(argv[++i], 1000000000, &o->every)) {
        std::fprintf(stderr, "kivcam-view: --every takes a whole number from 1\n");
        return false;
      }
    } else if (!have_pid && a[0] != '-') {
      unsigned long pid;
      if (!Number(argv[i], 0x7FFFFFFF, &pid)) {
        std::fprintf(stderr, "kivcam-view: '%s' is not a process id\n", argv[i]);
        return false;
      }
      o->pid = static_cast<uint32_t>(pid);
      have_pid = true;
    } else {
      std::fprintf(stderr, "kivcam-view: unexpected '%s'\n", argv[i]);
      return false;
    }
  }
  if (o->list != !have_pid) {
    std::fprintf(stderr, "kivcam-view: give a process id or --list\n");
    return false;
  }
  return true;
}

std::string ProgramOf(uint32_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(in, name);
  return name.empty() ? "?" : name;
}

int List() {
  std::vector<uint32_t> pids(KIVCAM_PROCESS_TABLE_ENTRIES);
  uint32_t n = KIVCAMREADER_ListWriters(pids.data(), static_cast<uint32_t>(pids.size()));
  if (n == 0) {
    std::printf("no process using KivCam has a frame channel\n");
    return kDone;
  }
  std::printf("%-10s %-12s %-10s %s\n", "PID", "SIZE", "USER", "PROGRAM");
  for (uint32_t i = 0; i < n && i < pids.size(); ++i) {
    KIVCAMREADER* r = KIVCAMREADER_Open(pids[i]);
    if (!r) continue;  // freed in the meantime
    KIVCAMFILTER_HEADER h;
    KIVCAMREADER_GetHeader(r, &h);
    KIVCAMREADER_Close(r);
    std::string size = std::to_string(h.Width) + "x" + std::to_string(h.Height);
    std::printf("%-10u %-12s 0x%08X %s\n", pids[i], size.c_str(), h.UserValue, ProgramOf(pids[i]).c_str());
  }
  return kDone;
}

// B, G, R, X pixels as an 8-bit RGB PNG.
bool SavePng(const std::string& path, const KIVCAMFILTER_HEADER& h, const void* frame) {
  std::vector<unsigned char> rgb(static_cast<size_t>(h.Width) * h.Height * 3);
  const auto* src = static_cast<const unsigned char*>(frame);
  for (size_t p = 0, n = static_cast<size_t>(h.Width) * h.Height; p < n; ++p) {
    rgb[3 * p] = src[4 * p + 2];
    rgb[3 * p + 1] = src[4 * p + 1];
    rgb[3 * p + 2] = src[4 * p];
  }
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = h.Width;
  image.height = h.Height;
  image.format = PNG_FORMAT_RGB;
  bool ok = png_image_write_to_file(&image, path.c_str(), 0, rgb.data(), 0, nullptr) != 0;
  png_image_free(&image);
  return ok;
}

struct Counts {
  unsigned long long signalled = 0, taken = 0, saved = 0;
  unsigned long long Dropped() const { return signalled > taken ? signalled - taken : 0; }
};

void PrintTotals(const Counts& c, const Options& o) {
  std::printf("kivcam-view: %llu frames, %llu dropped", c.taken, c.Dropped());
  if (o.save) std::printf(", %llu saved", c.saved);
  std::printf("\n");
}

int View(const Options& o) {
  KIVCAMREADER* reader = KIVCAMREADER_Open(o.pid);
  if (!reader) {
    std::fprintf(stderr, "kivcam-view: process %u has no frame channel (kivcam-view --list shows those that do)\n",
                 o.pid);
    return kNoChannel;
  }
  KIVCAMFILTER_HEADER h;
  KIVCAMREADER_GetHeader(reader, &h);
  if (!o.once) {
    std::printf("kivcam-view: process %u, %ux%u, user value 0x%08X; Ctrl-C ends\n", o.pid, h.Width, h.Height,
                h.UserValue);
    std::fflush(stdout);
  }
  using Clock = std::chrono::steady_clock;
  Counts c;
  unsigned long long taken_at_report = 0;
  auto report_at = Clock::now(), last_frame = Clock::now();
  int result = kDone;
  bool first = true;
  while (!g_stop) {
    // The first look takes what is there already; later ones wait.
    c.signalled += KIVCAMREADER_Wait(reader, first ? 0 : 200);
    first = false;
    const void* frame = nullptr;
    auto now = Clock::now();
    if (KIVCAMREADER_Take(reader, &frame) == 1) {
      ++c.taken;
      last_frame = now;
      if (o.save && (c.taken - 1) % o.every == 0) {
        char name[32];
        std::snprintf(name, sizeof name, "/frame_%06llu.png", c.taken);
        if (SavePng(o.save + std::string(name), h, frame)) {
          ++c.saved;
        } else {
          std::fprintf(stderr, "kivcam-view: cannot write %s%s\n", o.save, name);
        }
      }
      if (o.once) {
        c.signalled += KIVCAMREADER_Wait(reader, 0);
        const auto* px = static_cast<const unsigned char*>(frame);
        std::printf("kivcam-view: process %u, %ux%u, user value 0x%08X, first pixel B=%u G=%u R=%u\n", o.pid,
                    h.Width, h.Height, h.UserValue, px[0], px[1], px[2]);
        break;
      }
    } else if (now - last_frame > std::chrono::seconds(1)) {
      // Quiet for a while: the writer may have freed the channel (and
      // perhaps made a new one, of another size).
      KIVCAMREADER* again = KIVCAMREADER_Open(o.pid);
      if (!again) {
        std::fprintf(stderr, "kivcam-view: the frame channel of process %u is gone\n", o.pid);
        result = kNoChannel;
        break;
      }
      KIVCAMREADER_Close(reader);
      reader = again;
      KIVCAMREADER_GetHeader(reader, &h);
      last_frame = now;
    }
    if (!o.once && now - report_at >= std::chrono::seconds(1)) {
      double seconds = std::chrono::duration<double>(now - report_at).count();
      std::printf("%.1f frames/s, %llu frames, %llu dropped\n", (c.taken - taken_at_report) / seconds, c.taken,
                  c.Dropped());
      std::fflush(stdout);
      taken_at_report = c.taken;
      report_at = now;
    }
  }
  KIVCAMREADER_Close(reader);
  PrintTotals(c, o);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!Parse(argc, argv, &o)) {
    std::fprintf(stderr, "kivcam-view: see kivcam-view --help\n");
    return kUsage;
  }
  if (o.list) return List();
  if (o.save) {
    // Like kivcam grab --out: the folder is made when it is missing.
    std::error_code ec;
    std::filesystem::create_directories(o.save, ec);
    if (ec) {
      std::fprintf(stderr, "kivcam-view: cannot make the folder %s: %s\n", o.save, ec.message().c_str());
      return kUsage;
    }
  }
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  return View(o);
}
