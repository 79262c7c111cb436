// The node map: owns the nodes, finds them by name and drives invalidation
// and polling.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "kivgenapi/Interfaces.h"
#include "node.h"

namespace KivGenApi {
namespace detail {

class CPortNode;

class CNodeMap : public INodeMap {
 public:
  explicit CNodeMap(const std::string& device_name);
  ~CNodeMap() override;

  void GetNodes(NodeList_t& Nodes) const override;
  INode* GetNode(const gcstring& Name) const override;
  void InvalidateNodes() const override;
  bool Connect(IPort* pPort, const gcstring& PortName) const override;
  bool Connect(IPort* pPort) const override { return Connect(pPort, "Device"); }
  gcstring GetDeviceName() override { return device_name_; }
  void Poll(int64_t ElapsedTime) override;
  std::recursive_mutex& GetLock() const override { return lock_; }
  uint64_t GetNumNodes() const override { return nodes_.size(); }

  // Building (used by the loader).
  void Add(std::unique_ptr<CNode> n);
  CNode* Find(const std::string& name) const {
    auto it = index_.find(name);
    return it == index_.end() ? nullptr : it->second;
  }
  void LinkAll();
  // An event with this id arrived: the nodes carrying it (and what depends
  // on them) read the device again and fire their callbacks. Returns how
  // many nodes carry the id.
  size_t InvalidateByEventID(uint64_t id);
  uint64_t NextEpoch() { return ++epoch_; }
  uint64_t epoch() const { return epoch_; }
  int depth_ = 0;  // current evaluation nesting, see EvalGuard

 private:
  std::string device_name_;
  std::vector<std::unique_ptr<CNode>> nodes_;
  std::unordered_map<std::string, CNode*> index_;
  mutable std::recursive_mutex lock_;
  uint64_t epoch_ = 0;
  std::unordered_multimap<uint64_t, CNode*> by_event_;
};

// Builds a node map from one description, or from a description with a
// second one merged in. Throws RuntimeException on any load error.
std::unique_ptr<CNodeMap> LoadNodeMap(const std::string& device_name, const std::string& xml,
                                      const std::string* inject);

#define KIV_LOCK() std::lock_guard<std::recursive_mutex> kiv_lock_(map_->GetLock())

}  // namespace detail
}  // namespace KivGenApi
