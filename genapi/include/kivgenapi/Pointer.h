// Smart pointers that hold a node through one interface. A missing node or a
// node of another interface gives an empty pointer; using an empty pointer
// raises LogicalErrorException.
#pragma once

#include "kivgenapi/Exception.h"
#include "kivgenapi/Interfaces.h"

namespace KivGenApi {

template <class T, class B = IBase>
class CPointer {
 public:
  CPointer() noexcept : ptr_(nullptr) {}
  CPointer(B* p) : ptr_(p ? dynamic_cast<T*>(p) : nullptr) {}
  template <class U, class = decltype(dynamic_cast<T*>(static_cast<U*>(nullptr)))>
  CPointer(U* p) : ptr_(p ? dynamic_cast<T*>(p) : nullptr) {}
  CPointer(const CPointer&) = default;
  template <class T2, class B2>
  CPointer(const CPointer<T2, B2>& other) : ptr_(other.IsValid() ? dynamic_cast<T*>(other.Get()) : nullptr) {}
  CPointer& operator=(const CPointer&) = default;
  template <class U>
  CPointer& operator=(U* p) { ptr_ = p ? dynamic_cast<T*>(p) : nullptr; return *this; }

  bool IsValid() const noexcept { return ptr_ != nullptr; }
  explicit operator bool() const noexcept { return ptr_ != nullptr; }
  T* operator->() const { return Checked(); }
  T& operator*() const { return *Checked(); }
  T& operator()() const { return *Checked(); }
  operator T*() const { return Checked(); }
  T* Get() const noexcept { return ptr_; }
  void Release() noexcept { ptr_ = nullptr; }
  bool operator==(const CPointer& o) const noexcept { return ptr_ == o.ptr_; }
  bool operator!=(const CPointer& o) const noexcept { return ptr_ != o.ptr_; }
  bool operator==(std::nullptr_t) const noexcept { return ptr_ == nullptr; }
  bool operator!=(std::nullptr_t) const noexcept { return ptr_ != nullptr; }
  bool operator==(int zero) const {
    if (zero != 0) throw LogicalErrorException("Pointer compared with a nonzero integer", __FILE__, __LINE__);
    return ptr_ == nullptr;
  }

 private:
  T* Checked() const {
    if (!ptr_) throw LogicalErrorException("NULL pointer dereferenced", __FILE__, __LINE__);
    return ptr_;
  }
  T* ptr_;
};

using CBasePtr = CPointer<IBase>;
using CNodePtr = CPointer<INode>;
using CValuePtr = CPointer<IValue>;
using CCategoryPtr = CPointer<ICategory>;
using CBooleanPtr = CPointer<IBoolean>;
using CIntegerPtr = CPointer<IInteger>;
using CStringPtr = CPointer<IString>;
using CRegisterPtr = CPointer<IRegister>;
using CEnumerationPtr = CPointer<IEnumeration>;
using CEnumEntryPtr = CPointer<IEnumEntry>;
using CPortPtr = CPointer<IPort>;
using CCommandPtr = CPointer<ICommand>;
using CSelectorPtr = CPointer<ISelector>;
using CFloatPtr = CPointer<IFloat>;
using CNodeMapPtr = CPointer<INodeMap, INodeMap>;

template <class T, class B>
inline bool IsReadable(const CPointer<T, B>& p) { return p.IsValid() && IsReadable(p.Get()->GetAccessMode()); }
template <class T, class B>
inline bool IsWritable(const CPointer<T, B>& p) { return p.IsValid() && IsWritable(p.Get()->GetAccessMode()); }
template <class T, class B>
inline bool IsImplemented(const CPointer<T, B>& p) { return p.IsValid() && IsImplemented(p.Get()->GetAccessMode()); }
template <class T, class B>
inline bool IsAvailable(const CPointer<T, B>& p) { return p.IsValid() && IsAvailable(p.Get()->GetAccessMode()); }

}  // namespace KivGenApi
