#include "transport/device.h"

#include "diag/error.h"
#include "transport/gentl.h"

namespace kivcam::transport {

namespace {
constexpr int32_t kInfoPresence = 1000;
}

DeviceHandle::DeviceHandle(DeviceHandle&& other) noexcept
    : producer_(other.producer_), handle_(other.handle_) {
  other.handle_ = nullptr;
}

DeviceHandle& DeviceHandle::operator=(DeviceHandle&& other) noexcept {
  if (this != &other) {
    Close();
    producer_ = other.producer_;
    handle_ = other.handle_;
    other.handle_ = nullptr;
  }
  return *this;
}

void DeviceHandle::Close() {
  if (handle_) producer_->fn().DevClose(handle_);
  handle_ = nullptr;
}

CDevice::CDevice(CGenTL* producer, CInterface* owner, const std::string& device_id, DeviceHandle device)
    : m_pGenTL(producer), m_pInterface(owner), m_strDeviceID(device_id), m_hDevice(std::move(device)) {
  if (m_pGenTL->fn().DevGetPort(m_hDevice.get(), &m_hPort) != GC_ERR_SUCCESS) m_pGenTL->RaiseLastError();
}

bool CDevice::SetVisibleFlag() {
  uint8_t present = 0;
  INFO_DATATYPE type = 0;
  size_t size = 1;
  bool ok = m_pGenTL->fn().DevGetInfo(m_hDevice.get(), kInfoPresence, &type, &present, &size) == GC_ERR_SUCCESS;
  if (!ok) m_pGenTL->LogLastError("CCamera::SetVisibleFlag");
  if (present) {
    m_bVisible.store(true, std::memory_order_relaxed);
  } else {
    MarkAbsent();
  }
  return ok;
}

void CDevice::MarkAbsent() {
  if (m_bVisible.exchange(false, std::memory_order_relaxed)) PresenceLost();
}

void CDevice::Close() {
  if (closed_.exchange(true, std::memory_order_acq_rel)) return;
  ReleaseDevice();
  m_hDevice.Close();
}

}  // namespace kivcam::transport
