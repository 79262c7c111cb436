// kivcam: the command-line tool for KivCam cameras. It uses nothing but the
// public interface (the C exports and, for features, the node map they hand
// out), so it doubles as a worked example of the library.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kivcam/kivcam.h"
#include "kivgenapi/KivGenApi.h"

namespace {

namespace ga = KivGenApi;

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

// A failed library call: says which and why, and gives the exit code.
int Fail(const char* call) {
  uint32_t code = KIVCAM_GetLastError();
  std::fprintf(stderr, "kivcam: %s failed: error %u, %s\n", call, code, ErrorName(code));
  return 1;
}

int Usage(FILE* out, int rc) {
  std::fprintf(out,
               "usage: kivcam <command> [arguments]\n"
               "\n"
               "Commands (CAMERA is a UID from `kivcam list`, decimal or 0x-hex, or `first`\n"
               "for the first camera no other program holds):\n"
               "  list                               the cameras on this machine\n"
               "  info CAMERA                        identity record, and the GigE or USB record\n"
               "  features CAMERA                    the feature tree: type, access, value\n"
               "  get CAMERA FEATURE...              the value of features\n"
               "  set CAMERA FEATURE=VALUE...        set features in order, then show them\n"
               "  exec CAMERA COMMAND...             execute command features\n"
               "  reg read CAMERA ADDRESS [COUNT]    read COUNT 32-bit registers (default 1)\n"
               "  reg write CAMERA ADDRESS VALUE     write one 32-bit register\n"
               "\n"
               "Exit codes: 0 done, 1 a library call or feature access failed, 2 usage.\n"
               "Watch what the library does with kivcam-monitor.\n");
  return rc;
}

bool ParseU64(const char* s, uint64_t* v) {
  if (!s || !*s) return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long x = std::strtoull(s, &end, 0);
  if (errno || *end) return false;
  *v = x;
  return true;
}

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

int List() {
  if (!Start()) return 1;
  CameraList query{};
  if (!KIVCAM_GetList(&query)) return Fail("KIVCAM_GetList");
  uint32_t count = query.Count;
  std::vector<unsigned char> storage(KIVCAM_CAMERALIST_BYTES(count ? count : 1));
  auto* list = reinterpret_cast<CameraList*>(storage.data());
  list->Count = count;
  if (count && !KIVCAM_GetList(list)) return Fail("KIVCAM_GetList");
  std::printf("%-22s %-5s %-9s %-24s %-24s %s\n", "UID", "KIND", "LINK", "VENDOR", "MODEL", "MAC");
  for (uint32_t i = 0; i < count; ++i) {
    CameraListEntry e;
    std::memcpy(&e, reinterpret_cast<const unsigned char*>(list) + 4 + 532u * i, sizeof e);
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
  return 0;
}

// An open camera, closed again whatever happens.
class Camera {
 public:
  ~Camera() {
    if (h_) KIVCAM_Close(h_);
  }
  int Open(const char* which) {
    if (!Start()) return 1;
    uint64_t uid = KIVCAM_UID_ANY;
    if (std::strcmp(which, "first") != 0 && !ParseU64(which, &uid)) {
      std::fprintf(stderr, "kivcam: '%s' is not a camera UID (decimal, 0x-hex or `first`)\n",
                   which);
      return 2;
    }
    if (!KIVCAM_Open(uid, &h_)) return Fail("KIVCAM_Open");
    return 0;
  }
  HCAMERA handle() const { return h_; }
  ga::CNodeMapRef* NodeMap() {
    void* p = nullptr;
    if (!KIVCAM_GetNodeMap(h_, &p)) {
      Fail("KIVCAM_GetNodeMap");
      return nullptr;
    }
    return static_cast<ga::CNodeMapRef*>(p);
  }

 private:
  HCAMERA h_ = nullptr;
};

int Info(const char* which) {
  Camera cam;
  if (int rc = cam.Open(which)) return rc;
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
  return 0;
}

const char* AccessName(ga::EAccessMode m) {
  switch (m) {
    case ga::NI:
      return "NI";
    case ga::NA:
      return "NA";
    case ga::WO:
      return "WO";
    case ga::RO:
      return "RO";
    case ga::RW:
      return "RW";
    default:
      return "?";
  }
}

const char* TypeName(ga::INode* n) {
  switch (n->GetPrincipalInterfaceType()) {
    case ga::intfIInteger:
      return "Integer";
    case ga::intfIFloat:
      return "Float";
    case ga::intfIBoolean:
      return "Boolean";
    case ga::intfICommand:
      return "Command";
    case ga::intfIString:
      return "String";
    case ga::intfIRegister:
      return "Register";
    case ga::intfICategory:
      return "Category";
    case ga::intfIEnumeration:
      return "Enumeration";
    case ga::intfIEnumEntry:
      return "EnumEntry";
    case ga::intfIPort:
      return "Port";
    default:
      return "Node";
  }
}

// The value as text, or why there is none.
std::string ValueText(ga::INode* n) {
  if (n->GetPrincipalInterfaceType() == ga::intfICommand ||
      n->GetPrincipalInterfaceType() == ga::intfICategory) {
    return "";
  }
  auto* v = dynamic_cast<ga::IValue*>(n);
  if (!v) return "";
  if (!ga::IsReadable(n->GetAccessMode())) return "-";
  try {
    std::string s = v->ToString();
    if (auto* i = dynamic_cast<ga::IInteger*>(n)) {
      std::string unit = i->GetUnit();
      if (!unit.empty()) s += " " + unit;
    } else if (auto* f = dynamic_cast<ga::IFloat*>(n)) {
      std::string unit = f->GetUnit();
      if (!unit.empty()) s += " " + unit;
    }
    return s;
  } catch (const ga::GenericException& e) {
    return std::string("<error: ") + e.GetDescription() + ">";
  }
}

void PrintTree(ga::INode* n, int depth, std::vector<ga::INode*>& seen) {
  for (ga::INode* s : seen) {
    if (s == n) return;  // a category listed twice
  }
  seen.push_back(n);
  std::printf("%*s%-*s %-11s %-2s %s\n", depth * 2, "", 40 - depth * 2, n->GetName().c_str(),
              TypeName(n), AccessName(n->GetAccessMode()), ValueText(n).c_str());
  if (auto* cat = dynamic_cast<ga::ICategory*>(n)) {
    ga::FeatureList_t features;
    cat->GetFeatures(features);
    for (ga::IValue* f : features) {
      if (ga::INode* child = f->GetNode()) PrintTree(child, depth + 1, seen);
    }
  }
}

// Opens the camera and runs `work` on its node map; the camera is closed after.
template <typename Work>
int WithNodeMap(const char* which, Work&& work) {
  Camera cam;
  if (int rc = cam.Open(which)) return rc;
  ga::CNodeMapRef* map = cam.NodeMap();
  return map ? work(map) : 1;
}

int Features(const char* which) {
  return WithNodeMap(which, [&](ga::CNodeMapRef* map) {
    ga::INode* root = map->_GetNode("Root");
    if (!root) {
      std::fprintf(stderr, "kivcam: the camera's description has no Root category\n");
      return 1;
    }
    std::vector<ga::INode*> seen;
    PrintTree(root, 0, seen);
    return 0;
  });
}

ga::INode* Find(ga::CNodeMapRef* map, const std::string& name) {
  ga::INode* n = map->_GetNode(name.c_str());
  if (!n) std::fprintf(stderr, "kivcam: the camera has no feature '%s'\n", name.c_str());
  return n;
}

int Get(const char* which, char** names, int count) {
  return WithNodeMap(which, [&](ga::CNodeMapRef* map) {
    int rc = 0;
    for (int i = 0; i < count; ++i) {
      ga::INode* n = Find(map, names[i]);
      if (!n) {
        rc = 1;
        continue;
      }
      std::string v = ValueText(n);
      std::printf("%s = %s\n", names[i], v.c_str());
      if (v.rfind("<error", 0) == 0 || v == "-") rc = 1;
    }
    return rc;
  });
}

int Set(const char* which, char** assignments, int count) {
  return WithNodeMap(which, [&](ga::CNodeMapRef* map) {
    for (int i = 0; i < count; ++i) {
      std::string a = assignments[i];
      size_t eq = a.find('=');
      if (eq == std::string::npos || eq == 0) {
        std::fprintf(stderr, "kivcam: '%s' is not FEATURE=VALUE\n", a.c_str());
        return 2;
      }
      std::string name = a.substr(0, eq), value = a.substr(eq + 1);
      ga::INode* n = Find(map, name);
      if (!n) return 1;
      auto* v = dynamic_cast<ga::IValue*>(n);
      if (!v) {
        std::fprintf(stderr, "kivcam: '%s' holds no value\n", name.c_str());
        return 1;
      }
      try {
        v->FromString(value.c_str());
      } catch (const ga::GenericException& e) {
        std::fprintf(stderr, "kivcam: setting %s to '%s' failed: %s\n", name.c_str(), value.c_str(),
                     e.GetDescription());
        return 1;
      }
      std::printf("%s = %s\n", name.c_str(), ValueText(n).c_str());
    }
    return 0;
  });
}

int Exec(const char* which, char** names, int count) {
  return WithNodeMap(which, [&](ga::CNodeMapRef* map) {
    for (int i = 0; i < count; ++i) {
      ga::INode* n = Find(map, names[i]);
      if (!n) return 1;
      auto* c = dynamic_cast<ga::ICommand*>(n);
      if (!c) {
        std::fprintf(stderr, "kivcam: '%s' is not a command\n", names[i]);
        return 1;
      }
      try {
        c->Execute();
      } catch (const ga::GenericException& e) {
        std::fprintf(stderr, "kivcam: executing %s failed: %s\n", names[i], e.GetDescription());
        return 1;
      }
      std::printf("%s executed\n", names[i]);
    }
    return 0;
  });
}

int Reg(int argc, char** argv) {
  if (argc < 3) return Usage(stderr, 2);
  std::string op = argv[0];
  uint64_t address = 0, value = 0, count = 1;
  if (!ParseU64(argv[2], &address) || address > 0xFFFFFFFFu) {
    std::fprintf(stderr, "kivcam: '%s' is not a 32-bit register address\n", argv[2]);
    return 2;
  }
  if (op == "read") {
    if (argc > 4 || (argc == 4 && (!ParseU64(argv[3], &count) || count == 0 || count > 4096))) {
      return Usage(stderr, 2);
    }
  } else if (op == "write") {
    if (argc != 4 || !ParseU64(argv[3], &value) || value > 0xFFFFFFFFu) return Usage(stderr, 2);
  } else {
    return Usage(stderr, 2);
  }
  Camera cam;
  if (int rc = cam.Open(argv[1])) return rc;
  CameraListEntry e;
  if (!KIVCAM_CameraInfo(cam.handle(), &e)) return Fail("KIVCAM_CameraInfo");
  // GigE Vision registers are big-endian on the wire, USB3 Vision ones little-endian.
  bool big_endian = e.CameraKind == KIVCAM_CAMERAKIND_GIGE;
  if (op == "write") {
    uint32_t v = static_cast<uint32_t>(value);
    unsigned char bytes[4];
    for (int b = 0; b < 4; ++b)
      bytes[b] = static_cast<unsigned char>(v >> (big_endian ? 24 - 8 * b : 8 * b));
    uint32_t size = 4;
    if (!KIVCAM_WritePort(cam.handle(), static_cast<uint32_t>(address), bytes, &size)) {
      return Fail("KIVCAM_WritePort");
    }
    std::printf("0x%08X <- 0x%08X\n", static_cast<uint32_t>(address), v);
    return 0;
  }
  std::vector<unsigned char> bytes(4 * count);
  uint32_t size = static_cast<uint32_t>(bytes.size());
  if (!KIVCAM_ReadPort(cam.handle(), static_cast<uint32_t>(address), bytes.data(), &size)) {
    return Fail("KIVCAM_ReadPort");
  }
  for (uint32_t off = 0; off + 4 <= size; off += 4) {
    uint32_t v = 0;
    for (int b = 0; b < 4; ++b) {
      v |= static_cast<uint32_t>(bytes[off + b]) << (big_endian ? 24 - 8 * b : 8 * b);
    }
    std::printf("0x%08X  0x%08X  %10u\n", static_cast<uint32_t>(address + off), v, v);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage(stderr, 2);
  std::string cmd = argv[1];
  if (cmd == "--help" || cmd == "-h" || cmd == "help") return Usage(stdout, 0);
  if (cmd == "list" && argc == 2) return List();
  if (cmd == "info" && argc == 3) return Info(argv[2]);
  if (cmd == "features" && argc == 3) return Features(argv[2]);
  if (cmd == "get" && argc >= 4) return Get(argv[2], argv + 3, argc - 3);
  if (cmd == "set" && argc >= 4) return Set(argv[2], argv + 3, argc - 3);
  if (cmd == "exec" && argc >= 4) return Exec(argv[2], argv + 3, argc - 3);
  if (cmd == "reg") return Reg(argc - 2, argv + 2);
  return Usage(stderr, 2);
}
