// The reader's side of the output filter (libkivcamreader.so): opens another
// process's channel by its id without creating anything, and takes frames
// under the filter mutex as the writer expects.
#include "kivcam/kivcam_reader.h"

#include <algorithm>
#include <memory>
#include <new>

#include "diag/output_filter.h"
#include "diag/process_objects.h"
#include "platform/platform.h"

namespace platform = kivcam::platform;
namespace diag = kivcam::diag;

struct KIVCAMREADER {
  std::unique_ptr<platform::NamedMutex> mutex;
  std::unique_ptr<platform::NamedEvent> event;
  std::unique_ptr<platform::SharedMapping> header;
  std::unique_ptr<platform::SharedMapping> data;
  KIVCAMFILTER_HEADER at_open{};
};

namespace {

// The writer holds the filter mutex for a frame's copy at most: a reader
// that can't have it within this time reports it instead of hanging.
constexpr uint32_t kTakeWaitMs = 2000;

class Held {
 public:
  Held(platform::NamedMutex& m, uint32_t timeout_ms) : m_(m) {
    platform::MutexWait w = m_.Wait(timeout_ms);
    held_ = w == platform::MutexWait::kAcquired || w == platform::MutexWait::kAbandoned;
  }
  ~Held() {
    if (held_) m_.Release();
  }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  bool held() const { return held_; }

 private:
  platform::NamedMutex& m_;
  bool held_ = false;
};

KIVCAMFILTER_HEADER* HeaderOf(const KIVCAMREADER& r) {
  return static_cast<KIVCAMFILTER_HEADER*>(r.header->data());
}

// A header only the writer's Alloc could have written: sizes that agree.
bool Sensible(const KIVCAMFILTER_HEADER& h) {
  uint32_t frame, stride;
  return diag::FilterSizes(h.Width, h.Height, &frame, &stride) && frame != 0 && frame == h.FrameSize &&
         stride == h.SlotStride;
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAMREADER* KIVCAMREADER_Open(uint32_t writer) {
  try {
    auto r = std::make_unique<KIVCAMREADER>();
    // The header first: no header, no channel, and nothing else is looked at.
    r->header = platform::SharedMapping::Open(diag::FilterHeaderName(writer), diag::kFilterHeaderSize);
    if (!r->header) return nullptr;
    r->mutex = platform::NamedMutex::Open(diag::FilterMutexName(writer));
    r->event = platform::NamedEvent::Open(diag::FilterEventName(writer));
    if (!r->mutex || !r->event) return nullptr;
    {
      // The writer's Alloc holds the mutex until the channel is complete.
      Held lock(*r->mutex, kTakeWaitMs);
      if (!lock.held()) return nullptr;
      r->at_open = *HeaderOf(*r);
      if (!Sensible(r->at_open)) return nullptr;
      r->data = platform::SharedMapping::Open(diag::FilterDataName(writer),
                                              static_cast<size_t>(r->at_open.SlotStride) * diag::kFilterSlots);
    }
    return r->data ? r.release() : nullptr;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

KIVCAM_API void KIVCAMREADER_Close(KIVCAMREADER* reader) { delete reader; }

KIVCAM_API void KIVCAMREADER_GetHeader(const KIVCAMREADER* reader, KIVCAMFILTER_HEADER* header) {
  if (reader && header) *header = reader->at_open;
}

KIVCAM_API uint32_t KIVCAMREADER_Wait(KIVCAMREADER* reader, uint32_t timeout_ms) {
  return reader ? reader->event->WaitCount(timeout_ms) : 0;
}

KIVCAM_API int32_t KIVCAMREADER_Take(KIVCAMREADER* reader, const void** frame) {
  if (!reader || !frame) return -1;
  Held lock(*reader->mutex, kTakeWaitMs);
  if (!lock.held()) return -1;
  KIVCAMFILTER_HEADER* h = HeaderOf(*reader);
  uint32_t newest = __atomic_load_n(&h->WriteIndex, __ATOMIC_ACQUIRE);
  if (newest >= diag::kFilterSlots || newest == h->ReadIndex) return 0;
  h->ReadIndex = newest;
  *frame = static_cast<const unsigned char*>(reader->data->data()) +
           static_cast<size_t>(newest) * reader->at_open.SlotStride;
  return 1;
}

KIVCAM_API uint32_t KIVCAMREADER_ListWriters(uint32_t* pids, uint32_t capacity) {
  try {
    auto table = platform::SharedMapping::Open(KIVCAM_PROCESS_TABLE_NAME, sizeof(KIVCAM_PROCESSTABLE));
    if (!table) return 0;
    // A copy, read without the table's mutex: a list for people, not a lock.
    KIVCAM_PROCESSTABLE t = *static_cast<const KIVCAM_PROCESSTABLE*>(table->data());
    uint32_t count = std::min(t.Count, KIVCAM_PROCESS_TABLE_ENTRIES), found = 0;
    for (uint32_t i = 0; i < count; ++i) {
      auto header = platform::SharedMapping::Open(diag::FilterHeaderName(t.ProcessId[i]), diag::kFilterHeaderSize);
      if (!header) continue;
      if (pids && found < capacity) pids[found] = t.ProcessId[i];
      ++found;
    }
    return found;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

}  // extern "C"
