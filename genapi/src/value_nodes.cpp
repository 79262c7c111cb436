// Integer, Float, Boolean, Command, String, Category, plain and legacy nodes.
#include "value_nodes.h"

#include <cfloat>
#include <climits>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "factories.h"
#include "nodemap.h"
#include "value_source.h"

namespace KivGenApi {
namespace detail {

void CheckIntRange(const CNode* n, int64_t v, int64_t min, int64_t max, int64_t inc) {
  const std::string& name = n->name();
  if (v < min)
    KIV_THROW(OutOfRangeException, name, "Value " + std::to_string(v) + " of node '" + name +
                                             "' is below the minimum " + std::to_string(min));
  if (v > max)
    KIV_THROW(OutOfRangeException, name, "Value " + std::to_string(v) + " of node '" + name +
                                             "' is above the maximum " + std::to_string(max));
  if (inc <= 0) KIV_THROW(LogicalErrorException, name, "Node '" + name + "' has an increment of zero or less");
  // Unsigned difference: min may be INT64_MIN.
  uint64_t diff = static_cast<uint64_t>(v) - static_cast<uint64_t>(min);
  if (inc != 1 && diff % static_cast<uint64_t>(inc) != 0)
    KIV_THROW(OutOfRangeException, name, "Value " + std::to_string(v) + " of node '" + name +
                                             "' is not the minimum plus a multiple of the increment " +
                                             std::to_string(inc));
}

void CheckFinite(const CNode* n, double v) {
  if (!std::isfinite(v))
    KIV_THROW(InvalidArgumentException, n->name(),
              "Value " + FormatDouble(v) + " of node '" + n->name() + "' is not a finite number");
}

void CheckFloatRange(const CNode* n, double v, double min, double max) {
  const std::string& name = n->name();
  if (v < min)
    KIV_THROW(OutOfRangeException, name,
              "Value " + FormatDouble(v) + " of node '" + name + "' is below the minimum " + FormatDouble(min));
  if (v > max)
    KIV_THROW(OutOfRangeException, name,
              "Value " + FormatDouble(v) + " of node '" + name + "' is above the maximum " + FormatDouble(max));
}

// "192.168.0.1" and "00:11:22:33:44:55": the forms ToString gives for
// address representations.
static bool ParseAddress(const std::string& s, int64_t& out) {
  char sep = s.find(':') != std::string::npos ? ':' : '.';
  int parts = sep == ':' ? 6 : 4, base = sep == ':' ? 16 : 10;
  uint64_t v = 0;
  size_t pos = 0;
  for (int i = 0; i < parts; ++i) {
    size_t end = s.find(sep, pos);
    if ((end == std::string::npos) != (i == parts - 1)) return false;
    std::string part = s.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
    if (part.empty() || part.size() > 3) return false;
    char* stop = nullptr;
    unsigned long byte = std::strtoul(part.c_str(), &stop, base);
    if (*stop || byte > 255) return false;
    v = (v << 8) | byte;
    pos = end + 1;
  }
  out = static_cast<int64_t>(v);
  return true;
}

void CheckInList(const CNode* n, const FormulaValue& v, const std::vector<FormulaValue>& list) {
  for (const auto& e : list) {
    if (!v.is_float && !e.is_float ? v.i == e.i : std::fabs(v.AsFloat() - e.AsFloat()) <= 1e-9 * std::max(1.0, std::fabs(e.AsFloat())))
      return;
  }
  const std::string& name = n->name();
  KIV_THROW(OutOfRangeException, name, "Value " + (v.is_float ? FormatDouble(v.f) : std::to_string(v.i)) +
                                           " of node '" + name + "' is not in its list of valid values");
}

int64_autovector_t IntList(CNode* n, bool bounded) {
  std::vector<FormulaValue> list;
  int64_autovector_t out;
  if (n->ValidList(list, bounded))
    for (const auto& v : list) out.push_back(ToInt(v));
  return out;
}

double_autovector_t FloatList(CNode* n, bool bounded) {
  std::vector<FormulaValue> list;
  double_autovector_t out;
  if (n->ValidList(list, bounded))
    for (const auto& v : list) out.push_back(v.AsFloat());
  return out;
}

int64_t IntArgument(const CNode* n, const std::string& s) {
  int64_t v;
  if (!ParseInt64(s, v) && !ParseAddress(s, v))
    KIV_THROW(InvalidArgumentException, n->name(), "Node '" + n->name() + "': '" + s + "' is not an integer");
  return v;
}

double FloatArgument(const CNode* n, const std::string& s) {
  double v;
  if (!ParseDouble(s, v))
    KIV_THROW(InvalidArgumentException, n->name(), "Node '" + n->name() + "': '" + s + "' is not a number");
  return v;
}

ERepresentation ParseRepresentation(const std::string& s, ERepresentation def) {
  static const char* names[] = {"Linear", "Logarithmic", "Boolean", "PureNumber", "HexNumber", "IPV4Address",
                                "MACAddress"};
  for (int i = 0; i < 7; ++i)
    if (s == names[i]) return static_cast<ERepresentation>(i);
  return def;
}

std::string FormatInt(int64_t v, ERepresentation r) {
  char buf[32];
  uint64_t u = static_cast<uint64_t>(v);
  if (r == IPV4Address) {
    std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", unsigned(u >> 24 & 255), unsigned(u >> 16 & 255),
                  unsigned(u >> 8 & 255), unsigned(u & 255));
    return buf;
  }
  if (r == MACAddress) {
    std::snprintf(buf, sizeof buf, "%02X:%02X:%02X:%02X:%02X:%02X", unsigned(u >> 40 & 255), unsigned(u >> 32 & 255),
                  unsigned(u >> 24 & 255), unsigned(u >> 16 & 255), unsigned(u >> 8 & 255), unsigned(u & 255));
    return buf;
  }
  if (r == HexNumber) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
    return buf;
  }
  return std::to_string(v);
}

