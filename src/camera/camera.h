// The camera class family: one opened camera device with its two data
// streams, its node map and its state flags. The interface that opened it
// owns it; Close (of transport::CDevice) is its one teardown.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "camera/stream_thread.h"
#include "camera/streams.h"
#include "kivcam/kivcam.h"
#include "kivgenapi/KivGenApi.h"
#include "kivgentl/gentl.h"
#include "platform/platform.h"
#include "transport/device.h"

namespace kivcam::transport {
class CPort;
}

namespace kivcam::camera {

// Bits of CheckState.
constexpr uint32_t kStateVisible = 0x01;
constexpr uint32_t kStateWatch = 0x02;
constexpr uint32_t kStateControl = 0x04;
constexpr uint32_t kStateAllocated = 0x08;
constexpr uint32_t kStateNotAllocated = 0x10;
constexpr uint32_t kStateStarted = 0x20;
constexpr uint32_t kStateStopped = 0x40;
constexpr uint32_t kStateMulticast = 0x80;

class CCamera : public transport::CDevice {
 public:
  // Opens the streams and loads the description; raises Error with the
  // failure's text. The device closes again when construction fails.
  CCamera(transport::CGenTL* producer, transport::CInterface* owner, const std::string& device_id,
          transport::DeviceHandle device, uint32_t description_index, bool watch);
  ~CCamera() override;

  // Refreshes the presence flag and reports it; *query_ok is false when the
  // producer could not be asked (its text is logged).
  virtual bool CheckVisible(bool* query_ok);
  virtual void PreCall() = 0;
  // Raw 32-bit registers in host order; false when the access failed.
  virtual bool ReadRegister(uint32_t address, uint32_t* value) = 0;
  virtual bool WriteRegister(uint32_t address, uint32_t value) = 0;
  // The last multicast test's result (GigE only).
  virtual bool multicast() const { return false; }

  // Raises Error with the code of the first failing test of `mask`.
  void CheckState(uint32_t mask);
  // Raise Error (99) when a producer call fails; its text is logged.
  void CameraInfo(CameraListEntry* info);
  void SetCmdTimeOut(uint32_t milliseconds);

  platform::RecursiveLock& lock() { return m_csCamera; }
  KivGenApi::CNodeMapRef* node_map() const { return m_pNodeMap.get(); }
  bool watch() const { return m_bWatch; }
  uint32_t description_index() const { return m_nDescriptionIndex; }

 protected:
  void ReleaseDevice() override;

  platform::RecursiveLock m_csCamera;
  platform::RecursiveLock m_csConv;
  uint32_t m_nDescriptionIndex;
  std::unique_ptr<KivGenApi::CNodeMapRef> m_pNodeMap;
  std::unique_ptr<transport::CPort> m_pPort;
  KivGenApi::CIntegerPtr m_ptrWidth;
  KivGenApi::CIntegerPtr m_ptrHeight;
  KivGenApi::CIntegerPtr m_ptrPayloadSize;
  KivGenApi::CEnumerationPtr m_ptrPixelFormat;
  KivGenApi::CIntegerPtr m_ptrTLParamsLocked;
  KivGenApi::CCommandPtr m_ptrAcquisitionStart;
  KivGenApi::CCommandPtr m_ptrAcquisitionStop;
  CImageStream m_imageStream;
  CVSyncStream m_vsyncStream;
  CStreamThread m_streamThread;
  const bool m_bWatch;
  bool m_bStarted = false;

 private:
  // Loads the description (the data-folder copy first when asked, then the
  // device's first URL) and binds the standard features.
  void LoadDescription();
  void BindFeatures(std::unique_ptr<KivGenApi::CNodeMapRef> map);
  // What the camera holds on the device, released in order; runs once.
  void Teardown();
  bool torn_down_ = false;
};

class CCameraIIDC : public CCamera {
 public:
  using CCamera::CCamera;
  void PreCall() override {}
  bool ReadRegister(uint32_t, uint32_t*) override { return false; }
  bool WriteRegister(uint32_t, uint32_t) override { return false; }
};

// The camera class of the producer's kind, made of an opened device; null for
// a kind without one. Raises Error when the construction fails ("Not
// Support" for a read-only USB camera).
std::shared_ptr<CCamera> CreateCamera(transport::CGenTL* producer, transport::CInterface* owner,
                                      const std::string& device_id, transport::DeviceHandle& device,
                                      uint32_t description_index, bool read_only);

}  // namespace kivcam::camera
