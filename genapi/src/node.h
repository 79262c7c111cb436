// Common base of every node: names and documentation, access-mode resolution
// (natural mode, pIs* references, imposed mode), invalidation and callbacks.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "formula.h"
#include "kivgenapi/Exception.h"
#include "kivgenapi/Interfaces.h"

namespace KivGenApi {
namespace detail {

class CNodeMap;
class CNode;
struct NodeDesc;

#define KIV_THROW(Type, node, text) throw Type((text), __FILE__, __LINE__, (node))

// A node reference kept by name until the map is linked; a name that names no
// node stays unresolved and raises when used, so one broken reference in a
// real description does not stop the whole map from loading.
struct NodeRef {
  std::string name;
  CNode* node = nullptr;
  bool set() const { return !name.empty(); }
};

// An integer or float property given either as a literal or as a node.
struct NumRef {
  bool has_literal = false;
  FormulaValue literal;
  NodeRef ref;
  bool present() const { return has_literal || ref.set(); }
};

constexpr int kMaxDepth = 400;

// How a node uses a reference, for GetChildren: read for its value or
// access mode, written when it is written, or part of what its value is
// computed from.
enum LinkKind : unsigned { kRead = 1, kWrite = 2, kValue = 4, kReadValue = kRead | kValue, kData = kRead | kWrite | kValue };

// Marks a node as being evaluated so that reference cycles end in an
// exception instead of a stack overflow.
class EvalGuard {
 public:
  EvalGuard(const CNode* n);
  ~EvalGuard();

 private:
  const CNode* node_;
};

class CNode : virtual public INode {
 public:
  CNode(CNodeMap* map, const NodeDesc& d);
  ~CNode() override;

  // --- INode
  gcstring GetName(bool FullQualified = false) const override;
  ENameSpace GetNameSpace() const override { return name_space_; }
  EVisibility GetVisibility() const override { return Combine(visibility_, imposed_visibility_); }
  void InvalidateNode() override;
  bool IsCachable() const override { return GetCachingMode() != NoCache; }
  EYesNo IsAccessModeCacheable() const override;
  ECachingMode GetCachingMode() const override;
  int64_t GetPollingTime() const override { return polling_time_; }
  gcstring GetToolTip() const override { return tooltip_; }
  gcstring GetDescription() const override { return description_; }
  gcstring GetDisplayName() const override { return display_name_.empty() ? name_ : display_name_; }
  gcstring GetDeviceName() const override;
  void GetChildren(NodeList_t& Children, ELinkType LinkType = ctReadingChildren) const override;
  void GetParents(NodeList_t& Parents) const override;
  CallbackHandleType RegisterCallback(NodeCallback cb) override;
  bool DeregisterCallback(CallbackHandleType h) override;
  INodeMap* GetNodeMap() const override;
  gcstring GetEventID() const override { return event_id_; }
  bool IsStreamable() const override { return streamable_; }
  void GetPropertyNames(gcstring_vector& names) const override;
  bool GetProperty(const gcstring& name, gcstring& value, gcstring& attribute) const override;
  void ImposeAccessMode(EAccessMode m) override;
  void ImposeVisibility(EVisibility v) override;
  INode* GetAlias() const override { return RefNode(alias_); }
  INode* GetCastAlias() const override { return RefNode(cast_alias_); }
  gcstring GetDocuURL() const override { return docu_url_; }
  bool IsDeprecated() const override { return deprecated_; }
  bool IsFeature() const override { return is_feature_; }

  // --- IBase: cached while every input of the access mode is cacheable.
  EAccessMode GetAccessMode() const override;

  // --- engine-internal
  const std::string& name() const { return name_; }
  CNodeMap* map() const { return map_; }
  // Resolves the names this node refers to and registers dependencies.
  virtual void Link();
  // Called once after every node is linked (formula compilation and such).
  virtual void Finish() {}
  // The node's mode before pIs* and imposed modes.
  virtual EAccessMode NaturalAccessMode() const { return RW; }
  // The caching mode of the node itself before its inputs are combined in.
  virtual ECachingMode OwnCachingMode() const { return WriteThrough; }
  // Nodes whose value this node's value is computed from.
  virtual void ValueInputs(std::vector<CNode*>& out) const { (void)out; }
  // Drops the value cache of this node only.
  virtual void DropCache() {}
  virtual bool HasValueCache() const { return false; }
  // Whether PollingTime applies right now (a command only while busy, ...).
  virtual bool PollingActive() { return true; }

  // Numeric access used by references (pValue, pMin, formulas, ...).
  virtual FormulaValue GetNum(bool verify, bool ignore_cache);
  virtual void SetNum(const FormulaValue& v, bool verify);
  virtual FormulaValue NumMin();
  virtual FormulaValue NumMax();
  virtual FormulaValue NumInc();
  // The value as a float-valued node sees it through pValue; an
  // enumeration answers with its entries' NumericValue here.
  virtual FormulaValue GetFloat(bool verify, bool ignore_cache) { return GetNum(verify, ignore_cache); }
  virtual void SetFloat(const FormulaValue& v, bool verify) { SetNum(v, verify); }
  virtual FormulaValue FloatMin() { return NumMin(); }
  virtual FormulaValue FloatMax() { return NumMax(); }
  // The node's list of valid values (listIncrement), bounded by its range
  // when asked; false when the node steps by a fixed increment instead.
  virtual bool ValidList(std::vector<FormulaValue>& out, bool bounded) { (void)out; (void)bounded; return false; }

