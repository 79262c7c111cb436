// The Port node: forwards register traffic to the application's IPort.
#pragma once

#include "node.h"

namespace KivGenApi {
namespace detail {

class CPortNode : public CNode, public IPort {
 public:
  CPortNode(CNodeMap* map, const NodeDesc& d);
  EAccessMode NaturalAccessMode() const override;
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIPort; }
  void Read(void* buffer, int64_t address, int64_t length) override;
  void Write(const void* buffer, int64_t address, int64_t length) override;
  void SetPort(IPort* p) { port_ = p; }
  bool connected() const { return port_ != nullptr; }

 private:
  IPort* port_ = nullptr;
  bool swap_ = false;
};

}  // namespace detail
}  // namespace KivGenApi