namespace {

// Integer and Float share everything but the number type.
template <bool Float>
class CNumberNode : public CNode {
 public:
  CNumberNode(CNodeMap* map, const NodeDesc& d) : CNode(map, d) {
    src_.Read(d, Float);
    ReadNumRef(d, "Min", "pMin", Float, min_);
    ReadNumRef(d, "Max", "pMax", Float, max_);
    ReadNumRef(d, "Inc", "pInc", Float, inc_);
    unit_ = d.Text("Unit");
    has_unit_ = d.Has("Unit");
    repr_ = ParseRepresentation(d.Text("Representation"), Float ? PureNumber : _UndefinedRepresentation);
    if (d.Text("DisplayNotation") == "Fixed") notation_ = fnFixed;
    if (d.Text("DisplayNotation") == "Scientific") notation_ = fnScientific;
    if (d.Has("DisplayPrecision")) ParseInt64(d.Text("DisplayPrecision"), precision_);
    // "1;2;4": the only values the node accepts.
    std::string set = d.Text("ValidValueSet");
    for (size_t pos = 0; !set.empty() && pos <= set.size();) {
      size_t e = set.find(';', pos);
      FormulaValue v;
      if (ParseLiteral(set.substr(pos, e == std::string::npos ? std::string::npos : e - pos), Float, v))
        valid_.push_back(v);
      if (e == std::string::npos) break;
      pos = e + 1;
    }
  }
  void Link() override {
    CNode::Link();
    src_.Link(this, [this](NodeRef& r, unsigned k) { Resolve(r, k); });
    Resolve(min_);
    Resolve(max_);
    Resolve(inc_);
  }
  EAccessMode NaturalAccessMode() const override { return src_.Access(this); }
  void ValueInputs(std::vector<CNode*>& out) const override {
    src_.Inputs(out);
    for (const NumRef* r : {&min_, &max_, &inc_})
      if (r->ref.node) out.push_back(r->ref.node);
  }
  ECachingMode OwnCachingMode() const override { return WriteThrough; }

