#include "camera/stream_thread.h"

#include "diag/error.h"

namespace kivcam::camera {

CStreamThread::CStreamThread()
    : m_hStopEvent(std::make_unique<platform::Event>(true, false)),
      m_hStartedEvent(std::make_unique<platform::Event>(true, false)),
      m_hEndedEvent(std::make_unique<platform::Event>(true, false)) {
  if (!m_hStopEvent->ok() || !m_hStartedEvent->ok() || !m_hEndedEvent->ok()) {
    throw Failure("CreateEvent Error");
  }
}

}  // namespace kivcam::camera
