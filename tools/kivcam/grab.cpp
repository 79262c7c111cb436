// `kivcam grab` and `kivcam watch`: acquire frames from one camera (grab
// controls it; watch receives the multicast stream another program controls),
// convert each with the camera's own conversion engine, save it and/or
// publish it through the output filter. Public interface only, so it is also
// the worked example of an acquisition: request and completion on this
// thread, or the image callback on the library's stream thread.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cli.h"
#include "image_files.h"

namespace kivcli {

namespace {


enum class Format { kPng, kBmp, kRaw };

struct Options {
  bool watch = false;  // kivcam watch: read-only, the stream another program controls
  std::string camera;
  uint64_t frames = 10;  // 0: until interrupted (or, watching, the stream ends)
  bool callback = false;
  uint32_t buffers = 4;
  uint32_t timeout = 5000;
  Format format = Format::kPng;
  std::string out = ".";
  bool out_given = false;
  bool save = true;  // decided once the options are read
  uint32_t bits = 24;
  bool bits_given = false;
  bool parallel = false;
  bool verbose = false;
  bool help = false;
  bool filter = false;
  std::string group_text;  // --multicast, as given
  uint8_t group[4] = {};
  Args settings;
};

constexpr uint32_t kMaxBuffers = 1024;
constexpr uint64_t kMaxFrames = 1000000000;

const char kGrabHelp[] =
    "usage: kivcam grab CAMERA [options]\n"
    "\n"
    "Acquires frames from one camera, converts each into a bitmap with the camera's\n"
    "own conversion engine and saves it. On a terminal a progress line (frames,\n"
    "frames/s, MB/s, incomplete frames, errors) runs on stderr; a summary follows\n"
    "on stdout in every case.\n"
    "\n"
    "CAMERA is a UID from `kivcam list` (decimal, or hexadecimal with 0x) or `first`\n"
    "for the first camera no other program holds.\n"
    "\n"
    "Options:\n"
    "  -n, --frames N          frames to grab (default 10); 0 grabs until Ctrl-C\n"
    "  --mode request|callback how frames arrive (default request):\n"
    "                          request: the buffers are queued with KIVCAM_ImageReq,\n"
    "                          collected with KIVCAM_ImageComplete on this thread and\n"
    "                          converted with KIVCAM_ImageConvExec;\n"
    "                          callback: KIVCAM_SetImageCallBack; the library's stream\n"
    "                          thread hands over each frame, converted there with\n"
    "                          KIVCAM_BufferConvExec\n"
    "  --buffers K             image buffers in flight, 1 to 1024 (default 4)\n"
    "  --timeout MS            longest wait for a frame in milliseconds (default 5000;\n"
    "                          `inf` waits without limit); a frame that does not come\n"
    "                          in time ends the grab\n"
    "  --format png|bmp|raw    png (default): 8-bit RGB PNG;\n"
    "                          bmp: Windows bitmap, its header from KIVCAM_GetBMPINFO,\n"
    "                          its rows stored bottom row first as bitmaps keep them;\n"
    "                          raw: the pixels as the camera sent them, unconverted\n"
    "                          (any pixel format; the summary names format and size)\n"
    "  -o, --out DIR           folder for the files, made if missing (default .);\n"
    "                          --save DIR is the same\n"
    "  --bits 24|32            converted pixels: 24-bit B,G,R or 32-bit B,G,R,unused\n"
    "                          (default 24, with --filter 32; a PNG holds R,G,B either way)\n"
    "  --parallel              convert on a team of threads\n"
    "  --set FEATURE=VALUE...  set features before acquiring, in order, as `kivcam set`\n"
    "                          does (several after one --set, or --set repeated)\n"
    "  --multicast GROUP       stream to a multicast group 239.0-127.1-255.x (for example\n"
    "                          239.1.1.1) with KIVCAM_ResourceAllocGigE, so that\n"
    "                          `kivcam watch CAMERA` in other programs receives the\n"
    "                          same frames; GigE cameras only\n"
    "  --filter                publish every frame for kivcam-view through this process's\n"
    "                          output filter (the process id is printed first): each is\n"
    "                          converted to 32-bit B,G,R,unused straight into the\n"
    "                          channel's slot (KIVCAMFILTER_GetAddr, conversion,\n"
    "                          KIVCAMFILTER_Flush). When the only free slot holds the\n"
    "                          newest frame, which the reader may be taking, the frame is\n"
    "                          converted aside and copied in with KIVCAMFILTER_OutPut, so\n"
    "                          the reader never sees one torn. Files are then saved only\n"
    "                          when --out names a folder, made from the frame as published.\n"
    "  -v, --verbose           print each file's name once it is written\n"
    "  -h, --help              this text\n"
    "\n"
    "Files are named MODEL-UID-NNNNNN.png (or .bmp, .raw) by camera and frame number,\n"
    "counted from 1. Each is written as NAME.part and renamed when complete, so a file\n"
    "under its final name is always whole. Frames that arrive with an error status\n"
    "(incomplete) are counted and not saved.\n"
    "\n"
    "Ctrl-C (or SIGTERM) stops cleanly: the requests are aborted, the resources\n"
    "released and the camera closed; the files written so far stay. A second Ctrl-C\n"
    "ends the program at once.\n"
    "\n"
    "Exit codes: 0 every frame grabbed and saved; 1 a library call failed, a frame\n"
    "could not be converted or saved, or no frame came in time; 2 usage; 3 the camera\n"
    "was lost (unplugged, or it stopped answering); 128 plus the signal number when\n"
    "interrupted (130 for Ctrl-C).\n"
    "\n"
    "Examples:\n"
    "  kivcam grab first -n 5 --out frames\n"
    "  kivcam grab first --format bmp --bits 32 --set Width=1920 Height=1200\n"
    "  kivcam grab first -n 0 --mode callback --set PixelFormat=Mono12 --format raw\n"
    "  kivcam grab first -n 0 --multicast 239.1.1.1    (and `kivcam watch first` elsewhere)\n"
    "  kivcam grab first -n 0 --filter                 (and `kivcam-view PID` elsewhere)\n";

const char kWatchHelp[] =
    "usage: kivcam watch CAMERA [options]\n"
    "\n"
    "Receives the frames of a GigE camera that another program controls and streams\n"
    "to a multicast group, for example `kivcam grab CAMERA --multicast 239.1.1.1` in\n"
    "another terminal. The camera is opened read-only (watch mode, KIVCAM_WatchOpen):\n"
    "its settings and its stream stay the controlling program's. Until that program\n"
    "streams to a group, kivcam watch waits and says what the camera does (nothing\n"
    "yet, or a stream to one address only, which no one else receives). Then it\n"
    "counts the frames, converts each with the camera's own conversion engine and,\n"
    "with --save, saves it as kivcam grab does. It ends after N frames, when the\n"
    "controlling program stops streaming or ends, or on Ctrl-C.\n"
    "\n"
    "CAMERA is a UID from `kivcam list` (decimal, or hexadecimal with 0x) or `first`\n"
    "for the first GigE camera (read-only, so it may be one another program holds).\n"
    "USB cameras can't be watched.\n"
    "\n"
    "Options:\n"
    "  -n, --frames N          frames to receive (default 0: until the stream ends)\n"
    "  --save DIR              save the frames in DIR, made if missing (-o, --out DIR\n"
    "                          is the same); without it frames are only counted\n"
    "  --format png|bmp|raw    the files, as kivcam grab writes them (default png)\n"
    "  --timeout MS            longest wait for a frame, the first one (and so the wait\n"
    "                          for a multicast stream) included (default inf: no limit)\n"
    "  --filter                publish every frame for kivcam-view, as kivcam grab does\n"
    "  --mode request|callback, --buffers K, --bits 24|32, --parallel, -v, --verbose\n"
    "                          as kivcam grab (`kivcam grab --help`)\n"
    "  -h, --help              this text\n"
    "\n"
    "Exit codes: 0 N frames received; 1 a library call failed, a frame could not be\n"
    "converted or saved, or no frame came in time; 2 usage; 3 the camera was lost;\n"
    "4 the stream ended: the controlling program stopped streaming or ended before N\n"
    "frames (with -n 0 whenever it ends); 128 plus the signal number when\n"
    "interrupted (130 for Ctrl-C).\n"
    "\n"
    "Examples:\n"
    "  kivcam watch first\n"
    "  kivcam watch 690264997889 -n 100 --save watched --format raw\n";

// ---- options ----------------------------------------------------------------

bool Number(const std::string& option, const std::string& text, uint64_t min, uint64_t max, uint64_t* v, int* rc) {
  if (ParseUnsigned(text, max, v) == Parsed::kOk && *v >= min) return true;
  *rc = UsageError("%s takes a number from %" PRIu64 " to %" PRIu64 ", not '%s'", option.c_str(), min, max,
                   text.c_str());
  return false;
}

// A dotted IPv4 address, four decimal octets.
bool ParseAddress(const std::string& text, uint8_t out[4]) {
  size_t at = 0;
  for (int i = 0; i < 4; ++i) {
    const size_t end = i < 3 ? text.find('.', at) : text.size();
    if (end == std::string::npos) return false;
    uint64_t v = 0;
    const std::string octet = text.substr(at, end - at);
    if (octet.empty() || octet.size() > 3 || octet.find_first_not_of("0123456789") != std::string::npos ||
        ParseUnsigned(octet, 255, &v) != Parsed::kOk) {
      return false;
    }
    out[i] = static_cast<uint8_t>(v);
    at = end + 1;
  }
  return true;
}

// The groups the library streams to: the organisation-local scope 239.0-127.x.x,
// third octet not 0.
bool IsStreamGroup(const uint8_t a[4]) { return a[0] == 239 && a[1] <= 127 && a[2] != 0; }

bool IsAssignment(const std::string& w) {
  const size_t eq = w.find('=');
  return eq != std::string::npos && eq > 0 && w[0] != '-';
}

int ParseOptions(const Args& args, Options* o) {
  int rc = kDone;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string word = args[i], value;
    bool inline_value = false;
    if (word.rfind("--", 0) == 0 && word.find('=') != std::string::npos) {
      value = word.substr(word.find('=') + 1);
      word = word.substr(0, word.find('='));
      inline_value = true;
    }
    auto takes_value = [&]() -> bool {
      if (inline_value) return true;
      if (i + 1 >= args.size()) {
        rc = UsageError("option %s needs a value", word.c_str());
        return false;
      }
      value = args[++i];
      return true;
    };
    uint64_t v = 0;
    if (word == "-h" || word == "--help") {
      o->help = true;
    } else if (word == "-n" || word == "--frames") {
      if (!takes_value() || !Number(word, value, 0, kMaxFrames, &v, &rc)) return rc;
      o->frames = v;
    } else if (word == "--mode") {
      if (!takes_value()) return rc;
      if (value != "request" && value != "callback") {
        return UsageError("--mode is request or callback, not '%s'", value.c_str());
      }
      o->callback = value == "callback";
    } else if (word == "--buffers") {
      if (!takes_value() || !Number(word, value, 1, kMaxBuffers, &v, &rc)) return rc;
      o->buffers = static_cast<uint32_t>(v);
    } else if (word == "--timeout") {
      if (!takes_value()) return rc;
      if (value == "inf" || value == "infinite") {
        o->timeout = KIVCAM_INFINITE;
      } else {
        if (!Number(word, value, 0, KIVCAM_INFINITE, &v, &rc)) return rc;
        o->timeout = static_cast<uint32_t>(v);
      }
    } else if (word == "--format") {
      if (!takes_value()) return rc;
      if (value == "png") o->format = Format::kPng;
      else if (value == "bmp") o->format = Format::kBmp;
      else if (value == "raw") o->format = Format::kRaw;
      else return UsageError("--format is png, bmp or raw, not '%s'", value.c_str());
    } else if (word == "-o" || word == "--out" || word == "--save") {
      if (!takes_value()) return rc;
      if (value.empty()) return UsageError("%s needs a folder", word.c_str());
      o->out = value;
      o->out_given = true;
    } else if (word == "--bits") {
      if (!takes_value()) return rc;
      if (value != "24" && value != "32") return UsageError("--bits is 24 or 32, not '%s'", value.c_str());
      o->bits = value == "24" ? 24 : 32;
      o->bits_given = true;
    } else if (word == "--filter") {
      o->filter = true;
    } else if (word == "--multicast") {
      if (o->watch) {
        return UsageError("kivcam watch receives the group the controlling program streams to; --multicast is "
                          "for kivcam grab");
      }
      if (!takes_value()) return rc;
      if (!ParseAddress(value, o->group) || !IsStreamGroup(o->group)) {
        return UsageError("--multicast takes a multicast group 239.0-127.1-255.x (for example 239.1.1.1), not '%s'",
                          value.c_str());
      }
      o->group_text = value;
    } else if (word == "--parallel") {
      o->parallel = true;
    } else if (word == "-v" || word == "--verbose") {
      o->verbose = true;
    } else if (word == "--set") {
      if (o->watch) {
        return UsageError("kivcam watch leaves the camera's settings to the controlling program; --set is for "
                          "kivcam grab");
      }
      if (!takes_value()) return rc;
      if (!IsAssignment(value)) return UsageError("'%s' is not FEATURE=VALUE", value.c_str());
      o->settings.push_back(value);
      while (!inline_value && i + 1 < args.size() && IsAssignment(args[i + 1])) o->settings.push_back(args[++i]);
    } else if (word[0] == '-' && word.size() > 1) {
      return UsageError("unknown option '%s'", args[i].c_str());
    } else if (o->camera.empty()) {
      o->camera = word;
    } else {
      return UsageError("unexpected argument '%s' (one CAMERA%s)", word.c_str(),
                        o->watch ? "" : "; settings go after --set");
    }
  }
  if (o->filter && o->bits_given && o->bits != 32) {
    return UsageError("--filter publishes 32-bit pixels; --bits 24 does not go with it");
  }
  if (o->filter) o->bits = 32;
  // Frames that go elsewhere (a watcher's, or the filter's) are saved only when asked.
  o->save = o->out_given || (!o->watch && !o->filter);
  return kDone;
}

// mkdir -p: every missing folder of the path.
bool MakeFolders(const std::string& path, std::string* error) {
  for (size_t at = 1; at <= path.size(); ++at) {
    if (at < path.size() && path[at] != '/') continue;
    std::string part = path.substr(0, at);
    if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) {
      *error = part + ": " + std::strerror(errno);
      return false;
    }
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = path + " is not a folder";
    return false;
  }
  if (access(path.c_str(), W_OK) != 0) {
    *error = path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

// A model name made safe for a file name.
std::string FileSafe(const std::string& text) {
  std::string s;
  for (char c : text) {
    bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                c == '_' || c == '.';
    s += keep ? c : '_';
  }
  return s.empty() ? std::string("camera") : s;
}

// ---- signals ----------------------------------------------------------------

// The handler only notes the signal and writes a byte into a pipe; a thread
// of ours reads the pipe and calls the library, which a handler may not.
// Lock-free, so safe in a handler, and read by other threads without a race.
std::atomic<int> g_signal{0};
std::atomic<int> g_wake_fd{-1};
static_assert(std::atomic<int>::is_always_lock_free, "signal handler state must be lock-free");

void OnSignal(int sig) {
  if (g_signal.exchange(sig) != 0) {  // the second one: the default action, at once
    std::signal(sig, SIG_DFL);
    std::raise(sig);
    return;
  }
  int saved = errno;
  char c = 's';
  ssize_t n = write(g_wake_fd, &c, 1);
  (void)n;
  errno = saved;
}

// Catches SIGINT and SIGTERM while it lives; its thread runs `on_signal` once
// for the first of them and `on_tick` every `tick_ms` meanwhile.
class SignalWatch {
 public:
  SignalWatch(std::function<void()> on_signal, std::function<void()> on_tick, int tick_ms)
      : on_signal_(std::move(on_signal)), on_tick_(std::move(on_tick)), tick_ms_(tick_ms) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return;
    read_fd_ = fds[0];
    g_wake_fd = fds[1];
    g_signal = 0;
    struct sigaction sa = {};
    sa.sa_handler = OnSignal;
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, &old_int_);
    sigaction(SIGTERM, &sa, &old_term_);
    thread_ = std::thread([this] { Run(); });
  }
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;
  ~SignalWatch() { Stop(); }

