// kivcam: the command-line tool for KivCam cameras. It uses nothing but the
// public interface (the C exports, the feature interface and the node map they hand
// out), so it doubles as a worked example of the library.
#include <dlfcn.h>
#include <unistd.h>

#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "kivcam/kivcam_features.h"

#ifdef KIVCAM_HAVE_READLINE
#include <readline/history.h>
#include <readline/readline.h>
#endif

#include "cli.h"

namespace kivcli {

namespace {
constexpr uint64_t kMaxRegisterCount = 4096;

const char* ErrorName(uint32_t code) {
  switch (code) {
    case KIVCAM_ERR_NONE:
      return "KIVCAM_ERR_NONE";
    case KIVCAM_ERR_PARAM:
      return "KIVCAM_ERR_PARAM (invalid argument or handle)";
    case KIVCAM_ERR_BUFFER_SIZE:
      return "KIVCAM_ERR_BUFFER_SIZE (buffer too small)";
    case KIVCAM_ERR_NOT_SUPPORTED:
      return "KIVCAM_ERR_NOT_SUPPORTED (no producer serves this kind of camera)";
    case KIVCAM_ERR_ALREADY_OPEN:
      return "KIVCAM_ERR_ALREADY_OPEN (the camera is open elsewhere)";
    case KIVCAM_ERR_NO_CAMERA:
      return "KIVCAM_ERR_NO_CAMERA (no such camera, or not present)";
    case KIVCAM_ERR_MODE:
      return "KIVCAM_ERR_MODE (wrong open mode)";
    case KIVCAM_ERR_ACCESS:
      return "KIVCAM_ERR_ACCESS (register, port or feature access failed)";
    case KIVCAM_ERR_ALLOCATED:
      return "KIVCAM_ERR_ALLOCATED";
    case KIVCAM_ERR_NOT_ALLOCATED:
      return "KIVCAM_ERR_NOT_ALLOCATED";
    case KIVCAM_ERR_RUNNING:
      return "KIVCAM_ERR_RUNNING";
    case KIVCAM_ERR_NOT_RUNNING:
      return "KIVCAM_ERR_NOT_RUNNING";
    case KIVCAM_ERR_BUFFER_BUSY:
      return "KIVCAM_ERR_BUFFER_BUSY";
    case KIVCAM_ERR_TIMEOUT:
      return "KIVCAM_ERR_TIMEOUT";
    case KIVCAM_ERR_NO_IMAGE:
      return "KIVCAM_ERR_NO_IMAGE";
    case KIVCAM_ERR_BUFFER:
      return "KIVCAM_ERR_BUFFER";
    case KIVCAM_ERR_VERSION:
      return "KIVCAM_ERR_VERSION (structure version refused)";
    case KIVCAM_ERR_NOT_GIGE:
      return "KIVCAM_ERR_NOT_GIGE";
    case KIVCAM_ERR_NO_ADDRESS:
      return "KIVCAM_ERR_NO_ADDRESS";
    case KIVCAM_ERR_NOT_USB:
      return "KIVCAM_ERR_NOT_USB";
    case KIVCAM_ERR_FORMAT:
      return "KIVCAM_ERR_FORMAT";
    case KIVCAM_ERR_OTHER:
      return "KIVCAM_ERR_OTHER (unexpected failure; kivcam-monitor shows details)";
    default:
      return "device code";
  }
}

// The library's words for the last failure; empty where it has none.
std::string LibraryReason() {
  std::string why(KIVCAMF_GetLastErrorText(nullptr, 0), '\0');
  KIVCAMF_GetLastErrorText(&why[0], static_cast<uint32_t>(why.size()));
  why.pop_back();
  return why;
}

}  // namespace

int Fail(const char* call) {
  const uint32_t code = KIVCAM_GetLastError();
  const std::string why = LibraryReason();
  if (why.empty()) return Fail(call, code);
  std::fprintf(stderr, "kivcam: %s failed: error %u, %s: %s\n", call, code, ErrorName(code), why.c_str());
  return kFailed;
}

int Fail(const char* call, uint32_t code) {
  std::fprintf(stderr, "kivcam: %s failed: error %u, %s\n", call, code, ErrorName(code));
  return kFailed;
}

int Problem(const char* fmt, ...) {
  std::fputs("kivcam: ", stderr);
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stderr, fmt, ap);
  va_end(ap);
  std::fputc('\n', stderr);
  return kFailed;
}

const char* g_usage_hint = "Try 'kivcam --help' for more information.";

int UsageError(const char* fmt, ...) {
  std::fputs("kivcam: ", stderr);
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stderr, fmt, ap);
  va_end(ap);
  std::fprintf(stderr, "\n%s\n", g_usage_hint);
  return kUsage;
}

const char kStepsHelp[] =
    "  info                               identity record, and the GigE or USB record\n"
    "  features [--long]                  the feature tree: type, access, value; --long adds\n"
    "                                     ranges, units and enumeration entries\n"
    "  describe FEATURE...                everything about features: range, unit, entries, text\n"
    "  get FEATURE...                     the value of features\n"
    "  set FEATURE=VALUE...               set features in order, then show them\n"
    "  exec COMMAND...                    execute command features\n"
    "  reg read ADDRESS [COUNT]           read COUNT 32-bit registers (default 1, at most 4096)\n"
    "  reg write ADDRESS VALUE            write one 32-bit register\n";

