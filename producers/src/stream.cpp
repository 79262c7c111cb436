// Data streams, buffers and the delivery engine.
#include <unistd.h>

#include <algorithm>

#include "common.h"
#include "pixfmt.h"

using namespace kivsim;

namespace kivsim {

namespace {

constexpr uint32_t kTooSmall = 0xC0000010u;

bool Good(uint32_t status) { return status == 0 || (status >> 28) == 0x4; }

void Unqueue(Stream* s, Buffer* b) {
  if (b->state == Buffer::Input) {
    s->input.erase(std::find(s->input.begin(), s->input.end(), b));
    if (s->started) s->device->ready_buffers--;
  } else if (b->state == Buffer::Output) {
    s->output.erase(std::find(s->output.begin(), s->output.end(), b));
  }
  b->state = Buffer::Idle;
}

void ToInput(Stream* s, Buffer* b) {
  b->state = Buffer::Input;
  b->new_data = false;
  b->filled = 0;
  s->input.push_back(b);
  if (s->started) s->device->ready_buffers++;
}

void ToOutput(Stream* s, Buffer* b) {
  b->state = Buffer::Output;
  s->output.push_back(b);
}

void NotifyEngine(uint32_t camera) {
  SharedLock l(g_prod->st());
  l.Notify(WakeCamera(camera));
}

uint32_t Reg(Stream* s, uint32_t r) {
  auto it = s->regs.find(r);
  return it == s->regs.end() ? 0 : it->second;
}

// A stream runs when its own register 0x102 is 1, or when it follows (0x100) a
// stream of the same device whose register 0x102 is 1.
bool Running(Stream* s) {
  if (Reg(s, 0x102) == 1) return true;
  uint32_t link = Reg(s, 0x100);
  for (Stream* o : s->device->streams)
    if (o && o != s && o->index + 1 == link && Reg(o, 0x102) == 1) return true;
  return false;
}

void Put32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }
void Put64(uint8_t* p, uint64_t v) { std::memcpy(p, &v, 8); }

struct FrameContext {
  uint64_t frame;
  uint64_t timestamp;
  FrameGeometry g;
  uint32_t packet_payload;
  uint32_t destination;
};

void FillGigEInfo(Stream* s, Buffer* b, const FrameContext& fc, uint32_t packets, bool good) {
  uint32_t off = Reg(s, 0x105);
  size_t bitmap = (packets + 7) / 8;
  if (off == 0 || size_t(off) + 544 + bitmap > b->size) return;
  uint8_t* p = b->base + off;
  std::memset(p, 0, 544);
  uint32_t missing = good ? 0 : 1;
  Put32(p + 0, static_cast<uint32_t>(fc.frame + 1));
  Put32(p + 4, packets);
  Put32(p + 8, packets - missing);
  Put32(p + 16, static_cast<uint32_t>(fc.g.payload));
  Put32(p + 20, fc.packet_payload);
  Put64(p + 24, fc.timestamp);
  Put32(p + 32, fc.g.pixel_format);
  Put32(p + 36, fc.g.width);
  Put32(p + 40, fc.g.height);
  Put32(p + 44, fc.destination);
  Put32(p + 540, missing);
  std::memset(p + 544, 0xFF, bitmap);
  if (missing) p[544 + bitmap - 1] &= 0x7F;
}

void FillUsbInfo(Stream* s, Buffer* b, const FrameContext& fc, uint32_t status, uint64_t received) {
  uint32_t lo = Reg(s, 0x107), to = Reg(s, 0x108);
  if (lo && size_t(lo) + kUsbLeaderSize <= b->size) {
    uint8_t* p = b->base + lo;
    std::memset(p, 0, kUsbLeaderSize);
    Put32(p, 0x4C563355);
    p[6] = kUsbLeaderSize;
    Put64(p + 8, fc.frame + 1);
    p[18] = 1;  // image payload
    Put64(p + 20, fc.timestamp);
    Put32(p + 28, fc.g.pixel_format);
    Put32(p + 32, fc.g.width);
    Put32(p + 36, fc.g.height);
    Put32(p + 40, fc.g.offset_x);
    Put32(p + 44, fc.g.offset_y);
  }
  if (to && size_t(to) + kUsbTrailerSize <= b->size) {
    uint8_t* p = b->base + to;
    std::memset(p, 0, kUsbTrailerSize);
    Put32(p, 0x54563355);
    p[6] = kUsbTrailerSize;
    Put64(p + 8, fc.frame + 1);
    p[17] = static_cast<uint8_t>(Good(status) ? 0 : 0xA1);  // status 0xA100: data discarded
    Put64(p + 20, received);
    Put32(p + 28, fc.g.height);
  }
}

void DeliverOne(Device* d, Stream* s, const FrameContext& fc, const PatternImage* pat, Wakes* wakes) {
  Buffer* b = s->input.front();
  s->input.pop_front();
  d->ready_buffers--;
  const bool gige = ThisTransport() == Transport::GigE;
  uint32_t status = 0, value = 0;
  bool override_value = false;
  if (s->index == 0) {
    auto it = g_prod->overrides.find(d->cam);
    if (it != g_prod->overrides.end() && it->second.count > 0) {
      status = it->second.status;
      value = it->second.value;
      override_value = it->second.use_value;
      if (--it->second.count == 0) g_prod->overrides.erase(it);
    }
  }
  b->too_small = false;
  b->filled = 0;
  if (b->size > 0) {  // a buffer of size 0 is a token: delivered without data
    size_t n = fc.g.payload;
    if (n > b->size) {
      n = b->size;
      b->too_small = true;
      if (status == 0) status = kTooSmall;
    }
    if (pat && n) std::memcpy(b->base, pat->frame(fc.frame), n);
    b->filled = n;
  }
  uint32_t packets = 0;
  if (gige) {
    uint32_t pp = fc.packet_payload ? fc.packet_payload : 1;
    packets = Reg(s, 0x106) ? Reg(s, 0x106) : static_cast<uint32_t>((fc.g.payload + pp - 1) / pp);
    if (b->size > 0) FillGigEInfo(s, b, fc, packets, Good(status));
    if (!override_value) value = Good(status) ? packets : (packets ? packets - 1 : 0);
    uint32_t* log = s->log;
    log[0]++;
    if (!Good(status)) log[1]++, log[3]++;
    log[2] += Good(status) ? packets : packets - 1;
    log[5] = static_cast<uint32_t>(fc.frame + 1);
  } else {
    uint64_t received = Good(status) ? b->filled : (b->filled ? b->filled - 1 : 0);
    if (b->size > 0) FillUsbInfo(s, b, fc, status, received);
    if (!override_value) value = static_cast<uint32_t>(received);
  }
  b->status = status;
  b->value = value;
  b->incomplete = !Good(status);
  b->new_data = true;
  b->frame_id = fc.frame + 1;
  b->timestamp = fc.timestamp;
  b->geometry = fc.g;
  ToOutput(s, b);
  s->delivered++;
  s->delivered_since_start++;
  g_prod->counters[d->cam].delivered++;
  SignalNewBuffer(s, wakes);
}

// Hands frames [first, last] to the started streams of this process (g_mu
// held); the waiters to wake once g_mu is released go to `wakes`.
void Deliver(Device* d, uint64_t first, uint64_t last, const FrameContext& base, bool watcher_blocked, Wakes* wakes) {
  std::shared_ptr<const PatternImage> pat = GetPattern(base.g.pixel_format, base.g.width, base.g.height);
  for (uint64_t f = first; f <= last; ++f) {
    FrameContext fc = base;
    fc.frame = f;
    for (Stream* s : d->streams) {
      if (!s || !s->started || !Running(s) || watcher_blocked) continue;
      if (s->to_acquire != GENTL_INFINITE && s->delivered_since_start >= s->to_acquire) continue;
      if (s->input.empty()) {
        s->underruns++;
        if (s->index == 0) g_prod->counters[d->cam].underruns++;
        continue;
      }
      DeliverOne(d, s, fc, pat.get(), wakes);
    }
  }
}

}  // namespace

