// Test support for the camera layer: the library loaded with dlopen and its
// camera exports bound, the virtual cameras' control interface, a drain of
// the shared call log, and a fixture that gives every test its own
// machine-wide names, data folder and virtual world.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <cstring>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kivcam/kivcam.h"
#include "kivcam/kivcam_features.h"
#include "kivsim/kivsim.h"
#include "diag/log_reader.h"

namespace camtest {

std::string BuildDir();
std::string LibDir();  // where libkivcam.so and the producers are

// The exports these tests use.
#define CAMTEST_EXPORTS(X)                                                                              \
  X(KIVCAM_SetStructVersion) X(KIVCAM_GetLastError) X(KIVCAM_GetList)            \
  X(KIVCAM_Open) X(KIVCAM_OpenGigE) X(KIVCAM_OpenUSB) X(KIVCAM_Close) X(KIVCAM_CloseAll) X(KIVCAM_Camera) \
  X(KIVCAM_Reset) X(KIVCAM_ReDetection) X(KIVCAM_ReadPort) X(KIVCAM_WritePort) X(KIVCAM_OpenReg)       \
  X(KIVCAM_CloseReg) X(KIVCAM_ReadReg) X(KIVCAM_WriteReg) X(KIVCAM_CameraRegInfo) X(KIVCAM_CameraInfo) \
  X(KIVCAM_CameraInfoGigE) X(KIVCAM_CameraInfoUSB) X(KIVCAM_GetNodeMap) X(KIVCAM_SetCmdTimeOut)     \
  X(KIVCAM_SetCallBack) X(KIVCAM_FreeLibrary) X(KIVCAM_GetLibraryRevision) X(KIVCAM_CreateConvHandle)  \
  X(KIVCAM_CloseConvHandle) X(KIVCAM_CloseAllConvHandle) X(KIVCAM_ColorConvExec) X(KIVCAM_MonoBMPINFO)     \
  X(KIVCAM_ResourceAlloc) X(KIVCAM_ResourceRelease) X(KIVCAM_ImageAlloc) X(KIVCAM_ImageFree)              \
  X(KIVCAM_ImageFreeAll) X(KIVCAM_ImageStart) X(KIVCAM_ImageStop) X(KIVCAM_ImageReq) X(KIVCAM_ImageComplete) \
  X(KIVCAM_ImageReqAbortAll) X(KIVCAM_VSyncReq) X(KIVCAM_VSyncComplete) X(KIVCAM_SetImageCallBack)        \
  X(KIVCAM_ResourceAllocGigE) X(KIVCAM_GetGigEPktLog) X(KIVCAM_TestStream) X(KIVCAM_ConvMode)             \
  X(KIVCAM_ImageConvExec) X(KIVCAM_BufferConvExec) X(KIVCAM_SetBMPINFO) X(KIVCAM_GetBMPINFO)              \
  X(KIVCAM_WatchOpen) X(KIVCAM_WatchOpenGigE) X(KIVCAM_WatchClose) X(KIVCAM_WatchCamera) X(KIVCAM_WatchAlloc) \
  X(KIVCAM_WatchRelease) X(KIVCAM_WatchStart) X(KIVCAM_WatchStop)                                         \
  X(KIVCAMF_GetInt) X(KIVCAMF_SetInt) X(KIVCAMF_GetFloat) X(KIVCAMF_SetFloat) X(KIVCAMF_GetBool)         \
  X(KIVCAMF_SetBool) X(KIVCAMF_GetString) X(KIVCAMF_SetString) X(KIVCAMF_GetEnum) X(KIVCAMF_SetEnum)     \
  X(KIVCAMF_GetEnumInt) X(KIVCAMF_SetEnumInt) X(KIVCAMF_ToString) X(KIVCAMF_FromString)                  \
  X(KIVCAMF_Execute) X(KIVCAMF_IsDone) X(KIVCAMF_GetInfo) X(KIVCAMF_GetInfoText) X(KIVCAMF_GetEntry)     \
  X(KIVCAMF_GetChild) X(KIVCAMF_GetLastErrorText)

// Last-error value Err gives for a call that did not fail.
constexpr uint32_t kSucceeded = 0xFFFFFFFFu;

// Time-out of a completion that should end (ms); generous, never reached when things work.
constexpr uint32_t kWait = 5000;

// libkivcam.so from `path`, with its exports bound.
class CamLib {
 public:
  explicit CamLib(const std::string& path = LibDir() + "/libkivcam.so");
  ~CamLib();
  bool loaded() const { return handle_ != nullptr; }

#define CAMTEST_FN(name) decltype(&::name) name = nullptr;
  CAMTEST_EXPORTS(CAMTEST_FN)
#undef CAMTEST_FN

  // The last error after a call that should have failed (kSucceeded if it did not).
  uint32_t Err(KIVCAM_BOOL result) { return result ? kSucceeded : KIVCAM_GetLastError(); }
  // The whole list (count query, then fill).
  std::vector<CameraListEntry> List();
  // Big-endian 32-bit register of a GigE camera.
  uint32_t ReadBE(HCAMERA camera, uint32_t address);

 private:
  void* handle_ = nullptr;
};

// The control interface of one loaded producer (the module the library
// loaded: the same file gives the same instance).
class Sim {
 public:
  explicit Sim(const std::string& cti_path);
  ~Sim();
  bool loaded() const { return handle_ != nullptr; }
#define CAMTEST_SIM_CONTROLS(X)                                                              \
  X(camera_index) X(plug) X(raise_interface_event) X(fail_next) X(short_reads) X(deliver) X(free_run) \
  X(set_delivery_status) X(get_counters) X(failures_injected)
#define CAMTEST_SIM_FN(name) decltype(&::kivsim_##name) name = nullptr;
  CAMTEST_SIM_CONTROLS(CAMTEST_SIM_FN)
#undef CAMTEST_SIM_FN

