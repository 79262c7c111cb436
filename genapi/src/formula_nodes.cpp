// SwissKnife, IntSwissKnife, Converter and IntConverter: nodes whose value is
// a formula over other nodes. Formulas are compiled once, after linking; a
// formula that does not compile leaves the description loadable and raises
// when the node is used.
#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <memory>

#include "factories.h"
#include "nodemap.h"
#include "value_nodes.h"
#include "value_source.h"

namespace KivGenApi {
namespace detail {
namespace {

enum class VarKind { Value, Min, Max, Inc, AccessMode, Visibility, CachingMode, Entry, Constant };

struct Variable {
  std::string formula_name;  // as the formula spells it, suffix included
  NodeRef ref;
  VarKind kind = VarKind::Value;
  std::string entry;  // for .Entry.X
  FormulaValue constant;
};

// One compiled formula plus the variables it reads.
class CBoundFormula {
 public:
  void Compile(const std::string& owner, const std::string& text, bool float_mode, const std::vector<Variable>& vars,
               const std::vector<std::pair<std::string, std::string>>& expressions, const char* extra = nullptr) {
    std::vector<std::string> names;
    for (const auto& v : vars) names.push_back(v.formula_name);
    if (extra) names.push_back(extra);
    values_.resize(names.size());
    try {
      formula_ = std::make_unique<CFormula>(text, float_mode ? CFormula::Mode::Float : CFormula::Mode::Integer, names,
                                            expressions);
      used_ = formula_->used_variables();
    } catch (const FormulaError& e) {
      error_ = "Formula '" + text + "' of node '" + owner + "' does not compile: " + e.what();
    }
  }
  bool used(size_t i) const { return i < used_.size() && used_[i]; }
  FormulaValue* values() { return values_.data(); }
  size_t count() const { return values_.size(); }
  FormulaValue Evaluate(const std::string& owner) const {
    if (!formula_) throw LogicalErrorException(error_.empty() ? "Node '" + owner + "' has no formula" : error_,
                                               __FILE__, __LINE__, owner);
    try {
      return formula_->Evaluate(values_.data());
    } catch (const FormulaError& e) {
      throw LogicalErrorException("Formula of node '" + owner + "' failed: " + e.what(), __FILE__, __LINE__, owner);
    }
  }

