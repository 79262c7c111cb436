// One interface of a producer (a network adapter, a USB host): its handle,
// its lock, the two threads that follow bus resets and power-up events, and
// the cameras and port-only objects opened through it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kivgentl/gentl.h"
#include "platform/platform.h"

namespace kivcam::camera {
class CCamera;
}

namespace kivcam::transport {

class CGenTL;
class CCameraPort;

// Results of the interface's open operations.
constexpr uint32_t kOpenDone = 0;
constexpr uint32_t kOpenBusy = 4;      // the device matched but is open elsewhere
constexpr uint32_t kOpenNone = 5;      // nothing could be opened
constexpr uint32_t kOpenFailed = 99;   // a producer call or the object failed

// What the camera list needs of one device.
struct DevInfo {
  uint64_t uid = 0;
  std::string vendor;
  std::string model;
  std::string key;  // information 1009
  uint32_t info1002 = 0;
  uint32_t link = 0;
};

class CInterface {
 public:
  // Raises core::Failure ("CreateEvent Error", "RegisterEvent Error",
  // "CreateThread Error"); the caller then closes `handle`.
  CInterface(CGenTL* producer, IF_HANDLE handle, const char* id);
  virtual ~CInterface();
  CInterface(const CInterface&) = delete;
  CInterface& operator=(const CInterface&) = delete;

  const std::string& id() const { return id_; }
  IF_HANDLE handle() const { return handle_; }
  CGenTL* producer() const { return producer_; }
  platform::RecursiveLock& lock() { return lock_; }

  void UpdateDeviceList();
  uint32_t GetDevCount();
  bool GetFirstDevID(std::string* id);
  // The ID at the next cursor position; empty when it can't be read.
  bool GetNextDevID(std::string* id);
  bool GetDevInfo(const std::string& id, DevInfo* out);

  uint32_t OpenCamera(camera::CCamera** out, uint32_t param, bool read_only);
  uint32_t OpenCamera(camera::CCamera** out, uint64_t uid, uint32_t param, bool read_only);
  uint32_t OpenCamera(camera::CCamera** out, const std::string& key, uint32_t param, bool read_only);
  uint32_t OpenCameraPort(CCameraPort** out);

  const std::vector<camera::CCamera*>& cameras() const { return cameras_; }
  const std::vector<CCameraPort*>& ports() const { return ports_; }
  // Called by the objects' destructors.
  void RemoveCamera(const camera::CCamera* c);
  void RemovePort(const CCameraPort* p);

 private:
  enum class Match { kFirst, kUid, kKey };
  uint32_t OpenDevice(Match how, uint64_t uid, const std::string& key, DEVICE_ACCESS_FLAGS access,
                      std::string* id, DEV_HANDLE* device);
  uint32_t OpenCamera(camera::CCamera** out, Match how, uint64_t uid, const std::string& key,
                      uint32_t param, bool read_only);
  template <typename T, typename Make>
  uint32_t Adopt(const char* op, DEV_HANDLE device, std::vector<T*>* list, T** out, Make&& make);
  bool ReadDeviceId(uint32_t index, std::string* id);
  static void BusReset_Thread(void* self);
  static void BusEventGet_Thread(void* self);
  void BusResetLoop();
  void BusEventLoop();
  void StartThread(void (*proc)(void*), std::unique_ptr<platform::Thread>* thread);

  platform::RecursiveLock lock_;
  std::string id_;
  IF_HANDLE handle_;
  CGenTL* producer_;
  EVENT_HANDLE event_ = nullptr;
  std::unique_ptr<platform::Event> event_thread_ended_;
  std::unique_ptr<platform::Event> started_;
  std::unique_ptr<platform::Event> stop_;
  std::unique_ptr<platform::Event> reset_thread_ended_;
  std::unique_ptr<platform::Event> reset_trigger_;
  std::unique_ptr<platform::Waitable> table_event_;
  uint32_t cursor_ = 0;
  std::vector<camera::CCamera*> cameras_;
  std::vector<CCameraPort*> ports_;
  std::unique_ptr<platform::Thread> reset_thread_;
  std::unique_ptr<platform::Thread> event_thread_;
};

}  // namespace kivcam::transport
