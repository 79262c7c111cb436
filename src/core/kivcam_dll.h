// The one library object of a process: owns the producers (and through them
// every interface and camera), the conversion handles, the handle table, the
// per-thread last errors and the application's bus-event callback with its
// thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "camera/image_buffer.h"
#include "core/handles.h"
#include "kivcam/kivcam.h"
#include "platform/platform.h"
#include "transport/events.h"
#include "transport/interface.h"

namespace kivcam::transport {
class CGenTL;
class CCameraPort;
}  // namespace kivcam::transport
namespace kivcam::camera {
class CCamera;
}

namespace kivcam::core {

class CConvHandle;

// The application's bus-event function: (event, context).
using BusEventCallback = void (*)(uint32_t event, void* context);

class CKivCamDLL : public transport::IBusEvents {
 public:
  // Raises Error when an event or the callback thread can't be made.
  CKivCamDLL();
  virtual ~CKivCamDLL();
  CKivCamDLL(const CKivCamDLL&) = delete;
  CKivCamDLL& operator=(const CKivCamDLL&) = delete;

  // Last error of the calling thread; 0 erases its entry. The text is the
  // failure's reason in words where there is one (empty otherwise); a new
  // code always replaces it.
  void SetErrorCode(uint32_t code, const char* text = nullptr);
  uint32_t GetErrorCode();
  std::string GetErrorText();

  platform::RecursiveLock& library_lock() { return library_lock_; }
  platform::RecursiveLock& api_lock() { return api_lock_; }

  // Loads the producers not yet loaded and refreshes their interfaces.
  // Called under the library lock.
  void CreateDrvList();

  // Fills the camera list (Count 0: only counts). Raises Error (2) when the
  // capacity is too small.
  void GetList(CameraList* list);

  // The open searches, under the API lock. Each gives the new object's
  // handle or raises Error (3, 4 or 5). Kind 0 tries every producer; the
  // read-only flag 1 is a watch-mode open.
  HCAMERA OpenCamera(const transport::DeviceMatch& match, uint32_t param, int32_t kind, uint8_t read_only);
  HCAMERAPORT OpenCameraPort();
  // Closes the object and forgets its handle; under the API lock.
  void Close(transport::CDevice& object);
  // Closes every camera of every interface; port objects stay.
  void CloseAllCameras();
  // Every open camera; under the API lock.
  std::vector<std::shared_ptr<camera::CCamera>> Cameras();

  // The live object behind a handle, else null. A reference keeps the object
  // (not its device) alive; it may be closed meanwhile.
  std::shared_ptr<camera::CCamera> FindCamera(const void* handle);
  std::shared_ptr<transport::CCameraPort> FindPort(const void* handle);
  std::shared_ptr<CConvHandle> FindConvHandle(const void* handle);
  // Whether `p` is the record of a live image buffer (of any camera).
  bool IsImageBuffer(const void* p) { return buffers_.OwnerOf(p) != nullptr; }

  // Owned free-standing conversion engines; destroyed with the library.
  HCTBL AddConvHandle(std::shared_ptr<CConvHandle> handle);
  void ReleaseConvHandle(const void* handle);
  void ReleaseAllConvHandles();

  // Application callback; the pair is replaced as one.
  void SetCallBack(BusEventCallback fn, void* context);

  // Reported by the interfaces' event threads; they only set events.
  void UserBusEvent() override;
  void PowerUpEvent(const transport::CGenTL* producer) override;

  // True on the library's callback thread.
  bool OnCallbackThread() const { return callback_thread_ && callback_thread_->IsCurrent(); }
  // Destruction asked for on the callback thread, which can't wait for
  // itself: everything the object owns is released now, the thread ends the
  // object once the application's function returns, and its handle goes to
  // whoever unloads the library, to join.
  std::unique_ptr<platform::Thread> DestroyFromCallback();

 private:
  template <typename Attempt>
  std::shared_ptr<transport::CDevice> Search(int32_t kind, bool any_kind, bool by_uid_or_key,
                                             Attempt&& attempt);
  void* Adopt(HandleKind kind, const std::shared_ptr<transport::CDevice>& object);
  // Producers (with their interfaces and cameras), conversion handles, errors.
  void ReleaseAll();
  static void UserCallBack_Thread(void* self);
  void CallbackLoop();

  platform::RecursiveLock library_lock_;
  platform::RecursiveLock api_lock_;
  // Image buffers of every camera; cameras give theirs back before the
  // producers go, so it is declared (and destroyed) before them.
  camera::CBufferPool buffers_;
  std::vector<std::unique_ptr<transport::CGenTL>> producers_;
  // The list's first producer, for the interfaces' event threads, which must
  // not read the list while it changes.
  std::atomic<const transport::CGenTL*> first_producer_{nullptr};
  std::vector<std::shared_ptr<CConvHandle>> conv_handles_;
  HandleTable handles_;
  struct LastError {
    uint32_t code;
    std::string text;
  };
  std::map<uint32_t, LastError> error_map_;
  BusEventCallback callback_ = nullptr;
  void* callback_context_ = nullptr;
  std::unique_ptr<platform::Event> exit_event_;
  std::unique_ptr<platform::Event> bus_reset_event_;
  std::unique_ptr<platform::Event> power_up_event_;
  platform::RecursiveLock error_map_lock_;
  platform::RecursiveLock callback_lock_;  // keeps function and context one pair
  std::vector<platform::RecursiveLock*> interface_locks_;
  std::unique_ptr<platform::Thread> callback_thread_;
  std::atomic<bool> destroy_on_callback_thread_{false};
};

// The process's library object; null after KIVCAM_FreeLibrary or
// KIVCAM_LogCommonAreaGet, or when it could not be constructed.
CKivCamDLL* Library();
// Destroys the library object (if any) and clears the pointer. On the
// callback thread it returns at once and the thread finishes the work.
void DestroyLibrary();
// Makes sure process exit is told apart from a dynamic unload; every export calls it.
void ArmExitDetection();

// Declared structure version; read and written under the API lock.
uint32_t StructVersion();
void SetStructVersionValue(uint32_t version);

}  // namespace kivcam::core
