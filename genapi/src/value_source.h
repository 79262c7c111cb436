// Where a value node keeps its value: a literal of its own (a floating
// variable), another node (pValue, with optional pValueCopy mirrors), or a
// table selected by pIndex.
#pragma once

#include <functional>
#include <vector>

#include "desc.h"
#include "node.h"

namespace KivGenApi {
namespace detail {

class CValueSource {
 public:
  void Read(const NodeDesc& d, bool float_mode);
  // resolve(ref, LinkKinds)
  void Link(CNode* owner, const std::function<void(NodeRef&, unsigned)>& resolve);
  bool floating() const { return !value_.ref.set() && !index_.set(); }
  FormulaValue Get(const CNode* owner, bool verify, bool ignore_cache) const;
  void Set(CNode* owner, const FormulaValue& v, bool verify);
  EAccessMode Access(const CNode* owner) const;
  // The node that currently holds the value, if any.
  CNode* Target(const CNode* owner) const;
  // pValue and every pValueCopy, when the value is mirrored; else empty.
  std::vector<CNode*> Mirrors() const;
  void Inputs(std::vector<CNode*>& out) const;

 private:
  NumRef value_;
  std::vector<NodeRef> copies_;
  NodeRef index_;
  std::vector<std::pair<int64_t, NumRef>> indexed_;
  NumRef default_;
  bool float_mode_ = false;
  const NumRef* Selected(const CNode* owner) const;
};

// Reads a literal or pointer pair (e.g. Min/pMin) into a NumRef.
void ReadNumRef(const NodeDesc& d, const char* literal_tag, const char* pointer_tag, bool float_mode, NumRef& out);
bool ParseLiteral(const std::string& text, bool float_mode, FormulaValue& out);

}  // namespace detail
}  // namespace KivGenApi