void EngineMain(Device* d) {
  // The engine stands in for the camera's hardware: a frame it makes must not
  // preempt the host's thread that queued the buffer (on one CPU every frame
  // then cost two extra switches); it runs when that thread waits or at the
  // next tick.
  if (!getenv("KIVSIM_ENGINE_NORMAL")) {
    sched_param sp{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &sp);
  }
  SharedState* st = g_prod->st();
  SharedCamera& sc = g_prod->cam(d->cam);
  const VirtualDevice& vd = *g_prod->devices[d->cam];
  const int32_t me = getpid();
  uint64_t seen = d->first_seen, next_tick = 0;
  // Frames concern the engines of this camera (in every process) alone.
  const uint32_t wake = WakeCamera(d->cam);
  Wakes wakes;
  for (;;) {
    FrameContext fc{};
    uint64_t first, last;
    bool blocked = false;
    {
      SharedLock l(st);
      for (;;) {
        if (d->stop) return;
        uint64_t deadline = 0;
        const bool controller = d->writable() && sc.owner_pid == me;
        if (controller && sc.acquiring && sc.plugged) {
          const bool triggered = vd.Reg32(sc, kRegTriggerMode) == 1;
          const double fps = vd.Reg32(sc, kRegFrameRate) / 1000.0;
          if (sc.credits > 0) {
            sc.credits--;
            sc.frames++;
            l.Notify(wake);
          } else if (sc.mode == kFreeRun && !triggered) {
            if (fps <= 0.0) {
              if (d->ready_buffers > 0) {
                sc.frames++;
                l.Notify(wake);
              }
            } else {
              const uint64_t now = MonotonicNs(), period = static_cast<uint64_t>(1e9 / fps);
              if (next_tick == 0) next_tick = now + period;
              if (now >= next_tick) {
                sc.frames++;
                l.Notify(wake);
                next_tick = std::max(next_tick + period, now + period / 2);
              }
              deadline = next_tick;
            }
          }
        } else {
          next_tick = 0;
        }
        if (sc.frames != seen) break;
        l.Wait(deadline, wake);
      }
      // A late process only catches the last few frames.
      first = std::max(seen + 1, sc.frames > 8 ? sc.frames - 7 : 1);
      last = sc.frames;
      seen = sc.frames;
      fc.g = vd.Geometry(sc);
      fc.packet_payload = vd.PacketPayload(sc);
      fc.destination = vd.transport() == Transport::GigE ? vd.Reg32(sc, 0x0D18) : 0;
      // Another process receives a GigE camera's frames only from a multicast stream.
      blocked = !(d->writable() && sc.owner_pid == me) && vd.transport() == Transport::GigE &&
                (fc.destination >> 24) != 239;
    }
    fc.timestamp = MonotonicNs();
    {
      std::lock_guard<std::mutex> lock(g_mu);
      // Frame numbers count from 0 for the first frame the camera produced.
      Deliver(d, first - 1, last - 1, fc, blocked, &wakes);
    }
    WakeAll(wakes);
  }
}

