#include "port_node.h"

#include <algorithm>
#include <vector>

#include "desc.h"
#include "factories.h"
#include "nodemap.h"

namespace KivGenApi {
namespace detail {

CPortNode::CPortNode(CNodeMap* map, const NodeDesc& d) : CNode(map, d) {
  swap_ = d.Text("SwapEndianess") == "Yes";
}

EAccessMode CPortNode::NaturalAccessMode() const { return port_ ? port_->GetAccessMode() : NA; }

static void SwapQuadlets(uint8_t* p, int64_t length) {
  for (int64_t i = 0; i + 4 <= length; i += 4) {
    std::swap(p[i], p[i + 3]);
    std::swap(p[i + 1], p[i + 2]);
  }
}

void CPortNode::Read(void* buffer, int64_t address, int64_t length) {
  if (!port_) KIV_THROW(AccessException, name_, "Port '" + name_ + "' is not connected");
  // Errors of the application's port reach the caller unchanged.
  port_->Read(buffer, address, length);
  if (swap_) SwapQuadlets(static_cast<uint8_t*>(buffer), length);
}

void CPortNode::Write(const void* buffer, int64_t address, int64_t length) {
  if (!port_) KIV_THROW(AccessException, name_, "Port '" + name_ + "' is not connected");
  if (!swap_) return port_->Write(buffer, address, length);
  std::vector<uint8_t> tmp(static_cast<const uint8_t*>(buffer), static_cast<const uint8_t*>(buffer) + length);
  SwapQuadlets(tmp.data(), length);
  port_->Write(tmp.data(), address, length);
}

std::unique_ptr<CNode> MakePortNode(CNodeMap* map, const NodeDesc& d) {
  if (d.type == "Port") return std::make_unique<CPortNode>(map, d);
  return nullptr;
}

}  // namespace detail
}  // namespace KivGenApi
