#include "camera/stream_thread.h"

#include "camera/camera.h"
#include "diag/call_log.h"
#include "diag/error.h"
#include "transport/gentl.h"
#include "transport/ids.h"

namespace kivcam::camera {

namespace {
const char kThreadName[] = "CCamera::Stream_Thread";
constexpr uint64_t kWaitMs = 1000;
constexpr uint32_t kIoErrorPauseMs = 10;
}  // namespace

CStreamThread::CStreamThread(CCamera& camera)
    : camera_(camera),
      m_hStopEvent(std::make_unique<platform::Event>(true, false)),
      m_hStartedEvent(std::make_unique<platform::Event>(true, false)),
      m_hEndedEvent(std::make_shared<platform::Event>(true, false)) {
  if (!m_hStopEvent->ok() || !m_hStartedEvent->ok() || !m_hEndedEvent->ok()) {
    throw Failure("CreateEvent Error");
  }
}

CStreamThread::~CStreamThread() {
  if (!thread_) return;
  // The last reference to the camera may go on its own stream thread.
  if (thread_->IsCurrent()) {
    platform::RetireThread(std::move(thread_));
  } else {
    m_hStopEvent->Set();
    thread_->Join();
  }
}

void CStreamThread::JoinEnded() {
  if (thread_ && !thread_->IsCurrent()) {
    thread_->Join();
    thread_.reset();
  }
}

void CStreamThread::Start(void* context, ImageCallBack callback, uint32_t count, bool pass_info,
                          uint32_t width, uint32_t height, bool geometry_ok) {
  if (installed()) throw Error(KIVCAM_ERR_BUFFER_BUSY);
  // A thread told to end from inside its own callback may still be running
  // it; a new one can't start from there.
  if (thread_ && thread_->IsCurrent()) throw Error(KIVCAM_ERR_BUFFER_BUSY);
  JoinEnded();
  auto ended = std::make_shared<platform::Event>(true, false);
  if (!ended->ok()) throw Failure("CreateEvent Error");
  m_hEndedEvent = std::move(ended);
  m_hStartedEvent->Reset();
  m_hStopEvent->Reset();
  m_pCallBackContext = context;
  m_nStreamBufCount = count;
  m_bImageInfo = pass_info;
  width_ = width;
  height_ = height;
  geometry_ok_ = geometry_ok;
  abandoned_ = false;
  m_pfnImageCallBack.store(callback, std::memory_order_release);
  thread_ = platform::Thread::Start(&Stream_Thread, this);
  if (!thread_) {
    m_pfnImageCallBack = nullptr;
    m_pCallBackContext = nullptr;
    m_nStreamBufCount = 0;
    m_bImageInfo = false;
    throw Error(KIVCAM_ERR_OTHER);
  }
  thread_->SetTimeCritical();
  m_hStartedEvent->Wait(platform::kInfinite);
}

void CStreamThread::Stop() {
  if (!installed()) {
    JoinEnded();
    return;
  }
  m_hStopEvent->Set();
  if (thread_ && thread_->IsCurrent()) {
    // From inside the callback: the thread ends once it returns.
    m_pfnImageCallBack = nullptr;
    return;
  }
  camera_.m_imageStream.KillWaits();
  const std::shared_ptr<platform::Event> ended = m_hEndedEvent;
  {
    platform::LockRelease unlocked(camera_.lock());
    ended->Wait(platform::kInfinite);
  }
  // Another removal (or a close) that waited too may have finished the job,
  // and a new callback may have started since: that one is not ours to end.
  if (ended != m_hEndedEvent) return;
  JoinEnded();
  m_pfnImageCallBack = nullptr;
  m_hStartedEvent->Reset();
  m_hStopEvent->Reset();
}

void CStreamThread::Abandon() {
  abandoned_ = true;
  m_hStopEvent->Set();
  m_pfnImageCallBack = nullptr;
}

void CStreamThread::Stream_Thread(void* self) { static_cast<CStreamThread*>(self)->Run(); }

bool CStreamThread::AnnounceBuffers(std::vector<BUFFER_HANDLE>* own) {
  const transport::EntryPoints& fn = camera_.producer()->fn();
  DS_HANDLE stream = camera_.m_imageStream.handle();
  for (uint32_t i = 0; i < m_nStreamBufCount; ++i) {
    BUFFER_HANDLE b = nullptr;
    // No address: the producer allocates the buffer.
    if (fn.DSAnnounceBuffer(stream, nullptr, camera_.m_nBufferSize, nullptr, &b) != GC_ERR_SUCCESS) {
      camera_.producer()->LogLastError(kThreadName);
      return false;
    }
    own->push_back(b);
    if (fn.DSQueueBuffer(stream, b) != GC_ERR_SUCCESS) {
      camera_.producer()->LogLastError(kThreadName);
      return false;
    }
  }
  return true;
}

void CStreamThread::Run() {
  // The camera lives as long as its thread: closed from inside the callback,
  // it is released here at the earliest.
  std::shared_ptr<transport::CDevice> keep = camera_.shared_from_this();
  const std::shared_ptr<platform::Event> ended = m_hEndedEvent;
  transport::CGenTL* producer = camera_.producer();
  producer->PrepareThread();
  const transport::EntryPoints& fn = producer->fn();
  CImageStream& stream = camera_.m_imageStream;
  diag::LogEvent(false, kThreadName, "Start");
  diag::LogDump(false, kThreadName, "Stream BufCount",
                reinterpret_cast<const void*>(static_cast<uintptr_t>(m_nStreamBufCount)));
  camera_.ResetStreamIfFailed();

  std::vector<BUFFER_HANDLE> own;
  bool run = geometry_ok_;
  if (!run) diag::LogEvent(false, kThreadName, "Width Height Read Error");
  if (run) run = AnnounceBuffers(&own);
  if (run) {
    m_hStartedEvent->Set();
    // The largest transport record (GigE's) fits.
    ImageInfo info{};
    NewBufferEvent event;
    GC_ERROR rc = stream.WaitNewBuffer(kWaitMs, &event);
    while (!m_hStopEvent->Wait(0)) {
      if (rc == GC_ERR_TIMEOUT) {
        // The kill of an unplug may have gone to another waiter.
        if (!camera_.visible()) break;
        // A watcher's stream may end without a word: the controller is gone.
        if (camera_.WatchedStreamGone()) {
          diag::LogEvent(false, kThreadName, "Watched stream ended");
          break;
        }
        rc = stream.WaitNewBuffer(kWaitMs, &event);
        continue;
      }
      if (rc != GC_ERR_SUCCESS) {
        producer->LogLastError(kThreadName);
        break;
      }
      uint32_t status = 0, value = 0;
      INFO_DATATYPE type = 0;
      size_t size = sizeof status;
      if (fn.DSGetBufferInfo(stream.handle(), event.buffer, kBufferInfoStatus, &type, &status, &size) !=
          GC_ERR_SUCCESS) {
        producer->LogLastError(kThreadName);
        break;
      }
      size = sizeof value;
      if (fn.DSGetBufferInfo(stream.handle(), event.buffer, kBufferInfoValue, &type, &value, &size) !=
          GC_ERR_SUCCESS) {
        producer->LogLastError(kThreadName);
        break;
      }
      bool good = GoodStatus(status);
      if (!good) camera_.NoteFailedStatus(kThreadName, status, /*pause=*/true);
      ImageCallBack callback = m_pfnImageCallBack.load(std::memory_order_acquire);
      if (!callback) break;
      if (!event.data) {
        // A buffer announced without telling where its data is: nothing to hand over.
        if (fn.DSQueueBuffer(stream.handle(), event.buffer) != GC_ERR_SUCCESS) break;
        rc = stream.WaitNewBuffer(kWaitMs, &event);
        continue;
      }
      {
        ImageInfo* passed = nullptr;
        if (m_bImageInfo) {
          camera_.GetImageInfo(event.data, status, value, &info);
          passed = &info;
        }
        diag::LogEvent(true, kThreadName, "Stream UserCallback Start");
        callback(static_cast<HCAMERA>(camera_.handle()), event.data, good ? camera_.m_nPayloadSize : 0, width_,
                 height_, passed, m_pCallBackContext);
        diag::LogEvent(true, kThreadName, "Stream UserCallback End  ");
        if (abandoned_) {
          // The callback closed the camera (or freed the library): its
          // teardown released everything, the producer may be gone.
          m_hStartedEvent->Set();
          ended->Set();
          diag::LogEvent(false, kThreadName, "End  ");
          return;
        }
        if (fn.DSQueueBuffer(stream.handle(), event.buffer) != GC_ERR_SUCCESS) {
          producer->LogLastError(kThreadName);
          break;
        }
      }
      // Removed from inside the callback: no second wait of a second.
      if (m_hStopEvent->Wait(0)) break;
      rc = stream.WaitNewBuffer(kWaitMs, &event);
    }
    // A completion waiting on the same event is told the thread has gone.
    stream.KillWaits();
  }
  stream.FlushQueues();
  for (BUFFER_HANDLE b : own) fn.DSRevokeBuffer(stream.handle(), b, nullptr, nullptr);
  m_hStartedEvent->Set();
  ended->Set();
  diag::LogEvent(false, kThreadName, "End  ");
}

}  // namespace kivcam::camera