void CloseStream(Stream* s) {
  if (s->started) {
    s->device->ready_buffers -= static_cast<uint32_t>(s->input.size());
    s->started = false;
  }
  DropEvents(s);
  for (Buffer* b : s->buffers) {
    g_prod->live.erase(b);
    delete b;
  }
  s->device->streams[s->index] = nullptr;
  g_prod->live.erase(s);
  delete s;
}

}  // namespace kivsim

extern "C" {

GC_API DevOpenDataStream(DEV_HANDLE hDevice, const char* sDataStreamID, DS_HANDLE* phDataStream) {
  KIVSIM_ENTRY("DevOpenDataStream");
  KIVSIM_HANDLE(Device, d, hDevice, "device");
  if (BadPtr(phDataStream) || BadPtr(sDataStreamID)) return SetError(GC_ERR_INVALID_PARAMETER, "NULL parameter");
  uint32_t index = 0;
  for (; index < d->streams.size(); ++index)
    if ("Stream" + std::to_string(index) == sDataStreamID) break;
  if (index == d->streams.size()) return SetError(GC_ERR_INVALID_ID, "Unknown data stream ID");
  if (d->streams[index]) return SetError(GC_ERR_RESOURCE_IN_USE, "Data stream already open");
  auto* s = new Stream();
  s->device = d;
  s->index = index;
  s->id = sDataStreamID;
  for (uint32_t r = 0x100; r <= 0x108; ++r) s->regs[r] = 0;
  s->regs[0x100] = index + 1;
  s->regs.erase(0x101);
  d->streams[index] = s;
  g_prod->live.insert(s);
  *phDataStream = s;
  return GC_ERR_SUCCESS;
}

GC_API DSGetParentDev(DS_HANDLE hDataStream, DEV_HANDLE* phDevice) {
  KIVSIM_ENTRY("DSGetParentDev");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  if (BadPtr(phDevice)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  *phDevice = s->device;
  return GC_ERR_SUCCESS;
}

GC_API DSClose(DS_HANDLE hDataStream) {
  KIVSIM_ENTRY("DSClose");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  CloseStream(s);
  return GC_ERR_SUCCESS;
}

GC_API DSGetInfo(DS_HANDLE hDataStream, STREAM_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer,
                 size_t* piSize) {
  KIVSIM_ENTRY("DSGetInfo");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  auto sz = [&](size_t v) { return PutValue<size_t>(INFO_DATATYPE_SIZET, v, piType, pBuffer, piSize); };
  auto u64 = [&](uint64_t v) { return PutValue<uint64_t>(INFO_DATATYPE_UINT64, v, piType, pBuffer, piSize); };
  switch (iInfoCmd) {
    case STREAM_INFO_ID: return PutString(s->id, piType, pBuffer, piSize);
    case STREAM_INFO_NUM_DELIVERED: return u64(s->delivered_since_start);
    case STREAM_INFO_NUM_UNDERRUN: return u64(s->underruns);
    case STREAM_INFO_NUM_ANNOUNCED: return sz(s->buffers.size());
    case STREAM_INFO_NUM_QUEUED: return sz(s->input.size());
    case STREAM_INFO_NUM_AWAIT_DELIVERY: return sz(s->output.size());
    case STREAM_INFO_NUM_STARTED: return u64(s->starts);
    case STREAM_INFO_PAYLOAD_SIZE: {
      SharedLock l(g_prod->st());
      return sz(g_prod->devices[s->device->cam]->Geometry(g_prod->cam(s->device->cam)).payload);
    }
    case STREAM_INFO_IS_GRABBING: return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, s->started, piType, pBuffer, piSize);
    case STREAM_INFO_DEFINES_PAYLOADSIZE: return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, 0, piType, pBuffer, piSize);
    case STREAM_INFO_TLTYPE: return PutString(TLTypeName(), piType, pBuffer, piSize);
    case STREAM_INFO_NUM_CHUNKS_MAX: return sz(0);
    // The engine may start before any buffer is announced: a host allocates
    // its resources first and its buffers later.
    case STREAM_INFO_BUF_ANNOUNCE_MIN: return sz(0);
    case STREAM_INFO_BUF_ALIGNMENT: return sz(1);
    case STREAM_INFO_FLOW_TABLE:
    case STREAM_INFO_GENDC_PREFETCH_DESCRIPTOR: return SetError(GC_ERR_NO_DATA, "No flows");
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown stream information command");
  }
}

