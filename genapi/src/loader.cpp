// Reads descriptions into NodeDesc records (flattening groups, expanding
// structures, lifting nested nodes), merges an injected description, and
// creates and links the nodes. Evaluation lives in the nodes.
#include <pugixml.hpp>

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "desc.h"
#include "factories.h"
#include "nodemap.h"
#include "port_node.h"

namespace KivGenApi {
namespace detail {

void CategoryFeatures(CNode* n, std::vector<CNode*>& out);  // value_nodes.cpp

namespace {

const std::unordered_set<std::string>& NodeTypes() {
  static const std::unordered_set<std::string> types = {
      "Node", "Category", "Integer", "IntReg", "MaskedIntReg", "Float", "FloatReg", "Boolean", "Command",
      "Enumeration", "EnumEntry", "String", "StringReg", "Register", "Converter", "IntConverter", "SwissKnife",
      "IntSwissKnife", "Port", "ConfRom", "TextDesc", "IntKey", "AdvFeatureLock", "SmartFeature"};
  return types;
}

std::string LocalName(const char* n) {
  const char* colon = std::strrchr(n, ':');
  return colon ? colon + 1 : n;
}

std::string Trim(const char* s) {
  std::string t(s);
  size_t b = t.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return std::string();
  size_t e = t.find_last_not_of(" \t\r\n");
  return t.substr(b, e - b + 1);
}

std::string Text(const pugi::xml_node& n) {
  std::string s;
  for (pugi::xml_node c = n.first_child(); c; c = c.next_sibling())
    if (c.type() == pugi::node_pcdata || c.type() == pugi::node_cdata) s += c.value();
  return Trim(s.c_str());
}

class CReader {
 public:
  explicit CReader(std::vector<NodeDesc>& out) : out_(out) {}

  void Document(const std::string& xml) {
    pugi::xml_parse_result r = doc_.load_buffer(xml.data(), xml.size(), pugi::parse_default, pugi::encoding_auto);
    if (!r)
      throw RuntimeException(std::string("The description is not well-formed XML: ") + r.description() +
                                 " at offset " + std::to_string(r.offset),
                             __FILE__, __LINE__);
    pugi::xml_node root = doc_.document_element();
    if (!root || LocalName(root.name()) != "RegisterDescription")
      throw RuntimeException("The description has no RegisterDescription root element", __FILE__, __LINE__);
    Children(root, 0);
  }

 private:
  void Children(const pugi::xml_node& parent, int depth) {
    if (depth > 64) throw RuntimeException("Groups nested too deeply", __FILE__, __LINE__);
    for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling()) {
      if (c.type() != pugi::node_element) continue;
      std::string tag = LocalName(c.name());
      if (tag == "Group") Children(c, depth + 1);
      else if (tag == "StructReg") Struct(c);
      else if (NodeTypes().count(tag)) Node(c, tag, std::string(), 0);
      // Anything else at this level carries no node; it is skipped.
    }
  }

  static void Attrs(const pugi::xml_node& n, std::map<std::string, std::string>& out) {
    for (pugi::xml_attribute a = n.first_attribute(); a; a = a.next_attribute()) out[LocalName(a.name())] = a.value();
  }

  std::string NodeName(const pugi::xml_node& n) {
    std::string name = n.attribute("Name").value();
    if (name.empty()) throw RuntimeException(std::string("A ") + LocalName(n.name()) + " element has no Name", __FILE__, __LINE__);
    return name;
  }

