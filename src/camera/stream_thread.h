// The camera's stream thread and the image callback it calls: it announces
// buffers the producer allocates, queues them, calls the application's
// function once per delivered image and queues the buffer again, until the
// callback is removed, the resources are released or the producer fails.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "kivcam/kivcam.h"
#include "kivgentl/gentl.h"
#include "platform/platform.h"

namespace kivcam::camera {

class CCamera;

class CStreamThread {
 public:
  // Raises Error ("CreateEvent Error") when an event can't be made.
  explicit CStreamThread(CCamera& camera);
  ~CStreamThread();
  CStreamThread(const CStreamThread&) = delete;
  CStreamThread& operator=(const CStreamThread&) = delete;

  // SetImageCallBack, under the camera lock: installs the callback and
  // returns once the thread has queued its buffers. Raises Error (12 when a
  // callback is installed or its thread has not ended yet, 99 when the thread
  // can't be made). width/height: the geometry read for the thread, or
  // `geometry_ok` false when it could not be read.
  void Start(void* context, ImageCallBack callback, uint32_t count, bool pass_info, uint32_t width,
             uint32_t height, bool geometry_ok);
  // StopImageCallBack, under the camera lock: ends the thread and removes the
  // callback. Waits for the thread with the camera lock given up, so that the
  // callback may take it; on the thread itself it only asks it to end.
  void Stop();
  // The camera's teardown on the stream thread itself (from inside the
  // callback): everything the thread holds is released by the teardown, so
  // after the callback returns the thread touches nothing and ends.
  void Abandon();

  bool installed() const { return m_pfnImageCallBack.load(std::memory_order_acquire) != nullptr; }
  bool OnThread() const { return thread_ && thread_->IsCurrent(); }

 private:
  static void Stream_Thread(void* self);
  void Run();
  // Queues the thread's own buffers; false (text logged) when a call fails.
  bool AnnounceBuffers(std::vector<BUFFER_HANDLE>* own);
  void JoinEnded();

  CCamera& camera_;
  std::unique_ptr<platform::Event> m_hStopEvent;     // asks the thread to end
  std::unique_ptr<platform::Event> m_hStartedEvent;  // the thread has queued its buffers
  // The thread has ended: one event per thread, never reset, so that every
  // removal waiting for a thread sees its end, whoever finished first.
  std::shared_ptr<platform::Event> m_hEndedEvent;
  std::atomic<ImageCallBack> m_pfnImageCallBack{nullptr};
  void* m_pCallBackContext = nullptr;
  uint32_t m_nStreamBufCount = 0;
  bool m_bImageInfo = false;
  uint32_t width_ = 0;
  uint32_t height_ = 0;
  bool geometry_ok_ = false;
  std::atomic<bool> abandoned_{false};
  std::unique_ptr<platform::Thread> thread_;
};

}  // namespace kivcam::camera