static GC_ERROR Announce(Stream* s, void* pBuffer, size_t iSize, void* pPrivate, BUFFER_HANDLE* phBuffer) {
  auto* b = new Buffer();
  b->stream = s;
  b->size = iSize;
  b->user = pPrivate;
  if (pBuffer) {
    b->base = static_cast<uint8_t*>(pBuffer);
  } else {
    b->owned.reset(new (std::nothrow) uint8_t[iSize ? iSize : 1]);
    if (!b->owned) {
      delete b;
      return SetError(GC_ERR_OUT_OF_MEMORY, "Out of memory");
    }
    b->base = b->owned.get();
  }
  s->buffers.push_back(b);
  g_prod->live.insert(b);
  g_prod->counters[s->device->cam].announces++;
  *phBuffer = b;
  return GC_ERR_SUCCESS;
}

GC_API DSAnnounceBuffer(DS_HANDLE hDataStream, void* pBuffer, size_t iSize, void* pPrivate, BUFFER_HANDLE* phBuffer) {
  KIVSIM_ENTRY("DSAnnounceBuffer");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  if (BadPtr(phBuffer)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  // Announcing the same memory twice is refused; empty tokens may share an address.
  if (pBuffer && iSize > 0)
    for (Buffer* b : s->buffers)
      if (b->base == pBuffer && b->size > 0 && !b->owned) return SetError(GC_ERR_RESOURCE_IN_USE, "Buffer already announced");
  return Announce(s, pBuffer, iSize, pPrivate, phBuffer);
}

GC_API DSAllocAndAnnounceBuffer(DS_HANDLE hDataStream, size_t iSize, void* pPrivate, BUFFER_HANDLE* phBuffer) {
  KIVSIM_ENTRY("DSAllocAndAnnounceBuffer");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  if (BadPtr(phBuffer) || iSize == 0) return SetError(GC_ERR_INVALID_PARAMETER, "Invalid parameter");
  return Announce(s, nullptr, iSize, pPrivate, phBuffer);
}

GC_API DSRevokeBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, void** pBuffer, void** pPrivate) {
  KIVSIM_ENTRY("DSRevokeBuffer");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  Buffer* b = Lookup<Buffer>(hBuffer, ObjType::Buffer);
  if (!b || b->stream != s) return SetError(GC_ERR_INVALID_HANDLE, "Invalid buffer handle");
  if (b->state != Buffer::Idle) return SetError(GC_ERR_BUSY, "Buffer is still queued");
  if (!BadPtr(pBuffer)) *pBuffer = b->owned ? nullptr : b->base;
  if (!BadPtr(pPrivate)) *pPrivate = b->user;
  s->buffers.erase(std::find(s->buffers.begin(), s->buffers.end(), b));
  g_prod->live.erase(b);
  g_prod->counters[s->device->cam].revokes++;
  delete b;
  return GC_ERR_SUCCESS;
}

