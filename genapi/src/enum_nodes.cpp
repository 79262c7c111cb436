// Enumeration and EnumEntry.
#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>

#include "factories.h"
#include "nodemap.h"
#include "value_source.h"

namespace KivGenApi {
namespace detail {
namespace {

class CEnumEntryNode : public CNode, public IEnumEntry {
 public:
  CEnumEntryNode(CNodeMap* map, const NodeDesc& d) : CNode(map, d) {
    FormulaValue v;
    if (!ParseLiteral(d.Text("Value"), false, v))
      KIV_THROW(RuntimeException, name_, "EnumEntry '" + name_ + "' has no valid Value");
    value_ = v.i;
    numeric_ = static_cast<double>(value_);
    double n;
    if (d.Has("NumericValue") && ParseDouble(d.Text("NumericValue"), n)) numeric_ = n;
    // Nested entries are renamed after their enumeration; a free-standing
    // entry (pEnumEntry in old descriptions) keeps its own name.
    symbolic_ = d.Has("Symbolic") ? d.Text("Symbolic") : !d.Attr("_EntryName").empty() ? d.Attr("_EntryName") : d.name;
    self_clearing_ = d.Text("IsSelfClearing") == "Yes";
  }
  EAccessMode NaturalAccessMode() const override { return RO; }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIEnumEntry; }
  int64_t GetValue() override { return value_; }
  gcstring GetSymbolic() const override { return symbolic_; }
  double GetNumericValue() override { return numeric_; }
  bool IsSelfClearing() override { return self_clearing_; }
  gcstring ToString(bool, bool) override { return symbolic_; }
  void FromString(const gcstring&, bool) override {
    KIV_THROW(AccessException, name_, "EnumEntry '" + name_ + "' cannot be set");
  }
  bool IsValueCacheValid() const override { return true; }
  FormulaValue GetNum(bool, bool) override { return FormulaValue::Int(value_); }
  int64_t value() const { return value_; }

 private:
  int64_t value_ = 0;
  double numeric_ = 0;
  std::string symbolic_;
  bool self_clearing_ = false;
};

class CEnumerationNode : public CNode, public IEnumeration, public CSelectorFace {
 public:
  CEnumerationNode(CNodeMap* map, const NodeDesc& d) : CNode(map, d) {
    src_.Read(d, false);
    for (const DescChild* c : d.All("pEnumEntry")) entry_refs_.push_back(NodeRef{c->text, nullptr});
    ReadSelected(d);
  }
  void Link() override {
    CNode::Link();
    src_.Link(this, [this](NodeRef& r, unsigned k) { Resolve(r, k); });
    for (auto& r : entry_refs_) {
      Resolve(r);
      if (auto* e = dynamic_cast<CEnumEntryNode*>(r.node)) entries_.push_back(e);
    }
    LinkSelected(this);
  }
  EAccessMode NaturalAccessMode() const override { return src_.Access(this); }
  void ValueInputs(std::vector<CNode*>& out) const override { src_.Inputs(out); }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIEnumeration; }

  CEnumEntryNode* Find(int64_t v) const {
    for (auto* e : entries_)
      if (e->value() == v) return e;
    return nullptr;
  }
  CEnumEntryNode* FindSym(const std::string& s) const {
    for (auto* e : entries_)
      if (e->GetSymbolic() == s) return e;
    return nullptr;
  }
  void CheckEntryAvailable(CEnumEntryNode* e) const {
    if (!IsAvailable(e->GetAccessMode()))
      KIV_THROW(AccessException, name_, "Entry '" + e->GetSymbolic() + "' of enumeration '" + name_ +
                                            "' is not available");
  }

