// The loader's neutral picture of one node as the description gives it,
// after groups are flattened, structures expanded and merges applied.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace KivGenApi {
namespace detail {

struct DescChild {
  std::string tag;
  std::string text;
  std::map<std::string, std::string> attrs;
  std::string Attr(const char* name) const {
    auto it = attrs.find(name);
    return it == attrs.end() ? std::string() : it->second;
  }
};

struct NodeDesc {
  std::string type;  // element name: IntReg, Enumeration, ...
  std::string name;
  std::map<std::string, std::string> attrs;
  std::vector<DescChild> children;

  const DescChild* First(std::string_view tag) const {
    for (const auto& c : children)
      if (c.tag.size() == tag.size() && c.tag == tag) return &c;
    return nullptr;
  }
  std::string Text(const char* tag, const std::string& def = std::string()) const {
    const DescChild* c = First(tag);
    return c ? c->text : def;
  }
  bool Has(std::string_view tag) const { return First(tag) != nullptr; }
  std::vector<const DescChild*> All(std::string_view tag) const {
    std::vector<const DescChild*> out;
    for (const auto& c : children)
      if (c.tag.size() == tag.size() && c.tag == tag) out.push_back(&c);
    return out;
  }
  std::string Attr(const char* a) const {
    auto it = attrs.find(a);
    return it == attrs.end() ? std::string() : it->second;
  }
};

}  // namespace detail
}  // namespace KivGenApi
