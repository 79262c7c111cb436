// The abstract interfaces of nodes, ports and the node map.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

#include "kivgenapi/Types.h"

namespace KivGenApi {

class INodeMap;

class KIVGENAPI_API IBase {
 public:
  virtual EAccessMode GetAccessMode() const = 0;
  virtual ~IBase() = default;
};

// Called when a node's value or access mode may have changed.
using CallbackHandleType = intptr_t;
using NodeCallback = std::function<void(INode*)>;

class KIVGENAPI_API INode : virtual public IBase {
 public:
  virtual gcstring GetName(bool FullQualified = false) const = 0;
  virtual ENameSpace GetNameSpace() const = 0;
  virtual EVisibility GetVisibility() const = 0;
  virtual void InvalidateNode() = 0;
  virtual bool IsCachable() const = 0;
  virtual EYesNo IsAccessModeCacheable() const = 0;
  virtual ECachingMode GetCachingMode() const = 0;
  virtual int64_t GetPollingTime() const = 0;
  virtual gcstring GetToolTip() const = 0;
  virtual gcstring GetDescription() const = 0;
  virtual gcstring GetDisplayName() const = 0;
  virtual gcstring GetDeviceName() const = 0;
  virtual void GetChildren(NodeList_t& Children, ELinkType LinkType = ctReadingChildren) const = 0;
  virtual void GetParents(NodeList_t& Parents) const = 0;
  virtual CallbackHandleType RegisterCallback(NodeCallback cb) = 0;
  virtual bool DeregisterCallback(CallbackHandleType h) = 0;
  virtual INodeMap* GetNodeMap() const = 0;
  virtual gcstring GetEventID() const = 0;
  virtual bool IsStreamable() const = 0;
  virtual void GetPropertyNames(gcstring_vector& names) const = 0;
  virtual bool GetProperty(const gcstring& name, gcstring& value, gcstring& attribute) const = 0;
  virtual void ImposeAccessMode(EAccessMode m) = 0;
  virtual void ImposeVisibility(EVisibility v) = 0;
  virtual INode* GetAlias() const = 0;
  virtual INode* GetCastAlias() const = 0;
  virtual gcstring GetDocuURL() const = 0;
  virtual bool IsDeprecated() const = 0;
  virtual EInterfaceType GetPrincipalInterfaceType() const = 0;
  virtual bool IsFeature() const = 0;
};

class KIVGENAPI_API IValue : virtual public IBase {
 public:
  virtual INode* GetNode() { return dynamic_cast<INode*>(this); }
  virtual gcstring ToString(bool Verify = false, bool IgnoreCache = false) = 0;
  virtual void FromString(const gcstring& ValueStr, bool Verify = true) = 0;
  virtual bool IsValueCacheValid() const = 0;
};

class KIVGENAPI_API IInteger : virtual public IValue {
 public:
  virtual void SetValue(int64_t Value, bool Verify = true) = 0;
  virtual IInteger& operator=(int64_t Value) { SetValue(Value); return *this; }
  virtual int64_t GetValue(bool Verify = false, bool IgnoreCache = false) = 0;
  virtual int64_t operator()() { return GetValue(); }
  virtual int64_t operator*() { return GetValue(); }
  virtual int64_t GetMin() = 0;
  virtual int64_t GetMax() = 0;
  virtual EIncMode GetIncMode() = 0;
  virtual int64_t GetInc() = 0;
  virtual int64_autovector_t GetListOfValidValues(bool bounded = true) = 0;
  virtual ERepresentation GetRepresentation() = 0;
  virtual gcstring GetUnit() = 0;
  virtual void ImposeMin(int64_t Value) = 0;
  virtual void ImposeMax(int64_t Value) = 0;
};

class KIVGENAPI_API IFloat : virtual public IValue {
 public:
  virtual void SetValue(double Value, bool Verify = true) = 0;
  virtual IFloat& operator=(double Value) { SetValue(Value); return *this; }
  virtual double GetValue(bool Verify = false, bool IgnoreCache = false) = 0;
  virtual double operator()() { return GetValue(); }
  virtual double operator*() { return GetValue(); }
  virtual double GetMin() = 0;
  virtual double GetMax() = 0;
  virtual bool HasInc() = 0;
  virtual EIncMode GetIncMode() = 0;
  virtual double GetInc() = 0;
  virtual double_autovector_t GetListOfValidValues(bool bounded = true) = 0;
  virtual ERepresentation GetRepresentation() = 0;
  virtual gcstring GetUnit() const = 0;
  virtual EDisplayNotation GetDisplayNotation() const = 0;
  virtual int64_t GetDisplayPrecision() const = 0;
  virtual void ImposeMin(double Value) = 0;
  virtual void ImposeMax(double Value) = 0;
};

class KIVGENAPI_API IBoolean : virtual public IValue {
 public:
  virtual void SetValue(bool Value, bool Verify = true) = 0;
  virtual void operator=(bool Value) { SetValue(Value); }
  virtual bool GetValue(bool Verify = false, bool IgnoreCache = false) const = 0;
  virtual bool operator()() const { return GetValue(); }
};

class KIVGENAPI_API ICommand : virtual public IValue {
 public:
  virtual void Execute(bool Verify = true) = 0;
  virtual void operator()() { Execute(); }
  virtual bool IsDone(bool Verify = true) = 0;
};

class KIVGENAPI_API IEnumEntry : virtual public IValue {
 public:
  virtual int64_t GetValue() = 0;
  virtual gcstring GetSymbolic() const = 0;
  virtual double GetNumericValue() = 0;
  virtual bool IsSelfClearing() = 0;
};

class KIVGENAPI_API IEnumeration : virtual public IValue {
 public:
  virtual void GetSymbolics(StringList_t& Symbolics) = 0;
  virtual void GetEntries(NodeList_t& Entries) = 0;
  virtual IEnumeration& operator=(const gcstring& ValueStr) { FromString(ValueStr); return *this; }
  virtual IEnumeration& operator=(const char* ValueStr) { FromString(gcstring(ValueStr)); return *this; }
  virtual void SetIntValue(int64_t Value, bool Verify = true) = 0;
  virtual gcstring operator*() { return ToString(); }
  virtual int64_t GetIntValue(bool Verify = false, bool IgnoreCache = false) = 0;
  virtual IEnumEntry* GetEntryByName(const gcstring& Symbolic) = 0;
  virtual IEnumEntry* GetEntry(const int64_t IntValue) = 0;
  virtual IEnumEntry* GetCurrentEntry(bool Verify = false, bool IgnoreCache = false) = 0;
};

class KIVGENAPI_API IString : virtual public IValue {
 public:
  virtual void SetValue(const gcstring& Value, bool Verify = true) = 0;
  virtual IString& operator=(const gcstring& Value) { SetValue(Value); return *this; }
  virtual gcstring GetValue(bool Verify = false, bool IgnoreCache = false) = 0;
  virtual gcstring operator()() { return GetValue(); }
  virtual gcstring operator*() { return GetValue(); }
  virtual int64_t GetMaxLength(bool Verify = false) = 0;
};

class KIVGENAPI_API IRegister : virtual public IValue {
 public:
  virtual void Set(const uint8_t* pBuffer, int64_t Length, bool Verify = true) = 0;
  virtual void Get(uint8_t* pBuffer, int64_t Length, bool Verify = false, bool IgnoreCache = false) = 0;
  virtual int64_t GetLength(bool Verify = false) = 0;
  virtual int64_t GetAddress(bool Verify = false) = 0;
};

class KIVGENAPI_API ICategory : virtual public IValue {
 public:
  virtual void GetFeatures(FeatureList_t& Features) const = 0;
};

class KIVGENAPI_API ISelector : virtual public IBase {
 public:
  virtual bool IsSelector() const = 0;
  virtual void GetSelectedFeatures(FeatureList_t& Features) const = 0;
  virtual void GetSelectingFeatures(FeatureList_t& Features) const = 0;
};

// What the application implements to give the node map its register space.
// Bytes travel in the device's own order.
class KIVGENAPI_API IPort : virtual public IBase {
 public:
  virtual void Read(void* pBuffer, int64_t Address, int64_t Length) = 0;
  virtual void Write(const void* pBuffer, int64_t Address, int64_t Length) = 0;
};

class KIVGENAPI_API INodeMap {
 public:
  virtual ~INodeMap() = default;
  virtual void GetNodes(NodeList_t& Nodes) const = 0;
  virtual INode* GetNode(const gcstring& Name) const = 0;
  virtual void InvalidateNodes() const = 0;
  virtual bool Connect(IPort* pPort, const gcstring& PortName) const = 0;
  virtual bool Connect(IPort* pPort) const = 0;
  virtual gcstring GetDeviceName() = 0;
  virtual void Poll(int64_t ElapsedTime) = 0;
  virtual std::recursive_mutex& GetLock() const = 0;
  virtual uint64_t GetNumNodes() const = 0;
};

// Helpers on anything that has an access mode; a NULL pointer counts as absent.
inline bool IsReadable(const IBase* p) { return p && IsReadable(p->GetAccessMode()); }
inline bool IsWritable(const IBase* p) { return p && IsWritable(p->GetAccessMode()); }
inline bool IsImplemented(const IBase* p) { return p && IsImplemented(p->GetAccessMode()); }
inline bool IsAvailable(const IBase* p) { return p && IsAvailable(p->GetAccessMode()); }
inline bool IsReadable(const IBase& p) { return IsReadable(p.GetAccessMode()); }
inline bool IsWritable(const IBase& p) { return IsWritable(p.GetAccessMode()); }
inline bool IsImplemented(const IBase& p) { return IsImplemented(p.GetAccessMode()); }
inline bool IsAvailable(const IBase& p) { return IsAvailable(p.GetAccessMode()); }

}  // namespace KivGenApi
