#include "transport/interface.h"

#include <cstring>

#include "camera/camera.h"
#include "core/base.h"
#include "core/failure.h"
#include "core/kivcam_dll.h"
#include "diag/call_log.h"
#include "kivcam/kivcam.h"
#include "transport/camera_port.h"
#include "transport/gentl.h"

namespace kivcam::transport {

namespace {
const char kCtorName[] = "CInterface::CInterface";
const char kCountName[] = "CInterface::GetDevCount";
const char kInfoName[] = "CInterface::GetDevInfo";
const char kOpenName[] = "CInterface::OpenCamera";
const char kOpenPortName[] = "CInterface::OpenCameraPort";
const char kResetThreadName[] = "CInterface::BusReset_Thread";
const char kEventThreadName[] = "CInterface::BusEventGet_Thread";
constexpr size_t kInfoBytes = 1024;
constexpr uint64_t kTimeoutMs = 1000;
constexpr EVENT_TYPE kInterfaceEvent = 1000;  // the producers' bus event
constexpr int32_t kInfoKey = 1009;
constexpr int32_t kInfoLink = 1001;
constexpr int32_t kInfo1002 = 1002;
const char kAlreadyOpen[] = "Device already open";

std::unique_ptr<platform::Event> NewEvent(bool manual) {
  auto e = std::make_unique<platform::Event>(manual, false);
  if (!e->ok()) throw core::Failure("CreateEvent Error");
  return e;
}

}  // namespace

CInterface::CInterface(CGenTL* producer, IF_HANDLE handle, const char* id)
    : id_(id), handle_(handle), producer_(producer) {
  event_thread_ended_ = NewEvent(true);
  started_ = NewEvent(true);
  stop_ = NewEvent(true);
  reset_thread_ended_ = NewEvent(true);
  reset_trigger_ = NewEvent(false);

  // Other processes wake the USB and IIDC interfaces through a per-process name.
  const char* prefix = nullptr;
  if (producer->kind() == kKindUSB) prefix = KIVCAM_PROCESS_USB_EVENT_PREFIX;
  if (producer->kind() == kKindIIDC) prefix = KIVCAM_PROCESS_IIDC_EVENT_PREFIX;
  if (prefix) {
    table_event_ = platform::NamedEvent::CreateOrOpen(prefix + std::to_string(platform::ProcessId()));
  } else {
    auto e = std::make_unique<platform::Event>(false, false);
    if (e->ok()) table_event_ = std::move(e);
  }
  if (!table_event_) {
    diag::LogEvent(false, kCtorName, "CreateEvent Error");
    throw core::Failure("CreateEvent Error");
  }

  const EntryPoints& fn = producer_->fn();
  if (fn.GCRegisterEvent(handle_, kInterfaceEvent, &event_) != GC_ERR_SUCCESS) {
    throw core::Failure("RegisterEvent Error");
  }
  try {
    StartThread(&BusReset_Thread, &reset_thread_);
  } catch (...) {
    fn.GCUnregisterEvent(handle_, kInterfaceEvent);
    throw;
  }
  try {
    StartThread(&BusEventGet_Thread, &event_thread_);
  } catch (...) {
    stop_->Set();
    reset_thread_ended_->Wait(platform::kInfinite);
    reset_thread_->Join();
    fn.GCUnregisterEvent(handle_, kInterfaceEvent);
    throw;
  }
  fn.IFUpdateDeviceList(handle_, nullptr, kTimeoutMs);
}

void CInterface::StartThread(void (*proc)(void*), std::unique_ptr<platform::Thread>* thread) {
  *thread = platform::Thread::Start(proc, this);
  if (!*thread) throw core::Failure("CreateThread Error");
  (*thread)->SetTimeCritical();
  started_->Wait(platform::kInfinite);
  started_->Reset();
}

CInterface::~CInterface() {
  const EntryPoints& fn = producer_->fn();
  stop_->Set();
  // Unregistering also wakes the event thread out of its wait.
  fn.GCUnregisterEvent(handle_, kInterfaceEvent);
  fn.EventFlush(event_);
  event_thread_ended_->Wait(platform::kInfinite);
  reset_thread_ended_->Wait(platform::kInfinite);
  // Joined, not only signalled: no thread may outlive the library's code.
  event_thread_->Join();
  reset_thread_->Join();
  while (!cameras_.empty()) camera::DestroyCamera(cameras_.front());
  while (!ports_.empty()) DestroyPort(ports_.front());
  fn.IFClose(handle_);
}

void CInterface::BusReset_Thread(void* self) { static_cast<CInterface*>(self)->BusResetLoop(); }
void CInterface::BusEventGet_Thread(void* self) { static_cast<CInterface*>(self)->BusEventLoop(); }

void CInterface::BusResetLoop() {
  diag::LogEvent(false, kResetThreadName, "Start");
  producer_->PrepareThread();
  started_->Set();
  platform::Waitable* waits[3] = {stop_.get(), reset_trigger_.get(), table_event_.get()};
  for (;;) {
    int which = platform::WaitAny(waits, 3, platform::kInfinite);
    if (which <= 0) break;  // stop, or a wait that can't go on
    diag::LogEvent(false, kResetThreadName, "BusReset");
    {
      platform::LockGuard g(lock_);
      bool8_t changed = 0;
      if (producer_->fn().IFUpdateDeviceList(handle_, &changed, kTimeoutMs) == GC_ERR_SUCCESS &&
          changed) {
        for (camera::CCamera* c : cameras_) c->SetVisibleFlag();
      }
    }
    if (core::CKivCamDLL* lib = core::Library()) lib->UserBusEvent();
  }
  reset_thread_ended_->Set();
  diag::LogEvent(false, kResetThreadName, "End  ");
}

void CInterface::BusEventLoop() {
  diag::LogEvent(false, kEventThreadName, "Start");
  producer_->PrepareThread();
  started_->Set();
  const EntryPoints& fn = producer_->fn();
  uint32_t data = 0;
  size_t size = sizeof data;
  GC_ERROR rc = fn.EventGetData(event_, &data, &size, kTimeoutMs);
  while (!stop_->Wait(0)) {
    if (rc == GC_ERR_SUCCESS && (data == 1 || data == 2)) {
      diag::LogEvent(false, kEventThreadName, data == 1 ? "BusReset Event" : "PowerUP Event");
      reset_trigger_->Set();
      if (core::CKivCamDLL* lib = core::Library()) {
        if (data == 1) lib->UserBusEvent();
        else lib->PowerUpEvent(producer_);
      }
    }
    data = 0;
    size = sizeof data;
    rc = fn.EventGetData(event_, &data, &size, kTimeoutMs);
  }
  event_thread_ended_->Set();
  diag::LogEvent(false, kEventThreadName, "End  ");
}

void CInterface::UpdateDeviceList() { producer_->fn().IFUpdateDeviceList(handle_, nullptr, kTimeoutMs); }

uint32_t CInterface::GetDevCount() {
  uint32_t count = 0;
  producer_->fn().IFGetNumDevices(handle_, &count);
  const char* text = nullptr;
  switch (producer_->kind()) {
    case kKindIIDC: text = "IIDC Camera Count"; break;
    case kKindGigE: text = "GigE Camera Count"; break;
    case kKindUSB: text = "USB Camera Count"; break;
  }
  if (text) {
    diag::LogDump(false, kCountName, text,
                  reinterpret_cast<const void*>(static_cast<uintptr_t>(count)));
  }
  return count;
}

bool CInterface::ReadDeviceId(uint32_t index, std::string* id) {
  char buf[kInfoBytes] = {};
  size_t size = sizeof buf;
  if (producer_->fn().IFGetDeviceID(handle_, index, buf, &size) != GC_ERR_SUCCESS) return false;
  buf[sizeof buf - 1] = '\0';
  *id = buf;
  return true;
}

bool CInterface::GetFirstDevID(std::string* id) {
  if (GetDevCount() == 0) return false;
  cursor_ = 0;
  if (ReadDeviceId(0, id)) return true;
  id->clear();
  return false;
}

bool CInterface::GetNextDevID(std::string* id) {
  ++cursor_;
  if (ReadDeviceId(cursor_, id)) return true;
  id->clear();
  return false;
}

bool CInterface::GetDevInfo(const std::string& id, DevInfo* out) {
  const EntryPoints& fn = producer_->fn();
  auto query = [&](int32_t cmd, char* buf) {
    std::memset(buf, 0, kInfoBytes);
    INFO_DATATYPE type = 0;
    size_t size = kInfoBytes;
    if (fn.IFGetDeviceInfo(handle_, id.c_str(), cmd, &type, buf, &size) == GC_ERR_SUCCESS) return true;
    producer_->LogLastError(kInfoName);
    return false;
  };
  char buf[kInfoBytes + 1] = {};
  if (!query(DEVICE_INFO_ID, buf)) return false;
  out->uid = ParseUid(buf);
  if (!query(DEVICE_INFO_VENDOR, buf)) return false;
  out->vendor = buf;
  if (!query(DEVICE_INFO_MODEL, buf)) return false;
  out->model = buf;
  if (!query(kInfoKey, buf)) return false;
  out->key = buf;
  if (!query(kInfo1002, buf)) return false;
  std::memcpy(&out->info1002, buf, 4);
  if (!query(kInfoLink, buf)) return false;
  uint32_t raw;
  std::memcpy(&raw, buf, 4);
  out->link = LinkCode(producer_->kind(), raw);
  return true;
}

uint32_t CInterface::OpenDevice(Match how, uint64_t uid, const std::string& key,
                                DEVICE_ACCESS_FLAGS access, std::string* id, DEV_HANDLE* device) {
  const EntryPoints& fn = producer_->fn();
  *device = nullptr;
  uint32_t count = GetDevCount();
  for (uint32_t i = 0; i < count; ++i) {
    if (!ReadDeviceId(i, id)) return kOpenFailed;
    if (how == Match::kUid && ParseUid(id->c_str()) != uid) continue;
    if (how == Match::kKey) {
      char buf[kInfoBytes + 1] = {};
      INFO_DATATYPE type = 0;
      size_t size = kInfoBytes;
      if (fn.IFGetDeviceInfo(handle_, id->c_str(), kInfoKey, &type, buf, &size) != GC_ERR_SUCCESS) {
        return kOpenFailed;
      }
      if (key != buf) continue;
    }
    if (fn.IFOpenDevice(handle_, id->c_str(), access, device) == GC_ERR_SUCCESS) return kOpenDone;
    *device = nullptr;
    bool busy = producer_->LastErrorText(kInfoBytes) == kAlreadyOpen;
    if (how == Match::kFirst) {
      if (!busy) break;  // a refusal other than "in use" ends the search
    } else if (busy) {
      return kOpenBusy;
    }
  }
  return kOpenNone;
}

// Wraps an opened device in its object and keeps it in `list`. A failing
// construction is logged under `op`; the device is closed again.
template <typename T, typename Make>
uint32_t CInterface::Adopt(const char* op, DEV_HANDLE device, std::vector<T*>* list, T** out, Make&& make) {
  T* object = nullptr;
  try {
    object = make();
  } catch (const core::Failure& f) {
    diag::LogEvent(false, op, f.text());
  } catch (...) {
    diag::LogEvent(false, op, "Other Error");
  }
  if (!object) {
    producer_->fn().DevClose(device);
    return kOpenFailed;
  }
  list->push_back(object);
  *out = object;
  return kOpenDone;
}

uint32_t CInterface::OpenCamera(camera::CCamera** out, Match how, uint64_t uid, const std::string& key,
                                uint32_t param, bool read_only) {
  std::string id;
  DEV_HANDLE device;
  uint32_t rc =
      OpenDevice(how, uid, key, read_only ? DEVICE_ACCESS_READONLY : DEVICE_ACCESS_EXCLUSIVE, &id, &device);
  if (rc != kOpenDone) return rc;
  return Adopt(kOpenName, device, &cameras_, out,
               [&] { return camera::CreateCamera(producer_, this, id, device, param, read_only); });
}

uint32_t CInterface::OpenCamera(camera::CCamera** out, uint32_t param, bool read_only) {
  return OpenCamera(out, Match::kFirst, 0, std::string(), param, read_only);
}

uint32_t CInterface::OpenCamera(camera::CCamera** out, uint64_t uid, uint32_t param, bool read_only) {
  return OpenCamera(out, Match::kUid, uid, std::string(), param, read_only);
}

uint32_t CInterface::OpenCamera(camera::CCamera** out, const std::string& key, uint32_t param,
                                bool read_only) {
  return OpenCamera(out, Match::kKey, 0, key, param, read_only);
}

uint32_t CInterface::OpenCameraPort(CCameraPort** out) {
  std::string id;
  DEV_HANDLE device;
  uint32_t rc = OpenDevice(Match::kFirst, 0, std::string(), DEVICE_ACCESS_EXCLUSIVE, &id, &device);
  if (rc != kOpenDone) return rc;
  return Adopt(kOpenPortName, device, &ports_, out, [&] { return new CCameraPort(producer_, this, id, device); });
}

void CInterface::RemoveCamera(const camera::CCamera* c) {
  for (auto it = cameras_.begin(); it != cameras_.end(); ++it) {
    if (*it == c) {
      cameras_.erase(it);
      return;
    }
  }
}

void CInterface::RemovePort(const CCameraPort* p) {
  for (auto it = ports_.begin(); it != ports_.end(); ++it) {
    if (*it == p) {
      ports_.erase(it);
      return;
    }
  }
}

}  // namespace kivcam::transport
