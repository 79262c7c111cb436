// The camera's two data streams: stream 0 carries images, stream 1 one token
// per frame (VSync). Each is opened by index when the camera is made and
// closed with its queues flushed and its new-buffer event unregistered. The
// image stream keeps the places its buffers are in, the VSync stream its
// tokens.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "camera/image_buffer.h"
#include "kivgentl/gentl.h"

namespace kivcam::transport {
class CGenTL;
}

namespace kivcam::camera {

// The producer's per-buffer information: the completion status, and a value
// for the transport record.
constexpr BUFFER_INFO_CMD kBufferInfoStatus = 1000;
constexpr BUFFER_INFO_CMD kBufferInfoValue = 1001;

// New-buffer event data: the buffer handle, then its data address.
struct NewBufferEvent {
  BUFFER_HANDLE buffer = nullptr;
  uint8_t* data = nullptr;
};

class CDataStream {
 public:
  CDataStream() = default;
  // A stream that never got to Close is only closed, not flushed.
  ~CDataStream();
  CDataStream(const CDataStream&) = delete;
  CDataStream& operator=(const CDataStream&) = delete;

  // Opens the device's stream `index`; raises the producer's text.
  void Open(transport::CGenTL* producer, DEV_HANDLE device, uint32_t index);
  // Unregisters the new-buffer event (when registered), flushes both queues
  // and closes the stream. Nothing when it is not open.
  void Close();

  DS_HANDLE handle() const { return m_hStream; }
  EVENT_HANDLE event() const { return m_hEvent.load(std::memory_order_acquire); }
  bool open() const { return m_hStream != nullptr; }

  // The producer calls of resource allocation and release; each returns the
  // producer's result.
  GC_ERROR RegisterEvent();
  void UnregisterEvent();
  GC_ERROR StartAcquisition();
  void StopAcquisition();
  void FlushQueues();
  GC_ERROR ReadRegister(uint64_t address, uint32_t* value);
  GC_ERROR WriteRegister(uint64_t address, uint32_t value);

  // One wait for the next new buffer; the result of EventGetData. Waits are
  // counted so that a kill is only sent where somebody waits: the producer
  // keeps a kill nobody took, and it would end the next wait instead.
  GC_ERROR WaitNewBuffer(uint64_t timeout_ms, NewBufferEvent* out);
  // Ends the waits on the new-buffer event (when anybody waits).
  void KillWaits();

 protected:
  transport::CGenTL* m_pGenTL = nullptr;
  DS_HANDLE m_hStream = nullptr;
  // The new-buffer event; set exactly while acquisition resources are
  // allocated on this stream. The stream thread reads it without a lock.
  std::atomic<EVENT_HANDLE> m_hEvent{nullptr};
  std::atomic<int> waiters_{0};
};

// Images: m_hDataStream and m_hImageEvent of the camera, and the places of
// its buffers (data address -> producer handle).
class CImageStream : public CDataStream {
 public:
  using Places = std::map<const uint8_t*, BUFFER_HANDLE>;

  // Every buffer allocated on the camera, in allocation order.
  std::vector<std::unique_ptr<Image_Buffer>> m_vecImages;
  Places m_mapAnnounced;  // announced, collected, ready to be queued again
  Places m_mapQueued;     // queued to the producer
  Places m_mapFilled;     // delivered, not yet collected

  Image_Buffer* Find(const ImageBuffer* record) const;
  // Revokes every announced, queued and filled buffer: all back to allocated.
  void RevokeAll();
};

// VSync tokens: m_hVSyncStream and m_hVSyncEvent of the camera.
class CVSyncStream : public CDataStream {
 public:
  std::vector<BUFFER_HANDLE> m_vecVSyncFree;
  std::vector<BUFFER_HANDLE> m_vecVSyncQueued;
  std::vector<BUFFER_HANDLE> m_vecVSyncFilled;

  void RevokeAll();
};

// True for a buffer status that is good: 0, or informational (0x4xxxxxxx).
inline bool GoodStatus(uint32_t status) { return status == 0 || (status >> 28) == 0x4; }

}  // namespace kivcam::camera
