// The camera's stream thread: the handshake events it ends and starts by.
// The thread and the image callback it calls join this class with
// acquisition; the events exist from the camera's construction.
#pragma once

#include <memory>

#include "platform/platform.h"

namespace kivcam::camera {

class CStreamThread {
 public:
  // Raises Error ("CreateEvent Error") when an event can't be made.
  CStreamThread();

 private:
  std::unique_ptr<platform::Event> m_hStopEvent;     // asks the thread to end
  std::unique_ptr<platform::Event> m_hStartedEvent;  // the thread has queued its buffers
  std::unique_ptr<platform::Event> m_hEndedEvent;    // the thread has ended
};

}  // namespace kivcam::camera
