#include "camera/camera.h"

#include "camera/camera_gige.h"
#include "camera/camera_usb.h"
#include "conv/conv.h"
#include "diag/error.h"
#include "transport/description.h"
#include "transport/device_info.h"
#include "transport/gentl.h"
#include "transport/ids.h"
#include "transport/port.h"

namespace kivcam::camera {

namespace {
// The device module's command time-out register.
constexpr uint64_t kDevCommandTimeout = 0x104;
}  // namespace

CCamera::CCamera(transport::CGenTL* producer, transport::CInterface* owner, const std::string& device_id,
                 transport::DeviceHandle device, uint32_t description_index, bool watch, CBufferPool* buffers)
    : CDevice(producer, owner, device_id, std::move(device)),
      m_nDescriptionIndex(description_index),
      buffers_(buffers),
      m_streamThread(*this),
      m_bWatch(watch),
      // Multi-byte samples of the GigE and USB producers are little-endian.
      m_bLittleEndian(producer->kind() == transport::kKindGigE || producer->kind() == transport::kKindUSB) {
  const transport::EntryPoints& fn = m_pGenTL->fn();
  uint32_t streams = 0;
  if (fn.DevGetNumDataStreams(this->device(), &streams) != GC_ERR_SUCCESS) {
    m_pGenTL->RaiseLastError();
  }
  // One stream carries images, the other the VSync notifications.
  if (streams < 2) throw Failure("DataStreams Error");
  m_imageStream.Open(m_pGenTL, this->device(), 0);
  m_vsyncStream.Open(m_pGenTL, this->device(), 1);
  LoadDescription();
}

CCamera::~CCamera() { Teardown(); }

void CCamera::LoadDescription() {
  try {
    auto map = transport::LoadDeviceDescription(m_pGenTL, m_hPort, m_nDescriptionIndex);
    if (!map) {
      // No copy in the data folder: the device's own description.
      m_nDescriptionIndex = 0;
      map = transport::LoadDeviceDescription(m_pGenTL, m_hPort, m_nDescriptionIndex);
    }
    if (!map) throw Failure(kOtherErrorText);
    BindFeatures(std::move(map));
  } catch (const Error&) {
    throw;
  } catch (...) {
    throw Failure(kOtherErrorText);
  }
}

void CCamera::BindFeatures(std::unique_ptr<KivGenApi::CNodeMapRef> map) {
  std::unique_ptr<transport::CPort> port;
  try {
    port = std::make_unique<transport::CPort>(this, m_bWatch);
    if (!map->_Connect(port.get(), "Device")) throw Failure(kOtherErrorText);
  } catch (...) {
    throw Failure("CPort Error");
  }

  KivGenApi::CIntegerPtr width = map->_GetNode("Width");
  KivGenApi::CIntegerPtr height = map->_GetNode("Height");
  KivGenApi::CEnumerationPtr pixel_format = map->_GetNode("PixelFormat");
  KivGenApi::CIntegerPtr payload = map->_GetNode("PayloadSize");
  KivGenApi::CIntegerPtr locked = map->_GetNode("TLParamsLocked");
  KivGenApi::CCommandPtr start = map->_GetNode("AcquisitionStart");
  KivGenApi::CCommandPtr stop = map->_GetNode("AcquisitionStop");
  if (!width.IsValid() || !height.IsValid() || !pixel_format.IsValid() || !payload.IsValid() ||
      !locked.IsValid() || !start.IsValid() || !stop.IsValid()) {
    throw Failure("Std Node NotFound");
  }
  m_pNodeMap = std::move(map);
  m_pPort = std::move(port);
  m_ptrWidth = width;
  m_ptrHeight = height;
  m_ptrPixelFormat = pixel_format;
  m_ptrPayloadSize = payload;
  m_ptrTLParamsLocked = locked;
  m_ptrAcquisitionStart = start;
  m_ptrAcquisitionStop = stop;

  if (m_bWatch) return;
  KivGenApi::CBooleanPtr pending_ack = m_pNodeMap->_GetNode("GevGVCPPendingAck");
  try {
    // A camera left streaming by an earlier owner is stopped.
    if (KivGenApi::IsWritable(m_ptrAcquisitionStop)) m_ptrAcquisitionStop->Execute();
    if (KivGenApi::IsWritable(pending_ack)) pending_ack->SetValue(true);
  } catch (...) {
    throw Failure(kOtherErrorText);
  }
}

void CCamera::ReleaseDevice() {
  // Any export still working on the camera finishes first; later ones find
  // the camera closed.
  platform::LockGuard g(m_csCamera);
  Teardown();
}

void CCamera::Teardown() {
  if (torn_down_) return;
  torn_down_ = true;
  StopAndFreeAll();
  m_vsyncStream.Close();
  m_imageStream.Close();
  m_ptrWidth.Release();
  m_ptrHeight.Release();
  m_ptrPayloadSize.Release();
  m_ptrPixelFormat.Release();
  m_ptrTLParamsLocked.Release();
  m_ptrAcquisitionStart.Release();
  m_ptrAcquisitionStop.Release();
  m_pPort.reset();
  m_pNodeMap.reset();
  platform::LockGuard g(m_csConv);
  m_pConv.reset();
}

void CCamera::CheckState(uint32_t mask) {
  // In this order; each state is looked at only when asked for (every
  // request and completion comes here).
  if ((mask & kStateVisible) && !visible()) throw Error(KIVCAM_ERR_NO_CAMERA);
  if ((mask & kStateWatch) && !m_bWatch) throw Error(KIVCAM_ERR_MODE);
  if ((mask & kStateControl) && m_bWatch) throw Error(KIVCAM_ERR_MODE);
  if (mask & (kStateAllocated | kStateNotAllocated)) {
    const bool is_allocated = allocated();
    if ((mask & kStateAllocated) && !is_allocated) throw Error(KIVCAM_ERR_NOT_ALLOCATED);
    if ((mask & kStateNotAllocated) && is_allocated) throw Error(KIVCAM_ERR_ALLOCATED);
  }
  if ((mask & kStateStarted) && !m_bStarted) throw Error(KIVCAM_ERR_NOT_RUNNING);
  if ((mask & kStateStopped) && m_bStarted) throw Error(KIVCAM_ERR_RUNNING);
  if ((mask & kStateMulticast) && !multicast()) throw Error(KIVCAM_ERR_NOT_RUNNING);
}

bool CCamera::CheckVisible(bool* query_ok) {
  *query_ok = SetVisibleFlag();
  return visible();
}

void CCamera::CameraInfo(CameraListEntry* info) {
  if (!transport::FillEntryFromDevice(m_pGenTL, device(), "CCamera::CameraInfo", info)) {
    throw Error(KIVCAM_ERR_OTHER);
  }
}

void CCamera::SetCmdTimeOut(uint32_t milliseconds) {
  uint32_t value = milliseconds == 0 ? 0xFFFFFFFFu : milliseconds;
  size_t size = sizeof value;
  // The device module's own register, not the camera's.
  if (m_pGenTL->fn().GCWritePort(device(), kDevCommandTimeout, &value, &size) != GC_ERR_SUCCESS) {
    m_pGenTL->LogLastError("CCamera::SetCmdTimeOut");
    throw Error(KIVCAM_ERR_OTHER);
  }
}

std::shared_ptr<CCamera> CreateCamera(transport::CGenTL* producer, transport::CInterface* owner,
                                      const std::string& device_id, transport::DeviceHandle& device,
                                      uint32_t description_index, bool read_only, CBufferPool* buffers) {
  switch (producer->kind()) {
    case transport::kKindIIDC:
      return std::make_shared<CCameraIIDC>(producer, owner, device_id, std::move(device), description_index,
                                           read_only, buffers);
    case transport::kKindGigE:
      return std::make_shared<CCameraGigE>(producer, owner, device_id, std::move(device), description_index,
                                           read_only, buffers);
    case transport::kKindUSB:
      // USB cameras have no watch mode.
      if (read_only) throw Failure("Not Support");
      return std::make_shared<CCameraUSB>(producer, owner, device_id, std::move(device), description_index,
                                          buffers);
    default:
      return nullptr;
  }
}

}  // namespace kivcam::camera
