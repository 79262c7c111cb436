// CNodeMapRef: owns one node map, loads it from a description and forwards
// the node-map calls. Not copyable.
#pragma once

#include <cstddef>

#include "kivgenapi/Interfaces.h"

namespace KivGenApi {

class KIVGENAPI_API CNodeMapRef {
 public:
  explicit CNodeMapRef(const gcstring& DeviceName = "Device");
  virtual ~CNodeMapRef();
  CNodeMapRef(const CNodeMapRef&) = delete;
  CNodeMapRef& operator=(const CNodeMapRef&) = delete;

  void _Destroy();
  void _LoadXMLFromFile(const gcstring& FileName);
  void _LoadXMLFromZIPFile(const gcstring& ZipFileName);
  void _LoadXMLFromZIPData(const void* zipData, size_t zipSize);
  void _LoadXMLFromFileInject(const gcstring& TargetFileName, const gcstring& InjectFileName);
  void _LoadXMLFromString(const gcstring& XMLData);
  void _LoadXMLFromStringInject(const gcstring& TargetXMLData, const gcstring& InjectXMLData);
  static void _GetSupportedSchemaVersions(gcstring_vector& versions);
  gcstring _GetDeviceName() const;
  void _Poll(int64_t ElapsedTime);
  static bool _ClearXMLCache() { return true; }
  void _GetNodes(NodeList_t& Nodes) const;
  INode* _GetNode(const gcstring& key) const;
  void _InvalidateNodes() const;
  bool _Connect(IPort* pPort, const gcstring& PortName) const;
  bool _Connect(IPort* pPort) const;
  // Tells the map that the device sent the event EventID: every node whose
  // EventID matches, and everything depending on it, is invalidated and its
  // callbacks fire. False when no node carries that id.
  bool _InvalidateByEventID(uint64_t EventID) const;

  INodeMap* _Ptr = nullptr;

 protected:
  virtual void _Initialize(INodeMap*) {}

 private:
  INodeMap* Checked() const;
  void Adopt(INodeMap* map);
  gcstring device_name_;
};

}  // namespace KivGenApi
