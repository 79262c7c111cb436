// A producer in front of the virtual GigE producer that can hide one of its
// interfaces, so that tests can make an interface disappear (and come back)
// while cameras on it are open. Every other entry point is passed through.
#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "kivgentl/gentl.h"

namespace {

void* Real() {
  static void* module = dlopen(std::getenv("KIVSHIM_REAL"), RTLD_NOW | RTLD_LOCAL);
  return module;
}

template <typename F>
F Lookup(const char* name) {
  return reinterpret_cast<F>(Real() ? dlsym(Real(), name) : nullptr);
}

std::mutex g_mu;
int64_t g_hidden = -1;  // index of the hidden interface among the real ones
bool g_pending = false; // the list changed since the last update

uint32_t RealIndex(uint32_t i) { return g_hidden >= 0 && i >= g_hidden ? i + 1 : i; }

}  // namespace

#define SHIM_FORWARD(name, params, args)                                    \
  extern "C" __attribute__((visibility("default"))) GC_ERROR name params { \
    static P##name real = Lookup<P##name>(#name);                           \
    return real ? real args : GC_ERR_NOT_INITIALIZED;                       \
  }

SHIM_FORWARD(GCInitLib, (void), ())
SHIM_FORWARD(GCCloseLib, (void), ())
SHIM_FORWARD(GCGetInfo, (TL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer, size_t *piSize), (iInfoCmd, piType, pBuffer, piSize))
SHIM_FORWARD(GCGetLastError, (GC_ERROR *piErrorCode, char *sErrText, size_t *piSize), (piErrorCode, sErrText, piSize))
SHIM_FORWARD(TLOpen, (TL_HANDLE *phTL), (phTL))
SHIM_FORWARD(TLClose, (TL_HANDLE hTL), (hTL))
SHIM_FORWARD(TLOpenInterface, (TL_HANDLE hTL, const char *sIfaceID, IF_HANDLE *phIface), (hTL, sIfaceID, phIface))
SHIM_FORWARD(IFClose, (IF_HANDLE hIface), (hIface))
SHIM_FORWARD(IFGetNumDevices, (IF_HANDLE hIface, uint32_t *piNumDevices), (hIface, piNumDevices))
SHIM_FORWARD(IFGetDeviceID, (IF_HANDLE hIface, uint32_t iIndex, char *sIDeviceID, size_t *piSize), (hIface, iIndex, sIDeviceID, piSize))
SHIM_FORWARD(IFUpdateDeviceList, (IF_HANDLE hIface, bool8_t *pbChanged, uint64_t iTimeout), (hIface, pbChanged, iTimeout))
SHIM_FORWARD(IFGetDeviceInfo, (IF_HANDLE hIface, const char *sDeviceID, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer, size_t *piSize), (hIface, sDeviceID, iInfoCmd, piType, pBuffer, piSize))
SHIM_FORWARD(IFOpenDevice, (IF_HANDLE hIface, const char *sDeviceID, DEVICE_ACCESS_FLAGS iOpenFlag, DEV_HANDLE *phDevice), (hIface, sDeviceID, iOpenFlag, phDevice))
SHIM_FORWARD(DevGetPort, (DEV_HANDLE hDevice, PORT_HANDLE *phRemoteDevice), (hDevice, phRemoteDevice))
SHIM_FORWARD(DevGetNumDataStreams, (DEV_HANDLE hDevice, uint32_t *piNumDataStreams), (hDevice, piNumDataStreams))
SHIM_FORWARD(DevGetDataStreamID, (DEV_HANDLE hDevice, uint32_t iIndex, char *sDataStreamID, size_t *piSize), (hDevice, iIndex, sDataStreamID, piSize))
SHIM_FORWARD(DevOpenDataStream, (DEV_HANDLE hDevice, const char *sDataStreamID, DS_HANDLE *phDataStream), (hDevice, sDataStreamID, phDataStream))
SHIM_FORWARD(DevGetInfo, (DEV_HANDLE hDevice, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer, size_t *piSize), (hDevice, iInfoCmd, piType, pBuffer, piSize))
SHIM_FORWARD(DevClose, (DEV_HANDLE hDevice), (hDevice))
SHIM_FORWARD(DSAnnounceBuffer, (DS_HANDLE hDataStream, void *pBuffer, size_t iSize, void *pPrivate, BUFFER_HANDLE *phBuffer), (hDataStream, pBuffer, iSize, pPrivate, phBuffer))
SHIM_FORWARD(DSFlushQueue, (DS_HANDLE hDataStream, ACQ_QUEUE_TYPE iOperation), (hDataStream, iOperation))
SHIM_FORWARD(DSStartAcquisition, (DS_HANDLE hDataStream, ACQ_START_FLAGS iStartFlags, uint64_t iNumToAcquire), (hDataStream, iStartFlags, iNumToAcquire))
SHIM_FORWARD(DSStopAcquisition, (DS_HANDLE hDataStream, ACQ_STOP_FLAGS iStopFlags), (hDataStream, iStopFlags))
SHIM_FORWARD(DSClose, (DS_HANDLE hDataStream), (hDataStream))
SHIM_FORWARD(DSRevokeBuffer, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, void **pBuffer, void **pPrivate), (hDataStream, hBuffer, pBuffer, pPrivate))
SHIM_FORWARD(DSQueueBuffer, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer), (hDataStream, hBuffer))
SHIM_FORWARD(DSGetBufferInfo, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, BUFFER_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer, size_t *piSize), (hDataStream, hBuffer, iInfoCmd, piType, pBuffer, piSize))
SHIM_FORWARD(GCReadPort, (PORT_HANDLE hPort, uint64_t iAddress, void *pBuffer, size_t *piSize), (hPort, iAddress, pBuffer, piSize))
SHIM_FORWARD(GCWritePort, (PORT_HANDLE hPort, uint64_t iAddress, const void *pBuffer, size_t *piSize), (hPort, iAddress, pBuffer, piSize))
SHIM_FORWARD(GCGetNumPortURLs, (PORT_HANDLE hPort, uint32_t *piNumURLs), (hPort, piNumURLs))
SHIM_FORWARD(GCRegisterEvent, (EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID, EVENT_HANDLE *phEvent), (hEventSrc, iEventID, phEvent))
SHIM_FORWARD(GCUnregisterEvent, (EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID), (hEventSrc, iEventID))
SHIM_FORWARD(EventGetData, (EVENT_HANDLE hEvent, void *pBuffer, size_t *piSize, uint64_t iTimeout), (hEvent, pBuffer, piSize, iTimeout))
SHIM_FORWARD(EventFlush, (EVENT_HANDLE hEvent), (hEvent))
SHIM_FORWARD(EventKill, (EVENT_HANDLE hEvent), (hEvent))