int Usage(FILE* out, int rc) {
  std::fprintf(out,
               "usage: kivcam <command> [arguments]\n"
               "       kivcam CAMERA STEP [arguments] [STEP [arguments]]...\n"
               "       kivcam shell CAMERA\n"
               "       kivcam grab CAMERA [options]\n"
               "       kivcam watch CAMERA [options]\n"
               "\n"
               "CAMERA is a UID from `kivcam list` (decimal, or hexadecimal with 0x) or `first`\n"
               "for the first camera no other program holds.\n"
               "\n"
               "Commands:\n"
               "  list                               the cameras on this machine\n"
               "  info CAMERA, features CAMERA [--long], describe CAMERA FEATURE...,\n"
               "  get CAMERA FEATURE..., set CAMERA FEATURE=VALUE..., exec CAMERA COMMAND...,\n"
               "  reg read CAMERA ADDRESS [COUNT], reg write CAMERA ADDRESS VALUE\n"
               "                                     one step on a camera opened for it alone\n"
               "  shell CAMERA                       type steps at a prompt, on one open camera\n"
               "  grab CAMERA [options]              acquire frames, convert them and save them as\n"
               "                                     PNG, BMP or raw files (`kivcam grab --help`);\n"
               "                                     --multicast GROUP streams them to watchers too,\n"
               "                                     --filter publishes them for kivcam-view\n"
               "  watch CAMERA [options]             receive the frames of a GigE camera another\n"
               "                                     program streams to a multicast group\n"
               "                                     (`kivcam watch --help`)\n"
               "  --version, --help\n"
               "\n"
               "Steps (several in one call run in order on one open camera, so settings last:\n"
               "`kivcam first set TriggerMode=On exec TriggerSoftware get FrameCounter`):\n"
               "%s"
               "\n"
               "Numbers are decimal or hexadecimal with 0x. Exit codes: 0 done, 1 a library\n"
               "call or feature access failed, 2 usage; grab and watch add 3 (the camera was\n"
               "lost) and watch 4 (the watched stream ended). Watch what the library does with\n"
               "kivcam-monitor.\n",
               kStepsHelp);
  return rc;
}

// ---- numbers ----------------------------------------------------------------

Parsed ParseUnsigned(const std::string& s, uint64_t max, uint64_t* out) {
  if (!s.empty() && (s[0] == '-' || s[0] == '+')) return Parsed::kSigned;
  bool hex = s.size() > 1 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
  std::string digits = hex ? s.substr(2) : s;
  const unsigned base = hex ? 16 : 10;
  if (digits.empty()) return Parsed::kNotNumber;
  uint64_t v = 0;
  bool too_big = false;
  for (char c : digits) {
    unsigned d;
    if (c >= '0' && c <= '9') d = static_cast<unsigned>(c - '0');
    else if (hex && c >= 'a' && c <= 'f') d = static_cast<unsigned>(c - 'a' + 10);
    else if (hex && c >= 'A' && c <= 'F') d = static_cast<unsigned>(c - 'A' + 10);
    else return Parsed::kNotNumber;
    if (v > (UINT64_MAX - d) / base) too_big = true;
    else v = v * base + d;
  }
  if (too_big || v > max) return Parsed::kTooBig;
  *out = v;
  return Parsed::kOk;
}

// A signed 64-bit integer: optional sign, then decimal or 0x hexadecimal.
Parsed ParseSigned(const std::string& s, int64_t* out) {
  bool negative = !s.empty() && s[0] == '-';
  std::string magnitude = !s.empty() && (s[0] == '-' || s[0] == '+') ? s.substr(1) : s;
  uint64_t v = 0;
  const uint64_t limit = negative ? uint64_t{1} << 63 : static_cast<uint64_t>(INT64_MAX);
  Parsed p = ParseUnsigned(magnitude, limit, &v);
  if (p == Parsed::kSigned) return Parsed::kNotNumber;  // "--5"
  if (p != Parsed::kOk) return p;
  *out = negative ? static_cast<int64_t>(0 - v) : static_cast<int64_t>(v);
  return Parsed::kOk;
}

bool LooksNumeric(const std::string& s) {
  size_t i = !s.empty() && (s[0] == '-' || s[0] == '+') ? 1 : 0;
  if (i < s.size() && (s[i] == '.' || (s[i] >= '0' && s[i] <= '9'))) return true;
  std::string rest = s.substr(i);
  for (char& c : rest) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return rest == "nan" || rest == "inf" || rest == "infinity";
}

// Parses a register number; on failure says why and gives the exit code.
bool RegisterNumber(const std::string& s, const char* what, uint64_t max, uint64_t* v, int* rc) {
  switch (ParseUnsigned(s, max, v)) {
    case Parsed::kOk:
      return true;
    case Parsed::kTooBig:
      *rc = max == kMaxRegisterCount
                ? UsageError("count %s is above the limit of %" PRIu64 " registers", s.c_str(), max)
                : UsageError("'%s' is out of range: a register %s has 32 bits", s.c_str(), what);
      return false;
    default:
      *rc = UsageError("'%s' is not a register %s (decimal or 0x-hex)", s.c_str(), what);
      return false;
  }
}

// ---- cameras ------------------------------------------------------------------

const char* KindName(uint32_t kind) {
  switch (kind) {
    case KIVCAM_CAMERAKIND_IIDC:
      return "IIDC";
    case KIVCAM_CAMERAKIND_GIGE:
      return "GigE";
    case KIVCAM_CAMERAKIND_USB:
      return "USB";
    default:
      return "?";
  }
}

std::string LinkName(uint32_t kind, uint32_t link) {
  if (kind == KIVCAM_CAMERAKIND_GIGE) return link == 0 ? "100 Mb/s" : "1 Gb/s";
  if (kind == KIVCAM_CAMERAKIND_USB) return link == 7 ? "USB 2.0" : "USB 3.0";
  return "code " + std::to_string(link);
}

// A text field that need not be terminated.
std::string Field(const char* p, size_t n) { return std::string(p, strnlen(p, n)); }

bool Start() {
  if (!KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION)) {
    Fail("KIVCAM_SetStructVersion");
    return false;
  }
  return true;
}