  FormulaValue Read(bool verify, bool ignore_cache) {
    CheckReadable();
    EvalGuard g(this);
    FormulaValue v = src_.Get(this, verify, ignore_cache);
    if (verify) CheckRange(v);
    return v;
  }
  void Write(FormulaValue v, bool verify) {
    CheckWritable();
    if (verify) CheckRange(v);
    EvalGuard g(this);
    src_.Set(this, v, verify);
  }
  void CheckRange(const FormulaValue& v) {
    if (!valid_.empty()) {
      // A list replaces the increment; the range still bounds it.
      CheckFloatRange(this, v.AsFloat(), NumMin().AsFloat(), NumMax().AsFloat());
      return CheckInList(this, v, valid_);
    }
    if (Float) CheckFloatRange(this, v.AsFloat(), NumMin().AsFloat(), NumMax().AsFloat());
    else CheckIntRange(this, ToInt(v), ToInt(NumMin()), ToInt(NumMax()), ToInt(NumInc()));
  }
  bool ValidList(std::vector<FormulaValue>& out, bool bounded) override {
    if (valid_.empty()) return false;
    out.clear();
    double lo = bounded ? NumMin().AsFloat() : -DBL_MAX, hi = bounded ? NumMax().AsFloat() : DBL_MAX;
    for (const auto& v : valid_)
      if (v.AsFloat() >= lo && v.AsFloat() <= hi) out.push_back(v);
    return true;
  }
  FormulaValue Conv(const FormulaValue& v) const {
    return Float ? FormulaValue::Float(v.AsFloat()) : FormulaValue::Int(ToInt(v));
  }
  FormulaValue TargetBound(CNode* t, bool is_min) {
    if (Float) return Conv(is_min ? t->FloatMin() : t->FloatMax());
    return Conv(is_min ? t->NumMin() : t->NumMax());
  }
  FormulaValue Bound(const NumRef& r, bool is_min) {
    FormulaValue v;
    std::vector<CNode*> mirrors;
    if (r.present()) {
      v = Conv(Eval(r));
    } else if (!(mirrors = src_.Mirrors()).empty()) {
      // A mirrored value must fit every copy: the intersection of ranges.
      v = TargetBound(mirrors[0], is_min);
      for (size_t k = 1; k < mirrors.size(); ++k) {
        FormulaValue b = TargetBound(mirrors[k], is_min);
        bool tighter = Float ? (is_min ? b.f > v.f : b.f < v.f) : (is_min ? b.i > v.i : b.i < v.i);
        if (tighter) v = b;
      }
    } else if (CNode* t = src_.Target(this)) {
      v = TargetBound(t, is_min);
    } else if (Float) {
      v = FormulaValue::Float(is_min ? -DBL_MAX : DBL_MAX);
    } else {
      v = FormulaValue::Int(is_min ? INT64_MIN : INT64_MAX);
    }
    if (is_min && has_imposed_min_ && imposed_min_.AsFloat() > v.AsFloat()) v = imposed_min_;
    if (!is_min && has_imposed_max_ && imposed_max_.AsFloat() < v.AsFloat()) v = imposed_max_;
    return v;
  }

  FormulaValue GetNum(bool verify, bool ignore_cache) override { return Conv(Read(verify, ignore_cache)); }
  void SetNum(const FormulaValue& v, bool verify) override { Write(Conv(v), verify); }
  FormulaValue NumMin() override { return Bound(min_, true); }
  FormulaValue NumMax() override { return Bound(max_, false); }
  FormulaValue NumInc() override {
    if (inc_.present()) return Conv(Eval(inc_));
    if (!Float)
      if (CNode* t = src_.Target(this)) return Conv(t->NumInc());
    return Float ? FormulaValue::Float(0) : FormulaValue::Int(1);
  }

