// kivgenapi-dump: loads a device description, backs its "Device" port with
// memory filled from a file, applies --set writes and prints every node.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "kivgenapi/KivGenApi.h"

using namespace KivGenApi;

namespace {

// Sparse register memory; reading a byte nobody provided is an error, so a
// dump without memory shows which nodes touch the device.
class MemoryPort : public IPort {
 public:
  EAccessMode GetAccessMode() const override { return RW; }
  void Read(void* buf, int64_t address, int64_t length) override {
    auto* p = static_cast<uint8_t*>(buf);
    for (int64_t i = 0; i < length; ++i) {
      auto it = mem.find(address + i);
      if (it == mem.end()) {
        char msg[96];
        std::snprintf(msg, sizeof msg, "no memory at 0x%" PRIx64, static_cast<uint64_t>(address + i));
        throw std::runtime_error(msg);
      }
      p[i] = it->second;
    }
  }
  void Write(const void* buf, int64_t address, int64_t length) override {
    const auto* p = static_cast<const uint8_t*>(buf);
    for (int64_t i = 0; i < length; ++i) mem[address + i] = p[i];
  }
  // FNV-1a 64 over the image's bytes in ascending address order, the plain
  // form other tools compute, so write scenarios compare across engines.
  uint64_t Digest() const {
    uint64_t h = 14695981039346656037ull;  // the FNV-1a 64 offset basis
    for (const auto& kv : mem) {
      h ^= kv.second;
      h *= 1099511628211ull;
    }
    return h;
  }
  std::map<int64_t, uint8_t> mem;
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open " + path);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void LoadText(MemoryPort& port, const std::string& path) {
  std::istringstream in(ReadFile(path));
  std::string line;
  int n = 0;
  while (std::getline(in, line)) {
    ++n;
    std::istringstream ls(line);
    std::string addr, hex;
    int64_t len = 0;
    if (!(ls >> addr) || addr[0] == '#') continue;
    if (!(ls >> len >> hex) || len < 0 || static_cast<int64_t>(hex.size()) != 2 * len)
      throw std::runtime_error(path + ":" + std::to_string(n) + ": expected '<hex address> <length> <hex bytes>'");
    int64_t a = static_cast<int64_t>(std::stoull(addr, nullptr, 16));
    for (int64_t i = 0; i < len; ++i)
      port.mem[a + i] = static_cast<uint8_t>(std::stoul(hex.substr(static_cast<size_t>(2 * i), 2), nullptr, 16));
  }
}

const char* TypeName(INode* n) {
  switch (n->GetPrincipalInterfaceType()) {
    case intfIInteger: return "Integer";
    case intfIBoolean: return "Boolean";
    case intfICommand: return "Command";
    case intfIFloat: return "Float";
    case intfIString: return "String";
    case intfIRegister: return "Register";
    case intfICategory: return "Category";
    case intfIEnumeration: return "Enumeration";
    case intfIEnumEntry: return "EnumEntry";
    case intfIPort: return "Port";
    default: return "Value";
  }
}

std::string Value(INode* n) {
  try {
    if (CIntegerPtr p = n) return std::to_string(p->GetValue());
    if (CFloatPtr p = n) {
      char buf[64];
      std::snprintf(buf, sizeof buf, "%.9g", p->GetValue());
      return buf;
    }
    if (CEnumerationPtr p = n) {
      int64_t v = p->GetIntValue();
      IEnumEntry* e = p->GetEntry(v);
      return (e ? std::string(e->GetSymbolic()) : std::string("?")) + " (" + std::to_string(v) + ")";
    }
    if (CBooleanPtr p = n) return p->GetValue() ? "true" : "false";
    if (CStringPtr p = n) return "\"" + std::string(p->GetValue()) + "\"";
    if (CEnumEntryPtr p = n) return std::string(p->GetSymbolic()) + " (" + std::to_string(p->GetValue()) + ")";
    if (CCommandPtr p = n) return p->IsDone() ? "done" : "busy";
    if (CRegisterPtr p = n) return p->ToString();
    return "-";
  } catch (const GenericException& e) {
    return std::string("error: ") + e.GetDescription();
  } catch (const std::exception& e) {
    return std::string("error: ") + e.what();
  }
}

// One --set write: "ok" or why it was refused.
std::string Set(CNodeMapRef& map, const std::string& assignment) {
  size_t eq = assignment.find('=');
  if (eq == std::string::npos) return "--set needs NAME=VALUE";
  std::string name = assignment.substr(0, eq), value = assignment.substr(eq + 1);
  try {
    CValuePtr v = map._GetNode(name);
    if (!v) return "no value node named " + name;
    v->FromString(value);
    return "ok";
  } catch (const GenericException& e) {
    return e.GetDescription();
  } catch (const std::exception& e) {
    return e.what();
  }
}

int Usage(FILE* out, int rc) {
  std::fprintf(out,
               "usage: kivgenapi-dump [--bin FILE [--base HEXADDR]] [--mem FILE] [--inject FILE]\n"
               "                      [--set NAME=VALUE]... DESCRIPTION(.xml|.zip)\n"
               "  --bin FILE     flat binary memory image of the device, mapped at --base\n"
               "  --base HEXADDR where the --bin image starts (hexadecimal, default 0)\n"
               "  --mem FILE     text memory: lines '<hex address> <length> <hex bytes>'\n"
               "  --inject FILE  a second description merged into the first (like _KIVADD.xml)\n"
               "  --set N=V      write a value (in order) before the dump\n"
               "Prints a line 'SET<TAB>NAME=VALUE<TAB>ok|error' per write, in order. With\n"
               "memory: every node's name, type, access mode and value (or error); then the\n"
               "FNV-1a 64 digest of the port memory's bytes in ascending address order.\n"
               "Without --bin or --mem: the feature tree (name and type) and the other\n"
               "nodes, since no register can be read.\n"
               "Exit codes: 0 done, 1 the description failed or a write was refused, 2 usage.\n");
  return rc;
}

// The feature tree from Root, then the nodes outside it: what a description
// holds, shown when there is no memory to read values from.
void PrintStructure(CNodeMapRef& map) {
  std::vector<INode*> seen;
  std::function<void(INode*, int)> walk = [&](INode* n, int depth) {
    if (std::find(seen.begin(), seen.end(), n) != seen.end()) return;
    seen.push_back(n);
    std::printf("%*s%s\t%s\n", 2 * depth, "", n->GetName().c_str(), TypeName(n));
    if (auto* cat = dynamic_cast<ICategory*>(n)) {
      FeatureList_t features;
      cat->GetFeatures(features);
      for (IValue* f : features)
        if (INode* child = f->GetNode()) walk(child, depth + 1);
    }
  };
  if (INode* root = map._GetNode("Root")) walk(root, 0);
  NodeList_t nodes;
  map._GetNodes(nodes);
  std::printf("# not in the feature tree\n");
  for (INode* n : nodes)
    if (std::find(seen.begin(), seen.end(), n) == seen.end()) std::printf("%s\t%s\n", n->GetName().c_str(), TypeName(n));
}

}  // namespace

