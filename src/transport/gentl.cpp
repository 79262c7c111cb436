#include "transport/gentl.h"

#include <cstring>

#include "core/failure.h"
#include "diag/call_log.h"
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

CGenTL::CGenTL(int32_t kind, const char* file) : kind_(kind) {
  module_ = platform::Module::Load(file);
  if (!module_) module_ = platform::Module::Load(SecondProducerPath(file));
  if (!module_) throw core::Failure("GenTL Module Not Found");

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
    throw core::Failure("GenTL Load Entry Error");
  }

  if (fn_.GCInitLib() != GC_ERR_SUCCESS) {
    core::Failure f(LastErrorText().c_str());
    module_.reset();
    throw f;
  }
  if (fn_.TLOpen(&system_) != GC_ERR_SUCCESS) {
    core::Failure f(LastErrorText().c_str());
    fn_.GCCloseLib();
    module_.reset();
    throw f;
  }
}

CGenTL::~CGenTL() {
  // Interfaces first: they stop their threads and close their cameras.
  while (!interfaces_.empty()) {
    CInterface* i = interfaces_.front();
    interfaces_.erase(interfaces_.begin());
    delete i;
  }
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

void CGenTL::RaiseLastError() const { throw core::Failure(LastErrorText().c_str()); }

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
  std::vector<CInterface*> old;
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
    bool kept = false;
    for (auto it = old.begin(); it != old.end(); ++it) {
      if ((*it)->id() == id) {
        interfaces_.push_back(*it);
        old.erase(it);
        kept = true;
        break;
      }
    }
    if (kept) continue;
    IF_HANDLE handle = nullptr;
    if (fn_.TLOpenInterface(system_, id, &handle) != GC_ERR_SUCCESS) {
      LogLastError(kUpdateName);
      continue;
    }
    try {
      interfaces_.push_back(new CInterface(this, handle, id));
    } catch (const core::Failure& f) {
      diag::LogEvent(false, kUpdateName, f.text());
      fn_.IFClose(handle);
    } catch (...) {
      diag::LogEvent(false, kUpdateName, "Other Error");
      fn_.IFClose(handle);
    }
  }
  for (CInterface* gone : old) delete gone;
}

}  // namespace kivcam::transport