bool FileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// With no camera found: where the library looked for its producers, what it
// found there, and how to point it elsewhere.
void NoCameraHint() {
  std::vector<std::pair<std::string, std::string>> places;  // folder, how it is named
  const char* ld = std::getenv("LD_LIBRARY_PATH");
  std::stringstream ss(ld ? ld : "");
  for (std::string dir; std::getline(ss, dir, ':');) {
    if (!dir.empty()) places.emplace_back(dir, "LD_LIBRARY_PATH");
  }
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&KIVCAM_GetList), &info) && info.dli_fname) {
    char* real = realpath(info.dli_fname, nullptr);
    std::string lib = real ? real : info.dli_fname;
    std::free(real);
    places.emplace_back(lib.find('/') == std::string::npos ? "." : lib.substr(0, lib.rfind('/')),
                        "the library's folder");
  }
  const char* root = std::getenv("GENICAM_ROOT_V2_4");
  if (root && *root) places.emplace_back(std::string(root) + "/bin/Linux64_x64/TLIs", "GENICAM_ROOT_V2_4");

  std::fprintf(stderr,
               "kivcam: no camera found. The library loads the producers KivGigEGenTL.cti and\n"
               "KivUSBGenTL.cti by name from the loader path (LD_LIBRARY_PATH, the library's\n"
               "folder, the system's library folders), then from $GENICAM_ROOT_V2_4/bin/Linux64_x64/TLIs.\n"
               "Searched here:\n");
  for (const auto& [dir, why] : places) std::fprintf(stderr, "  %s (%s)\n", dir.c_str(), why.c_str());
  if (!root || !*root) std::fprintf(stderr, "  (GENICAM_ROOT_V2_4 is not set)\n");
  for (const char* file : {"KivGigEGenTL.cti", "KivUSBGenTL.cti"}) {
    std::string where;
    for (const auto& place : places) {
      if (FileExists(place.first + "/" + file)) {
        where = place.first;
        break;
      }
    }
    if (where.empty()) {
      std::fprintf(stderr, "%s: not in these folders\n", file);
    } else {
      std::fprintf(stderr, "%s: found in %s, but it reports no camera\n", file, where.c_str());
    }
  }
  std::fprintf(stderr,
               "To use other producers, put their folder on LD_LIBRARY_PATH or set\n"
               "GENICAM_ROOT_V2_4 to a folder whose bin/Linux64_x64/TLIs holds them.\n");
}

bool ListCameras(std::vector<CameraListEntry>* cameras) {
  CameraList query{};
  if (!KIVCAM_GetList(&query)) return false;
  const uint32_t count = query.Count;
  std::vector<unsigned char> storage(KIVCAM_CAMERALIST_BYTES(count ? count : 1));
  auto* list = reinterpret_cast<CameraList*>(storage.data());
  list->Count = count;
  if (count && !KIVCAM_GetList(list)) return false;
  cameras->resize(count);
  for (uint32_t i = 0; i < count; ++i) {
    std::memcpy(&(*cameras)[i], storage.data() + KIVCAM_CAMERALIST_BYTES(i), sizeof(CameraListEntry));
  }
  return true;
}

int List() {
  if (!Start()) return kFailed;
  std::vector<CameraListEntry> cameras;
  if (!ListCameras(&cameras)) return Fail("KIVCAM_GetList");
  const uint32_t count = static_cast<uint32_t>(cameras.size());
  std::printf("%-22s %-5s %-9s %-24s %-24s %s\n", "UID", "KIND", "LINK", "VENDOR", "MODEL", "MAC");
  for (const CameraListEntry& e : cameras) {
    if (e.UID == 0 && e.Vendor[0] == 0 && e.Model[0] == 0) continue;  // information unreadable
    // A GigE camera's UID is its MAC.
    char mac[24] = "-";
    if (e.CameraKind == KIVCAM_CAMERAKIND_GIGE)
      std::snprintf(mac, sizeof mac, "%02X:%02X:%02X:%02X:%02X:%02X", unsigned(e.UID >> 40) & 255,
                    unsigned(e.UID >> 32) & 255, unsigned(e.UID >> 24) & 255, unsigned(e.UID >> 16) & 255,
                    unsigned(e.UID >> 8) & 255, unsigned(e.UID) & 255);
    std::printf("%-22" PRIu64 " %-5s %-9s %-24s %-24s %s\n", e.UID, KindName(e.CameraKind),
                LinkName(e.CameraKind, e.LinkCode).c_str(), Field(e.Vendor, 256).c_str(),
                Field(e.Model, 256).c_str(), mac);
  }
  std::printf("%u camera%s\n", count, count == 1 ? "" : "s");
  std::fflush(stdout);
  if (count == 0) NoCameraHint();
  return kDone;
}

// Parses CAMERA; on failure says why and gives the exit code.
bool ParseCamera(const std::string& text, uint64_t* uid, int* rc) {
  if (text == "first") {
    *uid = KIVCAM_UID_ANY;
    return true;
  }
  switch (ParseUnsigned(text, UINT64_MAX, uid)) {
    case Parsed::kOk:
      return true;
    case Parsed::kSigned:
      *rc = UsageError("'%s' is not a camera UID: a UID has no sign", text.c_str());
      return false;
    case Parsed::kTooBig:
      *rc = UsageError("'%s' is not a camera UID: out of range for a 64-bit UID", text.c_str());
      return false;
    default:
      *rc = UsageError("'%s' is not a camera UID (decimal, 0x-hex or `first`)", text.c_str());
      return false;
  }
}