  // Returns the index of the new record in out_.
  size_t Node(const pugi::xml_node& n, const std::string& type, const std::string& merge_priority, int depth) {
    if (depth > 16) throw RuntimeException("Nodes nested too deeply in node '" + NodeName(n) + "'", __FILE__, __LINE__);
    NodeDesc d;
    d.type = type;
    d.name = NodeName(n);
    Attrs(n, d.attrs);
    if (!merge_priority.empty() && !d.attrs.count("MergePriority")) d.attrs["MergePriority"] = merge_priority;
    size_t index = out_.size();
    out_.push_back(NodeDesc());
    for (pugi::xml_node c = n.first_child(); c; c = c.next_sibling()) {
      if (c.type() != pugi::node_element) continue;
      std::string tag = LocalName(c.name());
      if (tag == "Extension") continue;
      if (tag == "EnumEntry" && type == "Enumeration") {
        // Entries become nodes of their own, named after their enumeration.
        std::string entry = NodeName(c);
        size_t i = Node(c, "EnumEntry", d.Attr("MergePriority"), depth + 1);
        out_[i].name = "EnumEntry_" + d.name + "_" + entry;
        out_[i].attrs["_EntryName"] = entry;
        d.children.push_back(DescChild{"pEnumEntry", out_[i].name, {}});
        continue;
      }
      if (NodeTypes().count(tag) && c.attribute("Name")) {
        // A nested node (an address IntSwissKnife, a config-ROM key) lives
        // on its own; a register adds it to its address.
        size_t i = Node(c, tag, d.Attr("MergePriority"), depth + 1);
        if (tag == "IntSwissKnife" || tag == "SwissKnife")
          d.children.push_back(DescChild{"pAddress", out_[i].name, {}});
        continue;
      }
      DescChild dc;
      dc.tag = tag;
      dc.text = Text(c);
      Attrs(c, dc.attrs);
      d.children.push_back(std::move(dc));
    }
    out_[index] = std::move(d);
    return index;
  }

  // Every StructEntry becomes a MaskedIntReg that takes whatever the entry
  // does not give itself from the StructReg. Elements that add up (the
  // address terms and the invalidators) go to every entry in any case; an
  // embedded address node is one node of the map, shared by the entries.
  void Struct(const pugi::xml_node& s) {
    std::vector<DescChild> common, summed;
    for (pugi::xml_node c = s.first_child(); c; c = c.next_sibling()) {
      if (c.type() != pugi::node_element) continue;
      std::string tag = LocalName(c.name());
      if (tag == "StructEntry" || tag == "Extension") continue;
      if (NodeTypes().count(tag) && c.attribute("Name")) {
        size_t i = Node(c, tag, std::string(), 1);
        if (tag == "IntSwissKnife" || tag == "SwissKnife") summed.push_back(DescChild{"pAddress", out_[i].name, {}});
        continue;
      }
      DescChild dc;
      dc.tag = tag;
      dc.text = Text(c);
      Attrs(c, dc.attrs);
      bool adds_up = tag == "Address" || tag == "pAddress" || tag == "pIndex" || tag == "pInvalidator";
      (adds_up ? summed : common).push_back(std::move(dc));
    }
    for (pugi::xml_node e = s.first_child(); e; e = e.next_sibling()) {
      if (e.type() != pugi::node_element || LocalName(e.name()) != "StructEntry") continue;
      size_t i = Node(e, "MaskedIntReg", std::string(), 0);
      NodeDesc& d = out_[i];
      for (const auto& c : common)
        if (!d.Has(c.tag)) d.children.push_back(c);
      d.children.insert(d.children.end(), summed.begin(), summed.end());
    }
  }

