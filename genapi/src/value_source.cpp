#include "value_source.h"

#include "nodemap.h"

namespace KivGenApi {
namespace detail {

bool ParseLiteral(const std::string& text, bool float_mode, FormulaValue& out) {
  if (float_mode) {
    double d;
    if (!ParseDouble(text, d)) return false;
    out = FormulaValue::Float(d);
    return true;
  }
  int64_t i;
  if (!ParseInt64(text, i)) {
    // Some descriptions write integer literals as floats ("1.0").
    double d;
    if (!ParseDouble(text, d)) return false;
    out = FormulaValue::Int(ToInt(FormulaValue::Float(d)));
    return true;
  }
  out = FormulaValue::Int(i);
  return true;
}

static void ThrowBadLiteral(const NodeDesc& d, const char* tag, const std::string& text) {
  throw RuntimeException("Node '" + d.name + "': bad " + tag + " value '" + text + "'", __FILE__, __LINE__, d.name);
}

void ReadNumRef(const NodeDesc& d, const char* literal_tag, const char* pointer_tag, bool float_mode, NumRef& out) {
  if (pointer_tag && d.Has(pointer_tag)) {
    out.ref.name = d.Text(pointer_tag);
    return;
  }
  if (literal_tag && d.Has(literal_tag)) {
    std::string t = d.Text(literal_tag);
    if (!ParseLiteral(t, float_mode, out.literal)) ThrowBadLiteral(d, literal_tag, t);
    out.has_literal = true;
  }
}

void CValueSource::Read(const NodeDesc& d, bool float_mode) {
  float_mode_ = float_mode;
  ReadNumRef(d, "Value", "pValue", float_mode, value_);
  for (const DescChild* c : d.All("pValueCopy")) copies_.push_back(NodeRef{c->text, nullptr});
  if (d.Has("pIndex")) {
    index_.name = d.Text("pIndex");
    for (const auto& c : d.children) {
      if (c.tag != "ValueIndexed" && c.tag != "pValueIndexed") continue;
      int64_t idx;
      if (!ParseInt64(c.Attr("Index"), idx)) ThrowBadLiteral(d, "Index", c.Attr("Index"));
      NumRef r;
      if (c.tag == "pValueIndexed") {
        r.ref.name = c.text;
      } else {
        if (!ParseLiteral(c.text, float_mode, r.literal)) ThrowBadLiteral(d, "ValueIndexed", c.text);
        r.has_literal = true;
      }
      indexed_.emplace_back(idx, r);
    }
    ReadNumRef(d, "ValueDefault", "pValueDefault", float_mode, default_);
  }
  if (!value_.present() && !index_.set()) {
    // A floating variable without a start value starts at zero.
    value_.has_literal = true;
    value_.literal = float_mode ? FormulaValue::Float(0) : FormulaValue::Int(0);
  }
}

void CValueSource::Link(CNode*, const std::function<void(NodeRef&, unsigned)>& resolve) {
  resolve(value_.ref, kData);
  for (auto& c : copies_) resolve(c, kWrite);
  resolve(index_, kReadValue);
  for (auto& e : indexed_) resolve(e.second.ref, kData);
  resolve(default_.ref, kData);
}

static CNode* NeedRef(const CNode* owner, const NodeRef& r) {
  if (!r.node)
    throw LogicalErrorException("Node '" + owner->name() + "' refers to unknown node '" + r.name + "'", __FILE__,
                                __LINE__, owner->name());
  return r.node;
}

const NumRef* CValueSource::Selected(const CNode* owner) const {
  if (!index_.set()) return &value_;
  int64_t idx = NeedRef(owner, index_)->GetNum(false, false).i;
  for (const auto& e : indexed_)
    if (e.first == idx) return &e.second;
  if (!default_.present())
    throw LogicalErrorException("Node '" + owner->name() + "': no value for index " + std::to_string(idx),
                                __FILE__, __LINE__, owner->name());
  return &default_;
}

FormulaValue CValueSource::Get(const CNode* owner, bool verify, bool ignore_cache) const {
  const NumRef* r = Selected(owner);
  if (!r->ref.set()) return r->literal;
  CNode* t = NeedRef(owner, r->ref);
  return float_mode_ ? t->GetFloat(verify, ignore_cache) : t->GetNum(verify, ignore_cache);
}

void CValueSource::Set(CNode* owner, const FormulaValue& v, bool verify) {
  const NumRef* r = Selected(owner);
  if (r->ref.set()) {
    if (float_mode_) {
      NeedRef(owner, r->ref)->SetFloat(v, verify);
      for (auto& c : copies_) NeedRef(owner, c)->SetFloat(v, verify);
    } else {
      NeedRef(owner, r->ref)->SetNum(v, verify);
      for (auto& c : copies_) NeedRef(owner, c)->SetNum(v, verify);
    }
    return;
  }
  if (index_.set())
    throw AccessException("Node '" + owner->name() + "' is not writable (table value).", __FILE__, __LINE__,
                          owner->name());
  value_.literal = value_.literal.is_float ? FormulaValue::Float(v.AsFloat()) : FormulaValue::Int(ToInt(v));
  owner->NotifyWritten();
}

EAccessMode CValueSource::Access(const CNode* owner) const {
  if (index_.set()) {
    if (!index_.node) return NA;
    const NumRef* r = Selected(owner);
    if (!r->ref.set()) return RO;
    return r->ref.node ? r->ref.node->GetAccessMode() : NA;
  }
  if (!value_.ref.set()) return RW;
  if (!value_.ref.node) return NA;
  EAccessMode m = value_.ref.node->GetAccessMode();
  for (const auto& c : copies_) m = Combine(m, c.node ? c.node->GetAccessMode() : NA);
  // Mirrors stepping differently cannot all hold the same written value.
  if (IsWritable(m) && !copies_.empty()) {
    double inc = value_.ref.node->NumInc().AsFloat();
    for (const auto& c : copies_)
      if (c.node->NumInc().AsFloat() != inc) return m == WO ? NA : RO;
  }
  return m;
}

std::vector<CNode*> CValueSource::Mirrors() const {
  std::vector<CNode*> out;
  if (copies_.empty() || index_.set() || !value_.ref.node) return out;
  out.push_back(value_.ref.node);
  for (const auto& c : copies_)
    if (c.node) out.push_back(c.node);
  return out;
}

CNode* CValueSource::Target(const CNode* owner) const {
  if (!index_.set()) return value_.ref.node;
  try {
    return Selected(owner)->ref.node;
  } catch (const GenericException&) {
    return nullptr;
  }
}

void CValueSource::Inputs(std::vector<CNode*>& out) const {
  if (value_.ref.node) out.push_back(value_.ref.node);
  for (const auto& c : copies_)
    if (c.node) out.push_back(c.node);
  if (index_.node) out.push_back(index_.node);
  for (const auto& e : indexed_)
    if (e.second.ref.node) out.push_back(e.second.ref.node);
  if (default_.ref.node) out.push_back(default_.ref.node);
}

}  // namespace detail
}  // namespace KivGenApi