int Info(Camera& cam) {
  CameraListEntry e;
  if (!KIVCAM_CameraInfo(cam.handle(), &e)) return Fail("KIVCAM_CameraInfo");
  std::printf("UID          %" PRIu64 " (0x%012" PRIX64 ")\n", e.UID, e.UID);
  std::printf("kind         %s\n", KindName(e.CameraKind));
  std::printf("link         %s\n", LinkName(e.CameraKind, e.LinkCode).c_str());
  std::printf("vendor       %s\n", Field(e.Vendor, 256).c_str());
  std::printf("model        %s\n", Field(e.Model, 256).c_str());
  if (e.CameraKind == KIVCAM_CAMERAKIND_GIGE) {
    GigECameraInfo g;
    if (!KIVCAM_CameraInfoGigE(cam.handle(), &g)) return Fail("KIVCAM_CameraInfoGigE");
    uint32_t a = g.Info1002;
    std::printf("stream dest  %u.%u.%u.%u\n", (a >> 24) & 255, (a >> 16) & 255, (a >> 8) & 255,
                a & 255);
    std::printf("MAC / UID    %02X:%02X:%02X:%02X:%02X:%02X\n", g.UID[0], g.UID[1], g.UID[2],
                g.UID[3], g.UID[4], g.UID[5]);
    std::printf("version      %u.%u\n", g.Info1003, g.Info1004);
    a = g.Info1005;
    std::printf("camera IP    %u.%u.%u.%u\n", (a >> 24) & 255, (a >> 16) & 255, (a >> 8) & 255, a & 255);
    std::printf("device ver.  %s\n", Field(g.DeviceVersion, sizeof g.DeviceVersion).c_str());
    std::printf("maker info   %s\n", Field(g.ManufacturerInfo, sizeof g.ManufacturerInfo).c_str());
    std::printf("serial       %s\n", Field(g.SerialNumber, sizeof g.SerialNumber).c_str());
    std::printf("user name    %s\n", Field(g.UserDefinedName, sizeof g.UserDefinedName).c_str());
  } else if (e.CameraKind == KIVCAM_CAMERAKIND_USB) {
    USBCameraInfo u;
    if (!KIVCAM_CameraInfoUSB(cam.handle(), &u)) return Fail("KIVCAM_CameraInfoUSB");
    std::printf("info 1002    0x%08X\n", u.Info1002);
    std::printf("version      %u.%u\n", u.Info1003_1004 >> 16, u.Info1003_1004 & 0xFFFF);
    std::printf("family       %s\n", Field(u.FamilyName, sizeof u.FamilyName).c_str());
    std::printf("device ver.  %s\n", Field(u.DeviceVersion, sizeof u.DeviceVersion).c_str());
    std::printf("maker info   %s\n", Field(u.ManufacturerInfo, sizeof u.ManufacturerInfo).c_str());
    std::printf("serial       %s\n", Field(u.SerialNumber, sizeof u.SerialNumber).c_str());
    std::printf("user name    %s\n", Field(u.UserDefinedName, sizeof u.UserDefinedName).c_str());
    std::printf("info 1011    0x%016" PRIX64 "\n", u.Info1011);
  }
  return kDone;
}

// ---- features -----------------------------------------------------------------
// All through the library's C feature interface, as any host would use it.

// A text out of a KIVCAMF_ text function: a first try that most texts fit,
// then one in the size asked for. False when the call failed otherwise.
template <typename Fn>
bool FetchText(Fn&& fn, std::string* out) {
  char first[256];
  uint32_t size = sizeof first;
  if (fn(first, &size)) {
    out->assign(first, size ? size - 1 : 0);
    return true;
  }
  if (KIVCAM_GetLastError() != KIVCAM_ERR_BUFFER_SIZE) return false;
  std::string s(size, '\0');
  if (!fn(&s[0], &size)) return false;
  s.resize(size ? size - 1 : 0);
  *out = std::move(s);
  return true;
}

// Why the last call failed: the library's words, or the code's name.
std::string Reason() {
  std::string why = LibraryReason();
  return why.empty() ? ErrorName(KIVCAM_GetLastError()) : why;
}

const char* AccessName(uint32_t access) {
  static const char* const kNames[] = {"NI", "NA", "WO", "RO", "RW"};
  return access < 5 ? kNames[access] : "?";
}

const char* TypeName(uint32_t type) {
  switch (type) {
    case KIVCAMF_TYPE_INTEGER: return "Integer";
    case KIVCAMF_TYPE_FLOAT: return "Float";
    case KIVCAMF_TYPE_BOOLEAN: return "Boolean";
    case KIVCAMF_TYPE_COMMAND: return "Command";
    case KIVCAMF_TYPE_STRING: return "String";
    case KIVCAMF_TYPE_REGISTER: return "Register";
    case KIVCAMF_TYPE_CATEGORY: return "Category";
    case KIVCAMF_TYPE_ENUMERATION: return "Enumeration";
    case KIVCAMF_TYPE_ENUMENTRY: return "EnumEntry";
    case KIVCAMF_TYPE_PORT: return "Port";
    default: return "Node";
  }
}

// A feature and what the library says it is.
struct Feature {
  HCAMERA cam = nullptr;
  std::string name;
  KIVCAMF_INFO info{};

  bool Is(uint32_t type) const { return info.Type == type; }
  bool HasValue() const {
    return !Is(KIVCAMF_TYPE_COMMAND) && !Is(KIVCAMF_TYPE_CATEGORY) && !Is(KIVCAMF_TYPE_PORT);
  }
  bool Readable() const { return info.Access == KIVCAMF_ACCESS_RO || info.Access == KIVCAMF_ACCESS_RW; }
  bool Writable() const { return info.Access == KIVCAMF_ACCESS_WO || info.Access == KIVCAMF_ACCESS_RW; }
  // Reads the description again (after a change of the camera's state).
  bool Refresh() { return KIVCAMF_GetInfo(cam, name.c_str(), &info) != 0; }
  std::string Text(uint32_t which) const {
    std::string s;
    FetchText([&](char* t, uint32_t* n) { return KIVCAMF_GetInfoText(cam, name.c_str(), which, t, n); }, &s);
    return s;
  }
};