 protected:
  CValueSource src_;
  NumRef min_, max_, inc_;
  std::string unit_;
  bool has_unit_ = false;
  ERepresentation repr_;
  EDisplayNotation notation_ = fnAutomatic;
  int64_t precision_ = 6;
  std::vector<FormulaValue> valid_;
  bool has_imposed_min_ = false, has_imposed_max_ = false;
  FormulaValue imposed_min_, imposed_max_;
};

class CIntegerNode : public CNumberNode<false>, public IInteger, public CSelectorFace {
 public:
  CIntegerNode(CNodeMap* map, const NodeDesc& d) : CNumberNode(map, d) { ReadSelected(d); }
  void Link() override {
    CNumberNode::Link();
    LinkSelected(this);
  }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIInteger; }
  void SetValue(int64_t v, bool verify) override {
    KIV_LOCK();
    Write(FormulaValue::Int(v), verify);
    CheckErrors();
  }
  int64_t GetValue(bool verify, bool ignore_cache) override {
    KIV_LOCK();
    int64_t v = ToInt(Read(verify, ignore_cache));
    CheckErrorsIf(verify);
    return v;
  }
  int64_t GetMin() override { KIV_LOCK(); return ToInt(NumMin()); }
  int64_t GetMax() override { KIV_LOCK(); return ToInt(NumMax()); }
  int64_t GetInc() override { KIV_LOCK(); return ToInt(NumInc()); }
  EIncMode GetIncMode() override { return valid_.empty() ? fixedIncrement : listIncrement; }
  int64_autovector_t GetListOfValidValues(bool bounded) override {
    KIV_LOCK();
    return IntList(this, bounded);
  }
  ERepresentation GetRepresentation() override {
    if (repr_ != _UndefinedRepresentation) return repr_;
    if (CInteger* t = TargetInt()) return t->GetRepresentation();
    return PureNumber;
  }
  gcstring GetUnit() override {
    if (has_unit_) return unit_;
    if (CInteger* t = TargetInt()) return t->GetUnit();
    return "";
  }
  void ImposeMin(int64_t v) override { has_imposed_min_ = true; imposed_min_ = FormulaValue::Int(v); }
  void ImposeMax(int64_t v) override { has_imposed_max_ = true; imposed_max_ = FormulaValue::Int(v); }
  gcstring ToString(bool verify, bool ignore_cache) override { return FormatInt(GetValue(verify, ignore_cache), GetRepresentation()); }
  void FromString(const gcstring& s, bool verify) override {
    SetValue(IntArgument(this, s), verify);
  }
  bool IsValueCacheValid() const override { return false; }

 private:
  using CInteger = IInteger;
  IInteger* TargetInt() const { return dynamic_cast<IInteger*>(src_.Target(this)); }
};

class CFloatNode : public CNumberNode<true>, public IFloat, public CSelectorFace {
 public:
  CFloatNode(CNodeMap* map, const NodeDesc& d) : CNumberNode(map, d) { ReadSelected(d); }
  void Link() override {
    CNumberNode::Link();
    LinkSelected(this);
  }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIFloat; }
  void SetValue(double v, bool verify) override {
    CheckFinite(this, v);
    KIV_LOCK();
    Write(FormulaValue::Float(v), verify);
    CheckErrors();
  }
  double GetValue(bool verify, bool ignore_cache) override {
    KIV_LOCK();
    double v = Read(verify, ignore_cache).AsFloat();
    CheckErrorsIf(verify);
    return v;
  }
  double GetMin() override { KIV_LOCK(); return NumMin().AsFloat(); }
  double GetMax() override { KIV_LOCK(); return NumMax().AsFloat(); }
  bool HasInc() override { return GetIncMode() != noIncrement; }
  EIncMode GetIncMode() override { return !valid_.empty() ? listIncrement : inc_.present() ? fixedIncrement : noIncrement; }
  double GetInc() override { KIV_LOCK(); return inc_.present() ? Eval(inc_).AsFloat() : 0.0; }
  double_autovector_t GetListOfValidValues(bool bounded) override {
    KIV_LOCK();
    return FloatList(this, bounded);
  }
  ERepresentation GetRepresentation() override { return repr_; }
  gcstring GetUnit() const override {
    if (has_unit_) return unit_;
    if (IFloat* t = dynamic_cast<IFloat*>(src_.Target(this))) return t->GetUnit();
    if (IInteger* t = dynamic_cast<IInteger*>(src_.Target(this))) return t->GetUnit();
    return "";
  }
  EDisplayNotation GetDisplayNotation() const override { return notation_; }
  int64_t GetDisplayPrecision() const override { return precision_; }
  void ImposeMin(double v) override { has_imposed_min_ = true; imposed_min_ = FormulaValue::Float(v); }
  void ImposeMax(double v) override { has_imposed_max_ = true; imposed_max_ = FormulaValue::Float(v); }
  gcstring ToString(bool verify, bool ignore_cache) override { return FormatDouble(GetValue(verify, ignore_cache)); }
  void FromString(const gcstring& s, bool verify) override {
    SetValue(FloatArgument(this, s), verify);
  }
  bool IsValueCacheValid() const override { return false; }
};

