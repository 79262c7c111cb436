// One loaded GenTL producer: the module, its 39 entry points, the open system
// module and the interfaces it reports. Nothing outside this class resolves
// producer entry points.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kivgentl/gentl.h"
#include "platform/platform.h"
#include "transport/ids.h"

namespace kivcam::transport {

class CInterface;
class IBusEvents;

// The entry points in the order they are held and resolved.
#define KIVCAM_GENTL_ENTRIES(X)                                                                    \
  X(GCInitLib) X(GCCloseLib) X(GCGetInfo) X(GCGetLastError) X(TLOpen) X(TLClose)                   \
  X(TLGetNumInterfaces) X(TLGetInterfaceID) X(TLOpenInterface) X(TLUpdateInterfaceList) X(IFClose) \
  X(IFGetNumDevices) X(IFGetDeviceID) X(IFUpdateDeviceList) X(IFGetDeviceInfo) X(IFOpenDevice)     \
  X(DevGetPort) X(DevGetNumDataStreams) X(DevGetDataStreamID) X(DevOpenDataStream) X(DevGetInfo)   \
  X(DevClose) X(DSAnnounceBuffer) X(DSFlushQueue) X(DSStartAcquisition) X(DSStopAcquisition)       \
  X(DSClose) X(DSRevokeBuffer) X(DSQueueBuffer) X(DSGetBufferInfo) X(GCReadPort) X(GCWritePort)    \
  X(GCGetNumPortURLs) X(GCGetPortURLInfo) X(GCRegisterEvent) X(GCUnregisterEvent) X(EventGetData)  \
  X(EventFlush) X(EventKill)

struct EntryPoints {
#define KIVCAM_GENTL_FIELD(name) P##name name = nullptr;
  KIVCAM_GENTL_ENTRIES(KIVCAM_GENTL_FIELD)
#undef KIVCAM_GENTL_FIELD
};

// Producer table row; the table ends with kind -1.
struct ProducerRow {
  int32_t kind;
  const char* file;
};
extern const ProducerRow kProducerTable[];

// Where a producer is looked for when the loader path does not have it.
std::string SecondProducerPath(const char* file);

class CGenTL {
 public:
  // Loads and opens the producer; raises Error with the reason. Its
  // interfaces report bus happenings to `events`, which outlives them.
  CGenTL(int32_t kind, const char* file, IBusEvents* events);
  virtual ~CGenTL();
  CGenTL(const CGenTL&) = delete;
  CGenTL& operator=(const CGenTL&) = delete;

  // Brings the interface list up to date; failures only reach the call log.
  void UpdateInterface();

  const EntryPoints& fn() const { return fn_; }
  int32_t kind() const { return kind_; }
  TL_HANDLE system() const { return system_; }
  const std::vector<std::unique_ptr<CInterface>>& interfaces() const { return interfaces_; }

  // Called first by every thread of the library that calls the producer.
  void PrepareThread() const;
  // The producer's text for its last failure (at most `capacity` bytes).
  std::string LastErrorText(size_t capacity = 128) const;
  // Logs the producer's last failure text under `op`.
  void LogLastError(const char* op) const;
  // Raises the producer's last failure text.
  [[noreturn]] void RaiseLastError() const;

 private:
  EntryPoints fn_;
  std::unique_ptr<platform::Module> module_;
  int32_t kind_;
  TL_HANDLE system_ = nullptr;
  IBusEvents* events_;
  std::vector<std::unique_ptr<CInterface>> interfaces_;
};

}  // namespace kivcam::transport