// The feature `name`; when there is none, says so and gives false.
bool Lookup(HCAMERA cam, const std::string& name, Feature* f) {
  f->cam = cam;
  f->name = name;
  if (f->Refresh()) return true;
  if (KIVCAM_GetLastError() == KIVCAM_ERR_PARAM) Problem("the camera has no feature '%s'", name.c_str());
  else Fail("KIVCAMF_GetInfo");
  return false;
}

std::string WithUnit(const Feature& f, std::string s) {
  if (!f.Is(KIVCAMF_TYPE_INTEGER) && !f.Is(KIVCAMF_TYPE_FLOAT)) return s;
  std::string unit = f.Text(KIVCAMF_TEXT_UNIT);
  return unit.empty() ? s : s + " " + unit;
}

// The value as text, or why there is none.
std::string ValueText(const Feature& f) {
  if (!f.HasValue()) return "";
  if (!f.Readable()) return "-";
  std::string s;
  if (!FetchText([&](char* t, uint32_t* n) { return KIVCAMF_ToString(f.cam, f.name.c_str(), t, n); }, &s)) {
    return "<error: " + Reason() + ">";
  }
  return WithUnit(f, s);
}

std::string Number(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.9g", v);
  return buf;
}

std::vector<std::string> Children(const Feature& f) {
  std::vector<std::string> out;
  for (uint32_t i = 0; i < f.info.ChildCount; ++i) {
    std::string child;
    if (FetchText([&](char* t, uint32_t* n) { return KIVCAMF_GetChild(f.cam, f.name.c_str(), i, t, n); }, &child)) {
      out.push_back(child);
    }
  }
  return out;
}

// The entries of an enumeration, as "Symbolic" (or with values): those that
// may be selected now, or with `all` every one.
std::vector<std::string> Entries(const Feature& f, bool with_values, bool all = false) {
  std::vector<std::string> out;
  if (!f.Is(KIVCAMF_TYPE_ENUMERATION)) return out;
  for (uint32_t i = 0; i < f.info.EntryCount; ++i) {
    int64_t value = 0;
    uint32_t access = 0;
    std::string text;
    auto entry = [&](char* t, uint32_t* n) { return KIVCAMF_GetEntry(f.cam, f.name.c_str(), i, &value, &access, t, n); };
    if (!FetchText(entry, &text)) continue;
    const bool available = access != KIVCAMF_ACCESS_NA && access != KIVCAMF_ACCESS_NI;
    if (!available && !all) continue;
    if (with_values) text += " = " + std::to_string(value);
    if (!available) text += " (not available now)";
    out.push_back(text);
  }
  return out;
}

std::string Join(const std::vector<std::string>& parts, const char* sep) {
  std::string s;
  for (const auto& p : parts) s += (s.empty() ? "" : sep) + p;
  return s;
}

// Range, increment and unit of a number, or the entries of an enumeration,
// on one line; empty for other features and for what cannot be set now.
std::string Limits(const Feature& f) {
  const KIVCAMF_INFO& i = f.info;
  if (!f.Writable()) return "";  // what may be set, for what can be
  if (f.Is(KIVCAMF_TYPE_ENUMERATION)) return "{" + Join(Entries(f, false), ", ") + "}";
  if (!f.Is(KIVCAMF_TYPE_INTEGER) && !f.Is(KIVCAMF_TYPE_FLOAT)) return "";
  if (!i.HasRange) return "<range unreadable now>";
  std::string s;
  if (f.Is(KIVCAMF_TYPE_INTEGER)) {
    s = "[" + std::to_string(i.IntMin) + " .. " + std::to_string(i.IntMax);
    if (i.IncMode == KIVCAMF_INC_LIST) {
      std::vector<std::string> values;
      for (uint32_t k = 0; k < i.EntryCount; ++k) {
        int64_t v = 0;
        uint32_t size = 0;
        if (KIVCAMF_GetEntry(f.cam, f.name.c_str(), k, &v, nullptr, nullptr, &size)) values.push_back(std::to_string(v));
      }
      s += ", one of " + Join(values, ", ");
    } else if (i.IntInc != 1) {
      s += ", step " + std::to_string(i.IntInc);
    }
  } else {
    s = "[" + Number(i.FloatMin) + " .. " + Number(i.FloatMax);
    if (i.IncMode == KIVCAMF_INC_FIXED) s += ", step " + Number(i.FloatInc);
  }
  return WithUnit(f, s + "]");
}

void PrintTree(HCAMERA cam, const std::string& name, int depth, bool wide, std::vector<std::string>& seen) {
  for (const std::string& s : seen) {
    if (s == name) return;  // a category listed twice
  }
  seen.push_back(name);
  Feature f;
  f.cam = cam;
  f.name = name;
  std::string value;
  if (!f.Refresh()) {
    value = "<error: " + Reason() + ">";
  } else {
    value = ValueText(f);
    std::string limits = wide ? Limits(f) : "";
    if (!limits.empty()) value += (value.empty() ? "" : "  ") + limits;
  }
  std::printf("%*s%-*s %-11s %-2s %s\n", depth * 2, "", 40 - depth * 2, name.c_str(), TypeName(f.info.Type),
              AccessName(f.info.Access), value.c_str());
  for (const std::string& child : Children(f)) PrintTree(cam, child, depth + 1, wide, seen);
}

int FeatureTree(Camera& cam, bool wide) {
  KIVCAMF_INFO root;
  if (!KIVCAMF_GetInfo(cam.handle(), "Root", &root)) {
    if (KIVCAM_GetLastError() != KIVCAM_ERR_PARAM) return Fail("KIVCAMF_GetInfo");
    return Problem("the camera's description has no Root category");
  }
  std::vector<std::string> seen;
  PrintTree(cam.handle(), "Root", 0, wide, seen);
  return kDone;
}