  // Ends the thread; later signals act as they did before.
  void Stop() {
    if (!thread_.joinable()) return;
    char c = 'q';
    ssize_t n = write(g_wake_fd, &c, 1);
    (void)n;
    thread_.join();
    sigaction(SIGINT, &old_int_, nullptr);
    sigaction(SIGTERM, &old_term_, nullptr);
    close(g_wake_fd.exchange(-1));
    close(read_fd_);
    read_fd_ = -1;
  }
  int signal() const { return g_signal; }

 private:
  void Run() {
    bool signalled = false;
    for (;;) {
      pollfd p = {read_fd_, POLLIN, 0};
      if (poll(&p, 1, tick_ms_) <= 0) {
        on_tick_();
        continue;
      }
      char buf[16];
      ssize_t n = read(read_fd_, buf, sizeof buf);
      for (ssize_t k = 0; k < n; ++k) {
        if (buf[k] == 'q') return;
        if (!signalled) {
          signalled = true;
          on_signal_();
        }
      }
    }
  }

  std::function<void()> on_signal_, on_tick_;
  int tick_ms_;
  int read_fd_ = -1;
  struct sigaction old_int_ = {}, old_term_ = {};
  std::thread thread_;
};

// ---- the grab -----------------------------------------------------------------

double Seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Bus events (a camera came or went) counted for the waiting thread. The
// library's callback thread may call in until the process ends, so it
// touches nothing that a return from Grab could destroy.
std::atomic<uint32_t> g_bus_events{0};
void OnBusEvent(uint32_t, void*) { ++g_bus_events; }