 private:
  std::unique_ptr<CFormula> formula_;
  std::vector<bool> used_;
  std::vector<FormulaValue> values_;
  std::string error_;
};

class CFormulaBase : public CNode {
 public:
  CFormulaBase(CNodeMap* map, const NodeDesc& d, bool float_mode) : CNode(map, d), float_(float_mode) {
    for (const auto& c : d.children) {
      if (c.tag == "pVariable") {
        Variable v;
        v.formula_name = c.Attr("Name");
        v.ref.name = c.text;
        std::string n = v.formula_name;
        size_t dot = n.find('.');
        if (dot != std::string::npos) {
          std::string suffix = n.substr(dot + 1);
          if (suffix == "Value") v.kind = VarKind::Value;
          else if (suffix == "Min") v.kind = VarKind::Min;
          else if (suffix == "Max") v.kind = VarKind::Max;
          else if (suffix == "Inc") v.kind = VarKind::Inc;
          else if (suffix == "AccessMode") v.kind = VarKind::AccessMode;
          else if (suffix == "Visibility") v.kind = VarKind::Visibility;
          else if (suffix == "CachingMode") v.kind = VarKind::CachingMode;
          else if (suffix.compare(0, 6, "Entry.") == 0) {
            v.kind = VarKind::Entry;
            v.entry = suffix.substr(6);
          }
        }
        vars_.push_back(v);
      } else if (c.tag == "Constant") {
        Variable v;
        v.formula_name = c.Attr("Name");
        v.kind = VarKind::Constant;
        if (!ParseLiteral(c.text, float_mode, v.constant))
          KIV_THROW(RuntimeException, name_, "Node '" + name_ + "': bad Constant '" + c.text + "'");
        vars_.push_back(v);
      } else if (c.tag == "Expression") {
        expressions_.emplace_back(c.Attr("Name"), c.text);
      }
    }
    unit_ = d.Text("Unit");
    has_unit_ = d.Has("Unit");
    repr_ = ParseRepresentation(d.Text("Representation"), _UndefinedRepresentation);
    if (d.Text("DisplayNotation") == "Fixed") notation_ = fnFixed;
    if (d.Text("DisplayNotation") == "Scientific") notation_ = fnScientific;
    if (d.Has("DisplayPrecision")) ParseInt64(d.Text("DisplayPrecision"), precision_);
  }
  void Link() override {
    CNode::Link();
    for (auto& v : vars_) Resolve(v.ref, kReadValue);
  }
  EAccessMode VariablesAccess() const {
    EAccessMode m = RO;
    for (const auto& v : vars_) {
      if (v.kind == VarKind::Constant || v.kind == VarKind::AccessMode) continue;
      if (!v.ref.node) return NA;
      EAccessMode a = v.ref.node->GetAccessMode();
      if (a == NI || a == NA) return a;
      // A write-only variable has no value to compute with.
      if (v.kind == VarKind::Value && !IsReadable(a)) return NA;
    }
    return m;
  }
  void ValueInputs(std::vector<CNode*>& out) const override {
    for (const auto& v : vars_)
      if (v.ref.node) out.push_back(v.ref.node);
  }
  // Fills the formula's variable values, reading only what it uses.
  void Bind(CBoundFormula& f, bool ignore_cache) {
    FormulaValue* out = f.values();
    for (size_t i = 0; i < vars_.size(); ++i) {
      if (!f.used(i)) continue;
      out[i] = VarValue(vars_[i], ignore_cache);
    }
  }
  FormulaValue VarValue(const Variable& v, bool ignore_cache) {
    if (v.kind == VarKind::Constant) return v.constant;
    CNode* n = Need(v.ref, "pVariable");
    switch (v.kind) {
      case VarKind::Value: return n->GetNum(false, ignore_cache);
      case VarKind::Min: return n->NumMin();
      case VarKind::Max: return n->NumMax();
      case VarKind::Inc: return n->NumInc();
      case VarKind::AccessMode: return FormulaValue::Int(n->GetAccessMode());
      case VarKind::Visibility: return FormulaValue::Int(n->GetVisibility());
      case VarKind::CachingMode: return FormulaValue::Int(n->GetCachingMode());
      case VarKind::Entry: {
        auto* e = dynamic_cast<IEnumeration*>(n);
        if (!e)
          KIV_THROW(RuntimeException, name_, "Node '" + name_ + "': variable '" + v.formula_name + "' names entry '" +
                                                 v.entry + "' of '" + n->name() + "', which is not an enumeration");
        IEnumEntry* entry = e->GetEntryByName(v.entry);
        if (!entry)
          KIV_THROW(RuntimeException, name_, "Node '" + name_ + "': enumeration '" + n->name() + "' has no entry '" +
                                                 v.entry + "'");
        return FormulaValue::Int(entry->GetValue());
      }
      default: return FormulaValue::Int(0);
    }
  }
  ERepresentation Repr(CNode* target) const {
    if (repr_ != _UndefinedRepresentation) return repr_;
    if (auto* i = dynamic_cast<IInteger*>(target)) return i->GetRepresentation();
    if (auto* f = dynamic_cast<IFloat*>(target)) return f->GetRepresentation();
    return PureNumber;
  }
  std::string Unit(CNode* target) const {
    if (has_unit_) return unit_;
    if (auto* i = dynamic_cast<IInteger*>(target)) return i->GetUnit();
    if (auto* f = dynamic_cast<IFloat*>(target)) return f->GetUnit();
    return "";
  }

