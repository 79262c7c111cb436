// Event objects: new-buffer events of data streams and interface event 1000.
#include <algorithm>
#include <chrono>
#include <cstring>

#include "producer.h"

using namespace kivgev;

namespace {

std::shared_ptr<EventSource> AsSource(Producer& p, const void* h) {
  std::shared_ptr<Module> m = BadPtr(h) ? nullptr : p.FindAny(h);
  if (!m || (m->kind != Kind::System && m->kind != Kind::Interface && m->kind != Kind::Device && m->kind != Kind::Stream))
    return nullptr;
  return std::static_pointer_cast<EventSource>(m);
}

size_t PayloadMax(const Event& e) {
  if (e.type == EVENT_NEW_BUFFER) return sizeof(EVENT_NEW_BUFFER_DATA);
  if (e.type == EVENT_CUSTOM_ID) return 4;
  return 1024;
}

}  // namespace

extern "C" {

GC_API GCRegisterEvent(EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID, EVENT_HANDLE* phEvent) {
  KIVGEV_ENTRY();
  auto src = AsSource(*prod_, hEventSrc);
  if (!src) return SetError(GC_ERR_INVALID_HANDLE, "Invalid event source");
  if (BadPtr(phEvent)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  if (!src->Supports(iEventID)) return SetError(GC_ERR_NOT_IMPLEMENTED, "Event type not supported by this module");
  auto e = std::make_shared<Event>();
  e->source = src;
  e->type = iEventID;
  {
    std::lock_guard<std::mutex> l(src->mu);
    if (src->events.count(iEventID)) return SetError(GC_ERR_RESOURCE_IN_USE, "Event already registered");
    src->events[iEventID] = e;
    // Arrivals and removals are watched for as long as someone listens.
    if (src->kind == Kind::Interface && iEventID == EVENT_CUSTOM_ID) static_cast<Interface&>(*src).StartWatcher();
  }
  prod_->Add(e);
  *phEvent = e.get();
  return GC_ERR_SUCCESS;
}

GC_API GCUnregisterEvent(EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID) {
  KIVGEV_ENTRY();
  auto src = AsSource(*prod_, hEventSrc);
  if (!src) return SetError(GC_ERR_INVALID_HANDLE, "Invalid event source");
  std::shared_ptr<Event> e;
  {
    std::lock_guard<std::mutex> l(src->mu);
    auto it = src->events.find(iEventID);
    if (it == src->events.end()) return SetError(GC_ERR_NOT_INITIALIZED, "Event not registered");
    e = it->second;
    e->dead = true;
    src->events.erase(it);
    src->cv.notify_all();
  }
  prod_->Remove(e.get());
  return GC_ERR_SUCCESS;
}

GC_API EventGetData(EVENT_HANDLE hEvent, void* pBuffer, size_t* piSize, uint64_t iTimeout) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Event, e, hEvent, "event");
  if (BadPtr(piSize)) return SetError(GC_ERR_INVALID_PARAMETER, "Size pointer is NULL");
  if (pBuffer && *piSize < PayloadMax(*e) && e->type != EVENT_ERROR)
    return SetError(GC_ERR_BUFFER_TOO_SMALL, "Buffer too small");
  EventSource& src = *e->source;
  std::unique_lock<std::mutex> l(src.mu);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::min<uint64_t>(iTimeout, 1000000000ULL));
  for (;;) {
    if (e->dead) return SetError(GC_ERR_ABORT, "Event unregistered while waiting");
    if (e->kills > 0) {
      e->kills--;
      return SetError(GC_ERR_ABORT, "Wait aborted by EventKill");
    }
    if (src.Pending(*e) > 0) break;
    if (src.Broken()) return SetError(GC_ERR_IO, "Device does not answer: the camera was lost");
    if (iTimeout == GENTL_INFINITE) {
      src.cv.wait(l);
    } else if (src.cv.wait_until(l, deadline) == std::cv_status::timeout && src.Pending(*e) == 0 && e->kills == 0 && !e->dead) {
      return SetError(GC_ERR_TIMEOUT, "Timeout while waiting for event data");
    }
  }
  std::vector<uint8_t> item;
  src.Take(*e, &item);
  if (pBuffer) {
    std::memcpy(pBuffer, item.data(), std::min(item.size(), *piSize));
    *piSize = item.size();
  }
  return GC_ERR_SUCCESS;
}

GC_API EventGetDataInfo(EVENT_HANDLE hEvent, const void* pInBuffer, size_t iInSize, EVENT_DATA_INFO_CMD iInfoCmd,
                        INFO_DATATYPE* piType, void* pOutBuffer, size_t* piOutSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Event, e, hEvent, "event");
  return kivgentl::EventDataInfo(e->type, pInBuffer, iInSize, iInfoCmd, piType, pOutBuffer, piOutSize);
}

GC_API EventGetInfo(EVENT_HANDLE hEvent, EVENT_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Event, e, hEvent, "event");
  std::lock_guard<std::mutex> l(e->source->mu);
  switch (iInfoCmd) {
    case EVENT_EVENT_TYPE: return PutValue<int32_t>(INFO_DATATYPE_INT32, e->type, piType, pBuffer, piSize);
    case EVENT_NUM_IN_QUEUE: return PutValue<size_t>(INFO_DATATYPE_SIZET, e->source->Pending(*e), piType, pBuffer, piSize);
    case EVENT_NUM_FIRED: return PutValue<uint64_t>(INFO_DATATYPE_UINT64, e->fired, piType, pBuffer, piSize);
    case EVENT_SIZE_MAX: return PutValue<size_t>(INFO_DATATYPE_SIZET, PayloadMax(*e), piType, pBuffer, piSize);
    case EVENT_INFO_DATA_SIZE_MAX:
      return PutValue<size_t>(INFO_DATATYPE_SIZET, e->type == EVENT_NEW_BUFFER ? sizeof(void*) : 4, piType, pBuffer, piSize);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown event information command");
  }
}

GC_API EventFlush(EVENT_HANDLE hEvent) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Event, e, hEvent, "event");
  std::lock_guard<std::mutex> l(e->source->mu);
  std::vector<uint8_t> item;
  while (e->source->Pending(*e) > 0) e->source->Take(*e, &item);
  return GC_ERR_SUCCESS;
}

GC_API EventKill(EVENT_HANDLE hEvent) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Event, e, hEvent, "event");
  std::lock_guard<std::mutex> l(e->source->mu);
  e->kills++;
  e->source->cv.notify_all();
  return GC_ERR_SUCCESS;
}

}  // extern "C"