// The GigE Vision bootstrap registers of stream channel 0: its port (0 when
// closed) and its destination address.
constexpr uint32_t kRegStreamPort = 0x0D00;
constexpr uint32_t kRegStreamDestination = 0x0D18;

std::string AddressText(const uint8_t a[4]) {
  return std::to_string(a[0]) + "." + std::to_string(a[1]) + "." + std::to_string(a[2]) + "." + std::to_string(a[3]);
}

class Grabber {
 public:
  explicit Grabber(const Options& o) : o_(o), tty_(isatty(STDERR_FILENO) == 1) {}
  int Run(uint64_t uid);

 private:
  HCAMERA cam() const { return camera_.handle(); }
  bool stopping() const { return stop_.load(); }
  int Prepare();
  int AllocResources();
  int WaitForStream();
  int RunRequests();
  int RunCallback();
  int Start();
  int CheckSource();
  int Lost();
  int StreamEnded(const char* why);
  int Finish();
  void OnInterrupt();
  static void OnImage(HCAMERA camera, void* data, uint32_t size, uint32_t width, uint32_t height, ImageInfo* info,
                      void* context);
  void Frame(uint64_t number, const void* data, uint32_t size, uint32_t width, uint32_t height,
             const ImageBuffer* buffer);
  bool Convert(uint64_t number, const void* data, const ImageBuffer* buffer, void* dst);
  int NoFrameInTime();
  void FrameError(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Progress(bool final);
  void PrintSummary();
  std::string FileName(uint64_t number) const;
  std::string FeatureText(const char* name);

  const Options& o_;
  const bool tty_;
  Camera camera_;
  std::string model_, base_, geometry_, stream_;
  uint64_t uid_ = 0;

  // The bitmap the conversions fill, and the header that describes it.
  bool converting_ = false;
  std::vector<uint8_t> info_;
  std::vector<uint8_t> pixels_;
  uint32_t width_ = 0, height_ = 0;
  size_t stride_ = 0;

  bool allocated_ = false, callback_installed_ = false, started_ = false, filter_ = false;
  bool lost_ = false;
  std::mutex stop_mutex_;   // orders an interrupt's abort against the clean-up
  bool acquiring_ = false;  // under stop_mutex_
  std::atomic<bool> stop_{false}, done_{false};
  std::mutex wait_mutex_;  // the callback's frames wake the waiting main thread
  std::condition_variable wait_cv_;

  std::chrono::steady_clock::time_point start_, end_;
  std::atomic<bool> counting_{false};
  std::atomic<uint64_t> frames_{0}, incomplete_{0}, errors_{0}, written_{0}, bytes_{0};
  std::atomic<uint64_t> published_{0}, copied_{0};
  std::string first_file_, last_file_;

  std::mutex console_;  // progress line, messages and file lines share the terminal
  bool progress_shown_ = false;
};

std::string Grabber::FeatureText(const char* name) {
  return ValueText(cam(), name);
}

std::string Grabber::FileName(uint64_t number) const {
  static const char* const kExt[] = {".png", ".bmp", ".raw"};
  char digits[32];
  std::snprintf(digits, sizeof digits, "%06" PRIu64, number);
  return o_.out + "/" + base_ + "-" + digits + kExt[static_cast<int>(o_.format)];
}

int Grabber::Prepare() {
  CameraListEntry e;
  if (!KIVCAM_CameraInfo(cam(), &e)) return Fail("KIVCAM_CameraInfo");
  model_ = std::string(e.Model, strnlen(e.Model, sizeof e.Model));
  uid_ = e.UID;
  base_ = FileSafe(model_) + "-" + std::to_string(uid_);
  if (!o_.group_text.empty() && e.CameraKind != KIVCAM_CAMERAKIND_GIGE) {
    return Problem("--multicast needs a GigE camera; %s (UID %" PRIu64 ") is a %s camera", model_.c_str(), uid_,
                   e.CameraKind == KIVCAM_CAMERAKIND_USB ? "USB" : "IIDC");
  }
  if (!o_.settings.empty()) {
    if (int rc = Set(camera_, o_.settings)) return rc;
    std::fflush(stdout);
  }
  converting_ = o_.format != Format::kRaw || o_.filter;
  if (converting_) {
    KIVCAM_CONVMODE mode = {KIVCAM_GEOMETRY_AS_IS, KIVCAM_SHIFT_AUTO,
                            o_.bits == 24 ? KIVCAM_OUTPUT_BGR24 : KIVCAM_OUTPUT_BGRX32, 0, o_.parallel ? 1u : 0u};
    if (!KIVCAM_ConvMode(cam(), &mode, nullptr)) return Fail("KIVCAM_ConvMode");
  }
  if (int rc = AllocResources()) return rc;
  if (stopping()) return kDone;  // interrupted while waiting for a stream
  geometry_ = FeatureText("Width") + "x" + FeatureText("Height") + " " + FeatureText("PixelFormat");
  if (!converting_) return kDone;

  uint32_t size = 0;
  if (!KIVCAM_GetBMPINFO(cam(), nullptr, &size, 0)) {
    if (KIVCAM_GetLastError() == KIVCAM_ERR_FORMAT) {
      return Problem("the pixel format %s has no conversion to a bitmap; %s", FeatureText("PixelFormat").c_str(),
                     o_.filter ? "--filter publishes converted frames only"
                               : "--format raw saves the frames as they come");
    }
    return Fail("KIVCAM_GetBMPINFO");
  }
  info_.assign(size, 0);
  if (!KIVCAM_GetBMPINFO(cam(), reinterpret_cast<KIVCAM_BITMAPINFO*>(info_.data()), &size, 0)) {
    return Fail("KIVCAM_GetBMPINFO");
  }
  KIVCAM_BITMAPINFOHEADER h;
  std::memcpy(&h, info_.data(), sizeof h);
  width_ = static_cast<uint32_t>(h.biWidth);
  height_ = static_cast<uint32_t>(h.biHeight);
  stride_ = h.biBitCount == 32 ? size_t{width_} * 4 : (size_t{width_} * 3 + 3) / 4 * 4;
  pixels_.assign(std::max<size_t>(h.biSizeImage, stride_ * height_), 0);
  if (o_.filter) {
    if (KIVCAMFILTER_Alloc(width_, height_, 0) != KIVCAMFILTER_OK) {
      return Problem("the output filter's frame channel could not be made (KIVCAMFILTER_Alloc; kivcam-monitor "
                     "shows details)");
    }
    filter_ = true;
    std::printf("publishing frames for kivcam-view %d (%ux%u, 32-bit B,G,R,unused)\n", static_cast<int>(getpid()),
                width_, height_);
    std::fflush(stdout);
  }
  return kDone;
}

// Control: the camera's own stream, or the multicast group asked for.
// Watch: once the controlling program streams to a group.
int Grabber::AllocResources() {
  if (o_.watch) {
    if (int rc = WaitForStream()) return rc;
    if (stopping()) return kDone;
    if (!KIVCAM_WatchAlloc(cam())) return Fail("KIVCAM_WatchAlloc");
  } else if (!o_.group_text.empty()) {
    if (!KIVCAM_ResourceAllocGigE(cam(), o_.group, 0)) return Fail("KIVCAM_ResourceAllocGigE");
    stream_ = "to the multicast group " + o_.group_text;
  } else if (!KIVCAM_ResourceAlloc(cam())) {
    return Fail("KIVCAM_ResourceAlloc");
  }
  allocated_ = true;
  return kDone;
}

// Polls the camera's stream channel until the controlling program streams to
// a multicast group, saying what it does meanwhile. A controller seen
// streaming to one address that then stops has ended the session.
int Grabber::WaitForStream() {
  constexpr auto kPoll = std::chrono::milliseconds(200);
  const auto begin = std::chrono::steady_clock::now();
  std::string shown;
  bool streamed = false;
  for (;;) {
    uint32_t state = 0;
    if (!KIVCAM_WatchCamera(cam(), &state)) {
      return KIVCAM_GetLastError() == KIVCAM_ERR_NO_CAMERA ? Lost() : Fail("KIVCAM_WatchCamera");
    }
    uint8_t port[4] = {}, destination[4] = {};
    uint32_t size = sizeof port;
    if (!KIVCAM_ReadPort(cam(), kRegStreamPort, port, &size)) return Fail("KIVCAM_ReadPort");
    size = sizeof destination;
    if (!KIVCAM_ReadPort(cam(), kRegStreamDestination, destination, &size)) return Fail("KIVCAM_ReadPort");
    if (state == 1) {
      stream_ = "from the multicast group " + AddressText(destination);
      return kDone;
    }
    const bool streaming = (port[0] | port[1] | port[2] | port[3]) != 0;
    if (!streaming && streamed) {
      return StreamEnded("the controlling program stopped streaming without streaming to a multicast group");
    }
    streamed = streaming;
    const std::string grab = "`kivcam grab " + std::to_string(uid_) + " --multicast 239.1.1.1`";
    const std::string now =
        streaming ? "it streams to " + AddressText(destination) +
                        " only (unicast), which only its controlling program receives; that program streams to "
                        "a group with " + grab
                  : "no program streams from it yet (" + grab + " does)";
    if (now != shown) {
      std::printf("waiting   for a multicast stream from %s, UID %" PRIu64 ": %s\n", model_.c_str(), uid_,
                  now.c_str());
      std::fflush(stdout);
      shown = now;
    }
    if (o_.timeout != KIVCAM_INFINITE &&
        std::chrono::steady_clock::now() - begin >= std::chrono::milliseconds(o_.timeout)) {
      return Problem("no multicast stream within %u ms (--timeout sets the wait)", o_.timeout);
    }
    std::unique_lock<std::mutex> l(wait_mutex_);
    if (wait_cv_.wait_for(l, kPoll, [this] { return stopping(); })) return kDone;
  }
}

int Grabber::Start() {
  if (o_.watch ? !KIVCAM_WatchStart(cam()) : !KIVCAM_ImageStart(cam())) {
    return Fail(o_.watch ? "KIVCAM_WatchStart" : "KIVCAM_ImageStart");
  }
  started_ = true;
  if (!stream_.empty()) {
    std::printf("%s frames %s\n", o_.watch ? "receiving" : "streaming", stream_.c_str());
    std::fflush(stdout);
  }
  return kDone;
}

// Converts one frame into dst with the camera's engine; false (counted) when it fails.
bool Grabber::Convert(uint64_t number, const void* data, const ImageBuffer* buffer, void* dst) {
  if (buffer ? KIVCAM_ImageConvExec(cam(), buffer, dst) : KIVCAM_BufferConvExec(cam(), data, dst)) return true;
  FrameError("converting frame %" PRIu64 " failed: error %u", number, KIVCAM_GetLastError());
  return false;
}

void Grabber::Frame(uint64_t number, const void* data, uint32_t size, uint32_t width, uint32_t height,
                    const ImageBuffer* buffer) {
  const uint8_t* converted = nullptr;
  if (filter_) {
    void* slot = nullptr;
    int32_t status = KIVCAMFILTER_GetAddr(&slot);
    if (status == KIVCAMFILTER_OK) {
      if (!Convert(number, data, buffer, slot)) return;
      status = KIVCAMFILTER_Flush();
      converted = static_cast<const uint8_t*>(slot);
    } else if (status == KIVCAMFILTER_NEWEST_SLOT) {
      // The free slot holds the newest frame, which the reader may be taking
      // right now: filled in place it could reach the reader torn. A copy
      // under the channel's mutex never does.
      if (!Convert(number, data, buffer, pixels_.data())) return;
      converted = pixels_.data();
      status = KIVCAMFILTER_OutPut(converted);
      if (status == KIVCAMFILTER_NEWEST_SLOT) status = KIVCAMFILTER_OK;
      ++copied_;
    }
    if (status != KIVCAMFILTER_OK) {
      FrameError("publishing frame %" PRIu64 " failed: output filter status %d", number, status);
      return;
    }
    ++published_;
  }
  if (!o_.save) return;
  const std::string path = FileName(number);
  std::string error;
  bool ok;
  if (o_.format == Format::kRaw) {
    ok = WriteRaw(path, data, size, &error);
  } else {
    if (!converted) {
      if (!Convert(number, data, buffer, pixels_.data())) return;
      converted = pixels_.data();
    }
    BgrImage image{converted, width, height, o_.bits / 8, stride_};
    ok = o_.format == Format::kPng
             ? WritePng(path, image, &error)
             : WriteBmp(path, info_.data(), static_cast<uint32_t>(info_.size()), image, &error);
  }
  if (!ok) {
    FrameError("%s", error.c_str());
    return;
  }
  std::lock_guard<std::mutex> l(console_);
  if (first_file_.empty()) first_file_ = path;
  last_file_ = path;
  ++written_;
  if (o_.verbose) {
    if (progress_shown_) std::fputs("\r\033[K", stderr);
    std::printf("wrote %s\n", path.c_str());
    std::fflush(stdout);
  }
}

void Grabber::FrameError(const char* fmt, ...) {
  constexpr uint64_t kShown = 5;
  uint64_t n = ++errors_;
  if (n > kShown + 1) return;
  std::lock_guard<std::mutex> l(console_);
  if (progress_shown_) std::fputs("\r\033[K", stderr);
  std::fputs("kivcam: ", stderr);
  if (n > kShown) {
    std::fputs("more errors: counted, not shown\n", stderr);
    return;
  }
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stderr, fmt, ap);
  va_end(ap);
  std::fputc('\n', stderr);
}