 protected:
  bool float_;
  std::vector<Variable> vars_;
  std::vector<std::pair<std::string, std::string>> expressions_;
  std::string unit_;
  bool has_unit_ = false;
  ERepresentation repr_;
  EDisplayNotation notation_ = fnAutomatic;
  int64_t precision_ = 6;
};

// The IInteger / IFloat face shared by knives and converters; the derived
// class supplies Read, Write, Min, Max.
template <class Base, bool Float>
class CFormulaFace;

template <class Base>
class CFormulaFace<Base, false> : public Base, public IInteger, public CSelectorFace {
 public:
  CFormulaFace(CNodeMap* m, const NodeDesc& d, bool float_mode) : Base(m, d, float_mode) { this->ReadSelected(d); }
  void Link() override {
    Base::Link();
    this->LinkSelected(this);
  }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIInteger; }
  void SetValue(int64_t v, bool verify) override {
    std::lock_guard<std::recursive_mutex> l(this->map_->GetLock());
    this->Write(FormulaValue::Int(v), verify);
    this->CheckErrors();
  }
  int64_t GetValue(bool verify, bool ignore_cache) override {
    std::lock_guard<std::recursive_mutex> l(this->map_->GetLock());
    int64_t v = ToInt(this->Read(verify, ignore_cache));
    this->CheckErrorsIf(verify);
    return v;
  }
  int64_t GetMin() override { std::lock_guard<std::recursive_mutex> l(this->map_->GetLock()); return ToInt(this->NumMin()); }
  int64_t GetMax() override { std::lock_guard<std::recursive_mutex> l(this->map_->GetLock()); return ToInt(this->NumMax()); }
  EIncMode GetIncMode() override {
    std::lock_guard<std::recursive_mutex> l(this->map_->GetLock());
    return this->HasList() ? listIncrement : fixedIncrement;
  }
  int64_t GetInc() override { return 1; }
  int64_autovector_t GetListOfValidValues(bool bounded) override {
    std::lock_guard<std::recursive_mutex> l(this->map_->GetLock());
    return IntList(this, bounded);
  }
  ERepresentation GetRepresentation() override { return this->Repr(this->Target()); }
  gcstring GetUnit() override { return this->Unit(this->Target()); }
  void ImposeMin(int64_t) override {}
  void ImposeMax(int64_t) override {}
  gcstring ToString(bool verify, bool ignore_cache) override {
    return FormatInt(GetValue(verify, ignore_cache), GetRepresentation());
  }
  void FromString(const gcstring& s, bool verify) override {
    SetValue(IntArgument(this, s), verify);
  }
  bool IsValueCacheValid() const override { return false; }
};

template <class Base>
class CFormulaFace<Base, true> : public Base, public IFloat, public CSelectorFace {
 public:
  CFormulaFace(CNodeMap* m, const NodeDesc& d, bool float_mode) : Base(m, d, float_mode) { this->ReadSelected(d); }
  void Link() override {
    Base::Link();
    this->LinkSelected(this);
  }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIFloat; }
  void SetValue(double v, bool verify) override {
    CheckFinite(this, v);
    std::lock_guard<std::recursive_mutex> l(this->map_->GetLock());
    this->Write(FormulaValue::Float(v), verify);
    this->CheckErrors();
  }
  double GetValue(bool verify, bool ignore_cache) override {
    std::lock_guard<std::recursive_mutex> l(this->map_->GetLock());
    double v = this->Read(verify, ignore_cache).AsFloat();
    this->CheckErrorsIf(verify);
    return v;
  }
  double GetMin() override { std::lock_guard<std::recursive_mutex> l(this->map_->GetLock()); return this->NumMin().AsFloat(); }
  double GetMax() override { std::lock_guard<std::recursive_mutex> l(this->map_->GetLock()); return this->NumMax().AsFloat(); }
  bool HasInc() override { return GetIncMode() != noIncrement; }
  EIncMode GetIncMode() override {
    std::lock_guard<std::recursive_mutex> l(this->map_->GetLock());
    return this->HasList() ? listIncrement : noIncrement;
  }
  double GetInc() override { return 0; }
  double_autovector_t GetListOfValidValues(bool bounded) override {
    std::lock_guard<std::recursive_mutex> l(this->map_->GetLock());
    return FloatList(this, bounded);
  }
  ERepresentation GetRepresentation() override { return this->Repr(this->Target()); }
  gcstring GetUnit() const override { return this->Unit(this->Target()); }
  EDisplayNotation GetDisplayNotation() const override { return this->notation_; }
  int64_t GetDisplayPrecision() const override { return this->precision_; }
  void ImposeMin(double) override {}
  void ImposeMax(double) override {}
  gcstring ToString(bool verify, bool ignore_cache) override { return FormatDouble(GetValue(verify, ignore_cache)); }
  void FromString(const gcstring& s, bool verify) override {
    SetValue(FloatArgument(this, s), verify);
  }
  bool IsValueCacheValid() const override { return false; }
};

class CSwissKnifeBase : public CFormulaBase {
 public:
  CSwissKnifeBase(CNodeMap* map, const NodeDesc& d, bool float_mode) : CFormulaBase(map, d, float_mode) {
    text_ = d.Text("Formula");
  }
  void Finish() override { formula_.Compile(name_, text_, float_, vars_, expressions_); }
  EAccessMode NaturalAccessMode() const override { return VariablesAccess(); }
  CNode* Target() const { return nullptr; }
  bool HasList() { return false; }
  // The result is cached like a register value: shared sub-formulas would
  // otherwise be evaluated once per path through the reference graph.
  FormulaValue Read(bool verify, bool ignore_cache) {
    CheckReadable();
    bool fresh = ignore_cache || verify;
    if (!fresh && cache_valid_) return cache_;
    EvalGuard g(this);
    Bind(formula_, fresh);
    FormulaValue v = formula_.Evaluate(name_);
    v = float_ ? FormulaValue::Float(v.AsFloat()) : FormulaValue::Int(ToInt(v));
    if (GetCachingMode() != NoCache) {
      cache_ = v;
      cache_valid_ = true;
    }
    return v;
  }
  void DropCache() override { cache_valid_ = false; }
  bool HasValueCache() const override { return true; }
  void Write(const FormulaValue&, bool) {
    KIV_THROW(AccessException, name_, "Node '" + name_ + "' is not writable (computed value).");
  }
  FormulaValue GetNum(bool verify, bool ignore_cache) override { return Read(verify, ignore_cache); }
  FormulaValue NumMin() override { return float_ ? FormulaValue::Float(-DBL_MAX) : FormulaValue::Int(INT64_MIN); }
  FormulaValue NumMax() override { return float_ ? FormulaValue::Float(DBL_MAX) : FormulaValue::Int(INT64_MAX); }

