// Acquisition on a camera: resources, image buffers and their places,
// starting and stopping, requests and completions, VSync tokens and the
// image callback.
#include <algorithm>

#include "camera/camera.h"
#include "conv/conv.h"
#include "conv/pixel_format.h"
#include "diag/call_log.h"
#include "diag/error.h"
#include "transport/gentl.h"
#include "transport/ids.h"

namespace kivcam::camera {

namespace {
// The producers' data-stream registers.
constexpr uint64_t kStreamLink = 0x100;     // the stream the VSync stream follows
constexpr uint64_t kStreamRunning = 0x102;  // 1: deliver images
// The device module's USB stream reset request.
constexpr uint64_t kDevStreamReset = 0x105;
constexpr uint32_t kStatusTransferError = 0xC0000001u;
constexpr uint32_t kInfinite = 0xFFFFFFFFu;
constexpr uint32_t kIoErrorPauseMs = 10;
// How long a watcher waits before it looks whether the stream still runs.
constexpr uint32_t kWatchSliceMs = 1000;
// A "PixelFormat" below this is a legacy number, not a pixel-format code.
constexpr uint32_t kFirstPfncCode = 0x01000000u;

// What is left of `timeout` after `start` (all in 32-bit coarse ticks: the
// clock is read on every completion, and a time-out a tick longer or shorter
// after an event for another buffer matters to nobody).
uint32_t Remaining(uint32_t timeout, uint32_t start) {
  if (timeout == kInfinite) return kInfinite;
  uint32_t elapsed = platform::CoarseTickCount() - start;
  return elapsed > timeout ? 0 : timeout - elapsed;
}

// A GenApi call whose failure is the caller's error 7.
template <typename F>
auto Feature(F&& f) -> decltype(f()) {
  try {
    return f();
  } catch (...) {
    throw Error(KIVCAM_ERR_ACCESS);
  }
}

// Puts (data, handle) into `place`, in `node` when there is one.
void Place(CImageStream::Places& place, CImageStream::Places::node_type node, const uint8_t* data,
           BUFFER_HANDLE handle) {
  if (!node) {
    place.emplace(data, handle);
    return;
  }
  node.mapped() = handle;
  place.insert(std::move(node));
}

}  // namespace

bool CCamera::Owns(const ImageBuffer* buffer) const { return m_imageStream.Find(buffer) != nullptr; }

uint32_t CCamera::ReadPayloadSize() {
  return Feature([&] { return static_cast<uint32_t>(m_ptrPayloadSize->GetValue(false, true)); });
}

void CCamera::LookUpPixelFormat(uint32_t* kind, uint32_t* phase, uint32_t* bits) {
  uint32_t value = Feature([&] { return static_cast<uint32_t>(m_ptrPixelFormat->GetIntValue(false, false)); });
  if (value < kFirstPfncCode) value = conv::TranslateLegacyPixelFormat(value);
  *phase = 0;
  *bits = 0;
  *kind = conv::PixelFormatToConvKind(value, phase, bits);
}

void CCamera::AllocResources() { AllocCommon("CCamera::AllocResources"); }

void CCamera::AllocCommon(const char* op) {
  if (!m_bWatch) Feature([&] { m_ptrTLParamsLocked->SetValue(1); });
  const bool vsync = m_vsyncStream.open();
  const bool follows = vsync && (m_pGenTL->kind() == transport::kKindGigE || m_pGenTL->kind() == transport::kKindUSB);
  try {
    auto producer_call = [&](GC_ERROR rc) {
      if (rc == GC_ERR_SUCCESS) return;
      m_pGenTL->LogLastError(op);
      throw Error(KIVCAM_ERR_OTHER);
    };
    producer_call(m_imageStream.RegisterEvent());
    if (vsync) producer_call(m_vsyncStream.RegisterEvent());
    producer_call(m_imageStream.StartAcquisition());
    if (follows) {
      uint32_t link = 0;
      producer_call(m_imageStream.ReadRegister(kStreamLink, &link));
      producer_call(m_vsyncStream.WriteRegister(kStreamLink, link));
      producer_call(m_vsyncStream.StartAcquisition());
    }
    uint32_t kind, phase, bits;
    LookUpPixelFormat(&kind, &phase, &bits);
    uint32_t width = Feature([&] { return static_cast<uint32_t>(m_ptrWidth->GetValue()); });
    uint32_t height = Feature([&] { return static_cast<uint32_t>(m_ptrHeight->GetValue()); });
    m_nConvKind = kind;
    m_nBayerPhase = phase;
    m_nPixelBits = bits;
    m_nWidth = width;
    m_nHeight = height;
  } catch (...) {
    if (vsync) m_vsyncStream.StopAcquisition();
    m_imageStream.StopAcquisition();
    m_imageStream.UnregisterEvent();
    m_vsyncStream.UnregisterEvent();
    if (!m_bWatch) {
      try {
        m_ptrTLParamsLocked->SetValue(0);
      } catch (...) {
      }
    }
    throw;
  }
}

void CCamera::ReleaseResources() {
  if (!m_bWatch) {
    try {
      m_ptrTLParamsLocked->SetValue(0);
    } catch (...) {
      // The release goes on.
    }
  }
  if (m_vsyncStream.open()) {
    m_vsyncStream.KillWaits();
    m_vsyncStream.StopAcquisition();
    m_vsyncStream.UnregisterEvent();
    m_vsyncStream.FlushQueues();
  }
  m_imageStream.KillWaits();
  m_imageStream.StopAcquisition();
  m_imageStream.UnregisterEvent();
  m_imageStream.FlushQueues();
  RevokeAllBuffers();
}

void CCamera::RevokeAllBuffers() {
  m_imageStream.RevokeAll();
  if (m_vsyncStream.open()) m_vsyncStream.RevokeAll();
}

ImageBuffer* CCamera::ImageAlloc() {
  uint32_t format, width, height;
  try {
    format = static_cast<uint32_t>(m_ptrPixelFormat->GetIntValue(false, false));
    height = static_cast<uint32_t>(m_ptrHeight->GetValue());
    width = static_cast<uint32_t>(m_ptrWidth->GetValue());
  } catch (...) {
    return nullptr;
  }
  std::unique_ptr<Image_Buffer> b = buffers_->Create(this, m_nBufferSize);
  if (!b) return nullptr;
  ImageBuffer* r = b->record();
  r->Width = width;
  r->Height = height;
  r->Data = b->data();
  r->PayloadSize = m_nPayloadSize;
  r->PixelFormat = format;
  r->LittleEndian = m_bLittleEndian ? 1 : 0;
  r->Status = 0;
  r->BufferSize = m_nBufferSize;
  r->InfoOffset = m_nInfoOffset;
  m_imageStream.m_vecImages.push_back(std::move(b));
  return r;
}

void CCamera::ImageFree(const ImageBuffer* buffer) {
  auto& images = m_imageStream.m_vecImages;
  auto it = std::find_if(images.begin(), images.end(), [&](const auto& b) { return b->record() == buffer; });
  if (it == images.end()) throw Error(KIVCAM_ERR_BUFFER);
  const uint8_t* data = (*it)->data();
  for (const CImageStream::Places* place :
       {&m_imageStream.m_mapAnnounced, &m_imageStream.m_mapQueued, &m_imageStream.m_mapFilled}) {
    if (place->count(data)) throw Error(KIVCAM_ERR_BUFFER_BUSY);
  }
  images.erase(it);
}

void CCamera::ImageFreeAll() {
  ImageReqAbortAll();
  m_imageStream.m_vecImages.clear();
}

void CCamera::StopAndFreeAll() {
  // Nothing here may fail the teardown.
  try {
    if (m_bStarted) ImageStop();
  } catch (...) {
  }
  if (m_streamThread.OnThread()) {
    // Closed from inside the image callback: the thread can't be waited for
    // here; it finds everything released once the callback returns.
    m_streamThread.Abandon();
  } else {
    StopImageCallBack();
  }
  try {
    if (allocated()) ReleaseResources();
  } catch (...) {
  }
  try {
    ImageFreeAll();
  } catch (...) {
  }
}

void CCamera::ImageStart() {
  {
    platform::LockGuard g(m_csConv);
    if (!m_pConv) m_pConv = std::make_unique<conv::CConv>(conv::kDefaultCameraMode, conv::kDefaultYuvCoef);
    m_pConv->ResolveShift(m_nConvKind, m_nPixelBits);
  }
  m_imageStream.WriteRegister(kStreamRunning, 1);
  m_bStarted = true;
  if (m_bWatch) return;
  try {
    m_ptrAcquisitionStart->Execute(true);
  } catch (...) {
    m_imageStream.WriteRegister(kStreamRunning, 0);
    m_bStarted = false;
    throw Error(KIVCAM_ERR_ACCESS);
  }
}

void CCamera::ImageStop() {
  if (!m_bWatch) {
    try {
      m_ptrAcquisitionStop->Execute();
    } catch (...) {
    }
  }
  if (!m_bStarted) throw Error(KIVCAM_ERR_NOT_RUNNING);
  m_imageStream.WriteRegister(kStreamRunning, 0);
  m_bStarted = false;
}

void CCamera::ImageReq(const ImageBuffer* buffer) {
  static const char kName[] = "CCamera::ImageReq";
  if (buffer->BufferSize != m_nBufferSize) throw Error(KIVCAM_ERR_PARAM);
  Image_Buffer* b = m_imageStream.Find(buffer);
  if (!b) throw Error(KIVCAM_ERR_BUFFER);
  const uint8_t* data = b->data();
  if (m_imageStream.m_mapQueued.count(data)) throw Error(KIVCAM_ERR_BUFFER_BUSY);
  const transport::EntryPoints& fn = m_pGenTL->fn();
  BUFFER_HANDLE handle = nullptr;
  // A buffer moves between the places as the same map node: no allocation
  // per request once it has been announced.
  CImageStream::Places::node_type node;
  auto announced = m_imageStream.m_mapAnnounced.find(data);
  if (announced != m_imageStream.m_mapAnnounced.end()) {
    node = m_imageStream.m_mapAnnounced.extract(announced);
    handle = node.mapped();
  }
  // The data address is the buffer's private pointer too, so that its new-buffer
  // event names it: the stream thread may be the one that sees the event.
  if (!handle && fn.DSAnnounceBuffer(m_imageStream.handle(), b->data(), m_nBufferSize, b->data(), &handle) !=
                     GC_ERR_SUCCESS) {
    m_pGenTL->LogLastError(kName);
    throw Error(KIVCAM_ERR_OTHER);
  }
  if (fn.DSQueueBuffer(m_imageStream.handle(), handle) != GC_ERR_SUCCESS) {
    m_pGenTL->LogLastError(kName);
    // Still announced: the next request queues it without announcing again.
    Place(m_imageStream.m_mapAnnounced, std::move(node), data, handle);
    throw Error(KIVCAM_ERR_OTHER);
  }
  b->record()->Status = KIVCAM_BUFFER_STATUS_REQUESTED;
  Place(m_imageStream.m_mapQueued, std::move(node), data, handle);
}

void CCamera::ImageComplete(const ImageBuffer* buffer, uint32_t timeout, ImageInfo* info) {
  static const char kName[] = "CCamera::ImageComplete";
  Image_Buffer* b = m_imageStream.Find(buffer);
  if (!b) throw Error(KIVCAM_ERR_BUFFER);
  const uint8_t* data = b->data();
  CImageStream::Places& queued = m_imageStream.m_mapQueued;
  CImageStream::Places& filled = m_imageStream.m_mapFilled;
  const uint32_t start = platform::CoarseTickCount();
  uint32_t remaining = 0;
  bool arrived = false;
  // The buffer, once its own event came: straight from queued to announced.
  CImageStream::Places::node_type node;
  for (;;) {
    if (filled.count(data)) {
      arrived = true;
      node = filled.extract(data);
      break;
    }
    if (!queued.count(data)) throw Error(KIVCAM_ERR_PARAM);  // never requested
    if (!allocated()) break;
    remaining = Remaining(timeout, start);
    // A watcher waits in slices: the stream it watches may end without a word.
    const uint32_t slice = m_bWatch ? std::min(remaining, kWatchSliceMs) : remaining;
    NewBufferEvent event;
    GC_ERROR rc;
    {
      // Only the wait runs without the camera lock.
      platform::LockRelease unlocked(m_csCamera);
      rc = m_imageStream.WaitNewBuffer(slice == kInfinite ? GENTL_INFINITE : slice, &event);
    }
    // Closed while it waited: nothing of it is left to look at.
    if (torn_down_) throw Error(KIVCAM_ERR_NO_IMAGE);
    if (rc == GC_ERR_TIMEOUT && slice != remaining) {
      if (WatchedStreamGone()) throw Error(KIVCAM_ERR_NOT_RUNNING);
      if (!allocated()) break;
      continue;
    }
    if (rc == GC_ERR_TIMEOUT) break;
    if (rc != GC_ERR_SUCCESS) {
      m_pGenTL->LogLastError(kName);
      if (visible()) throw Error(KIVCAM_ERR_OTHER);
      // Ended because the camera went away. A kill ends one wait only: pass
      // it on to whoever else waits on this stream (the stream thread, say).
      m_imageStream.KillWaits();
      throw Error(KIVCAM_ERR_NO_CAMERA);
    }
    if (queued.empty() && filled.empty()) throw Error(KIVCAM_ERR_NO_IMAGE);
    auto it = queued.begin();
    while (it != queued.end() && it->second != event.buffer) ++it;
    const bool again = remaining != 0 && allocated();
    if (it == queued.end()) {
      if (!again) break;
      continue;
    }
    // Without time left even its own buffer stays filled (error 13 now, at
    // once next time).
    if (it->first == data && again) {
      arrived = true;
      node = queued.extract(it);
      break;
    }
    filled.insert(queued.extract(it));
    if (!again) break;
  }
  // A buffer that came with the last wait stays filled: the next call for it
  // returns at once.
  if (!arrived) throw Error(KIVCAM_ERR_TIMEOUT);
  BUFFER_HANDLE handle = node.mapped();
  m_imageStream.m_mapAnnounced.insert(std::move(node));

  const transport::EntryPoints& fn = m_pGenTL->fn();
  uint32_t status = 0, value = 0;
  INFO_DATATYPE type = 0;
  size_t size = sizeof status;
  bool ok = fn.DSGetBufferInfo(m_imageStream.handle(), handle, kBufferInfoStatus, &type, &status, &size) ==
            GC_ERR_SUCCESS;
  size = sizeof value;
  ok = ok && fn.DSGetBufferInfo(m_imageStream.handle(), handle, kBufferInfoValue, &type, &value, &size) ==
                 GC_ERR_SUCCESS;
  if (!ok) {
    m_pGenTL->LogLastError(kName);
    throw Error(KIVCAM_ERR_OTHER);
  }
  if (!GoodStatus(status)) NoteFailedStatus(kName, status, /*pause=*/false);
  const int32_t result = status == 0 ? KIVCAM_BUFFER_STATUS_OK : KIVCAM_BUFFER_STATUS_FAILED;
  b->record()->Status = result;
  if (info) GetImageInfo(b->data(), status, value, info);
  // An informational status counts as a failure here (the callback takes it).
  if (result != KIVCAM_BUFFER_STATUS_OK) throw Error(static_cast<uint32_t>(result));
}

void CCamera::NoteFailedStatus(const char* op, uint32_t status, bool pause) {
  if (status == kStatusTransferError) {
    m_bIoError = true;
    if (pause) platform::SleepMs(kIoErrorPauseMs);
  }
  diag::LogDump(true, op, "IO ERROR", reinterpret_cast<const void*>(static_cast<uintptr_t>(status)));
}

void CCamera::ResetStreamIfFailed() {
  if (!m_bIoError.exchange(false) || m_pGenTL->kind() != transport::kKindUSB) return;
  uint32_t zero = 0;
  size_t size = sizeof zero;
  m_pGenTL->fn().GCWritePort(device(), kDevStreamReset, &zero, &size);
}

void CCamera::PresenceLost() {
  m_imageStream.KillWaits();
  m_vsyncStream.KillWaits();
}

void CCamera::ImageReqAbortAll() {
  if (m_vsyncStream.open()) {
    m_vsyncStream.KillWaits();
    m_vsyncStream.FlushQueues();
  }
  m_imageStream.KillWaits();
  m_imageStream.FlushQueues();
  RevokeAllBuffers();
  ResetStreamIfFailed();
}

HVSYNC CCamera::VSyncReq() {
  static const char kName[] = "CCamera::VSyncReq";
  const transport::EntryPoints& fn = m_pGenTL->fn();
  BUFFER_HANDLE handle = nullptr;
  auto& free_tokens = m_vsyncStream.m_vecVSyncFree;
  if (!free_tokens.empty()) {
    handle = free_tokens.front();
    free_tokens.erase(free_tokens.begin());
  }
  // A token without memory: address 1, size 0.
  if (!handle && fn.DSAnnounceBuffer(m_vsyncStream.handle(), reinterpret_cast<void*>(1), 0, nullptr, &handle) !=
                     GC_ERR_SUCCESS) {
    m_pGenTL->LogLastError(kName);
    throw Error(KIVCAM_ERR_OTHER);
  }
  if (fn.DSQueueBuffer(m_vsyncStream.handle(), handle) != GC_ERR_SUCCESS) {
    m_pGenTL->LogLastError(kName);
    free_tokens.push_back(handle);
    throw Error(KIVCAM_ERR_OTHER);
  }
  m_vsyncStream.m_vecVSyncQueued.push_back(handle);
  return static_cast<HVSYNC>(handle);
}

void CCamera::VSyncComplete(HVSYNC token, uint32_t timeout) {
  static const char kName[] = "CCamera::VSyncComplete";
  auto handle = static_cast<BUFFER_HANDLE>(token);
  auto& queued = m_vsyncStream.m_vecVSyncQueued;
  auto& filled = m_vsyncStream.m_vecVSyncFilled;
  auto has = [](const std::vector<BUFFER_HANDLE>& v, BUFFER_HANDLE h) {
    return std::find(v.begin(), v.end(), h) != v.end();
  };
  const uint32_t start = platform::CoarseTickCount();
  uint32_t remaining = 0;
  for (;;) {
    if (has(filled, handle)) break;
    if (!has(queued, handle)) throw Error(KIVCAM_ERR_PARAM);
    if (!m_vsyncStream.event()) {
      if (remaining == 0 || !allocated()) break;
      continue;
    }
    remaining = Remaining(timeout, start);
    NewBufferEvent event;
    GC_ERROR rc;
    {
      platform::LockRelease unlocked(m_csCamera);
      rc = m_vsyncStream.WaitNewBuffer(remaining == kInfinite ? GENTL_INFINITE : remaining, &event);
    }
    if (torn_down_) throw Error(KIVCAM_ERR_NO_IMAGE);
    if (rc == GC_ERR_TIMEOUT) break;
    if (rc != GC_ERR_SUCCESS) {
      m_pGenTL->LogLastError(kName);
      throw Error(KIVCAM_ERR_OTHER);
    }
    if (queued.empty() && filled.empty()) throw Error(KIVCAM_ERR_NO_IMAGE);
    auto it = std::find(queued.begin(), queued.end(), event.buffer);
    if (it != queued.end()) {
      filled.push_back(*it);
      queued.erase(it);
    }
    if (remaining == 0 || !allocated()) break;
  }
  auto it = std::find(filled.begin(), filled.end(), handle);
  if (it == filled.end()) throw Error(KIVCAM_ERR_TIMEOUT);
  filled.erase(it);
  m_vsyncStream.m_vecVSyncFree.push_back(handle);
}

void CCamera::SetImageCallBack(void* context, ImageCallBack callback, uint32_t count, bool pass_info) {
  uint32_t width = 0, height = 0;
  bool geometry_ok = true;
  try {
    width = static_cast<uint32_t>(m_ptrWidth->GetValue());
    height = static_cast<uint32_t>(m_ptrHeight->GetValue());
  } catch (...) {
    geometry_ok = false;  // the thread says so and ends
  }
  m_streamThread.Start(context, callback, count, pass_info, width, height, geometry_ok);
}

void CCamera::StopImageCallBack() { m_streamThread.Stop(); }

}  // namespace kivcam::camera