int Grabber::NoFrameInTime() {
  return Problem("no frame within %u ms (a camera waiting for a trigger, or stopped, sends none; --timeout sets the "
                 "wait)",
                 o_.timeout);
}

int Grabber::Lost() {
  lost_ = true;
  Problem("the camera is gone: unplugged, or it no longer answers (kivcam list shows what is there)");
  return kLost;
}

int Grabber::StreamEnded(const char* why) {
  Problem("the watched stream ended: %s", why);
  return kStreamEnded;
}

// Whether the frames can still come: the camera is there and, watching,
// its controller still streams to the group.
int Grabber::CheckSource() {
  uint32_t present = 1;
  if (KIVCAM_Camera(cam(), &present) && present == 0) return Lost();
  if (!o_.watch) return kDone;
  uint32_t state = 1;
  if (!KIVCAM_WatchCamera(cam(), &state)) {
    return KIVCAM_GetLastError() == KIVCAM_ERR_NO_CAMERA ? Lost() : Fail("KIVCAM_WatchCamera");
  }
  return state == 1 ? kDone : StreamEnded("the controlling program stopped streaming, or ended");
}

int Grabber::RunRequests() {
  const uint32_t count = o_.buffers;
  std::vector<ImageBuffer*> buffers;
  for (uint32_t i = 0; i < count; ++i) {
    ImageBuffer* b = nullptr;
    if (!KIVCAM_ImageAlloc(cam(), &b)) {
      if (KIVCAM_GetLastError() == KIVCAM_ERR_NONE) return Problem("no memory for image buffer %u of %u", i + 1, count);
      return Fail("KIVCAM_ImageAlloc");
    }
    buffers.push_back(b);
  }
  const uint64_t n = o_.frames;
  for (uint32_t i = 0; i < count && (n == 0 || i < n); ++i) {
    if (!KIVCAM_ImageReq(cam(), buffers[i])) return Fail("KIVCAM_ImageReq");
  }
  if (int rc = Start()) return rc;
  start_ = std::chrono::steady_clock::now();
  counting_ = true;
  for (uint64_t i = 0; n == 0 || i < n; ++i) {
    if (stopping()) break;
    ImageBuffer* b = buffers[i % count];
    if (KIVCAM_ImageComplete(cam(), b, o_.timeout, nullptr)) {
      bytes_ += b->PayloadSize;
      Frame(i + 1, b->Data, b->PayloadSize, b->Width, b->Height, b);
    } else {
      const uint32_t err = KIVCAM_GetLastError();
      if (stopping()) break;  // the wait was aborted
      if (err == KIVCAM_ERR_NO_IMAGE && b->Status == KIVCAM_BUFFER_STATUS_FAILED) {
        ++incomplete_;
      } else if (err == KIVCAM_ERR_TIMEOUT) {
        return NoFrameInTime();
      } else if (err == KIVCAM_ERR_NO_CAMERA) {
        return Lost();
      } else if (err == KIVCAM_ERR_NOT_RUNNING && o_.watch) {
        // The stream watched is gone; the camera may have gone with it.
        int rc = CheckSource();
        return rc != kDone ? rc : StreamEnded("the controlling program stopped streaming, or ended");
      } else {
        return Fail("KIVCAM_ImageComplete");
      }
    }
    ++frames_;
    // Queued again only for a frame still wanted.
    if ((n == 0 || i + count < n) && !KIVCAM_ImageReq(cam(), b)) {
      if (stopping()) break;
      return KIVCAM_GetLastError() == KIVCAM_ERR_NO_CAMERA ? Lost() : Fail("KIVCAM_ImageReq");
    }
  }
  return kDone;
}