// Runs `each` on every named feature; a missing or failing one fails the
// result but not the others.
template <typename Each>
int ForEachFeature(Camera& cam, const Args& names, Each&& each) {
  int rc = kDone;
  for (const std::string& name : names) {
    Feature f;
    if (int r = Lookup(cam.handle(), name, &f) ? each(f) : kFailed) rc = r;
  }
  return rc;
}

int Describe(Camera& cam, const Args& names) {
  return ForEachFeature(cam, names, [](const Feature& f) -> int {
    auto line = [](const char* key, const std::string& text) {
      if (!text.empty()) std::printf("  %-12s %s\n", key, text.c_str());
    };
    std::printf("%s\n", f.name.c_str());
    line("type", TypeName(f.info.Type));
    line("access", AccessName(f.info.Access));
    const std::string display = f.Text(KIVCAMF_TEXT_DISPLAYNAME);
    if (display != f.name) line("display name", display);
    line("value", ValueText(f));
    if (!f.Is(KIVCAMF_TYPE_ENUMERATION)) line("range", Limits(f));
    for (const std::string& e : Entries(f, true, true)) line("entry", e);
    if (f.Is(KIVCAMF_TYPE_CATEGORY)) line("features", Join(Children(f), ", "));
    if (f.Is(KIVCAMF_TYPE_COMMAND)) line("run with", "kivcam CAMERA exec " + f.name);
    const std::string description = f.Text(KIVCAMF_TEXT_DESCRIPTION), tip = f.Text(KIVCAMF_TEXT_TOOLTIP);
    line("description", description);
    if (tip != description) line("tool tip", tip);
    return kDone;
  });
}

int Get(Camera& cam, const Args& names) {
  return ForEachFeature(cam, names, [](const Feature& f) -> int {
    const char* name = f.name.c_str();
    if (f.Is(KIVCAMF_TYPE_CATEGORY)) {
      return Problem("%s is a category, not a value; its features: %s", name, Join(Children(f), ", ").c_str());
    }
    if (f.Is(KIVCAMF_TYPE_COMMAND)) return Problem("%s is a command, not a value: run it with exec", name);
    std::string v = ValueText(f);
    std::printf("%s = %s\n", name, v.c_str());
    return v.rfind("<error", 0) == 0 || v == "-" ? kFailed : kDone;
  });
}

// Writes `value` into a number feature after checking it as the number it
// must be; other features (and numbers in other spellings, such as an IP
// address) take the text as it is.
int SetOne(const Feature& f, const std::string& value) {
  const char* name = f.name.c_str();
  if (f.Is(KIVCAMF_TYPE_COMMAND)) return Problem("%s is a command: run it with exec, not set", name);
  if (f.Is(KIVCAMF_TYPE_CATEGORY)) return Problem("%s is a category and holds no value", name);
  if (!f.HasValue()) return Problem("'%s' holds no value", name);
  KIVCAM_BOOL ok;
  if (f.Is(KIVCAMF_TYPE_INTEGER) && LooksNumeric(value)) {
    int64_t x = 0;
    switch (ParseSigned(value, &x)) {
      case Parsed::kOk:
        break;
      case Parsed::kTooBig:
        return UsageError("%s: '%s' is out of range for a 64-bit integer", name, value.c_str());
      default:
        return UsageError("%s: '%s' is not an integer", name, value.c_str());
    }
    ok = KIVCAMF_SetInt(f.cam, name, x);
  } else if (f.Is(KIVCAMF_TYPE_FLOAT) && LooksNumeric(value)) {
    char* end = nullptr;
    double x = std::strtod(value.c_str(), &end);
    if (end == value.c_str() || *end) return UsageError("%s: '%s' is not a number", name, value.c_str());
    if (!std::isfinite(x)) return UsageError("%s: '%s' is not a finite number", name, value.c_str());
    ok = KIVCAMF_SetFloat(f.cam, name, x);
  } else {
    ok = KIVCAMF_FromString(f.cam, name, value.c_str());
  }
  if (ok) return kDone;
  Problem("setting %s to '%s' failed: %s", name, value.c_str(), Reason().c_str());
  std::vector<std::string> entries = Entries(f, false);
  if (!entries.empty()) std::fprintf(stderr, "kivcam: %s takes one of: %s\n", name, Join(entries, ", ").c_str());
  return kFailed;
}

std::string ValueText(HCAMERA cam, const std::string& name) {
  Feature f;
  f.cam = cam;
  f.name = name;
  return f.Refresh() ? ValueText(f) : std::string("?");
}

int Set(Camera& cam, const Args& assignments) {
  for (const std::string& a : assignments) {
    size_t eq = a.find('=');
    if (eq == std::string::npos || eq == 0) return UsageError("'%s' is not FEATURE=VALUE", a.c_str());
    Feature f;
    if (!Lookup(cam.handle(), a.substr(0, eq), &f)) return kFailed;
    if (int rc = SetOne(f, a.substr(eq + 1))) return rc;
    f.Refresh();  // a setting may change what can be read
    std::printf("%s = %s\n", f.name.c_str(), ValueText(f).c_str());
  }
  return kDone;
}

// Commands run through the feature interface, which also waits until the
// camera reports them done.
int Exec(Camera& cam, const Args& names) {
  constexpr uint32_t kCommandTimeoutMs = 10000;
  for (const std::string& name : names) {
    KIVCAMF_INFO info;
    if (!KIVCAMF_GetInfo(cam.handle(), name.c_str(), &info)) {
      if (KIVCAM_GetLastError() != KIVCAM_ERR_PARAM) return Fail("KIVCAMF_GetInfo");
      return Problem("the camera has no feature '%s'", name.c_str());
    }
    if (info.Type != KIVCAMF_TYPE_COMMAND) return Problem("'%s' is not a command", name.c_str());
    if (!KIVCAMF_Execute(cam.handle(), name.c_str(), kCommandTimeoutMs)) return Fail("KIVCAMF_Execute");
    std::printf("%s executed\n", name.c_str());
  }
  return kDone;
}

