// Event objects: new-buffer events of data streams and the interface event 1000.
#include <algorithm>
#include <chrono>

#include "common.h"

using namespace kivsim;

namespace kivsim {

namespace {

Stream* BufferSource(Event* e) {
  return e->kind == EVENT_NEW_BUFFER ? static_cast<Stream*>(e->source) : nullptr;
}

size_t QueueLength(Event* e) {
  Stream* s = BufferSource(e);
  return s ? s->output.size() : e->queue.size();
}

size_t PayloadMax(Event* e) {
  if (e->kind == EVENT_NEW_BUFFER) return sizeof(EVENT_NEW_BUFFER_DATA);
  if (e->kind == EVENT_CUSTOM_ID) return 4;
  return 1024;
}

EventSource* AsSource(void* h) {
  if (Lookup<Obj>(h, ObjType::System) || Lookup<Obj>(h, ObjType::Interface) || Lookup<Obj>(h, ObjType::Device) ||
      Lookup<Obj>(h, ObjType::Stream))
    return static_cast<EventSource*>(static_cast<Obj*>(h));
  return nullptr;
}

// The state lives in the event, not in a map of this module: a host's
// threads may still wait in EventGetData while the process exits, and exit
// must not free anything under them.
void Release(Event* e) {
  if (e->waiters == 0) delete e;
}

void Unregister(Event* e) {
  Stream* s = BufferSource(e);
  // Delivered buffers that nobody collected become free to requeue or revoke.
  if (s)
    while (!s->output.empty()) {
      s->output.front()->state = Buffer::Idle;
      s->output.pop_front();
    }
  e->source->events.erase(e->kind);
  g_prod->live.erase(e);
  e->dead = true;
  e->cv->notify_all();
  Release(e);
}

}  // namespace

void DropEvents(EventSource* src) {
  while (!src->events.empty()) Unregister(src->events.begin()->second);
}

void PushEvent(EventSource* src, EVENT_TYPE type, const void* data, size_t n) {
  auto it = src->events.find(type);
  if (it == src->events.end()) return;  // nobody listens: dropped
  Event* e = it->second;
  const uint8_t* p = static_cast<const uint8_t*>(data);
  e->queue.emplace_back(p, p + n);
  e->fired++;
  e->cv->notify_all();
}

void SignalNewBuffer(Stream* s, Wakes* later) {
  auto it = s->events.find(EVENT_NEW_BUFFER);
  if (it == s->events.end()) return;
  Event* e = it->second;
  e->fired++;
  if (e->waiters == 0) return;
  if (!later) {
    e->cv->notify_all();
  } else if (std::find(later->begin(), later->end(), e->cv) == later->end()) {
    later->push_back(e->cv);
  }
}

void WakeAll(Wakes& later) {
  for (auto& cv : later) cv->notify_all();
  later.clear();
}

}  // namespace kivsim

