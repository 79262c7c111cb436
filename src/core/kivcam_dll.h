// The one library object of a process: owns the producers (and through them
// every interface and camera), the conversion handles, the per-thread last
// errors and the application's bus-event callback with its thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/platform.h"

#include "kivcam/kivcam.h"

namespace kivcam::transport {
class CGenTL;
class CCameraPort;
}  // namespace kivcam::transport
namespace kivcam::camera {
class CCamera;
}

namespace kivcam::core {

class CBase;

// The application's bus-event function: (event, context).
using BusEventCallback = void (*)(uint32_t event, void* context);

constexpr uint32_t kEventBusReset = 1;
constexpr uint32_t kEventPowerUp = 2;

class CKivCamDLL {
 public:
  // Throws the integer 1 when an event or the callback thread can't be made.
  CKivCamDLL();
  virtual ~CKivCamDLL();
  CKivCamDLL(const CKivCamDLL&) = delete;
  CKivCamDLL& operator=(const CKivCamDLL&) = delete;

  // Last error of the calling thread; 0 erases its entry.
  void SetErrorCode(uint32_t code);
  uint32_t GetErrorCode();

  platform::RecursiveLock& library_lock() { return library_lock_; }
  platform::RecursiveLock& api_lock() { return api_lock_; }

  // Loads the producers not yet loaded and refreshes their interfaces.
  // Called under the library lock.
  void CreateDrvList();

  // Every interface lock, in list order, under the library lock.
  void LockAll();
  void UnlockAll();

  // The camera list; false with code 2 when the capacity is too small.
  bool GetList(CameraList* list);

  // The open searches: true when an object was opened; *out gets it or null
  // and the last error is set on failure. kind 0 tries every producer.
  bool OpenCamera(camera::CCamera** out, uint32_t param, int32_t kind, uint8_t read_only);
  bool OpenCamera(camera::CCamera** out, uint64_t uid, uint32_t param, int32_t kind, uint8_t read_only);
  bool OpenCamera(camera::CCamera** out, const std::string& key, uint32_t param, int32_t kind,
                  uint8_t read_only);
  bool OpenCameraPort(transport::CCameraPort** out);
  // Destroys every camera of every interface; port objects stay.
  void CloseAllCameras();

  // Application callback; the pair is replaced as one.
  void SetCallBack(BusEventCallback fn, void* context);

  // Reported by the interfaces' event threads; they only set events.
  void UserBusEvent();
  void PowerUpEvent(const transport::CGenTL* producer);
  // Diagnostics entry: a power wake-up as the first producer would report it.
  void FirstProducerPowerUp();

  // Owned free-standing objects (conversion handles); destroyed with the library.
  void AdoptConvHandle(CBase* handle);
  bool ReleaseConvHandle(CBase* handle);  // false when not ours
  void ReleaseAllConvHandles();

 private:
  template <typename Try>
  bool Search(int32_t kind, bool any_kind, uint32_t start, bool stop_at_busy, Try&& attempt);
  static void UserCallBack_Thread(void* self);
  void CallbackLoop();

  platform::RecursiveLock library_lock_;
  platform::RecursiveLock api_lock_;
  std::vector<transport::CGenTL*> producers_;
  // The list's first producer, for the interfaces' event threads, which must
  // not read the list while it changes.
  std::atomic<const transport::CGenTL*> first_producer_{nullptr};
  std::vector<CBase*> conv_handles_;
  std::map<uint32_t, uint32_t> error_map_;
  BusEventCallback callback_ = nullptr;
  void* callback_context_ = nullptr;
  std::unique_ptr<platform::Event> exit_event_;
  std::unique_ptr<platform::Event> thread_ended_event_;
  std::unique_ptr<platform::Event> bus_reset_event_;
  std::unique_ptr<platform::Event> power_up_event_;
  platform::RecursiveLock error_map_lock_;
  platform::RecursiveLock callback_lock_;  // keeps function and context one pair
  std::vector<platform::RecursiveLock*> interface_locks_;
  std::unique_ptr<platform::Thread> callback_thread_;
};

// The process's library object; null after KIVCAM_FreeLibrary or
// KIVCAM_LogCommonAreaGet, or when it could not be constructed.
CKivCamDLL* Library();
// Destroys the library object (if any) and clears the pointer.
void DestroyLibrary();
// Makes sure process exit is told apart from a dynamic unload; every export calls it.
void ArmExitDetection();

// Declared structure version; read and written under the API lock.
uint32_t StructVersion();
void SetStructVersionValue(uint32_t version);

}  // namespace kivcam::core
