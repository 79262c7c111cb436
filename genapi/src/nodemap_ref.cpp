#include "kivgenapi/NodeMapRef.h"

#include "kivgenapi/EventAdapter.h"
#include "kivgenapi/Exception.h"
#include "nodemap.h"
#include "zip_reader.h"

namespace KivGenApi {

CNodeMapRef::CNodeMapRef(const gcstring& DeviceName) : device_name_(DeviceName) {}
CNodeMapRef::~CNodeMapRef() { _Destroy(); }

void CNodeMapRef::_Destroy() {
  delete _Ptr;
  _Ptr = nullptr;
}

INodeMap* CNodeMapRef::Checked() const {
  if (!_Ptr) throw AccessException("Feature not present (reference not valid)", __FILE__, __LINE__);
  return _Ptr;
}

void CNodeMapRef::Adopt(INodeMap* map) {
  _Ptr = map;
  _Initialize(map);
}

static void CheckNotLoaded(INodeMap* p) {
  if (p) throw RuntimeException("Node map already created", __FILE__, __LINE__);
}

void CNodeMapRef::_LoadXMLFromString(const gcstring& xml) {
  CheckNotLoaded(_Ptr);
  Adopt(detail::LoadNodeMap(device_name_, xml, nullptr).release());
}

void CNodeMapRef::_LoadXMLFromStringInject(const gcstring& target, const gcstring& inject) {
  CheckNotLoaded(_Ptr);
  std::string add = inject;
  Adopt(detail::LoadNodeMap(device_name_, target, &add).release());
}

void CNodeMapRef::_LoadXMLFromFile(const gcstring& file) {
  CheckNotLoaded(_Ptr);
  _LoadXMLFromString(detail::ReadWholeFile(file));
}

void CNodeMapRef::_LoadXMLFromFileInject(const gcstring& target, const gcstring& inject) {
  CheckNotLoaded(_Ptr);
  _LoadXMLFromStringInject(detail::ReadWholeFile(target), detail::ReadWholeFile(inject));
}

void CNodeMapRef::_LoadXMLFromZIPData(const void* data, size_t size) {
  CheckNotLoaded(_Ptr);
  _LoadXMLFromString(UnzipFirstEntry(data, size));
}

void CNodeMapRef::_LoadXMLFromZIPFile(const gcstring& file) {
  CheckNotLoaded(_Ptr);
  std::string zip = detail::ReadWholeFile(file);
  _LoadXMLFromZIPData(zip.data(), zip.size());
}

void CNodeMapRef::_GetSupportedSchemaVersions(gcstring_vector& v) {
  v.clear();
  v.push_back("1.0");
  v.push_back("1.1");
}

gcstring CNodeMapRef::_GetDeviceName() const { return Checked()->GetDeviceName(); }
void CNodeMapRef::_Poll(int64_t t) { Checked()->Poll(t); }
void CNodeMapRef::_GetNodes(NodeList_t& n) const { Checked()->GetNodes(n); }
INode* CNodeMapRef::_GetNode(const gcstring& key) const { return Checked()->GetNode(key); }
void CNodeMapRef::_InvalidateNodes() const { Checked()->InvalidateNodes(); }
bool CNodeMapRef::_Connect(IPort* p, const gcstring& name) const { return Checked()->Connect(p, name); }
bool CNodeMapRef::_Connect(IPort* p) const { return Checked()->Connect(p); }
bool CNodeMapRef::_InvalidateByEventID(uint64_t id) const { return CEventAdapter(Checked()).DeliverEvent(id); }

bool CEventAdapter::DeliverEvent(uint64_t EventID) {
  auto* map = dynamic_cast<detail::CNodeMap*>(map_);
  return map && map->InvalidateByEventID(EventID) > 0;
}

}  // namespace KivGenApi