class CBooleanNode : public CNode, public IBoolean, public CSelectorFace {
 public:
  CBooleanNode(CNodeMap* map, const NodeDesc& d) : CNode(map, d) {
    FormulaValue v;
    if (d.Has("OnValue") && ParseLiteral(d.Text("OnValue"), false, v)) on_ = v.i;
    if (d.Has("OffValue") && ParseLiteral(d.Text("OffValue"), false, v)) off_ = v.i;
    if (on_ == off_) KIV_THROW(RuntimeException, name_, "Boolean node '" + name_ + "' has OnValue equal to OffValue");
    ReadSelected(d);
    // A floating boolean holds "true"/"false" literally.
    NodeDesc copy = d;
    for (auto& c : copy.children)
      if (c.tag == "Value") {
        if (c.text == "true" || c.text == "1") c.text = std::to_string(on_);
        else if (c.text == "false" || c.text == "0") c.text = std::to_string(off_);
      }
    if (!copy.Has("Value") && !copy.Has("pValue")) copy.children.push_back(DescChild{"Value", std::to_string(off_), {}});
    src_.Read(copy, false);
  }
  void Link() override {
    CNode::Link();
    src_.Link(this, [this](NodeRef& r, unsigned k) { Resolve(r, k); });
    LinkSelected(this);
  }
  EAccessMode NaturalAccessMode() const override { return src_.Access(this); }
  void ValueInputs(std::vector<CNode*>& out) const override { src_.Inputs(out); }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIBoolean; }
  void SetValue(bool v, bool verify) override {
    KIV_LOCK();
    CheckWritable();
    EvalGuard g(this);
    src_.Set(this, FormulaValue::Int(v ? on_ : off_), verify);
    CheckErrors();
  }
  bool GetValue(bool verify, bool ignore_cache) const override {
    KIV_LOCK();
    CheckReadable();
    EvalGuard g(this);
    int64_t v = ToInt(src_.Get(this, verify, ignore_cache));
    CheckErrorsIf(verify);
    if (v == on_) return true;
    if (v == off_) return false;
    KIV_THROW(LogicalErrorException, name_, "Boolean node '" + name_ + "' has value " + std::to_string(v) +
                                                ", which is neither its OnValue nor its OffValue");
  }
  FormulaValue GetNum(bool verify, bool ignore_cache) override { return FormulaValue::Int(GetValue(verify, ignore_cache) ? 1 : 0); }
  void SetNum(const FormulaValue& v, bool verify) override { SetValue(v.AsFloat() != 0, verify); }
  FormulaValue NumMin() override { return FormulaValue::Int(0); }
  FormulaValue NumMax() override { return FormulaValue::Int(1); }
  gcstring ToString(bool verify, bool ignore_cache) override { return GetValue(verify, ignore_cache) ? "true" : "false"; }
  void FromString(const gcstring& s, bool verify) override {
    if (s == "true" || s == "1" || s == "True" || s == "TRUE") SetValue(true, verify);
    else if (s == "false" || s == "0" || s == "False" || s == "FALSE") SetValue(false, verify);
    else KIV_THROW(InvalidArgumentException, name_, "Node '" + name_ + "': '" + s + "' is not a boolean");
  }
  bool IsValueCacheValid() const override { return false; }

 private:
  CValueSource src_;
  int64_t on_ = 1, off_ = 0;
};