GC_API DSQueueBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer) {
  KIVSIM_ENTRY("DSQueueBuffer");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  Buffer* b = Lookup<Buffer>(hBuffer, ObjType::Buffer);
  if (!b || b->stream != s) return SetError(GC_ERR_INVALID_HANDLE, "Invalid buffer handle");
  if (b->state != Buffer::Idle) return SetError(GC_ERR_RESOURCE_IN_USE, "Buffer already queued");
  ToInput(s, b);
  const uint32_t camera = s->device->cam;
  g_prod->counters[camera].queues++;
  if (s->started) {
    lock.unlock();
    NotifyEngine(camera);
  }
  return GC_ERR_SUCCESS;
}

GC_API DSGetBufferID(DS_HANDLE hDataStream, uint32_t iIndex, BUFFER_HANDLE* phBuffer) {
  KIVSIM_ENTRY("DSGetBufferID");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  if (BadPtr(phBuffer)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  if (iIndex >= s->buffers.size()) return SetError(GC_ERR_INVALID_INDEX, "Buffer index out of range");
  *phBuffer = s->buffers[iIndex];
  return GC_ERR_SUCCESS;
}

GC_API DSFlushQueue(DS_HANDLE hDataStream, ACQ_QUEUE_TYPE iOperation) {
  KIVSIM_ENTRY("DSFlushQueue");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  switch (iOperation) {
    case ACQ_QUEUE_INPUT_TO_OUTPUT:
      while (!s->input.empty()) {
        Buffer* b = s->input.front();
        Unqueue(s, b);
        b->new_data = false;
        b->filled = 0;
        ToOutput(s, b);
        SignalNewBuffer(s);
      }
      break;
    case ACQ_QUEUE_OUTPUT_DISCARD:
      while (!s->output.empty()) Unqueue(s, s->output.front());
      break;
    case ACQ_QUEUE_ALL_TO_INPUT:
      while (!s->output.empty()) {
        Buffer* b = s->output.front();
        Unqueue(s, b);
        ToInput(s, b);
      }
      break;
    case ACQ_QUEUE_UNQUEUED_TO_INPUT:
      for (Buffer* b : s->buffers)
        if (b->state == Buffer::Idle) ToInput(s, b);
      break;
    case ACQ_QUEUE_ALL_DISCARD:
      for (Buffer* b : s->buffers) Unqueue(s, b);
      break;
    default:
      return SetError(GC_ERR_INVALID_PARAMETER, "Unknown flush operation");
  }
  return GC_ERR_SUCCESS;
}

GC_API DSStartAcquisition(DS_HANDLE hDataStream, ACQ_START_FLAGS /*iStartFlags*/, uint64_t iNumToAcquire) {
  KIVSIM_ENTRY("DSStartAcquisition");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  if (iNumToAcquire == 0) return SetError(GC_ERR_INVALID_PARAMETER, "Nothing to acquire");
  if (s->started) return SetError(GC_ERR_RESOURCE_IN_USE, "Acquisition already started");
  s->started = true;
  s->starts++;
  s->to_acquire = iNumToAcquire;
  s->delivered_since_start = 0;
  s->device->ready_buffers += static_cast<uint32_t>(s->input.size());
  const uint32_t camera = s->device->cam;
  lock.unlock();
  NotifyEngine(camera);
  return GC_ERR_SUCCESS;
}

GC_API DSStopAcquisition(DS_HANDLE hDataStream, ACQ_STOP_FLAGS /*iStopFlags*/) {
  KIVSIM_ENTRY("DSStopAcquisition");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  if (!s->started) return SetError(GC_ERR_RESOURCE_IN_USE, "Acquisition not started");
  s->started = false;
  s->device->ready_buffers -= static_cast<uint32_t>(s->input.size());
  return GC_ERR_SUCCESS;
}

GC_API DSGetBufferInfo(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, BUFFER_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                       void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("DSGetBufferInfo");
  KIVSIM_HANDLE(Stream, s, hDataStream, "data stream");
  Buffer* b = Lookup<Buffer>(hBuffer, ObjType::Buffer);
  if (!b || b->stream != s) return SetError(GC_ERR_INVALID_HANDLE, "Invalid buffer handle");
  INFO_DATATYPE* t = piType;
  void* o = pBuffer;
  size_t* n = piSize;
  auto sz = [&](size_t v) { return PutValue<size_t>(INFO_DATATYPE_SIZET, v, t, o, n); };
  auto u64 = [&](uint64_t v) { return PutValue<uint64_t>(INFO_DATATYPE_UINT64, v, t, o, n); };
  auto b8 = [&](bool v) { return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, v ? 1 : 0, t, o, n); };
  auto ptr = [&](void* v) { return PutValue<void*>(INFO_DATATYPE_PTR, v, t, o, n); };
  const bool image = b->size > 0;
  switch (iInfoCmd) {
    case BUFFER_INFO_BASE: return ptr(b->base);
    case BUFFER_INFO_SIZE: return sz(b->size);
    case BUFFER_INFO_USER_PTR: return ptr(b->user);
    case BUFFER_INFO_TIMESTAMP: return u64(b->timestamp);
    case BUFFER_INFO_TIMESTAMP_NS: return u64(b->timestamp);
    case BUFFER_INFO_NEW_DATA: return b8(b->new_data);
    case BUFFER_INFO_IS_QUEUED: return b8(b->state != Buffer::Idle);
    case BUFFER_INFO_IS_ACQUIRING: return b8(false);
    case BUFFER_INFO_IS_INCOMPLETE: return b8(b->incomplete);
    case BUFFER_INFO_TLTYPE: return PutString(TLTypeName(), t, o, n);
    case BUFFER_INFO_SIZE_FILLED: return sz(b->filled);
    case BUFFER_INFO_DATA_SIZE: return sz(b->filled);
    case BUFFER_INFO_WIDTH: return sz(b->geometry.width);
    case BUFFER_INFO_HEIGHT: return sz(b->geometry.height);
    case BUFFER_INFO_XOFFSET: return sz(b->geometry.offset_x);
    case BUFFER_INFO_YOFFSET: return sz(b->geometry.offset_y);
    case BUFFER_INFO_XPADDING:
    case BUFFER_INFO_YPADDING: return sz(0);
    case BUFFER_INFO_FRAMEID: return u64(b->frame_id);
    case BUFFER_INFO_IMAGEPRESENT: return b8(image && b->new_data);
    case BUFFER_INFO_IMAGEOFFSET: return sz(0);
    case BUFFER_INFO_PAYLOADTYPE: return sz(image ? PAYLOAD_TYPE_IMAGE : PAYLOAD_TYPE_UNKNOWN);
    case BUFFER_INFO_PIXELFORMAT: return u64(b->geometry.pixel_format);
    case BUFFER_INFO_PIXELFORMAT_NAMESPACE: return u64(PIXELFORMAT_NAMESPACE_PFNC_32BIT);
    case BUFFER_INFO_DELIVERED_IMAGEHEIGHT: return sz(b->new_data ? b->geometry.height : 0);
    case BUFFER_INFO_PIXEL_ENDIANNESS: return PutValue<int32_t>(INFO_DATATYPE_INT32, PIXELENDIANNESS_LITTLE, t, o, n);
    case BUFFER_INFO_DATA_LARGER_THAN_BUFFER: return b8(b->too_small);
    case BUFFER_INFO_CONTAINS_CHUNKDATA: return b8(false);
    case BUFFER_INFO_IS_COMPOSITE: return b8(false);
    case BUFFER_INFO_DELIVERED_CHUNKPAYLOADSIZE:
    case BUFFER_INFO_CHUNKLAYOUTID:
    case BUFFER_INFO_FILENAME: return SetError(GC_ERR_NOT_AVAILABLE, "Not available for this payload");
    case 1000: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, b->status, t, o, n);
    case 1001: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, b->value, t, o, n);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown buffer information command");
  }
}