extern "C" {

GC_API GCRegisterEvent(EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID, EVENT_HANDLE* phEvent) {
  KIVSIM_ENTRY("GCRegisterEvent");
  EventSource* src = AsSource(hEventSrc);
  if (!src) return SetError(GC_ERR_INVALID_HANDLE, "Invalid event source");
  if (BadPtr(phEvent)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  bool ok = iEventID == EVENT_ERROR || (iEventID == EVENT_NEW_BUFFER && src->type == ObjType::Stream) ||
            (iEventID == EVENT_CUSTOM_ID && src->type == ObjType::Interface);
  if (!ok) return SetError(GC_ERR_NOT_IMPLEMENTED, "Event type not supported by this module");
  if (src->events.count(iEventID)) return SetError(GC_ERR_RESOURCE_IN_USE, "Event already registered");
  auto* e = new Event();
  e->source = src;
  e->kind = iEventID;
  src->events[iEventID] = e;
  g_prod->live.insert(e);
  *phEvent = e;
  return GC_ERR_SUCCESS;
}

GC_API GCUnregisterEvent(EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID) {
  KIVSIM_ENTRY("GCUnregisterEvent");
  EventSource* src = AsSource(hEventSrc);
  if (!src) return SetError(GC_ERR_INVALID_HANDLE, "Invalid event source");
  auto it = src->events.find(iEventID);
  if (it == src->events.end()) return SetError(GC_ERR_NOT_INITIALIZED, "Event not registered");
  Unregister(it->second);
  return GC_ERR_SUCCESS;
}

GC_API EventGetData(EVENT_HANDLE hEvent, void* pBuffer, size_t* piSize, uint64_t iTimeout) {
  KIVSIM_ENTRY("EventGetData");
  KIVSIM_HANDLE(Event, e, hEvent, "event");
  if (BadPtr(piSize)) return SetError(GC_ERR_INVALID_PARAMETER, "Size pointer is NULL");
  const size_t need = PayloadMax(e);
  if (pBuffer && *piSize < need && e->kind != EVENT_ERROR) return SetError(GC_ERR_BUFFER_TOO_SMALL, "Buffer too small");
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::min<uint64_t>(iTimeout, 1000000000ULL));
  e->waiters++;
  bool timed_out = false;
  while (!e->dead && e->kills == 0 && QueueLength(e) == 0) {
    if (iTimeout == GENTL_INFINITE) {
      e->cv->wait(lock);
    } else if (e->cv->wait_until(lock, deadline) == std::cv_status::timeout) {
      timed_out = e->kills == 0 && QueueLength(e) == 0;
      break;
    }
  }
  e->waiters--;
  if (e->dead) {
    Release(e);
    return SetError(GC_ERR_ABORT, "Event unregistered while waiting");
  }
  if (e->kills > 0) {
    e->kills--;
    return SetError(GC_ERR_ABORT, "Wait aborted by EventKill");
  }
  if (timed_out) return SetError(GC_ERR_TIMEOUT, "Timeout while waiting for event data");
  if (Stream* s = BufferSource(e)) {
    Buffer* b = s->output.front();
    s->output.pop_front();
    b->state = Buffer::Idle;
    if (pBuffer) {
      EVENT_NEW_BUFFER_DATA d;
      d.BufferHandle = b;
      // Producer-allocated memory: the second word carries the data address.
      d.pUserPointer = b->owned ? static_cast<void*>(b->base) : b->user;
      std::memcpy(pBuffer, &d, sizeof d);
      *piSize = sizeof d;
    }
    return GC_ERR_SUCCESS;
  }
  std::vector<uint8_t> item = std::move(e->queue.front());
  e->queue.pop_front();
  if (pBuffer) {
    std::memcpy(pBuffer, item.data(), std::min(item.size(), *piSize));
    *piSize = item.size();
  }
  return GC_ERR_SUCCESS;
}

GC_API EventGetDataInfo(EVENT_HANDLE hEvent, const void* pInBuffer, size_t iInSize, EVENT_DATA_INFO_CMD iInfoCmd,
                        INFO_DATATYPE* piType, void* pOutBuffer, size_t* piOutSize) {
  KIVSIM_ENTRY("EventGetDataInfo");
  KIVSIM_HANDLE(Event, e, hEvent, "event");
  return kivgentl::EventDataInfo(e->kind, pInBuffer, iInSize, iInfoCmd, piType, pOutBuffer, piOutSize);
}

GC_API EventGetInfo(EVENT_HANDLE hEvent, EVENT_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("EventGetInfo");
  KIVSIM_HANDLE(Event, e, hEvent, "event");
  switch (iInfoCmd) {
    case EVENT_EVENT_TYPE: return PutValue<int32_t>(INFO_DATATYPE_INT32, e->kind, piType, pBuffer, piSize);
    case EVENT_NUM_IN_QUEUE: return PutValue<size_t>(INFO_DATATYPE_SIZET, QueueLength(e), piType, pBuffer, piSize);
    case EVENT_NUM_FIRED: return PutValue<uint64_t>(INFO_DATATYPE_UINT64, e->fired, piType, pBuffer, piSize);
    case EVENT_SIZE_MAX: return PutValue<size_t>(INFO_DATATYPE_SIZET, PayloadMax(e), piType, pBuffer, piSize);
    case EVENT_INFO_DATA_SIZE_MAX:
      return PutValue<size_t>(INFO_DATATYPE_SIZET, e->kind == EVENT_NEW_BUFFER ? sizeof(void*) : 4, piType, pBuffer,
                              piSize);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown event information command");
  }
}

GC_API EventFlush(EVENT_HANDLE hEvent) {
  KIVSIM_ENTRY("EventFlush");
  KIVSIM_HANDLE(Event, e, hEvent, "event");
  if (Stream* s = BufferSource(e)) {
    while (!s->output.empty()) {
      s->output.front()->state = Buffer::Idle;
      s->output.pop_front();
    }
  }
  e->queue.clear();
  return GC_ERR_SUCCESS;
}

GC_API EventKill(EVENT_HANDLE hEvent) {
  KIVSIM_ENTRY("EventKill");
  KIVSIM_HANDLE(Event, e, hEvent, "event");
  e->kills++;
  e->cv->notify_all();
  return GC_ERR_SUCCESS;
}

}  // extern "C"
