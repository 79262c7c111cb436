// Hands the events an application receives (GigE Vision event packets, the
// USB3 Vision event endpoint, GenTL event data) to a node map by their id:
// the features carrying that EventID read the device again on next access,
// and their callbacks and those of everything depending on them fire.
#pragma once

#include <cstdint>

#include "kivgenapi/Interfaces.h"

namespace KivGenApi {

class KIVGENAPI_API CEventAdapter {
 public:
  explicit CEventAdapter(INodeMap* pNodeMap = nullptr) : map_(pNodeMap) {}
  void AttachNodeMap(INodeMap* pNodeMap) { map_ = pNodeMap; }
  void DetachNodeMap() { map_ = nullptr; }
  // False when no node map is attached or no node carries EventID.
  bool DeliverEvent(uint64_t EventID);

 private:
  INodeMap* map_;
};

}  // namespace KivGenApi
