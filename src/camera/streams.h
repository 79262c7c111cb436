// The camera's two data streams: stream 0 carries images, stream 1 one token
// per frame (VSync). Each is opened by index when the camera is made and
// closed with its queues flushed and its new-buffer event unregistered.
#pragma once

#include <cstdint>

#include "kivgentl/gentl.h"

namespace kivcam::transport {
class CGenTL;
}

namespace kivcam::camera {

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
  EVENT_HANDLE event() const { return m_hEvent; }

 protected:
  transport::CGenTL* m_pGenTL = nullptr;
  DS_HANDLE m_hStream = nullptr;
  // The new-buffer event; set exactly while acquisition resources are
  // allocated on this stream.
  EVENT_HANDLE m_hEvent = nullptr;
};

// Images: m_hDataStream and m_hImageEvent of the camera.
class CImageStream : public CDataStream {};

// VSync tokens: m_hVSyncStream and m_hVSyncEvent of the camera.
class CVSyncStream : public CDataStream {};

}  // namespace kivcam::camera