  // Write notification: drops the caches of every node that depends on this
  // one (not this node's own value cache) and fires callbacks.
  void NotifyWritten();
  // Invalidates this node and everything depending on it.
  void InvalidateTree();
  void InvalidateWithInputs();

  // Reads the pError enumerations after a write (or a verified read); a
  // nonzero error raises InvalidArgumentException with the entry's texts.
  void CheckErrors() const;
  // A verified read is checked for device errors too.
  void CheckErrorsIf(bool verify) const {
    if (verify && !errors_.empty()) CheckErrors();
  }
  void AddDependent(CNode* n);
  // Drops duplicate links once everything is linked (cheaper than checking
  // at every link when thousands of nodes share one lock or selector).
  void CompactLinks();
  void ClearCaches();
  void AppendDependents(std::vector<CNode*>& out) const { out.insert(out.end(), dependents_.begin(), dependents_.end()); }
  void AddPollingTime(int64_t ms);
  void MarkFeature();
  bool evaluating_ = false;
  uint64_t visit_epoch_ = 0;

 protected:
  // Resolve a reference; dangling names stay null.
  void Resolve(NodeRef& r, unsigned kinds = kRead);
  void Resolve(NumRef& r, unsigned kinds = kRead) { Resolve(r.ref, kinds); }
  CNode* Need(const NodeRef& r, const char* what) const;
  FormulaValue Eval(const NumRef& r, bool verify = false, bool ignore_cache = false) const;
  int64_t EvalInt(const NumRef& r) const { return Eval(r).i; }
  INode* RefNode(const NodeRef& r) const { return r.node; }
  void CheckReadable() const;
  void CheckWritable() const;
  [[noreturn]] void ThrowNotNumeric() const;
  std::string Quoted() const { return "'" + name_ + "'"; }
  void FireCallbacks();
  void Terminals(NodeList_t& out) const;

  CNodeMap* map_;
  std::string name_;
  std::string tooltip_, description_, display_name_, docu_url_, event_id_;
  ENameSpace name_space_ = Custom;
  EVisibility visibility_ = Beginner;
  EVisibility imposed_visibility_ = Beginner;
  bool streamable_ = false, deprecated_ = false, is_feature_ = false;
  int64_t polling_time_ = -1;
  int64_t polling_elapsed_ = 0;
  EAccessMode imposed_access_ = RW;      // ImposedAccessMode element
  EAccessMode imposed_by_call_ = RW;     // ImposeAccessMode()
  NodeRef is_implemented_, is_available_, is_locked_, block_polling_, alias_, cast_alias_;
  std::vector<NodeRef> invalidators_;
  std::vector<NodeRef> errors_;
  std::vector<std::pair<CNode*, unsigned>> children_;  // resolved references and their LinkKinds
  std::vector<CNode*> dependents_;       // to invalidate when this node changes
  std::vector<CNode*> parents_;
  std::vector<CNode*> selecting_;        // selectors that name this node in pSelected
  std::vector<std::pair<std::string, std::string>> properties_;  // element and text, in document order
  // Read without the map lock on the fast path, so kept atomic.
  mutable std::atomic<EAccessMode> am_cache_{_UndefinedAccesMode};
  mutable int am_cacheable_ = -1;        // -1 unknown, 0 no, 1 yes
  mutable int caching_mode_ = -1;        // -1 unknown, else ECachingMode
  std::vector<std::pair<CallbackHandleType, NodeCallback>> callbacks_;
  CallbackHandleType next_callback_ = 1;
  friend class CNodeMap;
  friend class EvalGuard;
  friend class CSelectorFace;
};

// The ISelector face of nodes that carry pSelected: a change of the
// selector invalidates the features it selects.
class CSelectorFace : public ISelector {
 public:
  bool IsSelector() const override { return !selected_.empty(); }
  void GetSelectedFeatures(FeatureList_t& f) const override;
  void GetSelectingFeatures(FeatureList_t& f) const override;

 protected:
  void ReadSelected(const NodeDesc& d);
  void LinkSelected(CNode* owner);
  std::vector<NodeRef> selected_;
};

// Parses HexOrDecimal integers and float literals; false on garbage.
EAccessMode ParseAccessMode(const std::string& s, EAccessMode def);
// Float values handed to integer nodes are truncated toward zero, as integer
// formulas truncate their results, saturating at the int64 range.
int64_t ToInt(const FormulaValue& v);
bool ParseInt64(const std::string& s, int64_t& out);
bool ParseDouble(const std::string& s, double& out);
std::string FormatDouble(double v);

}  // namespace detail
}  // namespace KivGenApi
