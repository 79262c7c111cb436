// What the project's GenTL producers (the virtual cameras and the network
// GigE Vision producer) do alike: the calling thread's last error that
// GCGetLastError reports, the answer convention of the information calls,
// stacked buffer information and the data of the events they raise.
// Linked into each producer on its own: every producer keeps its own errors.
#pragma once
#include <kivgentl/gentl.h>

#include <cstdint>
#include <string>

namespace kivgentl {

// Records `code` and `text` as the calling thread's last error; returns `code`.
GC_ERROR SetError(GC_ERROR code, const std::string& text);
// GCGetLastError: the calling thread's last error ("No Error" and success
// when it has none).
GC_ERROR GetLastError(GC_ERROR* piErrorCode, char* sErrText, size_t* piSize);
// Asked when the producer is unloaded: while it still answers true (a host
// exiting without GCCloseLib, its threads maybe still inside the producer),
// the threads' error records are left to the process's end.
void SetUnloadCheck(bool (*still_initialised)());

inline bool BadPtr(const void* p) { return !p || p == reinterpret_cast<const void*>(~uintptr_t(0)); }

// The answer of an information call: `n` bytes of `data` of `type`, or only
// the size needed when `pBuffer` is null.
GC_ERROR PutInfo(INFO_DATATYPE type, const void* data, size_t n, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize);
inline GC_ERROR PutString(const std::string& s, INFO_DATATYPE* t, void* b, size_t* n) {
  return PutInfo(INFO_DATATYPE_STRING, s.c_str(), s.size() + 1, t, b, n);
}
template <class T>
GC_ERROR PutValue(INFO_DATATYPE type, T v, INFO_DATATYPE* t, void* b, size_t* n) {
  return PutInfo(type, &v, sizeof v, t, b, n);
}

// DSGetBufferInfoStacked through the producer's own DSGetBufferInfo.
using BufferInfoFn = GC_ERROR (*)(DS_HANDLE, BUFFER_HANDLE, BUFFER_INFO_CMD, INFO_DATATYPE*, void*, size_t*);
GC_ERROR BufferInfoStacked(BufferInfoFn info, DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer,
                           DS_BUFFER_INFO_STACKED* pInfoStacked, size_t iNumInfos);

// EventGetDataInfo for the events the producers raise: new buffers (handle
// and user pointer) and the interface event 1000 (a 4-byte code).
GC_ERROR EventDataInfo(EVENT_TYPE kind, const void* pInBuffer, size_t iInSize, EVENT_DATA_INFO_CMD iInfoCmd,
                       INFO_DATATYPE* piType, void* pOutBuffer, size_t* piOutSize);

}  // namespace kivgentl
