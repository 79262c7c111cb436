// One interface of a producer (a network adapter, a USB host): its handle,
// its lock, the two threads that follow bus resets and power-up events, and
// the cameras and port-only objects opened through it, which it owns.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kivgentl/gentl.h"
#include "platform/platform.h"
#include "transport/device.h"

namespace kivcam::transport {

class CGenTL;
class IBusEvents;

// What the camera list needs of one device.
struct DevInfo {
  uint64_t uid = 0;
  std::string vendor;
  std::string model;
  std::string key;  // information 1009
  uint32_t info1002 = 0;
  uint32_t link = 0;
};

// Which device an open takes.
struct DeviceMatch {
  enum Kind { kFirst, kUid, kKey };
  Kind kind = kFirst;
  uint64_t uid = 0;
  std::string key;
};

// Outcome of an open on one interface.
enum class OpenResult {
  kOpened,
  kBusy,    // the device matched but the producer reports it open elsewhere
  kNone,    // nothing could be opened
  kFailed,  // a producer call or the object's construction failed
};

// What an open makes of the device it opened: a camera or a port-only
// object. It takes the handle over; raising Error leaves the handle to be
// closed by the interface.
using DeviceFactory = std::function<std::shared_ptr<CDevice>(DeviceHandle& device, const std::string& id)>;

class CInterface {
 public:
  // Raises Error ("CreateEvent Error", "RegisterEvent Error", "CreateThread
  // Error"); the caller then closes `handle`.
  CInterface(CGenTL* producer, IF_HANDLE handle, const char* id, IBusEvents* events);
  ~CInterface();
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

  // Opens the matching device (read-only or exclusive) and keeps what `make`
  // builds of it in the camera array. A failing construction is logged under
  // "CInterface::OpenCamera" and closes the device again.
  OpenResult OpenCamera(const DeviceMatch& match, bool read_only, const DeviceFactory& make,
                        std::shared_ptr<CDevice>* out);
  // The same for a port-only object: the first free device, exclusive.
  OpenResult OpenCameraPort(const DeviceFactory& make, std::shared_ptr<CDevice>* out);

  // The one way an object leaves the interface: out of its array (so no bus
  // reset reaches it any more), then closed. False when it is not held here.
  bool Destroy(const CDevice* object);
  // Destroys every camera, first to last.
  void DestroyAllCameras();
  // The cameras held now.
  std::vector<std::shared_ptr<CDevice>> Cameras();
  size_t camera_count();

 private:
  using Devices = std::vector<std::shared_ptr<CDevice>>;
  OpenResult OpenDevice(const DeviceMatch& match, DEVICE_ACCESS_FLAGS access, std::string* id,
                        DeviceHandle* device);
  OpenResult Adopt(const char* op, const std::string& id, DeviceHandle device, const DeviceFactory& make,
                   Devices* list, std::shared_ptr<CDevice>* out);
  bool ReadDeviceId(uint32_t index, std::string* id);
  static void BusReset_Thread(void* self);
  static void BusEventGet_Thread(void* self);
  void BusResetLoop();
  void BusEventLoop();
  void StartThread(void (*proc)(void*), std::unique_ptr<platform::Thread>* thread);
  void StopThreads();

  platform::RecursiveLock lock_;
  std::string id_;
  IF_HANDLE handle_;
  CGenTL* producer_;
  IBusEvents* events_;
  EVENT_HANDLE event_ = nullptr;
  std::unique_ptr<platform::Event> started_;
  std::unique_ptr<platform::Event> stop_;
  std::unique_ptr<platform::Event> reset_trigger_;
  std::unique_ptr<platform::Waitable> table_event_;
  uint32_t cursor_ = 0;
  Devices cameras_;
  Devices ports_;
  std::unique_ptr<platform::Thread> reset_thread_;
  std::unique_ptr<platform::Thread> event_thread_;
};

}  // namespace kivcam::transport
