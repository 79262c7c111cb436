#include "core/kivcam_dll.h"

#include <algorithm>

#include "camera/camera.h"
#include "core/conv_handle.h"
#include "diag/call_log.h"
#include "diag/error.h"
#include "transport/camera_port.h"
#include "transport/gentl.h"
#include "transport/interface.h"

namespace kivcam::core {

namespace {
const char kCtorName[] = "CKivCamDLL::CKivCamDLL";
const char kThreadName[] = "CKivCamDLL::UserCallBack_Thread";
}  // namespace

CKivCamDLL::CKivCamDLL() {
  exit_event_ = std::make_unique<platform::Event>(true, false);
  bus_reset_event_ = std::make_unique<platform::Event>(false, false);
  power_up_event_ = std::make_unique<platform::Event>(false, false);
  if (!exit_event_->ok() || !bus_reset_event_->ok() || !power_up_event_->ok()) {
    diag::LogEvent(false, kCtorName, "CreateEvent Error");
    throw Error(KIVCAM_ERR_OTHER);
  }
  callback_thread_ = platform::Thread::Start(&UserCallBack_Thread, this);
  if (!callback_thread_) throw Error(KIVCAM_ERR_OTHER);
  callback_thread_->SetTimeCritical();
}

CKivCamDLL::~CKivCamDLL() {
  ReleaseAll();
  exit_event_->Set();
  // Joined, not only signalled: a dynamic unload must not unmap the thread's
  // code under it. On the thread itself (DestroyFromCallback) the handle is
  // already gone to whoever unloads.
  if (callback_thread_) callback_thread_->Join();
}

void CKivCamDLL::ReleaseAll() {
  // Producers come first: they own the interfaces, which own the cameras.
  interface_locks_.clear();
  first_producer_ = nullptr;
  while (!producers_.empty()) producers_.erase(producers_.begin());
  ReleaseAllConvHandles();
  platform::LockGuard g(error_map_lock_);
  error_map_.clear();
}

namespace {
// The library object and thread id for which this thread last saw the error
// map without an entry of its id: clearing its code then has nothing to erase.
// A thread, or a forked child, with an id of its own matches neither.
__attribute__((tls_model("initial-exec"))) thread_local const CKivCamDLL* t_clean_library = nullptr;
__attribute__((tls_model("initial-exec"))) thread_local uint32_t t_clean_tid = 0;
}  // namespace

void CKivCamDLL::SetErrorCode(uint32_t code, const char* text) {
  uint32_t tid = platform::ThreadId();
  // Every export clears the code first; without an entry that is a no-op and
  // needs neither the lock nor a lookup.
  if (code == 0 && t_clean_library == this && t_clean_tid == tid) return;
  t_clean_library = nullptr;
  platform::LockGuard g(error_map_lock_);
  auto it = error_map_.find(tid);
  if (code != 0) {
    if (it != error_map_.end()) {
      it->second.code = code;
      it->second.text = text ? text : "";
    } else {
      error_map_.emplace_hint(it, tid, LastError{code, text ? text : ""});
    }
  } else {
    if (it != error_map_.end()) error_map_.erase(it);
    t_clean_library = this;
    t_clean_tid = tid;
  }
}

uint32_t CKivCamDLL::GetErrorCode() {
  uint32_t tid = platform::ThreadId();
  platform::LockGuard g(error_map_lock_);
  auto it = error_map_.find(tid);
  return it == error_map_.end() ? 0 : it->second.code;
}

std::string CKivCamDLL::GetErrorText() {
  uint32_t tid = platform::ThreadId();
  platform::LockGuard g(error_map_lock_);
  auto it = error_map_.find(tid);
  return it == error_map_.end() ? std::string() : it->second.text;
}

void CKivCamDLL::CreateDrvList() {
  static const char kName[] = "CKivCamDLL::CreateDrvList";
  for (const transport::ProducerRow* row = transport::kProducerTable; row->kind != -1; ++row) {
    bool loaded = std::any_of(producers_.begin(), producers_.end(),
                              [&](const auto& p) { return p->kind() == row->kind; });
    if (loaded) continue;
    try {
      producers_.push_back(std::make_unique<transport::CGenTL>(row->kind, row->file, this));
    } catch (const Error& e) {
      diag::LogEvent(false, kName, LogText(e));
    } catch (...) {
      diag::LogEvent(false, kName, kOtherErrorText);
    }
  }
  if (!producers_.empty()) first_producer_ = producers_.front().get();
  for (const auto& p : producers_) p->UpdateInterface();
  interface_locks_.clear();
  for (const auto& p : producers_) {
    for (const auto& i : p->interfaces()) interface_locks_.push_back(&i->lock());
  }
}

std::shared_ptr<camera::CCamera> CKivCamDLL::FindCamera(const void* handle) {
  return handles_.Get<camera::CCamera>(handle, HandleKind::kCamera);
}

std::shared_ptr<transport::CCameraPort> CKivCamDLL::FindPort(const void* handle) {
  return handles_.Get<transport::CCameraPort>(handle, HandleKind::kPort);
}

std::shared_ptr<CConvHandle> CKivCamDLL::FindConvHandle(const void* handle) {
  return handles_.Get<CConvHandle>(handle, HandleKind::kConv);
}

void* CKivCamDLL::Adopt(HandleKind kind, const std::shared_ptr<transport::CDevice>& object) {
  // A camera object is a CDevice first: the table keeps the same address
  // for both views.
  std::shared_ptr<void> as_void;
  if (kind == HandleKind::kCamera) {
    as_void = std::static_pointer_cast<camera::CCamera>(object);
  } else {
    as_void = std::static_pointer_cast<transport::CCameraPort>(object);
  }
  void* handle = handles_.Add(kind, as_void);
  if (!handle) {
    object->owner()->Destroy(object.get());
    throw Failure("Handle Space Exhausted");
  }
  object->set_handle(handle);
  return handle;
}

void CKivCamDLL::Close(transport::CDevice& object) {
  handles_.Remove(object.handle());
  object.owner()->Destroy(&object);
}

void CKivCamDLL::CloseAllCameras() {
  for (const auto& p : producers_) {
    for (const auto& i : p->interfaces()) i->DestroyAllCameras();
  }
}

std::vector<std::shared_ptr<camera::CCamera>> CKivCamDLL::Cameras() {
  std::vector<std::shared_ptr<camera::CCamera>> all;
  for (const auto& p : producers_) {
    for (const auto& i : p->interfaces()) {
      for (const auto& d : i->Cameras()) all.push_back(std::static_pointer_cast<camera::CCamera>(d));
    }
  }
  return all;
}

HCTBL CKivCamDLL::AddConvHandle(std::shared_ptr<CConvHandle> handle) {
  void* h = handles_.Add(HandleKind::kConv, handle);
  if (!h) throw Failure("Handle Space Exhausted");
  conv_handles_.push_back(std::move(handle));
  return static_cast<HCTBL>(h);
}

void CKivCamDLL::ReleaseConvHandle(const void* handle) {
  std::shared_ptr<CConvHandle> h = FindConvHandle(handle);
  handles_.Remove(handle);
  conv_handles_.erase(std::remove(conv_handles_.begin(), conv_handles_.end(), h), conv_handles_.end());
}

void CKivCamDLL::ReleaseAllConvHandles() {
  // One by one from the front; the table forgets each with its object.
  while (!conv_handles_.empty()) conv_handles_.erase(conv_handles_.begin());
}

void CKivCamDLL::SetCallBack(BusEventCallback fn, void* context) {
  platform::LockGuard g(callback_lock_);
  callback_ = fn;
  callback_context_ = context;
}

void CKivCamDLL::UserBusEvent() {
  diag::LogEvent(false, "CKivCamDLL::UserBusEvent", "BusReset Detection");
  bus_reset_event_->Set();
}

void CKivCamDLL::PowerUpEvent(const transport::CGenTL* producer) {
  // Only the first producer (GigE, when loaded) speaks for power wake-ups.
  if (producer == nullptr || first_producer_.load() != producer) return;
  diag::LogEvent(false, "CKivCamDLL::PowerUpEvent", "PowerWakeUP Detection");
  power_up_event_->Set();
}

std::unique_ptr<platform::Thread> CKivCamDLL::DestroyFromCallback() {
  // Everything that unloads producers happens now, on this thread: once the
  // function returns, an unload may hold the loader's lock while it waits for
  // the thread, which then must need nothing but to end.
  ReleaseAll();
  destroy_on_callback_thread_ = true;
  exit_event_->Set();
  return std::move(callback_thread_);
}

void CKivCamDLL::UserCallBack_Thread(void* self) {
  static_cast<CKivCamDLL*>(self)->CallbackLoop();
}

void CKivCamDLL::CallbackLoop() {
  diag::LogEvent(false, kThreadName, "Start");
  platform::Waitable* waits[3] = {exit_event_.get(), bus_reset_event_.get(), power_up_event_.get()};
  for (;;) {
    int which = platform::WaitAny(waits, 3, platform::kInfinite);
    if (which == 0 || which < 0) break;  // exit, or a wait that can't go on
    BusEventCallback fn;
    void* context;
    {
      platform::LockGuard g(callback_lock_);
      fn = callback_;
      context = callback_context_;
    }
    if (!fn) continue;  // the happening is dropped
    if (which == 1) {
      diag::LogEvent(false, kThreadName, "BusReset User Proc Start");
      fn(KIVCAM_EVENT_BUSRESET, context);
      diag::LogEvent(false, kThreadName, "BusReset User Proc End  ");
    } else {
      diag::LogEvent(false, kThreadName, "PowerWakeUP User Proc Start");
      fn(KIVCAM_EVENT_POWERUP, context);
      diag::LogEvent(false, kThreadName, "PowerWakeUP User Proc End  ");
    }
  }
  diag::LogEvent(false, kThreadName, "End  ");
  // The application's function freed the library: the object ends here, on
  // its own thread, which nothing waits for but the unload.
  if (destroy_on_callback_thread_) delete this;
}

}  // namespace kivcam::core
