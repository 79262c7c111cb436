#include "diag/output_filter.h"

#include <cstring>
#include <memory>

#include "diag/process_objects.h"
#include "platform/platform.h"

namespace kivcam::diag {

namespace {

constexpr uint32_t kNoSlot = 0xFFFFFFFFu;

// The channel's objects and what the writer keeps for itself: the sizes and
// the write index are this process's own copies, so whatever a reader writes
// into the header never sends a copy past the slots.
struct Channel {
  std::unique_ptr<platform::NamedEvent> event;
  std::unique_ptr<platform::SharedMapping> header;
  std::unique_ptr<platform::SharedMapping> data;
  uint32_t frame_size = 0;
  uint32_t stride = 0;
  uint32_t write_index = 0;
  uint32_t pending = kNoSlot;  // handed out by GetAddr, not yet published

  FilterHeader* Header() const { return static_cast<FilterHeader*>(header->data()); }
  unsigned char* Slot(uint32_t i) const {
    return static_cast<unsigned char*>(data->data()) + static_cast<size_t>(i) * stride;
  }
};

// Raw pointers, as the call log's: at process end the C++ static destructors
// run before the library's shut-down. Both change only under the mutex
// (the mutex itself only at load and unload).
platform::NamedMutex* g_mutex = nullptr;
Channel* g_channel = nullptr;

// The filter mutex, held for one operation. It is shared with the reader:
// one that died holding it leaves it abandoned, and then it is ours.
class FilterLock {
 public:
  FilterLock() {
    if (!g_mutex) return;
    platform::MutexWait w = g_mutex->Wait(platform::kInfinite);
    held_ = w == platform::MutexWait::kAcquired || w == platform::MutexWait::kAbandoned;
  }
  ~FilterLock() {
    if (held_) g_mutex->Release();
  }
  FilterLock(const FilterLock&) = delete;
  FilterLock& operator=(const FilterLock&) = delete;
  bool held() const { return held_; }

 private:
  bool held_ = false;
};

// POSIX names outlive their handles: a channel that is given up (or never
// finished) takes its names with it, so that the next Alloc makes new ones.
void RemoveChannelNames() {
  const uint32_t pid = platform::ProcessId();
  platform::RemoveMachineWideName(FilterEventName(pid));
  platform::RemoveMachineWideName(FilterHeaderName(pid));
  platform::RemoveMachineWideName(FilterDataName(pid));
}

// Never the slot the reader holds: next after the newest frame, or, when the
// reader holds that one, the newest frame's own slot (status -1).
int32_t ChooseSlot(const Channel& c, uint32_t* slot) {
  const uint32_t next = c.write_index + 1 == kFilterSlots ? 0 : c.write_index + 1;
  if (__atomic_load_n(&c.Header()->ReadIndex, __ATOMIC_RELAXED) == next) {
    *slot = c.write_index;
    return KIVCAMFILTER_NEWEST_SLOT;
  }
  *slot = next;
  return KIVCAMFILTER_OK;
}

void Publish(Channel& c, uint32_t slot) {
  c.write_index = slot;
  __atomic_store_n(&c.Header()->WriteIndex, slot, __ATOMIC_RELEASE);
  c.pending = kNoSlot;
  c.event->Set();
}

}  // namespace

void OpenOutputFilter() {
  g_mutex = platform::NamedMutex::CreateOrOpen(FilterMutexName(platform::ProcessId())).release();
}

void CloseOutputFilter(bool process_ending) {
  if (process_ending) return;
  delete g_channel;
  g_channel = nullptr;
  RemoveChannelNames();
  delete g_mutex;
  g_mutex = nullptr;
}

int32_t FilterAlloc(uint32_t width, uint32_t height, uint32_t user_value) {
  FilterLock lock;
  if (!lock.held()) return KIVCAMFILTER_ERROR;
  const uint32_t pid = platform::ProcessId();
  // A failure undoes what this call made; names of a channel this process
  // already has are never touched.
  auto fail = [] {
    if (!g_channel) RemoveChannelNames();
    return KIVCAMFILTER_ERROR;
  };
  auto c = std::make_unique<Channel>();
  c->event = platform::NamedEvent::CreateOrOpen(FilterEventName(pid));
  if (!c->event) return KIVCAMFILTER_ERROR;  // nothing made yet
  c->header = platform::SharedMapping::CreateOrOpen(FilterHeaderName(pid), kFilterHeaderSize);
  if (!c->header) return fail();
  // Ours or anyone's: the handles just obtained are closed, the existing
  // channel keeps its own.
  if (c->header->already_existed()) return KIVCAMFILTER_EXISTS;

  if (!FilterSizes(width, height, &c->frame_size, &c->stride)) return fail();
  FilterHeader* h = c->Header();
  h->WriteIndex = 0;
  h->ReadIndex = 0;
  h->Width = width;
  h->Height = height;
  h->UserValue = user_value;
  h->FrameSize = c->frame_size;
  h->SlotStride = c->stride;

  c->data = platform::SharedMapping::CreateOrOpen(FilterDataName(pid),
                                                  static_cast<size_t>(c->stride) * kFilterSlots);
  if (!c->data) return fail();
  std::memset(c->Slot(0), 0, c->frame_size);
  g_channel = c.release();
  return KIVCAMFILTER_OK;
}

int32_t FilterOutPut(const void* frame) {
  if (!frame) return KIVCAMFILTER_ERROR;  // nothing is written
  FilterLock lock;
  if (!lock.held() || !g_channel) return KIVCAMFILTER_ERROR;
  Channel& c = *g_channel;
  uint32_t slot;
  int32_t status = ChooseSlot(c, &slot);
  std::memcpy(c.Slot(slot), frame, c.frame_size);
  Publish(c, slot);  // a slot handed out by GetAddr is forgotten
  return status;
}

int32_t FilterGetAddr(void** slot) {
  if (!slot) return KIVCAMFILTER_ERROR;  // nothing is handed out
  FilterLock lock;
  if (!lock.held() || !g_channel) return KIVCAMFILTER_ERROR;
  Channel& c = *g_channel;
  uint32_t chosen;
  int32_t status = ChooseSlot(c, &chosen);
  c.pending = chosen;
  *slot = c.Slot(chosen);
  return status;
}

int32_t FilterFlush() {
  FilterLock lock;
  if (!lock.held() || !g_channel) return KIVCAMFILTER_ERROR;
  Channel& c = *g_channel;
  if (c.pending == kNoSlot) return KIVCAMFILTER_NO_PENDING;
  Publish(c, c.pending);
  return KIVCAMFILTER_OK;
}

int32_t FilterPurge() {
  FilterLock lock;
  if (!lock.held() || !g_channel) return KIVCAMFILTER_ERROR;
  Channel& c = *g_channel;
  __atomic_store_n(&c.Header()->ReadIndex, c.write_index, __ATOMIC_RELAXED);
  c.event->Set();
  return KIVCAMFILTER_OK;
}

int32_t FilterFree() {
  FilterLock lock;
  if (!lock.held() || !g_channel) return KIVCAMFILTER_ERROR;
  // The views go too, and with them the names: a later Alloc in this
  // process makes a new channel (of another size, say). Slot addresses
  // handed out before are invalid from here on; a reader keeps its own
  // views of the old channel.
  delete g_channel;
  g_channel = nullptr;
  RemoveChannelNames();
  return KIVCAMFILTER_OK;
}

}  // namespace kivcam::diag
