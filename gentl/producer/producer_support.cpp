#include "producer_support.h"

#include <pthread.h>

#include <cstring>
#include <mutex>
#include <set>

namespace kivgentl {

namespace {
// The last error of each thread. A pthread key rather than thread_local: a
// module loaded with dlopen would get dynamic TLS, which leak checkers trip over.
struct LastError {
  GC_ERROR code = GC_ERR_SUCCESS;
  std::string text;
};
pthread_key_t g_error_key;
// Every thread's record, so that an unload frees those of threads that end
// later, whose key destructor no longer runs then. Raw: static destructors
// may run before the unload's.
std::mutex* g_errors_mu = nullptr;
std::set<LastError*>* g_errors = nullptr;
bool (*g_still_initialised)() = nullptr;

void FreeLastError(void* p) {
  if (!p) return;
  {
    std::lock_guard<std::mutex> g(*g_errors_mu);
    g_errors->erase(static_cast<LastError*>(p));
  }
  delete static_cast<LastError*>(p);
}

__attribute__((constructor)) void CreateErrorKey() {
  g_errors_mu = new std::mutex;
  g_errors = new std::set<LastError*>;
  pthread_key_create(&g_error_key, FreeLastError);
}

__attribute__((destructor)) void DeleteErrorKey() {
  if (g_still_initialised && g_still_initialised()) return;
  pthread_key_delete(g_error_key);
  {
    // A thread that ended just now freed its record under the lock.
    std::lock_guard<std::mutex> g(*g_errors_mu);
    for (LastError* e : *g_errors) delete e;
  }
  delete g_errors;
  delete g_errors_mu;
}

LastError* ThreadError(bool create) {
  auto* e = static_cast<LastError*>(pthread_getspecific(g_error_key));
  if (!e && create) {
    e = new LastError();
    {
      std::lock_guard<std::mutex> g(*g_errors_mu);
      g_errors->insert(e);
    }
    pthread_setspecific(g_error_key, e);
  }
  return e;
}

}  // namespace

void SetUnloadCheck(bool (*still_initialised)()) { g_still_initialised = still_initialised; }

GC_ERROR SetError(GC_ERROR code, const std::string& text) {
  LastError* e = ThreadError(true);
  e->code = code;
  e->text = text;
  return code;
}

GC_ERROR GetLastError(GC_ERROR* piErrorCode, char* sErrText, size_t* piSize) {
  if (BadPtr(piErrorCode) || BadPtr(piSize)) return GC_ERR_INVALID_PARAMETER;
  const LastError* last = ThreadError(false);
  const std::string text = last ? last->text : std::string("No Error");
  if (sErrText) {
    if (*piSize < text.size() + 1) {
      *piSize = text.size() + 1;
      return GC_ERR_BUFFER_TOO_SMALL;
    }
    std::memcpy(sErrText, text.c_str(), text.size() + 1);
  }
  *piSize = text.size() + 1;
  *piErrorCode = last ? last->code : GC_ERR_SUCCESS;
  return GC_ERR_SUCCESS;
}

GC_ERROR PutInfo(INFO_DATATYPE type, const void* data, size_t n, INFO_DATATYPE* piType, void* pBuffer,
                 size_t* piSize) {
  if (BadPtr(piSize)) return SetError(GC_ERR_INVALID_PARAMETER, "Size pointer is NULL");
  if (piType) *piType = type;
  if (!pBuffer) {
    *piSize = n;
    return GC_ERR_SUCCESS;
  }
  if (*piSize < n) {
    *piSize = n;
    return SetError(GC_ERR_BUFFER_TOO_SMALL, "Buffer too small");
  }
  std::memcpy(pBuffer, data, n);
  *piSize = n;
  return GC_ERR_SUCCESS;
}

GC_ERROR BufferInfoStacked(BufferInfoFn info, DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer,
                           DS_BUFFER_INFO_STACKED* pInfoStacked, size_t iNumInfos) {
  if (BadPtr(pInfoStacked)) return SetError(GC_ERR_INVALID_PARAMETER, "NULL parameter");
  GC_ERROR result = GC_ERR_SUCCESS;
  for (size_t i = 0; i < iNumInfos; ++i) {
    DS_BUFFER_INFO_STACKED& e = pInfoStacked[i];
    size_t size = e.iSize;
    INFO_DATATYPE type = e.iType;
    e.iResult = info(hDataStream, hBuffer, e.iInfoCmd, &type, e.pBuffer, &size);
    e.iSize = size;
    e.iType = type;
    if (e.iResult != GC_ERR_SUCCESS) result = GC_ERR_ERROR;
  }
  return result;
}

GC_ERROR EventDataInfo(EVENT_TYPE kind, const void* pInBuffer, size_t iInSize, EVENT_DATA_INFO_CMD iInfoCmd,
                       INFO_DATATYPE* piType, void* pOutBuffer, size_t* piOutSize) {
  if (BadPtr(pInBuffer)) return SetError(GC_ERR_INVALID_PARAMETER, "Event data is NULL");
  if (kind == EVENT_NEW_BUFFER) {
    if (iInSize < sizeof(EVENT_NEW_BUFFER_DATA)) return SetError(GC_ERR_INVALID_PARAMETER, "Event data too short");
    EVENT_NEW_BUFFER_DATA d;
    std::memcpy(&d, pInBuffer, sizeof d);
    if (iInfoCmd == EVENT_DATA_ID) return PutValue<void*>(INFO_DATATYPE_PTR, d.BufferHandle, piType, pOutBuffer, piOutSize);
    if (iInfoCmd == EVENT_DATA_VALUE) return PutValue<void*>(INFO_DATATYPE_PTR, d.pUserPointer, piType, pOutBuffer, piOutSize);
    if (iInfoCmd == EVENT_DATA_NUMID) return SetError(GC_ERR_NOT_AVAILABLE, "No numeric ID");
    return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown event data command");
  }
  if (kind == EVENT_CUSTOM_ID) {
    if (iInSize < 4) return SetError(GC_ERR_INVALID_PARAMETER, "Event data too short");
    uint32_t code;
    std::memcpy(&code, pInBuffer, 4);
    if (iInfoCmd == EVENT_DATA_ID || iInfoCmd == EVENT_DATA_VALUE)
      return PutValue<uint32_t>(INFO_DATATYPE_UINT32, code, piType, pOutBuffer, piOutSize);
    if (iInfoCmd == EVENT_DATA_NUMID) return PutValue<uint64_t>(INFO_DATATYPE_UINT64, code, piType, pOutBuffer, piOutSize);
  }
  return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown event data command");
}

}  // namespace kivgentl