// The arguments of `reg`, checked before any camera is opened.
struct RegRequest {
  bool write = false;
  uint32_t address = 0;
  uint32_t value = 0;
  uint32_t count = 1;
};

int ParseReg(const Args& args, RegRequest* r) {
  if (args.empty()) return UsageError("reg needs an operation: read or write");
  if (args[0] != "read" && args[0] != "write") {
    return UsageError("unknown reg operation '%s' (read or write)", args[0].c_str());
  }
  r->write = args[0] == "write";
  if (args.size() < 2) return UsageError("missing argument: ADDRESS");
  int rc = kDone;
  uint64_t v = 0;
  if (!RegisterNumber(args[1], "address", 0xFFFFFFFFu, &v, &rc)) return rc;
  r->address = static_cast<uint32_t>(v);
  if (r->write) {
    if (args.size() < 3) return UsageError("missing argument: VALUE");
    if (args.size() > 3) return UsageError("reg write takes one VALUE, got %zu", args.size() - 2);
    if (!RegisterNumber(args[2], "value", 0xFFFFFFFFu, &v, &rc)) return rc;
    r->value = static_cast<uint32_t>(v);
    return kDone;
  }
  if (args.size() > 3) return UsageError("reg read takes ADDRESS [COUNT], got %zu arguments", args.size() - 1);
  if (args.size() == 3) {
    if (!RegisterNumber(args[2], "count", kMaxRegisterCount, &v, &rc)) return rc;
    if (v == 0) return UsageError("a register count must be at least 1");
    r->count = static_cast<uint32_t>(v);
  }
  return kDone;
}

int Reg(Camera& cam, const RegRequest& r) {
  CameraListEntry e;
  if (!KIVCAM_CameraInfo(cam.handle(), &e)) return Fail("KIVCAM_CameraInfo");
  // GigE Vision registers are big-endian on the wire, USB3 Vision ones little-endian.
  bool big_endian = e.CameraKind == KIVCAM_CAMERAKIND_GIGE;
  if (r.write) {
    unsigned char bytes[4];
    for (int b = 0; b < 4; ++b)
      bytes[b] = static_cast<unsigned char>(r.value >> (big_endian ? 24 - 8 * b : 8 * b));
    uint32_t size = 4;
    if (!KIVCAM_WritePort(cam.handle(), r.address, bytes, &size)) return Fail("KIVCAM_WritePort");
    std::printf("0x%08X <- 0x%08X\n", r.address, r.value);
    return kDone;
  }
  std::vector<unsigned char> bytes(4u * r.count);
  uint32_t size = static_cast<uint32_t>(bytes.size());
  if (!KIVCAM_ReadPort(cam.handle(), r.address, bytes.data(), &size)) return Fail("KIVCAM_ReadPort");
  for (uint32_t off = 0; off + 4 <= size; off += 4) {
    uint32_t v = 0;
    for (int b = 0; b < 4; ++b) {
      v |= static_cast<uint32_t>(bytes[off + b]) << (big_endian ? 24 - 8 * b : 8 * b);
    }
    std::printf("0x%08X  0x%08X  %10u\n", static_cast<uint32_t>(r.address + off), v, v);
  }
  return kDone;
}

// ---- steps ----------------------------------------------------------------------

// One step on an open camera: a verb and its arguments. Arguments are checked
// before the camera is opened, so a usage error costs no open.
struct Step {
  std::string verb;
  Args args;
  RegRequest reg;
  bool wide = false;
};

const char* const kVerbs[] = {"info", "features", "describe", "get", "set", "exec", "reg"};

bool IsVerb(const std::string& s) {
  for (const char* v : kVerbs) {
    if (s == v) return true;
  }
  return false;
}

int CheckStep(Step* s) {
  const std::string& v = s->verb;
  if (v == "info") {
    if (!s->args.empty()) return UsageError("info takes no arguments after CAMERA");
  } else if (v == "features") {
    if (s->args.size() == 1 && s->args[0] == "--long") {
      s->wide = true;
    } else if (!s->args.empty()) {
      return UsageError("features takes only --long after CAMERA, not '%s'", s->args[0].c_str());
    }
  } else if (v == "describe" || v == "get" || v == "exec") {
    if (s->args.empty()) return UsageError("missing argument: %s", v == "exec" ? "COMMAND" : "FEATURE");
  } else if (v == "set") {
    if (s->args.empty()) return UsageError("missing argument: FEATURE=VALUE");
    for (const std::string& a : s->args) {
      if (a.find('=') == std::string::npos || a[0] == '=') return UsageError("'%s' is not FEATURE=VALUE", a.c_str());
    }
  } else if (v == "reg") {
    return ParseReg(s->args, &s->reg);
  } else {
    return UsageError("unknown step '%s' (one of info, features, describe, get, set, exec, reg)", v.c_str());
  }
  return kDone;
}

int RunStep(Camera& cam, const Step& s) {
  if (s.verb == "info") return Info(cam);
  if (s.verb == "features") return FeatureTree(cam, s.wide);
  if (s.verb == "describe") return Describe(cam, s.args);
  if (s.verb == "get") return Get(cam, s.args);
  if (s.verb == "set") return Set(cam, s.args);
  if (s.verb == "exec") return Exec(cam, s.args);
  return Reg(cam, s.reg);
}