void Grabber::OnImage(HCAMERA, void* data, uint32_t size, uint32_t width, uint32_t height, ImageInfo*,
                      void* context) {
  auto* self = static_cast<Grabber*>(context);
  if (self->stopping() || self->done_) return;  // frames beyond the last one wanted
  const uint64_t number = self->frames_ + 1;   // only this thread counts
  if (size == 0) {
    ++self->incomplete_;
  } else {
    self->bytes_ += size;
    self->Frame(number, data, size, width, height, nullptr);
  }
  {
    std::lock_guard<std::mutex> l(self->wait_mutex_);
    self->frames_ = number;
    if (self->o_.frames != 0 && number >= self->o_.frames) self->done_ = true;
  }
  self->wait_cv_.notify_all();
}

// The stream thread hands over the frames; this thread waits for the last
// one. It looks after the camera meanwhile: a camera that goes away, or a
// watched stream that ends, stops the stream thread without a word.
int Grabber::RunCallback() {
  using clock = std::chrono::steady_clock;
  constexpr auto kSlice = std::chrono::milliseconds(200);
  constexpr auto kCheck = std::chrono::seconds(1);
  if (!KIVCAM_SetImageCallBack(cam(), this, &Grabber::OnImage, o_.buffers, 0)) return Fail("KIVCAM_SetImageCallBack");
  callback_installed_ = true;
  start_ = clock::now();
  counting_ = true;
  if (int rc = Start()) return rc;
  clock::time_point last_frame = clock::now(), last_check = last_frame;
  uint32_t events = g_bus_events;
  std::unique_lock<std::mutex> l(wait_mutex_);
  for (;;) {
    const uint64_t seen = frames_;
    wait_cv_.wait_for(l, kSlice, [&] { return done_ || stopping() || frames_ != seen; });
    if (done_ || stopping()) return kDone;
    const clock::time_point now = clock::now();
    if (frames_ != seen) {
      last_frame = now;
    } else if (o_.timeout != KIVCAM_INFINITE && now - last_frame >= std::chrono::milliseconds(o_.timeout)) {
      return NoFrameInTime();
    }
    if (g_bus_events != events || now - last_check >= kCheck) {
      events = g_bus_events;
      last_check = now;
      l.unlock();
      const int rc = CheckSource();
      l.lock();
      if (rc != kDone) return rc;
    }
  }
}