 private:
  std::string text_;
  CBoundFormula formula_;
  FormulaValue cache_;
  bool cache_valid_ = false;
};

class CConverterBase : public CFormulaBase {
 public:
  CConverterBase(CNodeMap* map, const NodeDesc& d, bool float_mode) : CFormulaBase(map, d, float_mode) {
    to_text_ = d.Text("FormulaTo");
    from_text_ = d.Text("FormulaFrom");
    value_.name = d.Text("pValue");
    std::string s = d.Text("Slope");
    slope_ = s == "Increasing" ? Increasing : s == "Decreasing" ? Decreasing : s == "Varying" ? Varying : Automatic;
  }
  void Link() override {
    CFormulaBase::Link();
    Resolve(value_, kData);
  }
  void Finish() override {
    // FormulaTo maps the user's value (FROM) to pValue; FormulaFrom maps
    // pValue (TO) back. Both are float formulas in a Converter.
    to_.Compile(name_, to_text_, float_, vars_, expressions_, "FROM");
    from_.Compile(name_, from_text_, float_, vars_, expressions_, "TO");
  }
  CNode* Target() const { return value_.node; }
  EAccessMode NaturalAccessMode() const override {
    if (!value_.node) return NA;
    EAccessMode v = VariablesAccess();
    if (v == NI || v == NA) return v;
    return value_.node->GetAccessMode();
  }
  void ValueInputs(std::vector<CNode*>& out) const override {
    CFormulaBase::ValueInputs(out);
    if (value_.node) out.push_back(value_.node);
  }
  FormulaValue From(const FormulaValue& to, bool ignore_cache) {
    Bind(from_, ignore_cache);
    from_.values()[from_.count() - 1] = to;
    FormulaValue v = from_.Evaluate(name_);
    return Conv(v);
  }
  FormulaValue Conv(const FormulaValue& v) const {
    return float_ ? FormulaValue::Float(v.AsFloat()) : FormulaValue::Int(ToInt(v));
  }
  FormulaValue Read(bool verify, bool ignore_cache) {
    CheckReadable();
    EvalGuard g(this);
    FormulaValue to = Need(value_, "pValue")->GetNum(verify, ignore_cache);
    return From(to, ignore_cache);
  }
  void Write(const FormulaValue& v, bool verify) {
    CheckWritable();
    if (verify) {
      double lo = NumMin().AsFloat(), hi = NumMax().AsFloat();
      CheckFloatRange(this, v.AsFloat(), lo, hi);
      std::vector<FormulaValue> list;
      if (ValidList(list, false)) CheckInList(this, v, list);
    }
    EvalGuard g(this);
    Bind(to_, false);
    to_.values()[to_.count() - 1] = v;
    FormulaValue raw = to_.Evaluate(name_);
    Need(value_, "pValue")->SetNum(raw, verify);
  }
  FormulaValue GetNum(bool verify, bool ignore_cache) override { return Read(verify, ignore_cache); }
  void SetNum(const FormulaValue& v, bool verify) override { Write(v, verify); }
  // The range is the target's range mapped through FormulaFrom.
  void Range(FormulaValue& lo, FormulaValue& hi) {
    if (slope_ == Varying) {
      lo = float_ ? FormulaValue::Float(-DBL_MAX) : FormulaValue::Int(INT64_MIN);
      hi = float_ ? FormulaValue::Float(DBL_MAX) : FormulaValue::Int(INT64_MAX);
      return;
    }
    EvalGuard g(this);
    CNode* t = Need(value_, "pValue");
    FormulaValue a = From(t->NumMin(), false), b = From(t->NumMax(), false);
    bool swap = slope_ == Decreasing || (slope_ == Automatic && a.AsFloat() > b.AsFloat());
    lo = swap ? b : a;
    hi = swap ? a : b;
  }
  // The target's list of valid values seen through FormulaFrom.
  bool ValidList(std::vector<FormulaValue>& out, bool bounded) override {
    CNode* t = value_.node;
    std::vector<FormulaValue> raw;
    if (!t || !t->ValidList(raw, bounded)) return false;
    EvalGuard g(this);
    out.clear();
    for (const auto& r : raw) out.push_back(From(r, false));
    std::sort(out.begin(), out.end(), [](const FormulaValue& a, const FormulaValue& b) { return a.AsFloat() < b.AsFloat(); });
    return true;
  }
  bool HasList() {
    std::vector<FormulaValue> list;
    return value_.node && value_.node->ValidList(list, false);
  }
  FormulaValue NumMin() override {
    FormulaValue lo, hi;
    Range(lo, hi);
    return lo;
  }
  FormulaValue NumMax() override {
    FormulaValue lo, hi;
    Range(lo, hi);
    return hi;
  }

