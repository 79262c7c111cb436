// Start-up and shut-down of the library in a process: the shared-library
// constructor and destructor play the loader's attach and detach.
#include <atomic>
#include <cstdlib>

#include "core/kivcam_dll.h"
#include "core/process_table.h"
#include "diag/call_log.h"
#include "diag/output_filter.h"
#include "diag/process_objects.h"
#include "platform/platform.h"

extern "C" int __cxa_atexit(void (*fn)(void*), void* arg, void* dso);
extern "C" void* __dso_handle;

namespace kivcam::core {

namespace {

std::atomic<CKivCamDLL*> g_library{nullptr};
std::atomic<uint32_t> g_struct_version{0};
// Set by an exit handler: at process exit the handlers run before the
// library's destructor, at a dynamic unload after it.
volatile bool g_process_ending = false;

void OnProcessExit(void*) { g_process_ending = true; }

void StartMonitor() {
  std::string path = platform::MonitorPath();
  if (path.size() > 1) platform::StartProcess(path);  // failures are not reported
}

std::atomic<bool> g_exit_handler_late{false};

// Tied to this library, so that a dynamic unload removes the handler (plain
// atexit can lose that tie under some runtimes).
void RegisterExitHandler() { __cxa_atexit(OnProcessExit, nullptr, &__dso_handle); }

__attribute__((constructor)) void LibraryAttach() {
  RegisterExitHandler();
  // Names of our id can only be those of an earlier process that had it and
  // was killed (a channel of its own would make our Alloc find one).
  diag::RemoveProcessObjects(platform::ProcessId());
  diag::OpenOutputFilter();

  // The OpenMP runtime keeps its thread pool after a parallel conversion and
  // cannot be unloaded under it: it stays when the library goes.
  platform::KeepModuleLoaded("libgomp.so.1");

  diag::OpenCallLog();
  diag::LogLoad("DLL ATTACH");
  RegisterProcess();
  diag::ReclaimProcessObjects();  // of processes that ended without unloading
  StartMonitor();

  try {
    g_library.store(new CKivCamDLL);
  } catch (...) {
    // The library stays loaded without an object; exports then fail.
    g_library.store(nullptr);
  }
}

__attribute__((destructor)) void LibraryDetach() {
  if (!g_process_ending) {
    DestroyLibrary();
    // Threads that ended their own objects (a library freed from its
    // callback, a camera closed from its image callback) finish here.
    platform::JoinRetiredThreads();
  }
  UnregisterProcess(g_process_ending);
  diag::LogLoad("DLL DETACH");
  diag::CloseOutputFilter(g_process_ending);
  diag::RemoveProcessObjects(platform::ProcessId());
  diag::CloseCallLog(g_process_ending);
}

}  // namespace

CKivCamDLL* Library() { return g_library.load(std::memory_order_acquire); }

void ArmExitDetection() {
  // Exit handlers run in reverse order of registration. Registered at load,
  // ours can come before the loader's own finaliser (a library linked at
  // start-up) and so would run too late; one more registration from the
  // first call, made once the program runs, always runs before it.
  if (!g_exit_handler_late.load(std::memory_order_relaxed) &&
      !g_exit_handler_late.exchange(true)) {
    RegisterExitHandler();
  }
}

void DestroyLibrary() {
  CKivCamDLL* lib = g_library.exchange(nullptr);
  if (!lib) return;
  if (!lib->OnCallbackThread()) {
    delete lib;
    return;
  }
  // Freed from its own callback: the object can't wait for the thread it
  // runs on. Exports find no object from now on; the thread destroys it
  // once the application's function returns.
  platform::RetireThread(lib->DestroyFromCallback());
}

uint32_t StructVersion() { return g_struct_version; }
void SetStructVersionValue(uint32_t version) { g_struct_version = version; }

}  // namespace kivcam::core