// Ctrl-C: a completion waiting in the library is aborted; a callback grab or
// a watcher waiting for its stream is woken. The clean-up then runs on the
// main thread as after the last frame.
void Grabber::OnInterrupt() {
  {
    std::lock_guard<std::mutex> l(wait_mutex_);
    stop_ = true;
  }
  wait_cv_.notify_all();
  std::lock_guard<std::mutex> l(stop_mutex_);
  if (acquiring_ && !o_.callback) KIVCAM_ImageReqAbortAll(cam());
}

// Undoes what Run did, in this order: the callback, the acquisition, the
// requests, the resources, the buffers and the frame channel; the camera
// closes last. A camera that is gone refuses some of it: its close releases
// the rest.
int Grabber::Finish() {
  {
    std::lock_guard<std::mutex> l(stop_mutex_);
    acquiring_ = false;
  }
  if (counting_) end_ = std::chrono::steady_clock::now();
  int rc = kDone;
  auto check = [&](KIVCAM_BOOL ok, const char* call) {
    if (!ok && !(lost_ && KIVCAM_GetLastError() == KIVCAM_ERR_NO_CAMERA)) rc = Fail(call);
  };
  if (callback_installed_) check(KIVCAM_SetImageCallBack(cam(), nullptr, nullptr, 0, 0), "KIVCAM_SetImageCallBack");
  if (started_) {
    o_.watch ? check(KIVCAM_WatchStop(cam()), "KIVCAM_WatchStop") : check(KIVCAM_ImageStop(cam()), "KIVCAM_ImageStop");
  }
  if (allocated_) {
    check(KIVCAM_ImageReqAbortAll(cam()), "KIVCAM_ImageReqAbortAll");
    o_.watch ? check(KIVCAM_WatchRelease(cam()), "KIVCAM_WatchRelease")
             : check(KIVCAM_ResourceRelease(cam()), "KIVCAM_ResourceRelease");
    check(KIVCAM_ImageFreeAll(cam()), "KIVCAM_ImageFreeAll");
  }
  if (filter_) KIVCAMFILTER_Free();
  if (cam()) KIVCAM_SetCallBack(nullptr, nullptr);
  camera_.Close();
  return rc;
}