  std::vector<NodeDesc>& out_;
  pugi::xml_document doc_;
};

void Merge(std::vector<NodeDesc>& target, std::vector<NodeDesc>&& inject) {
  std::unordered_map<std::string, size_t> index;
  for (size_t i = 0; i < target.size(); ++i) index[target[i].name] = i;
  for (auto& b : inject) {
    auto it = index.find(b.name);
    if (it == index.end()) {
      index[b.name] = target.size();
      target.push_back(std::move(b));
      continue;
    }
    NodeDesc& a = target[it->second];
    if (a.type == "Category" && b.type == "Category") {
      for (const DescChild* f : b.All("pFeature")) {
        bool dup = false;
        for (const DescChild* g : a.All("pFeature")) dup = dup || g->text == f->text;
        if (!dup) a.children.push_back(*f);
      }
      continue;
    }
    std::string prio = b.Attr("MergePriority");
    if (prio == "1") a = std::move(b);
    else if (prio == "-1") continue;
    else
      throw RuntimeException("Injected node '" + b.name + "' already exists and has no MergePriority of 1 or -1",
                             __FILE__, __LINE__, b.name);
  }
}

std::unique_ptr<CNode> Make(CNodeMap* map, const NodeDesc& d) {
  for (auto maker : {MakeValueNode, MakeEnumNode, MakeRegisterNode, MakeFormulaNode, MakePortNode})
    if (auto n = maker(map, d)) return n;
  throw RuntimeException("Unknown node type '" + d.type + "'", __FILE__, __LINE__, d.name);
}

void MarkFeatures(CNode* n, int depth) {
  if (!n || depth > 256 || n->IsFeature()) return;
  n->MarkFeature();
  std::vector<CNode*> f;
  CategoryFeatures(n, f);
  for (CNode* c : f) MarkFeatures(c, depth + 1);
}

}  // namespace

std::unique_ptr<CNodeMap> LoadNodeMap(const std::string& device_name, const std::string& xml,
                                      const std::string* inject) {
  std::vector<NodeDesc> descs;
  CReader(descs).Document(xml);
  if (inject) {
    std::vector<NodeDesc> more;
    CReader(more).Document(*inject);
    Merge(descs, std::move(more));
  }
  auto map = std::make_unique<CNodeMap>(device_name);
  for (const auto& d : descs) {
    if (map->Find(d.name))
      throw RuntimeException("Node '" + d.name + "' is defined twice", __FILE__, __LINE__, d.name);
    map->Add(Make(map.get(), d));
  }
  map->LinkAll();
  MarkFeatures(map->Find("Root"), 0);
  return map;
}

// --- CNodeMap

CNodeMap::CNodeMap(const std::string& device_name) : device_name_(device_name) {}
CNodeMap::~CNodeMap() = default;

void CNodeMap::Add(std::unique_ptr<CNode> n) {
  index_[n->name()] = n.get();
  nodes_.push_back(std::move(n));
}

void CNodeMap::LinkAll() {
  for (auto& n : nodes_) n->Link();
  for (auto& n : nodes_) n->CompactLinks();
  for (auto& n : nodes_) n->Finish();
  // EventID is hex, written with or without its 0x.
  for (auto& n : nodes_) {
    std::string text = n->GetEventID();
    int64_t id;
    if (text.empty()) continue;
    if (text.find_first_of("xX") == std::string::npos) text = "0x" + text;
    if (ParseInt64(text, id)) by_event_.emplace(static_cast<uint64_t>(id), n.get());
  }
  // Settle the caching properties now, while nothing is being evaluated.
  for (auto& n : nodes_) {
    n->GetCachingMode();
    n->IsAccessModeCacheable();
  }
}

void CNodeMap::GetNodes(NodeList_t& out) const {
  out.clear();
  out.reserve(nodes_.size());
  for (const auto& n : nodes_) out.push_back(n.get());
}

INode* CNodeMap::GetNode(const gcstring& name) const { return Find(name); }

void CNodeMap::InvalidateNodes() const {
  std::lock_guard<std::recursive_mutex> l(lock_);
  for (const auto& n : nodes_) {
    n->DropCache();
    n->am_cache_ = _UndefinedAccesMode;
  }
}

bool CNodeMap::Connect(IPort* port, const gcstring& name) const {
  std::lock_guard<std::recursive_mutex> l(lock_);
  auto* p = dynamic_cast<CPortNode*>(Find(name));
  if (!p) return false;
  p->SetPort(port);
  InvalidateNodes();
  return true;
}

size_t CNodeMap::InvalidateByEventID(uint64_t id) {
  std::lock_guard<std::recursive_mutex> l(lock_);
  auto range = by_event_.equal_range(id);
  size_t count = 0;
  for (auto it = range.first; it != range.second; ++it, ++count) it->second->InvalidateWithInputs();
  return count;
}

void CNodeMap::Poll(int64_t elapsed) {
  std::lock_guard<std::recursive_mutex> l(lock_);
  for (auto& n : nodes_)
    if (n->GetPollingTime() > 0) n->AddPollingTime(elapsed);
}

}  // namespace detail
}  // namespace KivGenApi