extern "C" __attribute__((visibility("default"))) GC_ERROR TLUpdateInterfaceList(TL_HANDLE hTL, bool8_t* pbChanged,
                                                                                  uint64_t iTimeout) {
  static PTLUpdateInterfaceList real = Lookup<PTLUpdateInterfaceList>("TLUpdateInterfaceList");
  bool8_t changed = 0;
  GC_ERROR rc = real(hTL, &changed, iTimeout);
  std::lock_guard<std::mutex> g(g_mu);
  if (pbChanged) *pbChanged = changed || g_pending;
  g_pending = false;
  return rc;
}

extern "C" __attribute__((visibility("default"))) GC_ERROR TLGetNumInterfaces(TL_HANDLE hTL, uint32_t* piNumIfaces) {
  static PTLGetNumInterfaces real = Lookup<PTLGetNumInterfaces>("TLGetNumInterfaces");
  GC_ERROR rc = real(hTL, piNumIfaces);
  std::lock_guard<std::mutex> g(g_mu);
  if (rc == GC_ERR_SUCCESS && g_hidden >= 0 && *piNumIfaces > 0) --*piNumIfaces;
  return rc;
}

extern "C" __attribute__((visibility("default"))) GC_ERROR TLGetInterfaceID(TL_HANDLE hTL, uint32_t iIndex, char* sID,
                                                                             size_t* piSize) {
  static PTLGetInterfaceID real = Lookup<PTLGetInterfaceID>("TLGetInterfaceID");
  uint32_t index;
  {
    std::lock_guard<std::mutex> g(g_mu);
    index = RealIndex(iIndex);
  }
  return real(hTL, index, sID, piSize);
}

std::string g_url;  // replaces every port URL when not empty

extern "C" __attribute__((visibility("default"))) GC_ERROR GCGetPortURLInfo(PORT_HANDLE hPort, uint32_t iURLIndex,
                                                                             URL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                                                                             void* pBuffer, size_t* piSize) {
  static PGCGetPortURLInfo real = Lookup<PGCGetPortURLInfo>("GCGetPortURLInfo");
  std::string url;
  {
    std::lock_guard<std::mutex> g(g_mu);
    url = g_url;
  }
  if (url.empty() || iInfoCmd != URL_INFO_URL) return real(hPort, iURLIndex, iInfoCmd, piType, pBuffer, piSize);
  if (*piSize < url.size() + 1) return GC_ERR_BUFFER_TOO_SMALL;
  std::memcpy(pBuffer, url.c_str(), url.size() + 1);
  *piSize = url.size() + 1;
  if (piType) *piType = INFO_DATATYPE_STRING;
  return GC_ERR_SUCCESS;
}

// Every port URL reads as `url` from now on (empty: the producer's own).
extern "C" __attribute__((visibility("default"))) void kivshim_set_url(const char* url) {
  std::lock_guard<std::mutex> g(g_mu);
  g_url = url ? url : "";
}

// Hides the interface at `index` of the real producer (-1: none).
extern "C" __attribute__((visibility("default"))) void kivshim_hide(int64_t index) {
  std::lock_guard<std::mutex> g(g_mu);
  g_hidden = index;
  g_pending = true;
}
