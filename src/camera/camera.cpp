#include "camera/camera.h"

#include <cstring>

#include "core/failure.h"
#include "core/kivcam_dll.h"
#include "diag/call_log.h"
#include "transport/device_info.h"
#include "transport/gentl.h"
#include "transport/interface.h"
#include "transport/port.h"

namespace kivcam::camera {

using transport::CGenTL;
using transport::CInterface;

namespace {
constexpr size_t kIdBytes = 2048;
constexpr int32_t kInfoPresence = 1000;
constexpr uint64_t kDevCommandTimeout = 0x104;
}  // namespace

void CCamera::SetError(uint32_t code) {
  if (core::CKivCamDLL* lib = core::Library()) lib->SetErrorCode(code);
}

CCamera::CCamera(CGenTL* producer, CInterface* owner, const std::string& device_id, DEV_HANDLE device,
                 uint32_t description_index, bool watch)
    : m_pGenTL(producer),
      m_pInterface(owner),
      m_strDeviceID(device_id),
      m_hDevice(device),
      m_nDescriptionIndex(description_index),
      m_bWatch(watch) {
  m_hStopEvent = std::make_unique<platform::Event>(true, false);
  m_hStartedEvent = std::make_unique<platform::Event>(true, false);
  m_hEndedEvent = std::make_unique<platform::Event>(true, false);
  if (!m_hStopEvent->ok() || !m_hStartedEvent->ok() || !m_hEndedEvent->ok()) {
    throw core::Failure("CreateEvent Error");
  }
  const transport::EntryPoints& fn = m_pGenTL->fn();
  try {
    if (fn.DevGetPort(m_hDevice, &m_hPort) != GC_ERR_SUCCESS) m_pGenTL->RaiseLastError();
    uint32_t streams = 0;
    if (fn.DevGetNumDataStreams(m_hDevice, &streams) != GC_ERR_SUCCESS) m_pGenTL->RaiseLastError();
    // One stream carries images, the other the VSync notifications.
    if (streams < 2) throw core::Failure("DataStreams Error");
    for (uint32_t i = 0; i < 2; ++i) {
      char id[kIdBytes] = {};
      size_t size = sizeof id;
      if (fn.DevGetDataStreamID(m_hDevice, i, id, &size) != GC_ERR_SUCCESS) m_pGenTL->RaiseLastError();
      id[sizeof id - 1] = '\0';
      DS_HANDLE* target = i == 0 ? &m_hDataStream : &m_hVSyncStream;
      if (fn.DevOpenDataStream(m_hDevice, id, target) != GC_ERR_SUCCESS) m_pGenTL->RaiseLastError();
    }
    if (!LoadDeviceDescription()) {
      m_nDescriptionIndex = 0;
      LoadDeviceDescription();
    }
  } catch (const core::Failure&) {
    CloseStreams();
    throw;
  } catch (...) {
    CloseStreams();
    throw core::Failure();
  }
}

void CCamera::CloseStreams() {
  const transport::EntryPoints& fn = m_pGenTL->fn();
  m_pPort.reset();
  m_pNodeMap.reset();
  if (m_hVSyncStream) fn.DSClose(m_hVSyncStream);
  if (m_hDataStream) fn.DSClose(m_hDataStream);
  m_hVSyncStream = m_hDataStream = nullptr;
}

CCamera::~CCamera() {
  const transport::EntryPoints& fn = m_pGenTL->fn();
  if (m_hVSyncStream) {
    if (m_hVSyncEvent) fn.GCUnregisterEvent(m_hVSyncStream, EVENT_NEW_BUFFER);
    fn.DSFlushQueue(m_hVSyncStream, ACQ_QUEUE_INPUT_TO_OUTPUT);
    fn.DSFlushQueue(m_hVSyncStream, ACQ_QUEUE_OUTPUT_DISCARD);
    fn.DSClose(m_hVSyncStream);
  }
  if (m_hDataStream) {
    if (m_hImageEvent) fn.GCUnregisterEvent(m_hDataStream, EVENT_NEW_BUFFER);
    fn.DSFlushQueue(m_hDataStream, ACQ_QUEUE_INPUT_TO_OUTPUT);
    fn.DSFlushQueue(m_hDataStream, ACQ_QUEUE_OUTPUT_DISCARD);
    fn.DSClose(m_hDataStream);
  }
  m_ptrWidth.Release();
  m_ptrHeight.Release();
  m_ptrPayloadSize.Release();
  m_ptrPixelFormat.Release();
  m_ptrTLParamsLocked.Release();
  m_ptrAcquisitionStart.Release();
  m_ptrAcquisitionStop.Release();
  m_pPort.reset();
  m_pNodeMap.reset();
  if (m_bOwnsDevice) {
    fn.DevClose(m_hDevice);
    m_pInterface->RemoveCamera(this);
  }
}

bool CCamera::CheckState(uint32_t mask) {
  struct Test {
    uint32_t bit;
    bool ok;
    uint32_t error;
  };
  const Test tests[] = {
      {kStateVisible, visible(), KIVCAM_ERR_NO_CAMERA},
      {kStateWatch, m_bWatch, KIVCAM_ERR_MODE},
      {kStateControl, !m_bWatch, KIVCAM_ERR_MODE},
      {kStateAllocated, m_hImageEvent != nullptr, KIVCAM_ERR_NOT_ALLOCATED},
      {kStateNotAllocated, m_hImageEvent == nullptr, KIVCAM_ERR_ALLOCATED},
      {kStateStarted, m_bStarted, KIVCAM_ERR_NOT_RUNNING},
      {kStateStopped, !m_bStarted, KIVCAM_ERR_RUNNING},
      {kStateMulticast, m_bMulticast, KIVCAM_ERR_NOT_RUNNING},
  };
  for (const Test& t : tests) {
    if ((mask & t.bit) && !t.ok) {
      SetError(t.error);
      return false;
    }
  }
  return true;
}

void CCamera::SetVisibleFlag() {
  uint8_t present = 0;
  INFO_DATATYPE type = 0;
  size_t size = 1;
  if (m_pGenTL->fn().DevGetInfo(m_hDevice, kInfoPresence, &type, &present, &size) != GC_ERR_SUCCESS) {
    m_pGenTL->LogLastError("CCamera::SetVisibleFlag");
    SetError(KIVCAM_ERR_OTHER);
  }
  m_bVisible.store(present != 0, std::memory_order_relaxed);
}

bool CCamera::CheckVisible(bool* visible_out) {
  SetVisibleFlag();
  *visible_out = visible();
  return true;
}

bool CCamera::CameraInfo(CameraListEntry* info) {
  if (transport::FillEntryFromDevice(m_pGenTL, m_hDevice, "CCamera::CameraInfo", info)) return true;
  SetError(KIVCAM_ERR_OTHER);
  return false;
}

bool CCamera::SetCmdTimeOut(uint32_t milliseconds) {
  uint32_t value = milliseconds == 0 ? 0xFFFFFFFFu : milliseconds;
  size_t size = sizeof value;
  // The device module's own register, not the camera's.
  if (m_pGenTL->fn().GCWritePort(m_hDevice, kDevCommandTimeout, &value, &size) != GC_ERR_SUCCESS) {
    m_pGenTL->LogLastError("CCamera::SetCmdTimeOut");
    SetError(KIVCAM_ERR_OTHER);
    return false;
  }
  return true;
}

CCamera* CreateCamera(CGenTL* producer, CInterface* owner, const std::string& device_id,
                      DEV_HANDLE device, uint32_t description_index, bool read_only) {
  switch (producer->kind()) {
    case transport::kKindIIDC:
      return new CCameraIIDC(producer, owner, device_id, device, description_index, read_only);
    case transport::kKindGigE:
      return new CCameraGigE(producer, owner, device_id, device, description_index, read_only);
    case transport::kKindUSB:
      // USB cameras have no watch mode.
      if (read_only) throw core::Failure("Not Support");
      return new CCameraUSB(producer, owner, device_id, device, description_index);
    default:
      return nullptr;
  }
}

void DestroyCamera(CCamera* camera) {
  core::registry::Remove(camera);
  // Out of the interface's array first, so that a bus reset being processed
  // never reaches a camera that is being taken apart.
  {
    platform::LockGuard g(camera->owner()->lock());
    camera->owner()->RemoveCamera(camera);
  }
  delete camera;
}

}  // namespace kivcam::camera