  void GetSymbolics(StringList_t& out) override {
    KIV_LOCK();
    out.clear();
    for (auto* e : entries_)
      if (IsAvailable(e->GetAccessMode())) out.push_back(e->GetSymbolic());
  }
  void GetEntries(NodeList_t& out) override {
    out.assign(entries_.begin(), entries_.end());
  }
  void SetIntValue(int64_t v, bool verify) override {
    KIV_LOCK();
    CheckWritable();
    CEnumEntryNode* e = Find(v);
    if (!e)
      KIV_THROW(InvalidArgumentException, name_, "Enumeration '" + name_ + "' has no entry with value " + std::to_string(v));
    CheckEntryAvailable(e);
    EvalGuard g(this);
    src_.Set(this, FormulaValue::Int(v), verify);
    CheckErrors();
  }
  int64_t GetIntValue(bool verify, bool ignore_cache) override {
    KIV_LOCK();
    CheckReadable();
    EvalGuard g(this);
    int64_t v = ToInt(src_.Get(this, verify, ignore_cache));
    if (verify) {
      CEnumEntryNode* e = Find(v);
      if (!e)
        KIV_THROW(OutOfRangeException, name_, "Enumeration '" + name_ + "' has value " + std::to_string(v) + ", which matches no entry");
      CheckEntryAvailable(e);
      CheckErrors();
    }
    return v;
  }
  IEnumEntry* GetEntryByName(const gcstring& s) override { return FindSym(s); }
  IEnumEntry* GetEntry(const int64_t v) override { return Find(v); }
  IEnumEntry* GetCurrentEntry(bool verify, bool ignore_cache) override {
    return Find(GetIntValue(verify, ignore_cache));
  }
  // The entry matching the current value; none raises.
  CEnumEntryNode* MatchingEntry(bool verify, bool ignore_cache) {
    int64_t v = GetIntValue(verify, ignore_cache);
    CEnumEntryNode* e = Find(v);
    if (!e)
      KIV_THROW(InvalidArgumentException, name_, "Enumeration '" + name_ + "' has value " + std::to_string(v) + ", which matches no entry");
    return e;
  }
  gcstring ToString(bool verify, bool ignore_cache) override {
    KIV_LOCK();
    return MatchingEntry(verify, ignore_cache)->GetSymbolic();
  }
  void FromString(const gcstring& s, bool verify) override {
    KIV_LOCK();
    CEnumEntryNode* e = FindSym(s);
    if (!e) KIV_THROW(InvalidArgumentException, name_, "Enumeration '" + name_ + "' has no entry '" + s + "'");
    SetIntValue(e->value(), verify);
  }
  bool IsValueCacheValid() const override { return false; }
  // A self-clearing entry (e.g. an auto function running "Once") ends on its
  // own; only then is re-reading worth it.
  bool PollingActive() override {
    try {
      CEnumEntryNode* e = Find(ToInt(src_.Get(this, false, false)));
      return e && e->IsSelfClearing();
    } catch (const std::exception&) {
      return false;
    }
  }
  FormulaValue GetNum(bool verify, bool ignore_cache) override { return FormulaValue::Int(GetIntValue(verify, ignore_cache)); }
  void SetNum(const FormulaValue& v, bool verify) override { SetIntValue(ToInt(v), verify); }
  // Seen from a Float: the current entry's NumericValue; a write picks the
  // available entry whose NumericValue is nearest.
  FormulaValue GetFloat(bool verify, bool ignore_cache) override {
    KIV_LOCK();
    return FormulaValue::Float(MatchingEntry(verify, ignore_cache)->GetNumericValue());
  }
  void SetFloat(const FormulaValue& v, bool verify) override {
    KIV_LOCK();
    CEnumEntryNode* best = nullptr;
    double x = v.AsFloat();
    for (auto* e : entries_)
      if (IsAvailable(e->GetAccessMode()) &&
          (!best || std::fabs(e->GetNumericValue() - x) < std::fabs(best->GetNumericValue() - x)))
        best = e;
    if (!best) KIV_THROW(AccessException, name_, "Enumeration '" + name_ + "' has no available entry");
    SetIntValue(best->value(), verify);
  }
  FormulaValue FloatMin() override { return NumericBound(true); }
  FormulaValue FloatMax() override { return NumericBound(false); }
  FormulaValue NumericBound(bool is_min) {
    double m = is_min ? DBL_MAX : -DBL_MAX;
    for (auto* e : entries_)
      if (IsAvailable(e->GetAccessMode())) m = is_min ? std::min(m, e->GetNumericValue()) : std::max(m, e->GetNumericValue());
    return FormulaValue::Float(m);
  }
  FormulaValue NumMin() override {
    int64_t m = INT64_MAX;
    for (auto* e : entries_) m = std::min(m, e->value());
    return FormulaValue::Int(entries_.empty() ? 0 : m);
  }
  FormulaValue NumMax() override {
    int64_t m = INT64_MIN;
    for (auto* e : entries_) m = std::max(m, e->value());
    return FormulaValue::Int(entries_.empty() ? 0 : m);
  }

 private:
  CValueSource src_;
  std::vector<NodeRef> entry_refs_;
  std::vector<CEnumEntryNode*> entries_;
};

}  // namespace

std::unique_ptr<CNode> MakeEnumNode(CNodeMap* map, const NodeDesc& d) {
  if (d.type == "Enumeration") return std::make_unique<CEnumerationNode>(map, d);
  if (d.type == "EnumEntry") return std::make_unique<CEnumEntryNode>(map, d);
  return nullptr;
}

}  // namespace detail
}  // namespace KivGenApi