int main(int argc, char** argv) {
  std::string desc, bin, text, inject;
  int64_t base = 0;
  std::vector<std::string> sets;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto next = [&]() -> std::string {
      if (i + 1 >= argc) throw std::runtime_error(a + " needs an argument");
      return argv[++i];
    };
    try {
      if (a == "--bin") bin = next();
      else if (a == "--base") base = static_cast<int64_t>(std::stoull(next(), nullptr, 16));
      else if (a == "--mem") text = next();
      else if (a == "--inject") inject = next();
      else if (a == "--set") sets.push_back(next());
      else if (a == "-h" || a == "--help") return Usage(stdout, 0);
      else if (!a.empty() && a[0] == '-') {
        std::fprintf(stderr, "kivgenapi-dump: unknown option '%s'\n", a.c_str());
        return Usage(stderr, 2);
      }
      else desc = a;
    } catch (const std::exception& e) {
      std::fprintf(stderr, "kivgenapi-dump: %s\n", e.what());
      return 2;
    }
  }
  if (desc.empty()) {
    std::fprintf(stderr, "kivgenapi-dump: missing DESCRIPTION\n");
    return Usage(stderr, 2);
  }
  try {
    MemoryPort port;
    if (!bin.empty()) {
      std::string image = ReadFile(bin);
      for (size_t i = 0; i < image.size(); ++i) port.mem[base + static_cast<int64_t>(i)] = static_cast<uint8_t>(image[i]);
    }
    if (!text.empty()) LoadText(port, text);
    CNodeMapRef map("Device");
    std::string data = ReadFile(desc);
    bool zip = data.size() >= 4 && std::memcmp(data.data(), "PK\3\4", 4) == 0;
    if (zip) map._LoadXMLFromZIPData(data.data(), data.size());
    else if (!inject.empty()) map._LoadXMLFromStringInject(data, ReadFile(inject));
    else map._LoadXMLFromString(data);
    if (!map._Connect(&port, "Device")) std::fprintf(stderr, "kivgenapi-dump: the description has no port \"Device\"\n");
    // Each write is reported and the run goes on, so that a scenario's
    // later writes and the final image can be compared all the same.
    bool refused = false;
    for (const auto& s : sets) {
      std::string result = Set(map, s);
      refused = refused || result != "ok";
      std::printf("SET\t%s\t%s\n", s.c_str(), result.c_str());
    }
    NodeList_t nodes;
    map._GetNodes(nodes);
    if (bin.empty() && text.empty()) {
      std::fprintf(stderr, "kivgenapi-dump: no memory image given (--bin or --mem): no value can be read; "
                           "showing the description's structure\n");
      PrintStructure(map);
      nodes.clear();
    }
    for (INode* n : nodes)
      std::printf("%s\t%s\t%s\t%s\n", n->GetName().c_str(), TypeName(n), AccessModeName(n->GetAccessMode()),
                  Value(n).c_str());
    std::printf("memory digest\t%016" PRIx64 "\n", port.Digest());
    if (refused) return 1;
  } catch (const GenericException& e) {
    std::fprintf(stderr, "kivgenapi-dump: %s\n", e.GetDescription());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kivgenapi-dump: %s\n", e.what());
    return 1;
  }
  return 0;
}
