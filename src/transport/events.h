// How the transport layer reports bus happenings upward: the library object
// hands this interface to every producer it loads, and the interfaces' event
// threads call it. Implementations only set events; they never block.
#pragma once

namespace kivcam::transport {

class CGenTL;

class IBusEvents {
 public:
  // A bus reset was seen on some interface.
  virtual void UserBusEvent() = 0;
  // `producer` reported a power wake-up.
  virtual void PowerUpEvent(const CGenTL* producer) = 0;

 protected:
  ~IBusEvents() = default;
};

}  // namespace kivcam::transport