 private:
  void* handle_ = nullptr;
};

// Keeps taking the call log's lines so that its 32 slots never overflow.
class LogDrain {
 public:
  LogDrain();
  ~LogDrain();
  bool ok() const { return ok_; }
  // Forgets every line written so far.
  void Clear();
  void SetLevel(uint32_t level) { reader_.SetLevel(level); }
  // True when a line holding both texts was written.
  bool Saw(const std::string& a, const std::string& b = "");
  // The first line seen holding both texts, or empty.
  std::string LineWith(const std::string& a, const std::string& b = "");
  // The last `n` lines seen that hold the text, oldest first.
  std::vector<std::string> Tail(const std::string& a, size_t n);
  // Waits until a line holding both texts arrives, at most the bound.
  bool WaitFor(const std::string& a, const std::string& b = "", int bound_ms = 10000);

 private:
  void Pull();
  bool Has(const std::string& a, const std::string& b) const;  // mutex_ held
  kivcam::diag::LogReader reader_;
  bool ok_ = false;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::string> seen_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// An open request by UID or key (empty: none), with a description index.
inline KIVCAM_OPENPARAM Param(uint64_t uid, const char* key = "", uint32_t index = 0) {
  KIVCAM_OPENPARAM p{};
  p.UID = uid;
  p.DescriptionIndex = index;
  std::strncpy(p.DeviceKey, key, sizeof p.DeviceKey);
  return p;
}

// The UID of a packed record, read by value (it sits at 4 modulo 8).
inline uint64_t Uid(const CameraListEntry& e) { return e.UID; }

// Virtual GigE camera UIDs of the default world (interface 1 holds both;
// interface 0 is an adapter with no camera) and the USB one.
constexpr uint64_t kGigE1 = 0x00A0B7000001ULL;
constexpr uint64_t kGigE2 = 0x00A0B7000002ULL;
constexpr uint64_t kUsb1 = 0x4B49560000000001ULL;

class CameraTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A virtual world for both producers (text of KIVSIM_CONFIG); call before Load.
  void World(const std::string& text);
  // Loads the library (from `dir` when given) and declares the newest
  // structure version, which loads the producers.
  void Load(const std::string& dir = "");
  void Unload();
  Sim& GigE();
  Sim& USB();
  uint32_t Err(KIVCAM_BOOL result) { return lib_->Err(result); }
  // The camera with this UID, opened (null, and a failure, when it does not open).
  HCAMERA OpenUid(uint64_t uid) {
    HCAMERA cam = nullptr;
    EXPECT_EQ(lib_->KIVCAM_Open(uid, &cam), KIVCAM_TRUE) << uid;
    return cam;
  }
  // A camera of the default world opened and switched to delivery on demand,
  // with the producer that simulates it.
  struct Cam {
    HCAMERA h = nullptr;
    Sim* sim = nullptr;
    uint32_t index = 0;  // the producer's camera number
  };
  Cam OpenOnDemand(uint64_t uid) { return OpenOnDemand(uid, uid == kUsb1); }
  Cam OpenOnDemand(uint64_t uid, bool usb);
  // Resources allocated and acquisition started.
  void Ready(const Cam& c);
  // A buffer of the camera's present geometry (null, and a failure, when none is made).
  ImageBuffer* Alloc(HCAMERA h);
  // Resources allocated, one buffer allocated, acquisition started: the buffer.
  ImageBuffer* Started(const Cam& c);
  // Queues `buffer` and has the producer deliver one frame.
  void RequestOne(const Cam& c, ImageBuffer* buffer);
  // RequestOne, then its completion: the completion's last error (kSucceeded when it worked).
  uint32_t Grab(const Cam& c, ImageBuffer* buffer, ImageInfo* info = nullptr);
  // Waits until the producer has put `n` frames into this process's buffers.
  bool WaitDelivered(const Cam& c, uint64_t n);
  // Polls the producer's counters of `c` until `done` holds (5 s at most).
  bool WaitCounters(const Cam& c, const std::function<bool(const kivsim_counters&)>& done);
  // The producer's camera number of a virtual camera (USB or GigE by its ID).
  uint32_t CameraIndex(uint64_t uid, bool usb);
  kivsim_counters Counters(const Cam& c);
  // Unplugs virtual camera `uid`; the library's presence query then says it is gone.
  void Unplug(HCAMERA h, uint64_t uid, bool usb);
  std::string DataFolder() const { return temp_ + "/appdata/Valdrix/KivCam"; }
  void WriteDataFile(const std::string& name, const std::string& text);
  std::string Temp() const { return temp_; }

  std::unique_ptr<CamLib> lib_;
  std::unique_ptr<LogDrain> log_;

 private:
  std::string temp_;
  std::string lib_dir_;
  std::unique_ptr<Sim> gige_, usb_;
};

// Copies libkivcam.so and the named producers (file names) into `dir`.
void CopyLibrary(const std::string& dir, const std::vector<std::string>& producers);
void CopyFile(const std::string& from, const std::string& to);
void MakeDirs(const std::string& path);

// The plain description of the default world's first GigE camera, as its producer builds it.
std::string DefaultDescription();
// A GenICam description (an additional one for the data folder) holding `body`.
std::string AdditionalDescription(const std::string& body);
// Waits until thread `tid` of this process sleeps (5 s at most).
bool WaitAsleep(pid_t tid);

}  // namespace camtest