void Grabber::Progress(bool final) {
  if (!tty_ || !counting_) return;
  const double s = Seconds((final ? end_ : std::chrono::steady_clock::now()) - start_);
  const double frames = static_cast<double>(frames_.load());
  std::lock_guard<std::mutex> l(console_);
  std::string of = o_.frames ? "/" + std::to_string(o_.frames) : std::string();
  std::fprintf(stderr, "\r\033[K%" PRIu64 "%s frames  %.1f fps  %.1f MB/s  %" PRIu64 " incomplete  %" PRIu64 " errors",
               frames_.load(), of.c_str(), s > 0 ? frames / s : 0.0, s > 0 ? bytes_.load() / s / 1e6 : 0.0,
               incomplete_.load(), errors_.load());
  if (final) std::fputc('\n', stderr);
  progress_shown_ = !final;
  std::fflush(stderr);
}

void Grabber::PrintSummary() {
  const double s = Seconds(end_ - start_);
  const uint64_t frames = frames_;
  std::string of = o_.frames ? " of " + std::to_string(o_.frames) : std::string();
  std::printf("camera    %s, UID %" PRIu64 ", %s\n", model_.c_str(), uid_, geometry_.c_str());
  std::printf("%s   %" PRIu64 "%s frames in %.3f s: %.1f frames/s, %.1f MB/s (%s mode, %u buffers)\n",
              o_.watch ? "watched" : "grabbed", frames, of.c_str(), s, s > 0 ? frames / s : 0.0,
              s > 0 ? bytes_ / s / 1e6 : 0.0, o_.callback ? "callback" : "request", o_.buffers);
  std::printf("problems  %" PRIu64 " incomplete, %" PRIu64 " errors\n", incomplete_.load(), errors_.load());
  if (filter_) {
    std::printf("filter    %" PRIu64 " frames published for kivcam-view %d: %" PRIu64 " converted in place, %" PRIu64
                " copied (the free slot was the newest frame's)\n",
                published_.load(), static_cast<int>(getpid()), published_ - copied_, copied_.load());
  }
  if (!o_.save) {
    std::printf("files     none (%s DIR saves the frames)\n", o_.watch ? "--save" : "--out");
    std::fflush(stdout);
    return;
  }
  static const char* const kKind[] = {"PNG", "BMP", "raw"};
  std::printf("files     %" PRIu64 " %s in %s", written_.load(), kKind[static_cast<int>(o_.format)], o_.out.c_str());
  if (written_ == 1) std::printf(": %s", first_file_.substr(first_file_.rfind('/') + 1).c_str());
  if (written_ > 1) {
    std::printf(": %s to %s", first_file_.substr(first_file_.rfind('/') + 1).c_str(),
                last_file_.substr(last_file_.rfind('/') + 1).c_str());
  }
  std::printf("\n");
  std::fflush(stdout);
}

