#include "transport/interface.h"

#include <cstring>

#include <algorithm>

#include "diag/call_log.h"
#include "diag/error.h"
#include "kivcam/kivcam.h"
#include "transport/events.h"
#include "transport/gentl.h"
#include "transport/ids.h"

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
  if (!e->ok()) throw Failure("CreateEvent Error");
  return e;
}

}  // namespace

CInterface::CInterface(CGenTL* producer, IF_HANDLE handle, const char* id, IBusEvents* events)
    : id_(id), handle_(handle), producer_(producer), events_(events) {
  started_ = NewEvent(true);
  stop_ = NewEvent(true);
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
    throw Failure("CreateEvent Error");
  }

  const EntryPoints& fn = producer_->fn();
  if (fn.GCRegisterEvent(handle_, kInterfaceEvent, &event_) != GC_ERR_SUCCESS) {
    throw Failure("RegisterEvent Error");
  }
  try {
    StartThread(&BusReset_Thread, &reset_thread_);
    StartThread(&BusEventGet_Thread, &event_thread_);
  } catch (...) {
    StopThreads();
    throw;
  }
  fn.IFUpdateDeviceList(handle_, nullptr, kTimeoutMs);
}

void CInterface::StartThread(void (*proc)(void*), std::unique_ptr<platform::Thread>* thread) {
  *thread = platform::Thread::Start(proc, this);
  if (!*thread) throw Failure("CreateThread Error");
  (*thread)->SetTimeCritical();
  started_->Wait(platform::kInfinite);
  started_->Reset();
}

void CInterface::StopThreads() {
  stop_->Set();
  // Unregistering also wakes the event thread out of its wait.
  producer_->fn().GCUnregisterEvent(handle_, kInterfaceEvent);
  producer_->fn().EventFlush(event_);
  // Joined, not only signalled: no thread may outlive the library's code.
  if (event_thread_) event_thread_->Join();
  if (reset_thread_) reset_thread_->Join();
}

CInterface::~CInterface() {
  StopThreads();
  DestroyAllCameras();
  while (!ports_.empty()) Destroy(ports_.front().get());
  producer_->fn().IFClose(handle_);
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
        for (const auto& c : cameras_) c->SetVisibleFlag();
      }
    }
    events_->UserBusEvent();
  }
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
      if (data == 1) {
        events_->UserBusEvent();
      } else {
        events_->PowerUpEvent(producer_);
      }
    }
    data = 0;
    size = sizeof data;
    rc = fn.EventGetData(event_, &data, &size, kTimeoutMs);
  }
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

OpenResult CInterface::OpenDevice(const DeviceMatch& match, DEVICE_ACCESS_FLAGS access, std::string* id,
                                  DeviceHandle* device) {
  const EntryPoints& fn = producer_->fn();
  uint32_t count = GetDevCount();
  for (uint32_t i = 0; i < count; ++i) {
    if (!ReadDeviceId(i, id)) return OpenResult::kFailed;
    if (match.kind == DeviceMatch::kUid && ParseUid(id->c_str()) != match.uid) continue;
    if (match.kind == DeviceMatch::kKey) {
      char buf[kInfoBytes + 1] = {};
      INFO_DATATYPE type = 0;
      size_t size = kInfoBytes;
      if (fn.IFGetDeviceInfo(handle_, id->c_str(), kInfoKey, &type, buf, &size) != GC_ERR_SUCCESS) {
        return OpenResult::kFailed;
      }
      if (match.key != buf) continue;
    }
    DEV_HANDLE opened = nullptr;
    if (fn.IFOpenDevice(handle_, id->c_str(), access, &opened) == GC_ERR_SUCCESS) {
      *device = DeviceHandle(producer_, opened);
      return OpenResult::kOpened;
    }
    bool busy = producer_->LastErrorText(kInfoBytes) == kAlreadyOpen;
    if (match.kind == DeviceMatch::kFirst) {
      if (!busy) break;  // a refusal other than "in use" ends the search
    } else if (busy) {
      return OpenResult::kBusy;
    }
  }
  return OpenResult::kNone;
}

// Wraps an opened device in its object and keeps it in `list`. A failing
// construction is logged under `op`; the device is closed again.
OpenResult CInterface::Adopt(const char* op, const std::string& id, DeviceHandle device,
                             const DeviceFactory& make, Devices* list, std::shared_ptr<CDevice>* out) {
  std::shared_ptr<CDevice> object;
  try {
    object = make(device, id);
  } catch (const Error& e) {
    diag::LogEvent(false, op, LogText(e));
  } catch (...) {
    diag::LogEvent(false, op, kOtherErrorText);
  }
  if (!object) return OpenResult::kFailed;  // `device` closes with this frame
  list->push_back(object);
  *out = std::move(object);
  return OpenResult::kOpened;
}

OpenResult CInterface::OpenCamera(const DeviceMatch& match, bool read_only, const DeviceFactory& make,
                                  std::shared_ptr<CDevice>* out) {
  std::string id;
  DeviceHandle device;
  OpenResult rc = OpenDevice(match, read_only ? DEVICE_ACCESS_READONLY : DEVICE_ACCESS_EXCLUSIVE, &id, &device);
  if (rc != OpenResult::kOpened) return rc;
  return Adopt(kOpenName, id, std::move(device), make, &cameras_, out);
}

OpenResult CInterface::OpenCameraPort(const DeviceFactory& make, std::shared_ptr<CDevice>* out) {
  std::string id;
  DeviceHandle device;
  OpenResult rc = OpenDevice(DeviceMatch{}, DEVICE_ACCESS_EXCLUSIVE, &id, &device);
  if (rc != OpenResult::kOpened) return rc;
  return Adopt(kOpenPortName, id, std::move(device), make, &ports_, out);
}

bool CInterface::Destroy(const CDevice* object) {
  std::shared_ptr<CDevice> held;
  {
    platform::LockGuard g(lock_);
    for (Devices* list : {&cameras_, &ports_}) {
      auto it = std::find_if(list->begin(), list->end(), [&](const auto& d) { return d.get() == object; });
      if (it == list->end()) continue;
      held = std::move(*it);
      list->erase(it);
      break;
    }
  }
  if (!held) return false;
  // Outside the interface lock: closing a camera may wait for its own
  // threads, which never take this lock but must not be kept from ending.
  held->Close();
  return true;
}

void CInterface::DestroyAllCameras() {
  for (;;) {
    const CDevice* first = nullptr;
    {
      platform::LockGuard g(lock_);
      if (cameras_.empty()) return;
      first = cameras_.front().get();
    }
    Destroy(first);
  }
}

std::vector<std::shared_ptr<CDevice>> CInterface::Cameras() {
  platform::LockGuard g(lock_);
  return cameras_;
}

size_t CInterface::camera_count() {
  platform::LockGuard g(lock_);
  return cameras_.size();
}

}  // namespace kivcam::transport
