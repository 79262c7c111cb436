#include "core/kivcam_dll.h"

#include "camera/camera.h"
#include "core/base.h"
#include "core/failure.h"
#include "diag/call_log.h"
#include "transport/gentl.h"
#include "transport/interface.h"

namespace kivcam::core {

namespace {
const char kCtorName[] = "CKivCamDLL::CKivCamDLL";
const char kThreadName[] = "CKivCamDLL::UserCallBack_Thread";
}  // namespace

CKivCamDLL::CKivCamDLL() {
  exit_event_ = std::make_unique<platform::Event>(true, false);
  thread_ended_event_ = std::make_unique<platform::Event>(true, false);
  bus_reset_event_ = std::make_unique<platform::Event>(false, false);
  power_up_event_ = std::make_unique<platform::Event>(false, false);
  if (!exit_event_->ok() || !thread_ended_event_->ok() || !bus_reset_event_->ok() ||
      !power_up_event_->ok()) {
    diag::LogEvent(false, kCtorName, "CreateEvent Error");
    throw 1;
  }
  callback_thread_ = platform::Thread::Start(&UserCallBack_Thread, this);
  if (!callback_thread_) throw 1;
  callback_thread_->SetTimeCritical();
}

CKivCamDLL::~CKivCamDLL() {
  // Producers come first: they own the interfaces, which own the cameras.
  interface_locks_.clear();
  first_producer_ = nullptr;
  while (!producers_.empty()) {
    transport::CGenTL* p = producers_.front();
    producers_.erase(producers_.begin());
    delete p;
  }
  ReleaseAllConvHandles();
  {
    platform::LockGuard g(error_map_lock_);
    error_map_.clear();
  }
  exit_event_->Set();
  thread_ended_event_->Wait(platform::kInfinite);
  // The thread still runs its last line after the event; a dynamic unload
  // must not unmap that code under it.
  callback_thread_->Join();
}

void CKivCamDLL::SetErrorCode(uint32_t code) {
  uint32_t tid = platform::ThreadId();
  platform::LockGuard g(error_map_lock_);
  auto it = error_map_.find(tid);
  if (code != 0) {
    if (it != error_map_.end()) {
      it->second = code;
    } else {
      error_map_.emplace_hint(it, tid, code);
    }
  } else if (it != error_map_.end()) {
    error_map_.erase(it);
  }
}

uint32_t CKivCamDLL::GetErrorCode() {
  uint32_t tid = platform::ThreadId();
  platform::LockGuard g(error_map_lock_);
  auto it = error_map_.find(tid);
  return it == error_map_.end() ? 0 : it->second;
}

void CKivCamDLL::CreateDrvList() {
  static const char kName[] = "CKivCamDLL::CreateDrvList";
  for (const transport::ProducerRow* row = transport::kProducerTable; row->kind != -1; ++row) {
    bool loaded = false;
    for (transport::CGenTL* p : producers_) loaded |= p->kind() == row->kind;
    if (loaded) continue;
    try {
      producers_.push_back(new transport::CGenTL(row->kind, row->file));
    } catch (const Failure& f) {
      diag::LogEvent(false, kName, f.text());
    } catch (...) {
      diag::LogEvent(false, kName, "Other Error");
    }
  }
  if (!producers_.empty()) first_producer_ = producers_.front();
  for (transport::CGenTL* p : producers_) p->UpdateInterface();
  interface_locks_.clear();
  for (transport::CGenTL* p : producers_) {
    for (transport::CInterface* i : p->interfaces()) interface_locks_.push_back(&i->lock());
  }
}

void CKivCamDLL::LockAll() {
  platform::LockGuard g(library_lock_);
  for (platform::RecursiveLock* l : interface_locks_) l->Lock();
}

void CKivCamDLL::UnlockAll() {
  // Without the library lock: taking it here, behind the interface locks,
  // would invert the order LockAll takes them in. The list only changes
  // under the API lock, which every caller of the pair holds.
  for (auto it = interface_locks_.rbegin(); it != interface_locks_.rend(); ++it) (*it)->Unlock();
}

void CKivCamDLL::CloseAllCameras() {
  for (transport::CGenTL* p : producers_) {
    for (transport::CInterface* i : p->interfaces()) {
      while (!i->cameras().empty()) camera::DestroyCamera(i->cameras().front());
    }
  }
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
  FirstProducerPowerUp();
}

void CKivCamDLL::FirstProducerPowerUp() {
  diag::LogEvent(false, "CKivCamDLL::PowerUpEvent", "PowerWakeUP Detection");
  power_up_event_->Set();
}

void CKivCamDLL::AdoptConvHandle(CBase* handle) { conv_handles_.push_back(handle); }

bool CKivCamDLL::ReleaseConvHandle(CBase* handle) {
  for (auto it = conv_handles_.begin(); it != conv_handles_.end(); ++it) {
    if (*it != handle) continue;
    conv_handles_.erase(it);
    registry::Remove(handle);
    delete handle;
    return true;
  }
  return false;
}

void CKivCamDLL::ReleaseAllConvHandles() {
  while (!conv_handles_.empty()) {
    CBase* h = conv_handles_.front();
    conv_handles_.erase(conv_handles_.begin());
    registry::Remove(h);
    delete h;
  }
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
      fn(kEventBusReset, context);
      diag::LogEvent(false, kThreadName, "BusReset User Proc End  ");
    } else {
      diag::LogEvent(false, kThreadName, "PowerWakeUP User Proc Start");
      fn(kEventPowerUp, context);
      diag::LogEvent(false, kThreadName, "PowerWakeUP User Proc End  ");
    }
  }
  thread_ended_event_->Set();
  diag::LogEvent(false, kThreadName, "End  ");
}

}  // namespace kivcam::core