int Grabber::Run(uint64_t uid) {
  SignalWatch signals([this] { OnInterrupt(); }, [this] { Progress(false); }, 250);
  int rc = o_.watch ? camera_.WatchOpen(uid) : camera_.Open(uid);
  if (rc == kDone) {
    KIVCAM_SetCallBack(nullptr, &OnBusEvent);
    {
      std::lock_guard<std::mutex> l(stop_mutex_);
      acquiring_ = true;
    }
    if (!stopping()) rc = Prepare();
    if (rc == kDone && !stopping()) rc = o_.callback ? RunCallback() : RunRequests();
  }
  int finished = Finish();
  signals.Stop();
  if (rc == kDone) rc = finished;
  if (counting_) {
    Progress(true);
    PrintSummary();
  }
  if (signals.signal()) {
    std::printf("stopped   by %s; the files written are complete\n", signals.signal() == SIGINT ? "Ctrl-C (SIGINT)" : "SIGTERM");
    return 128 + signals.signal();
  }
  if (rc == kDone && errors_ > 0) rc = kFailed;
  return rc;
}

// Parses and checks the options of `grab` or `watch`, then runs it.
int Acquire(const Args& args, bool watch) {
  g_usage_hint = watch ? "Try 'kivcam watch --help' for more information."
                       : "Try 'kivcam grab --help' for more information.";
  Options o;
  o.watch = watch;
  if (watch) {
    o.frames = 0;
    o.timeout = KIVCAM_INFINITE;
  }
  if (int rc = ParseOptions(args, &o)) return rc;
  if (o.help) {
    std::fputs(watch ? kWatchHelp : kGrabHelp, stdout);
    return kDone;
  }
  if (o.camera.empty()) return UsageError("missing argument: CAMERA");
  uint64_t uid = 0;
  int rc = kDone;
  if (!ParseCamera(o.camera, &uid, &rc)) return rc;
  std::string error;
  if (o.save && !MakeFolders(o.out, &error)) return Problem("cannot use the folder for the files: %s", error.c_str());
  Grabber grabber(o);
  return grabber.Run(uid);
}

}  // namespace

int Camera::WatchOpen(uint64_t uid) {
  if (!Start()) return kFailed;
  watch_ = true;
  if (uid == KIVCAM_UID_ANY) {
    if (!KIVCAM_WatchOpen(uid, &h_)) return Fail("KIVCAM_WatchOpen");
    return kDone;
  }
  KIVCAM_OPENPARAM param = {};
  param.UID = uid;
  if (KIVCAM_WatchOpenGigE(&param, &h_)) return kDone;
  const uint32_t error = KIVCAM_GetLastError();
  // Only GigE cameras were searched: a USB camera of that UID deserves a word.
  std::vector<CameraListEntry> cameras;
  if (error == KIVCAM_ERR_NO_CAMERA && ListCameras(&cameras)) {
    for (const CameraListEntry& e : cameras) {
      if (e.UID == uid && e.CameraKind != KIVCAM_CAMERAKIND_GIGE) {
        return Problem("UID %" PRIu64 " is a USB camera: only GigE cameras can be watched", uid);
      }
    }
  }
  return Fail("KIVCAM_WatchOpenGigE", error);
}

int Grab(const Args& args) { return Acquire(args, false); }

int Watch(const Args& args) { return Acquire(args, true); }

}  // namespace kivcli