class CCommandNode : public CNode, public ICommand {
 public:
  CCommandNode(CNodeMap* map, const NodeDesc& d) : CNode(map, d) {
    src_.Read(d, false);
    ReadNumRef(d, "CommandValue", "pCommandValue", false, command_);
    if (!command_.present()) {
      command_.has_literal = true;
      command_.literal = FormulaValue::Int(1);
    }
  }
  void Link() override {
    CNode::Link();
    src_.Link(this, [this](NodeRef& r, unsigned k) { Resolve(r, k); });
    Resolve(command_);
  }
  EAccessMode NaturalAccessMode() const override { return src_.Access(this); }
  void ValueInputs(std::vector<CNode*>& out) const override {
    src_.Inputs(out);
    if (command_.ref.node) out.push_back(command_.ref.node);
  }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfICommand; }
  void Execute(bool verify) override {
    KIV_LOCK();
    CheckWritable();
    EvalGuard g(this);
    src_.Set(this, FormulaValue::Int(ToInt(Eval(command_))), verify);
    was_done_ = false;
    CheckErrors();
  }
  bool IsDone(bool) override {
    KIV_LOCK();
    if (!IsImplemented(GetAccessMode()))
      KIV_THROW(AccessException, name_, "Command '" + name_ + "' is not implemented");
    if (src_.floating()) return true;
    CNode* t = src_.Target(this);
    // A target that cannot be read cannot report completion: done at once.
    if (!t || !IsReadable(t->GetAccessMode()) || !IsReadable(GetAccessMode())) return true;
    EvalGuard g(this);
    bool done = ToInt(src_.Get(this, false, true)) != ToInt(Eval(command_));
    if (done && !was_done_) {
      was_done_ = true;
      NotifyWritten();
    }
    return done;
  }
  FormulaValue GetNum(bool verify, bool ignore_cache) override {
    CheckReadable();
    return src_.Get(this, verify, ignore_cache);
  }
  bool PollingActive() override { return !was_done_; }
  gcstring ToString(bool, bool) override { return IsDone(true) ? "0" : "1"; }
  void FromString(const gcstring& s, bool verify) override {
    if (s == "1" || s == "true") {
      Execute(verify);
    } else {
      KIV_THROW(InvalidArgumentException, name_, "Command '" + name_ + "' can only be executed with \"1\" or \"true\"");
    }
  }
  bool IsValueCacheValid() const override { return false; }

 private:
  CValueSource src_;
  NumRef command_;
  bool was_done_ = true;
};

class CStringNode : public CNode, public IString {
 public:
  CStringNode(CNodeMap* map, const NodeDesc& d) : CNode(map, d) {
    value_ = d.Text("Value");
    target_.name = d.Text("pValue");
  }
  void Link() override {
    CNode::Link();
    Resolve(target_, kData);
  }
  EAccessMode NaturalAccessMode() const override {
    if (!target_.set()) return RW;
    return target_.node ? target_.node->GetAccessMode() : NA;
  }
  void ValueInputs(std::vector<CNode*>& out) const override {
    if (target_.node) out.push_back(target_.node);
  }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIString; }
  IString* Target() const {
    IString* s = dynamic_cast<IString*>(target_.node);
    if (!s) KIV_THROW(LogicalErrorException, name_, "String '" + name_ + "': pValue '" + target_.name + "' is not a string node");
    return s;
  }
  void SetValue(const gcstring& v, bool verify) override {
    KIV_LOCK();
    CheckWritable();
    if (target_.set()) {
      Target()->SetValue(v, verify);
    } else {
      value_ = v;
      NotifyWritten();
    }
    CheckErrors();
  }
  gcstring GetValue(bool verify, bool ignore_cache) override {
    KIV_LOCK();
    CheckReadable();
    gcstring v = target_.set() ? Target()->GetValue(verify, ignore_cache) : gcstring(value_);
    CheckErrorsIf(verify);
    return v;
  }
  int64_t GetMaxLength(bool verify) override {
    if (target_.set()) return Target()->GetMaxLength(verify);
    return INT64_MAX;
  }
  gcstring ToString(bool verify, bool ignore_cache) override { return GetValue(verify, ignore_cache); }
  void FromString(const gcstring& s, bool verify) override { SetValue(s, verify); }
  bool IsValueCacheValid() const override { return false; }

 private:
  std::string value_;
  NodeRef target_;
};

