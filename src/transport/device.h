// An opened GenTL device: what a camera and a port-only object share. The
// interface that opened it owns it and ends it through Close, the one
// teardown; a caller still holding a reference keeps the object (not the
// device) alive and finds it closed.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "kivgentl/gentl.h"

namespace kivcam::transport {

class CGenTL;
class CInterface;

// A device handle from IFOpenDevice, closed with DevClose when dropped.
class DeviceHandle {
 public:
  DeviceHandle() = default;
  DeviceHandle(CGenTL* producer, DEV_HANDLE handle) : producer_(producer), handle_(handle) {}
  DeviceHandle(DeviceHandle&& other) noexcept;
  DeviceHandle& operator=(DeviceHandle&& other) noexcept;
  ~DeviceHandle() { Close(); }

  DEV_HANDLE get() const { return handle_; }
  void Close();

 private:
  CGenTL* producer_ = nullptr;
  DEV_HANDLE handle_ = nullptr;
};

class CDevice : public std::enable_shared_from_this<CDevice> {
 public:
  // Takes the device and its remote port; raises the producer's text when
  // the port can't be had (the device is closed again).
  CDevice(CGenTL* producer, CInterface* owner, const std::string& device_id, DeviceHandle device);
  virtual ~CDevice() = default;
  CDevice(const CDevice&) = delete;
  CDevice& operator=(const CDevice&) = delete;

  CGenTL* producer() const { return m_pGenTL; }
  CInterface* owner() const { return m_pInterface; }
  const std::string& device_id() const { return m_strDeviceID; }
  DEV_HANDLE device() const { return m_hDevice.get(); }
  PORT_HANDLE port() const { return m_hPort; }

  // The handle value the application holds for this object (null: none yet).
  void* handle() const { return handle_.load(std::memory_order_acquire); }
  void set_handle(void* h) { handle_.store(h, std::memory_order_release); }

  // Re-reads the device's presence (information 1000). False when the query
  // failed: its text is logged and the device counts as absent.
  bool SetVisibleFlag();
  bool visible() const { return m_bVisible.load(std::memory_order_relaxed); }

  // Releases what the object holds on the device, then closes the device.
  // Runs once, whoever calls it first; only the owning interface calls it.
  void Close();
  bool closed() const { return closed_.load(std::memory_order_acquire); }

 protected:
  // What a derived object releases before the device closes; runs once,
  // from Close.
  virtual void ReleaseDevice() {}
  // Told once each time the device goes from present to absent, on whichever
  // thread noticed (an export, the node map's port, the bus-reset thread).
  virtual void PresenceLost() {}
  void MarkAbsent();

  CGenTL* const m_pGenTL;
  CInterface* const m_pInterface;
  const std::string m_strDeviceID;
  DeviceHandle m_hDevice;
  PORT_HANDLE m_hPort = nullptr;
  // Written by the interface's bus-reset thread without any object lock.
  std::atomic<bool> m_bVisible{true};

 private:
  std::atomic<bool> closed_{false};
  std::atomic<void*> handle_{nullptr};
};

}  // namespace kivcam::transport