 private:
  std::string to_text_, from_text_;
  NodeRef value_;
  ESlope slope_;
  CBoundFormula to_, from_;
};

class CSwissKnifeNode : public CFormulaFace<CSwissKnifeBase, true> {
 public:
  CSwissKnifeNode(CNodeMap* m, const NodeDesc& d) : CFormulaFace(m, d, true) {}
};
class CIntSwissKnifeNode : public CFormulaFace<CSwissKnifeBase, false> {
 public:
  CIntSwissKnifeNode(CNodeMap* m, const NodeDesc& d) : CFormulaFace(m, d, false) {}
};
class CConverterNode : public CFormulaFace<CConverterBase, true> {
 public:
  CConverterNode(CNodeMap* m, const NodeDesc& d) : CFormulaFace(m, d, true) {}
};
class CIntConverterNode : public CFormulaFace<CConverterBase, false> {
 public:
  CIntConverterNode(CNodeMap* m, const NodeDesc& d) : CFormulaFace(m, d, false) {}
};

}  // namespace

std::unique_ptr<CNode> MakeFormulaNode(CNodeMap* map, const NodeDesc& d) {
  const std::string& t = d.type;
  if (t == "SwissKnife") return std::make_unique<CSwissKnifeNode>(map, d);
  if (t == "IntSwissKnife") return std::make_unique<CIntSwissKnifeNode>(map, d);
  if (t == "Converter") return std::make_unique<CConverterNode>(map, d);
  if (t == "IntConverter") return std::make_unique<CIntConverterNode>(map, d);
  return nullptr;
}

}  // namespace detail
}  // namespace KivGenApi