class CCategoryNode : public CNode, public ICategory {
 public:
  CCategoryNode(CNodeMap* map, const NodeDesc& d) : CNode(map, d) {
    for (const DescChild* c : d.All("pFeature")) features_.push_back(NodeRef{c->text, nullptr});
  }
  void Link() override {
    CNode::Link();
    for (auto& f : features_) Resolve(f);
  }
  EAccessMode NaturalAccessMode() const override {
    bool any = false;
    for (const auto& f : features_)
      if (f.node && f.node->GetAccessMode() != NI) any = true;
    return (any || features_.empty()) ? RO : NI;
  }
  void ValueInputs(std::vector<CNode*>& out) const override {
    for (const auto& f : features_)
      if (f.node) out.push_back(f.node);
  }
  ECachingMode OwnCachingMode() const override { return WriteThrough; }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfICategory; }
  void GetFeatures(FeatureList_t& out) const override {
    out.clear();
    for (const auto& f : features_)
      if (IValue* v = dynamic_cast<IValue*>(f.node)) out.push_back(v);
  }
  gcstring ToString(bool, bool) override { return ""; }
  void FromString(const gcstring&, bool) override {
    KIV_THROW(AccessException, name_, "Category '" + name_ + "' has no value to set");
  }
  bool IsValueCacheValid() const override { return true; }
  const std::vector<NodeRef>& features() const { return features_; }

 private:
  std::vector<NodeRef> features_;
};

// Plain Node elements, and legacy IIDC elements that this engine does not
// evaluate (config-ROM parsing, DCAM locks): they load as not implemented.
class CPlainNode : public CNode, public IValue {
 public:
  CPlainNode(CNodeMap* map, const NodeDesc& d, bool implemented) : CNode(map, d), implemented_(implemented) {}
  EAccessMode NaturalAccessMode() const override { return implemented_ ? RW : NI; }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIValue; }
  gcstring ToString(bool, bool) override {
    CheckReadable();
    return "";
  }
  void FromString(const gcstring&, bool) override {
    CheckWritable();
  }
  bool IsValueCacheValid() const override { return true; }

 private:
  bool implemented_;
};

}  // namespace

void CategoryFeatures(CNode* n, std::vector<CNode*>& out) {
  out.clear();
  if (auto* c = dynamic_cast<CCategoryNode*>(n))
    for (const auto& f : c->features())
      if (f.node) out.push_back(f.node);
}

std::unique_ptr<CNode> MakeValueNode(CNodeMap* map, const NodeDesc& d) {
  const std::string& t = d.type;
  if (t == "Integer") return std::make_unique<CIntegerNode>(map, d);
  if (t == "Float") return std::make_unique<CFloatNode>(map, d);
  if (t == "Boolean") return std::make_unique<CBooleanNode>(map, d);
  if (t == "Command") return std::make_unique<CCommandNode>(map, d);
  if (t == "String") return std::make_unique<CStringNode>(map, d);
  if (t == "Category") return std::make_unique<CCategoryNode>(map, d);
  if (t == "Node") return std::make_unique<CPlainNode>(map, d, true);
  if (t == "ConfRom" || t == "TextDesc" || t == "IntKey" || t == "AdvFeatureLock" || t == "SmartFeature")
    return std::make_unique<CPlainNode>(map, d, false);
  return nullptr;
}

}  // namespace detail
}  // namespace KivGenApi
