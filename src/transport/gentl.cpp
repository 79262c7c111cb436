#include "transport/gentl.h"

#include <algorithm>
#include <cstring>

#include "diag/call_log.h"
#include "diag/error.h"
#include "transport/interface.h"

namespace kivcam::transport {

namespace {
const char kUpdateName[] = "CGenTL::UpdateInterface";
constexpr size_t kIdBytes = 2048;
constexpr uint64_t kUpdateTimeoutMs = 1000;
}  // namespace

const ProducerRow kProducerTable[] = {
    {kKindGigE, "KivGigEGenTL.cti"},
    {kKindUSB, "KivUSBGenTL.cti"},
    {-1, nullptr},
};

std::string SecondProducerPath(const char* file) {
  bool found = false;
  std::string root = platform::GetEnv("GENICAM_ROOT_V2_4", &found);
  if (!found) return file;
  std::string path = root;
  for (const char* part : {"bin", "Linux64_x64", "TLIs"}) path = platform::PathAppend(path, part);
  return platform::PathAppend(path, file);
}

CGenTL::CGenTL(int32_t kind, const char* file, IBusEvents* events) : kind_(kind), events_(events) {
  module_ = platform::Module::Load(file);
  if (!module_) module_ = platform::Module::Load(SecondProducerPath(file));
  if (!module_) throw Failure("GenTL Module Not Found");

  // Stop at the first missing entry point: a partial table is never used.
  bool complete = true;
#define KIVCAM_GENTL_RESOLVE(name)                                              \
  if (complete) {                                                               \
    fn_.name = reinterpret_cast<P##name>(module_->Symbol(#name));               \
    complete = fn_.name != nullptr;                                             \
  }
  KIVCAM_GENTL_ENTRIES(KIVCAM_GENTL_RESOLVE)
#undef KIVCAM_GENTL_RESOLVE
  if (!complete) {
    module_.reset();
    throw Failure("GenTL Load Entry Error");
  }

  if (fn_.GCInitLib() != GC_ERR_SUCCESS) {
    Error e = Failure(LastErrorText());
    module_.reset();
    throw e;
  }
  if (fn_.TLOpen(&system_) != GC_ERR_SUCCESS) {
    Error e = Failure(LastErrorText());
    fn_.GCCloseLib();
    module_.reset();
    throw e;
  }
}

CGenTL::~CGenTL() {
  // Interfaces first, in list order: they stop their threads and close
  // their cameras.
  while (!interfaces_.empty()) interfaces_.erase(interfaces_.begin());
  fn_.TLClose(system_);
  fn_.GCCloseLib();
  module_.reset();
}

void CGenTL::PrepareThread() const {
  // A producer may keep its error text per thread and set that storage up at
  // the thread's first failure, which takes the dynamic loader's lock. The
  // library's teardown runs inside dlclose, holding that lock while it waits
  // for this thread, so a first failure then would never return. A query
  // that the producer can't answer sets the storage up now.
  INFO_DATATYPE type = 0;
  char scratch[8];
  size_t size = sizeof scratch;
  fn_.GCGetInfo(-1, &type, scratch, &size);
}

std::string CGenTL::LastErrorText(size_t capacity) const {
  std::vector<char> text(capacity + 1, '\0');
  GC_ERROR code = GC_ERR_SUCCESS;
  size_t size = capacity;
  fn_.GCGetLastError(&code, text.data(), &size);
  text[capacity] = '\0';
  return text.data();
}

void CGenTL::LogLastError(const char* op) const {
  if (diag::LogWanted(false)) diag::WriteEvent(false, op, LastErrorText().c_str());
}

void CGenTL::RaiseLastError() const { throw Failure(LastErrorText()); }

void CGenTL::UpdateInterface() {
  bool8_t changed = 0;
  if (fn_.TLUpdateInterfaceList(system_, &changed, kUpdateTimeoutMs) != GC_ERR_SUCCESS) {
    LogLastError(kUpdateName);
    return;
  }
  if (!changed) return;
  uint32_t count = 0;
  if (fn_.TLGetNumInterfaces(system_, &count) != GC_ERR_SUCCESS) {
    LogLastError(kUpdateName);
    return;
  }
  std::vector<std::unique_ptr<CInterface>> old;
  old.swap(interfaces_);
  for (uint32_t i = 0; i < count; ++i) {
    char id[kIdBytes] = {};
    size_t size = sizeof id;
    if (fn_.TLGetInterfaceID(system_, i, id, &size) != GC_ERR_SUCCESS) {
      LogLastError(kUpdateName);
      continue;
    }
    id[sizeof id - 1] = '\0';
    // A surviving interface keeps its object, and with it its open cameras.
    auto kept = std::find_if(old.begin(), old.end(), [&](const auto& o) { return o->id() == id; });
    if (kept != old.end()) {
      interfaces_.push_back(std::move(*kept));
      old.erase(kept);
      continue;
    }
    IF_HANDLE handle = nullptr;
    if (fn_.TLOpenInterface(system_, id, &handle) != GC_ERR_SUCCESS) {
      LogLastError(kUpdateName);
      continue;
    }
    try {
      interfaces_.push_back(std::make_unique<CInterface>(this, handle, id, events_));
    } catch (const Error& e) {
      diag::LogEvent(false, kUpdateName, LogText(e));
      fn_.IFClose(handle);
    } catch (...) {
      diag::LogEvent(false, kUpdateName, kOtherErrorText);
      fn_.IFClose(handle);
    }
  }
  // Interfaces gone from the producer's list end here, with their cameras.
  old.clear();
}

}  // namespace kivcam::transport