// Opens the camera once and runs the steps in order; the first failure ends.
int RunSteps(const std::string& camera, std::vector<Step>& steps) {
  uint64_t uid = 0;
  int rc = kDone;
  if (!ParseCamera(camera, &uid, &rc)) return rc;
  for (Step& s : steps) {
    if ((rc = CheckStep(&s))) return rc;
  }
  Camera cam;
  if ((rc = cam.Open(uid))) return rc;
  for (const Step& s : steps) {
    std::fflush(stdout);
    if ((rc = RunStep(cam, s))) return rc;
  }
  return kDone;
}

// "set A=1 exec B get C": each verb with the words up to the next verb.
bool SplitSteps(const Args& words, std::vector<Step>* steps, int* rc) {
  for (const std::string& w : words) {
    if (IsVerb(w)) {
      steps->push_back(Step{w, {}, {}, false});
    } else if (steps->empty()) {
      *rc = UsageError("'%s' is not a step (one of info, features, describe, get, set, exec, reg)", w.c_str());
      return false;
    } else {
      steps->back().args.push_back(w);
    }
  }
  if (steps->empty()) {
    *rc = UsageError("missing step after CAMERA");
    return false;
  }
  return true;
}

// ---- shell ----------------------------------------------------------------------

Args Words(const std::string& line) {
  Args words;
  std::istringstream in(line);
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

// One line of input: from readline with history on a terminal, else plainly.
class LineReader {
 public:
  LineReader() : interactive_(isatty(0)) {
#ifdef KIVCAM_HAVE_READLINE
    if (interactive_) {
      if (const char* home = std::getenv("HOME")) history_ = std::string(home) + "/.kivcam_history";
      if (!history_.empty()) read_history(history_.c_str());
    }
#endif
  }
  ~LineReader() {
#ifdef KIVCAM_HAVE_READLINE
    if (!history_.empty()) {
      write_history(history_.c_str());
      history_truncate_file(history_.c_str(), 1000);
    }
#endif
  }
  bool interactive() const { return interactive_; }
  bool Read(std::string* line) {
#ifdef KIVCAM_HAVE_READLINE
    if (interactive_) {
      char* raw = readline("kivcam> ");
      if (!raw) return false;
      *line = raw;
      if (!Words(*line).empty()) add_history(raw);
      std::free(raw);
      return true;
    }
#endif
    if (interactive_) {
      std::fputs("kivcam> ", stdout);
      std::fflush(stdout);
    }
    return static_cast<bool>(std::getline(std::cin, *line));
  }

 private:
  bool interactive_;
  std::string history_;
};

int Shell(const std::string& camera) {
  uint64_t uid = 0;
  int rc = kDone;
  if (!ParseCamera(camera, &uid, &rc)) return rc;
  Camera cam;
  if ((rc = cam.Open(uid))) return rc;
  LineReader in;
  g_usage_hint = "Type 'help' for the steps.";
  if (in.interactive()) std::printf("Steps on the open camera; `help` lists them, `quit` ends.\n");
  int worst = kDone;
  for (std::string line; in.Read(&line);) {
    Args words = Words(line);
    if (words.empty() || words[0][0] == '#') continue;
    if (words[0] == "quit" || words[0] == "exit") break;
    if (words[0] == "help") {
      std::printf("%s", kStepsHelp);
      continue;
    }
    Step s{words[0], Args(words.begin() + 1, words.end()), {}, false};
    rc = CheckStep(&s);
    if (!rc) rc = RunStep(cam, s);
    std::fflush(stdout);
    if (rc > worst) worst = rc;
  }
  return worst;
}

// ---- main -----------------------------------------------------------------------

int Version() {
  std::printf("kivcam %s, library revision %u\n", KIVCAM_VERSION, KIVCAM_GetLibraryRevision());
  return kDone;
}

}  // namespace kivcli

int main(int argc, char** argv) {
  using namespace kivcli;
  Args args(argv + 1, argv + argc);
  if (args.empty()) return UsageError("missing command");
  const std::string cmd = args[0];
  if (cmd == "--help" || cmd == "-h" || cmd == "help") return Usage(stdout, kDone);
  if (cmd == "--version") return Version();
  if (cmd == "list") return args.size() == 1 ? List() : UsageError("list takes no arguments");
  if (cmd == "shell") {
    if (args.size() < 2) return UsageError("missing argument: CAMERA");
    if (args.size() > 2) return UsageError("shell takes one CAMERA");
    return Shell(args[1]);
  }
  if (cmd == "grab") return Grab(Args(args.begin() + 1, args.end()));
  if (cmd == "watch") return Watch(Args(args.begin() + 1, args.end()));
  if (cmd == "reg") {  // reg OPERATION CAMERA ...: the camera comes second
    if (args.size() < 2) return UsageError("reg needs an operation: read or write");
    if (args.size() < 3) return UsageError("missing argument: CAMERA");
    Args rest{args[1]};
    rest.insert(rest.end(), args.begin() + 3, args.end());
    std::vector<Step> steps{Step{cmd, rest, {}, false}};
    return RunSteps(args[2], steps);
  }
  if (IsVerb(cmd)) {
    if (args.size() < 2) return UsageError("missing argument: CAMERA");
    std::vector<Step> steps{Step{cmd, Args(args.begin() + 2, args.end()), {}, false}};
    return RunSteps(args[1], steps);
  }
  if (cmd == "first" || (cmd[0] >= '0' && cmd[0] <= '9')) {
    std::vector<Step> steps;
    int rc = kDone;
    if (!SplitSteps(Args(args.begin() + 1, args.end()), &steps, &rc)) return rc;
    return RunSteps(cmd, steps);
  }
  if (cmd[0] == '-') return UsageError("unknown option '%s'", cmd.c_str());
  return UsageError("unknown command '%s'", cmd.c_str());
}
