#include "node.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "desc.h"
#include "nodemap.h"

namespace KivGenApi {

const char* AccessModeName(EAccessMode m) {
  switch (m) {
    case NI: return "NI";
    case NA: return "NA";
    case WO: return "WO";
    case RO: return "RO";
    case RW: return "RW";
    default: return "(undefined)";
  }
}

static std::string AssembleWhat(const std::string& desc, const char* type, const std::string& node,
                                const char* file, unsigned line) {
  std::string s = desc + " : " + type + " thrown";
  if (!node.empty()) s += " in node '" + node + "'";
  if (file && *file) s += std::string(" (file '") + file + "', line " + std::to_string(line) + ")";
  return s;
}

GenericException::GenericException(const std::string& description, const char* file, unsigned line,
                                   const char* type, const std::string& node)
    : description_(description), file_(file ? file : ""), node_(node),
      what_(AssembleWhat(description, type, node, file, line)), line_(line) {}

namespace detail {

bool ParseInt64(const std::string& in, int64_t& out) {
  size_t b = in.find_first_not_of(" \t\r\n");
  size_t e = in.find_last_not_of(" \t\r\n");
  if (b == std::string::npos) return false;
  std::string s = in.substr(b, e - b + 1);
  bool neg = false;
  size_t i = 0;
  if (s[i] == '-' || s[i] == '+') neg = s[i++] == '-';
  int base = 10;
  if (s.size() > i + 1 && s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X')) {
    base = 16;
    i += 2;
  }
  if (i >= s.size()) return false;
  uint64_t v = 0;
  for (; i < s.size(); ++i) {
    char c = s[i];
    int d;
    if (c >= '0' && c <= '9') d = c - '0';
    else if (base == 16 && c >= 'a' && c <= 'f') d = c - 'a' + 10;
    else if (base == 16 && c >= 'A' && c <= 'F') d = c - 'A' + 10;
    else return false;
    if (v > (UINT64_MAX - static_cast<uint64_t>(d)) / static_cast<uint64_t>(base)) return false;
    v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
  }
  // Hex literals may spell the full unsigned 64-bit pattern.
  out = neg ? static_cast<int64_t>(0 - v) : static_cast<int64_t>(v);
  return true;
}

bool ParseDouble(const std::string& in, double& out) {
  int64_t iv;
  if (in.find_first_of("xX") != std::string::npos && ParseInt64(in, iv)) {
    out = static_cast<double>(iv);
    return true;
  }
  const char* s = in.c_str();
  while (*s == ' ' || *s == '\t' || *s == '\r' || *s == '\n') ++s;
  if (!*s) return false;
  char* end = nullptr;
  errno = 0;
  double v = std::strtod(s, &end);
  if (end == s) return false;
  while (*end == ' ' || *end == '\t' || *end == '\r' || *end == '\n') ++end;
  if (*end) return false;
  out = v;
  return true;
}

std::string FormatDouble(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.9g", v);
  return buf;
}

EvalGuard::EvalGuard(const CNode* n) : node_(n) {
  if (n->evaluating_)
    throw LogicalErrorException("Reference cycle detected while evaluating node '" + n->name() + "'", __FILE__,
                                __LINE__, n->name());
  // Real descriptions nest a few dozen levels; a limit keeps hostile ones
  // from exhausting the stack.
  if (n->map()->depth_ >= kMaxDepth)
    throw LogicalErrorException("References nested too deeply at node '" + n->name() + "'", __FILE__, __LINE__,
                                n->name());
  ++n->map()->depth_;
  const_cast<CNode*>(n)->evaluating_ = true;
}
EvalGuard::~EvalGuard() {
  const_cast<CNode*>(node_)->evaluating_ = false;
  --node_->map()->depth_;
}

static EVisibility ParseVisibility(const std::string& s) {
  if (s == "Expert") return Expert;
  if (s == "Guru") return Guru;
  if (s == "Invisible") return Invisible;
  return Beginner;
}

EAccessMode ParseAccessMode(const std::string& s, EAccessMode def) {
  if (s == "RW") return RW;
  if (s == "RO") return RO;
  if (s == "WO") return WO;
  if (s == "NA") return NA;
  if (s == "NI") return NI;
  return def;
}

CNode::CNode(CNodeMap* map, const NodeDesc& d) : map_(map), name_(d.name) {
  tooltip_ = d.Text("ToolTip");
  description_ = d.Text("Description");
  display_name_ = d.Text("DisplayName");
  docu_url_ = d.Text("DocuURL");
  event_id_ = d.Text("EventID");
  visibility_ = ParseVisibility(d.Text("Visibility"));
  name_space_ = d.Attr("NameSpace") == "Standard" ? Standard : Custom;
  std::string dep = d.Text("IsDeprecated");
  deprecated_ = dep == "Yes";
  streamable_ = d.Text("Streamable") == "Yes";
  if (d.Has("PollingTime")) {
    int64_t v;
    if (ParseInt64(d.Text("PollingTime"), v) && v > 0) polling_time_ = v;
  }
  imposed_access_ = ParseAccessMode(d.Text("ImposedAccessMode"), RW);
  is_implemented_.name = d.Text("pIsImplemented");
  is_available_.name = d.Text("pIsAvailable");
  is_locked_.name = d.Text("pIsLocked");
  block_polling_.name = d.Text("pBlockPolling");
  alias_.name = d.Text("pAlias");
  cast_alias_.name = d.Text("pCastAlias");
  for (const DescChild* c : d.All("pInvalidator")) invalidators_.push_back(NodeRef{c->text, nullptr});
  for (const DescChild* c : d.All("pError")) errors_.push_back(NodeRef{c->text, nullptr});
  for (const auto& c : d.children)
    if (!c.text.empty()) properties_.emplace_back(c.tag, c.text);
}

CNode::~CNode() = default;

gcstring CNode::GetName(bool FullQualified) const {
  return FullQualified ? gcstring(map_->GetDeviceName() + "::" + name_) : gcstring(name_);
}

gcstring CNode::GetDeviceName() const { return map_->GetDeviceName(); }
INodeMap* CNode::GetNodeMap() const { return map_; }

void CNode::AddDependent(CNode* n) {
  if (n != this) dependents_.push_back(n);
}

template <class T>
static void SortUnique(std::vector<T>& v) {
  std::sort(v.begin(), v.end());
  v.erase(std::unique(v.begin(), v.end()), v.end());
}

void CNode::CompactLinks() {
  SortUnique(dependents_);
  SortUnique(parents_);
  SortUnique(selecting_);
}

void CNode::Resolve(NodeRef& r, unsigned kinds) {
  if (!r.set()) return;
  r.node = map_->Find(r.name);
  if (!r.node) return;
  r.node->AddDependent(this);
  children_.emplace_back(r.node, kinds);
  r.node->parents_.push_back(this);
}

void CNode::Link() {
  Resolve(is_implemented_);
  Resolve(is_available_);
  Resolve(is_locked_);
  Resolve(block_polling_);
  alias_.node = map_->Find(alias_.name);
  cast_alias_.node = map_->Find(cast_alias_.name);
  for (auto& r : errors_) r.node = map_->Find(r.name);
  // pInvalidator X: a change of X drops this node's cache.
  for (auto& r : invalidators_) {
    r.node = map_->Find(r.name);
    if (r.node) r.node->AddDependent(this);
  }
}

CNode* CNode::Need(const NodeRef& r, const char* what) const {
  if (!r.node)
    KIV_THROW(LogicalErrorException, name_,
              "Node " + Quoted() + ": " + what + " refers to unknown node '" + r.name + "'");
  return r.node;
}

FormulaValue CNode::Eval(const NumRef& r, bool verify, bool ignore_cache) const {
  if (r.ref.set()) return Need(r.ref, "a reference")->GetNum(verify, ignore_cache);
  return r.literal;
}

void CNode::CheckReadable() const {
  if (!IsReadable(GetAccessMode()))
    KIV_THROW(AccessException, name_, "Node " + Quoted() + " is not readable (access mode " +
                                          AccessModeName(GetAccessMode()) + ").");
}

void CNode::CheckWritable() const {
  if (!IsWritable(GetAccessMode()))
    KIV_THROW(AccessException, name_, "Node " + Quoted() + " is not writable (access mode " +
                                          AccessModeName(GetAccessMode()) + ").");
}

void CNode::ThrowNotNumeric() const {
  KIV_THROW(LogicalErrorException, name_, "Node " + Quoted() + " has no numeric value to use as a reference");
}

FormulaValue CNode::GetNum(bool, bool) { ThrowNotNumeric(); }
void CNode::SetNum(const FormulaValue&, bool) { ThrowNotNumeric(); }
FormulaValue CNode::NumMin() { ThrowNotNumeric(); }
FormulaValue CNode::NumMax() { ThrowNotNumeric(); }
FormulaValue CNode::NumInc() { return FormulaValue::Int(1); }

static bool Nonzero(const FormulaValue& v) { return v.is_float ? v.f != 0.0 : v.i != 0; }

EAccessMode CNode::GetAccessMode() const {
  EAccessMode cached = am_cache_.load(std::memory_order_acquire);
  if (cached != _UndefinedAccesMode) return cached;
  KIV_LOCK();
  if (evaluating_) return NA;  // a cycle through pIs* references: not available
  EAccessMode m;
  try {
    EvalGuard guard(this);
    m = NaturalAccessMode();
    // A reference that cannot be read makes the node unavailable.
    auto flag = [&](const NodeRef& r, bool& unusable) -> bool {
      if (!r.set()) return false;
      if (!r.node || !IsReadable(r.node->GetAccessMode())) {
        unusable = true;
        return false;
      }
      return Nonzero(r.node->GetNum(false, false));
    };
    bool unusable = false;
    if (is_implemented_.set() && !flag(is_implemented_, unusable) && !unusable) m = NI;
    if (m != NI && is_available_.set() && !flag(is_available_, unusable) && !unusable) m = NA;
    if (m != NI && m != NA && flag(is_locked_, unusable)) {
      if (m == RW) m = RO;
      else if (m == WO) m = NA;
    }
    if (unusable && m != NI) m = NA;
    m = Combine(Combine(m, imposed_access_), imposed_by_call_);
  } catch (const GenericException&) {
    m = NA;
  } catch (const std::exception&) {
    // The port failed while reading a pIs* reference: NA for now, but not
    // remembered, so the next query asks the device again.
    return NA;
  }
  if (IsAccessModeCacheable() == Yes) am_cache_.store(m, std::memory_order_release);
  return m;
}

EYesNo CNode::IsAccessModeCacheable() const {
  if (am_cacheable_ >= 0) return am_cacheable_ ? Yes : No;
  if (evaluating_ || map_->depth_ >= kMaxDepth) return No;
  bool ok = true;
  {
    EvalGuard f(this);
    for (const NodeRef* r : {&is_implemented_, &is_available_, &is_locked_})
      if (r->node && (r->node->GetCachingMode() == NoCache || r->node->IsAccessModeCacheable() == No)) ok = false;
    std::vector<CNode*> in;
    ValueInputs(in);
    for (CNode* n : in)
      if (n && n->IsAccessModeCacheable() == No) ok = false;
  }
  am_cacheable_ = ok ? 1 : 0;
  return ok ? Yes : No;
}

ECachingMode CNode::GetCachingMode() const {
  if (caching_mode_ >= 0) return static_cast<ECachingMode>(caching_mode_);
  ECachingMode m = OwnCachingMode();
  // Inside a cycle or too deep the answer is unknown: do not cache, and do
  // not remember the guess.
  if (evaluating_ || map_->depth_ >= kMaxDepth) return NoCache;
  {
    EvalGuard g(this);
    std::vector<CNode*> in;
    ValueInputs(in);
    for (CNode* n : in)
      if (n) m = Combine(m, n->GetCachingMode());
  }
  caching_mode_ = m;
  return m;
}

void CNode::FireCallbacks() {
  // Copy: a callback may deregister itself.
  auto cbs = callbacks_;
  for (auto& c : cbs) c.second(this);
}

// Walks the dependents with an explicit stack: dependency chains can be
// longer than the call stack is deep.
static void InvalidateFrom(CNodeMap* map, std::vector<CNode*> pending) {
  while (!pending.empty()) {
    CNode* n = pending.back();
    pending.pop_back();
    if (n->visit_epoch_ == map->epoch()) continue;
    n->visit_epoch_ = map->epoch();
    n->ClearCaches();
    n->AppendDependents(pending);
  }
}

void CNode::ClearCaches() {
  DropCache();
  am_cache_ = _UndefinedAccesMode;
  if (!callbacks_.empty()) FireCallbacks();
}

void CNode::InvalidateTree() { InvalidateFrom(map_, {this}); }

// A polled or explicitly invalidated feature must read the device again, so
// the caches of what it reads from are dropped too, then everything above.
void CNode::InvalidateWithInputs() {
  std::vector<CNode*> closure{this}, pending{this};
  uint64_t mark = map_->NextEpoch();
  visit_epoch_ = mark;
  while (!pending.empty()) {
    CNode* n = pending.back();
    pending.pop_back();
    std::vector<CNode*> in;
    n->ValueInputs(in);
    for (CNode* i : in)
      if (i && i->visit_epoch_ != mark) {
        i->visit_epoch_ = mark;
        closure.push_back(i);
        pending.push_back(i);
      }
  }
  map_->NextEpoch();
  InvalidateFrom(map_, closure);
}

void CNode::NotifyWritten() {
  map_->NextEpoch();
  visit_epoch_ = map_->epoch();
  am_cache_ = _UndefinedAccesMode;
  if (!callbacks_.empty()) FireCallbacks();
  InvalidateFrom(map_, dependents_);
}

void CNode::InvalidateNode() {
  KIV_LOCK();
  InvalidateWithInputs();
}

void CNode::AddPollingTime(int64_t ms) {
  if (polling_time_ <= 0) return;
  if (block_polling_.node) {
    try {
      if (Nonzero(block_polling_.node->GetNum(false, false))) return;
    } catch (...) {
    }
  }
  if (!PollingActive()) return;
  polling_elapsed_ += ms;
  if (polling_elapsed_ >= polling_time_) {
    polling_elapsed_ = 0;
    InvalidateWithInputs();
  }
}

void CSelectorFace::ReadSelected(const NodeDesc& d) {
  for (const DescChild* c : d.All("pSelected")) selected_.push_back(NodeRef{c->text, nullptr});
}

void CSelectorFace::LinkSelected(CNode* owner) {
  for (auto& s : selected_) {
    s.node = static_cast<CNodeMap*>(owner->GetNodeMap())->Find(s.name);
    if (s.node) {
      owner->AddDependent(s.node);
      s.node->selecting_.push_back(owner);
    }
  }
}

void CSelectorFace::GetSelectingFeatures(FeatureList_t& f) const {
  f.clear();
  if (auto* self = dynamic_cast<const CNode*>(this))
    for (CNode* n : self->selecting_)
      if (IValue* v = dynamic_cast<IValue*>(n)) f.push_back(v);
}

void CSelectorFace::GetSelectedFeatures(FeatureList_t& f) const {
  f.clear();
  for (const auto& s : selected_)
    if (IValue* v = dynamic_cast<IValue*>(s.node)) f.push_back(v);
}

void CNode::CheckErrors() const {
  for (const auto& r : errors_) {
    auto* e = dynamic_cast<IEnumeration*>(r.node);
    if (!e) continue;
    int64_t v = e->GetIntValue(false, true);
    if (v == 0) continue;
    std::string text = "error " + std::to_string(v);
    if (IEnumEntry* entry = e->GetEntry(v)) {
      INode* n = entry->GetNode();
      text = std::string(n->GetDisplayName());
      if (!n->GetDescription().empty()) text += ": " + n->GetDescription();
    }
    KIV_THROW(InvalidArgumentException, name_, "Node " + Quoted() + " reports " + text);
  }
}

void CNode::MarkFeature() { is_feature_ = true; }

static void AddOnce(NodeList_t& out, CNode* n) {
  if (n && std::find(out.begin(), out.end(), n) == out.end()) out.push_back(n);
}

// Terminal nodes end a chain of written references: registers (they talk to
// a port) and nodes that hold their own value.
void CNode::Terminals(NodeList_t& out) const {
  std::vector<const CNode*> pending{this}, seen;
  while (!pending.empty()) {
    const CNode* n = pending.back();
    pending.pop_back();
    if (std::find(seen.begin(), seen.end(), n) != seen.end()) continue;
    seen.push_back(n);
    bool talks_to_port = false;
    std::vector<const CNode*> next;
    for (const auto& c : n->children_) {
      if (!(c.second & kWrite)) continue;
      if (c.first->GetPrincipalInterfaceType() == intfIPort) talks_to_port = true;
      else next.push_back(c.first);
    }
    if (talks_to_port || next.empty()) AddOnce(out, const_cast<CNode*>(n));
    else pending.insert(pending.end(), next.rbegin(), next.rend());
  }
}

void CNode::GetChildren(NodeList_t& Children, ELinkType LinkType) const {
  Children.clear();
  unsigned want = 0;
  switch (LinkType) {
    case ctParentNodes:
      for (CNode* p : parents_) AddOnce(Children, p);
      return;
    case ctInvalidatingChildren:
      for (const auto& r : invalidators_) AddOnce(Children, r.node);
      return;
    case ctDependingNodes:
      for (CNode* d : dependents_) AddOnce(Children, d);
      return;
    case ctTerminalNodes:
      Terminals(Children);
      return;
    case ctWritingChildren: want = kWrite; break;
    case ctValueChangingChildren: want = kValue; break;
    default: want = kRead; break;
  }
  for (const auto& c : children_)
    if (c.second & want) AddOnce(Children, c.first);
}

void CNode::GetParents(NodeList_t& Parents) const {
  Parents.assign(parents_.begin(), parents_.end());
}

CallbackHandleType CNode::RegisterCallback(NodeCallback cb) {
  KIV_LOCK();
  callbacks_.emplace_back(next_callback_, std::move(cb));
  return next_callback_++;
}

bool CNode::DeregisterCallback(CallbackHandleType h) {
  KIV_LOCK();
  for (auto it = callbacks_.begin(); it != callbacks_.end(); ++it)
    if (it->first == h) {
      callbacks_.erase(it);
      return true;
    }
  return false;
}

void CNode::GetPropertyNames(gcstring_vector& names) const {
  names.clear();
  names.push_back("Name");
  for (const auto& p : properties_)
    if (std::find(names.begin(), names.end(), p.first) == names.end()) names.push_back(p.first);
}

bool CNode::GetProperty(const gcstring& name, gcstring& value, gcstring& attribute) const {
  attribute = gcstring();
  if (name == "Name") {
    value = name_;
    return true;
  }
  for (const auto& p : properties_)
    if (p.first == name) {
      value = p.second;
      return true;
    }
  return false;
}

void CNode::ImposeAccessMode(EAccessMode m) {
  KIV_LOCK();
  imposed_by_call_ = Combine(imposed_by_call_, m);
  map_->NextEpoch();
  InvalidateTree();
}

void CNode::ImposeVisibility(EVisibility v) {
  KIV_LOCK();
  imposed_visibility_ = Combine(imposed_visibility_, v);
  if (!callbacks_.empty()) FireCallbacks();
}

}  // namespace detail
}  // namespace KivGenApi

namespace KivGenApi {
namespace detail {
int64_t ToInt(const FormulaValue& v) { return v.is_float ? SaturatingInt(v.f) : v.i; }
}  // namespace detail
}  // namespace KivGenApi
