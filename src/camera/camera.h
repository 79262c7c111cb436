// The camera class family: one opened camera device with its remote port, its
// two data streams, its node map and its state flags. The handle the
// application holds is the address of the object.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "core/base.h"
#include "kivcam/kivcam.h"
#include "kivgenapi/KivGenApi.h"
#include "kivgentl/gentl.h"
#include "platform/platform.h"

namespace kivcam::transport {
class CGenTL;
class CInterface;
class CPort;
}  // namespace kivcam::transport

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

// Open parameter meaning "look for a copy in the data folder first".
constexpr uint32_t kDescriptionDataFolderFirst = 0xFFFFFFFFu;

class CCamera : public core::CBase {
 public:
  // Opens the streams and loads the description; raises core::Failure. The
  // device handle stays the caller's to close when construction fails.
  CCamera(transport::CGenTL* producer, transport::CInterface* owner, const std::string& device_id,
          DEV_HANDLE device, uint32_t description_index, bool watch);
  ~CCamera() override;

  virtual bool CheckVisible(bool* visible);
  virtual void PreCall() = 0;
  virtual bool ReadRegister(uint32_t address, uint32_t* value) = 0;
  virtual bool WriteRegister(uint32_t address, uint32_t value) = 0;

  // First failing test of `mask` sets its error code and gives false.
  bool CheckState(uint32_t mask);
  // Re-reads the device's presence (information 1000).
  void SetVisibleFlag();
  bool CameraInfo(CameraListEntry* info);
  bool SetCmdTimeOut(uint32_t milliseconds);
  // True when the node map is built and bound; false only when the data
  // folder was to be searched first and holds no copy. Raises otherwise.
  bool LoadDeviceDescription();

  platform::RecursiveLock& lock() { return m_csCamera; }
  transport::CGenTL* producer() const { return m_pGenTL; }
  transport::CInterface* owner() const { return m_pInterface; }
  const std::string& device_id() const { return m_strDeviceID; }
  DEV_HANDLE device() const { return m_hDevice; }
  PORT_HANDLE port() const { return m_hPort; }
  DS_HANDLE image_stream() const { return m_hDataStream; }
  KivGenApi::CNodeMapRef* node_map() const { return m_pNodeMap.get(); }
  bool visible() const { return m_bVisible.load(std::memory_order_relaxed); }
  bool watch() const { return m_bWatch; }
  uint32_t description_index() const { return m_nDescriptionIndex; }

 protected:
  // Sets the calling thread's last error.
  static void SetError(uint32_t code);
  // A derived constructor that fails hands the device back to the opener.
  void DisownDevice() { m_bOwnsDevice = false; }

  platform::RecursiveLock m_csCamera;
  platform::RecursiveLock m_csConv;
  transport::CGenTL* m_pGenTL;
  transport::CInterface* m_pInterface;
  std::string m_strDeviceID;
  DEV_HANDLE m_hDevice;
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
  PORT_HANDLE m_hPort = nullptr;
  DS_HANDLE m_hDataStream = nullptr;
  DS_HANDLE m_hVSyncStream = nullptr;
  EVENT_HANDLE m_hImageEvent = nullptr;
  EVENT_HANDLE m_hVSyncEvent = nullptr;
  // Written by the interface's bus-reset thread without the camera lock.
  std::atomic<bool> m_bVisible{true};
  bool m_bWatch;
  bool m_bStarted = false;
  bool m_bMulticast = false;
  bool m_bIoError = false;
  std::unique_ptr<platform::Event> m_hStopEvent;
  std::unique_ptr<platform::Event> m_hStartedEvent;
  std::unique_ptr<platform::Event> m_hEndedEvent;

 private:
  void CloseStreams();
  bool m_bOwnsDevice = true;
};

class CCameraGigE : public CCamera {
 public:
  CCameraGigE(transport::CGenTL* producer, transport::CInterface* owner, const std::string& device_id,
              DEV_HANDLE device, uint32_t description_index, bool watch);
  bool CheckVisible(bool* visible) override;
  void PreCall() override {}
  bool ReadRegister(uint32_t address, uint32_t* value) override;
  bool WriteRegister(uint32_t address, uint32_t value) override;
  bool CameraInfo(GigECameraInfo* info);
  using CCamera::CameraInfo;
  bool TestStream();

 private:
  void SelectFirstChannels();
  void Configure();
  uint32_t m_nPacketCount = 0;
};

class CCameraUSB : public CCamera {
 public:
  CCameraUSB(transport::CGenTL* producer, transport::CInterface* owner, const std::string& device_id,
             DEV_HANDLE device, uint32_t description_index);
  void PreCall() override {}
  bool ReadRegister(uint32_t address, uint32_t* value) override;
  bool WriteRegister(uint32_t address, uint32_t value) override;
  bool CameraInfo(USBCameraInfo* info);
  using CCamera::CameraInfo;

 private:
  uint32_t m_nTrailerOffset = 0;
  uint32_t m_nStreamParam = 0;
};

class CCameraIIDC : public CCamera {
 public:
  using CCamera::CCamera;
  void PreCall() override {}
  bool ReadRegister(uint32_t, uint32_t*) override { return false; }
  bool WriteRegister(uint32_t, uint32_t) override { return false; }
};

// The camera class of the producer's kind, or null for an unknown kind.
// Raises core::Failure when the construction fails ("Not Support" for a
// read-only USB camera).
CCamera* CreateCamera(transport::CGenTL* producer, transport::CInterface* owner,
                      const std::string& device_id, DEV_HANDLE device, uint32_t description_index,
                      bool read_only);

// Takes the camera out of the live set, then destroys it.
void DestroyCamera(CCamera* camera);

}  // namespace kivcam::camera