GC_API DSGetBufferChunkData(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, SINGLE_CHUNK_DATA*, size_t* piNumChunks) {
  KIVSIM_ENTRY("DSGetBufferChunkData");
  if (!Lookup<Stream>(hDataStream, ObjType::Stream) || !Lookup<Buffer>(hBuffer, ObjType::Buffer))
    return SetError(GC_ERR_INVALID_HANDLE, "Invalid handle");
  if (BadPtr(piNumChunks)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumChunks = 0;
  return GC_ERR_SUCCESS;
}

GC_API DSGetBufferInfoStacked(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, DS_BUFFER_INFO_STACKED* pInfoStacked,
                              size_t iNumInfos) {
  return kivgentl::BufferInfoStacked(DSGetBufferInfo, hDataStream, hBuffer, pInfoStacked, iNumInfos);
}

GC_API DSGetNumBufferParts(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t* piNumParts) {
  KIVSIM_ENTRY("DSGetNumBufferParts");
  if (!Lookup<Stream>(hDataStream, ObjType::Stream) || !Lookup<Buffer>(hBuffer, ObjType::Buffer))
    return SetError(GC_ERR_INVALID_HANDLE, "Invalid handle");
  if (BadPtr(piNumParts)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumParts = 0;  // single-part images only
  return GC_ERR_SUCCESS;
}

GC_API DSGetBufferPartInfo(DS_HANDLE, BUFFER_HANDLE, uint32_t, BUFFER_PART_INFO_CMD, INFO_DATATYPE*, void*, size_t*) {
  KIVSIM_ENTRY("DSGetBufferPartInfo");
  return SetError(GC_ERR_NO_DATA, "Single-part images only");
}

GC_API DSGetBufferPartInfoStacked(DS_HANDLE, BUFFER_HANDLE, DS_BUFFER_PART_INFO_STACKED*, size_t) {
  KIVSIM_ENTRY("DSGetBufferPartInfoStacked");
  return SetError(GC_ERR_NO_DATA, "Single-part images only");
}

GC_API DSAnnounceCompositeBuffer(DS_HANDLE, size_t, void**, size_t*, void*, BUFFER_HANDLE*) {
  KIVSIM_ENTRY("DSAnnounceCompositeBuffer");
  return SetError(GC_ERR_NOT_IMPLEMENTED, "Composite buffers are not supported");
}

GC_API DSGetNumFlows(DS_HANDLE hDataStream, uint32_t* piNumFlows) {
  KIVSIM_ENTRY("DSGetNumFlows");
  if (!Lookup<Stream>(hDataStream, ObjType::Stream)) return SetError(GC_ERR_INVALID_HANDLE, "Invalid handle");
  if (BadPtr(piNumFlows)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumFlows = 0;
  return GC_ERR_SUCCESS;
}

GC_API DSGetFlowInfo(DS_HANDLE, uint32_t, FLOW_INFO_CMD, INFO_DATATYPE*, void*, size_t*) {
  KIVSIM_ENTRY("DSGetFlowInfo");
  return SetError(GC_ERR_NO_DATA, "No flows");
}

GC_API DSGetNumBufferSegments(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t* piNumSegments) {
  KIVSIM_ENTRY("DSGetNumBufferSegments");
  if (!Lookup<Stream>(hDataStream, ObjType::Stream) || !Lookup<Buffer>(hBuffer, ObjType::Buffer))
    return SetError(GC_ERR_INVALID_HANDLE, "Invalid handle");
  if (BadPtr(piNumSegments)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumSegments = 0;
  return GC_ERR_SUCCESS;
}

GC_API DSGetBufferSegmentInfo(DS_HANDLE, BUFFER_HANDLE, uint32_t, SEGMENT_INFO_CMD, INFO_DATATYPE*, void*, size_t*) {
  KIVSIM_ENTRY("DSGetBufferSegmentInfo");
  return SetError(GC_ERR_NO_DATA, "No segments");
}

}  // extern "C"
