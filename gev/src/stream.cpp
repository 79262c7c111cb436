// Data streams and buffers. Stream 0 of a device receives the camera's GVSP
// channel; stream 1 carries one token per image of the stream it follows
// (data-stream register 0x100), as the virtual producers' VSync stream does.
#include <algorithm>
#include <cstring>

#include "kivgev/kivgev.h"
#include "producer.h"
#include "receiver.h"

namespace kivgev {

namespace {

void Unqueue(Stream& s, Buffer* b) {
  if (b->state == Buffer::Input) s.input.erase(std::find(s.input.begin(), s.input.end(), b));
  if (b->state == Buffer::Output) s.output.erase(std::find(s.output.begin(), s.output.end(), b));
  b->state = Buffer::Idle;
}

void ToInput(Stream& s, Buffer* b) {
  b->state = Buffer::Input;
  b->new_data = false;
  b->filled = 0;
  s.input.push_back(b);
}

bool Wanted(const Stream& s) { return s.to_acquire == GENTL_INFINITE || s.delivered_since_start < s.to_acquire; }

std::shared_ptr<Buffer> FindBuffer(Producer& p, Stream& s, const void* h) {
  auto b = p.Find<Buffer>(h, Kind::Buffer);
  return b && b->stream == &s ? b : nullptr;
}

}  // namespace

Stream::Stream() : EventSource(Kind::Stream) {}
Stream::~Stream() = default;

bool Stream::Running() const { return Reg(0x102) == 1 && started && Wanted(*this); }

size_t Stream::Pending(Event& e) { return e.type == EVENT_NEW_BUFFER ? output.size() : e.queue.size(); }

void Stream::Take(Event& e, std::vector<uint8_t>* item) {
  if (e.type != EVENT_NEW_BUFFER) return EventSource::Take(e, item);
  Buffer* b = output.front();
  output.pop_front();
  b->state = Buffer::Idle;
  EVENT_NEW_BUFFER_DATA d;
  d.BufferHandle = b;
  // Producer-allocated memory: the second word carries the data address.
  d.pUserPointer = b->owned ? static_cast<void*>(b->base) : b->user;
  const uint8_t* p = reinterpret_cast<const uint8_t*>(&d);
  item->assign(p, p + sizeof d);
}

void Stream::Deliver(Buffer* b) {
  b->state = Buffer::Output;
  output.push_back(b);
  delivered++;
  delivered_since_start++;
  auto it = events.find(EVENT_NEW_BUFFER);
  if (it != events.end()) it->second->fired++;
  cv.notify_all();
}

void Stream::DeliverTokens(bool running) {
  std::vector<std::shared_ptr<Stream>> followers;
  {
    std::lock_guard<std::mutex> l(device->mu);
    for (auto& w : device->streams)
      if (auto f = w.lock())
        if (f.get() != this) followers.push_back(f);
  }
  for (auto& f : followers) {
    std::lock_guard<std::mutex> l(f->mu);
    const bool follows = f->Reg(0x100) == index + 1 && running;
    if (!f->started || !(follows || f->Reg(0x102) == 1) || !Wanted(*f)) continue;
    if (f->input.empty()) {
      f->underruns++;
      continue;
    }
    Buffer* t = f->input.front();
    f->input.pop_front();
    t->new_data = true;
    t->filled = 0;
    t->status = 0;
    t->frame_id = delivered;
    f->Deliver(t);
  }
}

GC_ERROR Stream::SetDestination(uint32_t ip) {
  if (!receiver) return SetError(GC_ERR_ACCESS_DENIED, "Only the image stream has a destination");
  // A destination of 0 closes the channel: nothing to receive until a new one.
  bool restart;
  {
    std::lock_guard<std::mutex> l(mu);
    restart = started && ip != 0;
  }
  receiver->Stop();
  GC_ERROR e = OpenChannel(ip);
  if (e != GC_ERR_SUCCESS) return e;
  return restart ? StartReceiver() : GC_ERR_SUCCESS;
}

// With the receiver stopped: the sockets for `ip`, then the camera's registers.
GC_ERROR Stream::OpenChannel(uint32_t ip) {
  Device& d = *device;
  std::string err;
  GvcpResult r;
  if (ip == 0) {
    receiver->LeaveGroup();
    if (!d.lost) r = d.gvcp.WriteReg(kRegScp0, 0);
  } else {
    if (!receiver->Open(d.iface->net, d.rec.ip, &err)) return SetError(GC_ERR_IO, err);
    receiver->LeaveGroup();
    uint16_t port = receiver->unicast_port();
    if (IsMulticast(ip)) {
      if (!receiver->JoinGroup(ip, 0, d.iface->net.ip, &err)) return SetError(GC_ERR_IO, err);
      port = receiver->group_port();
    }
    // The destination first: a non-zero port opens the channel.
    const uint32_t regs[2] = {kRegScda0, kRegScp0};
    const uint32_t values[2] = {ip, port};
    r = d.gvcp.WriteRegs(regs, values, 2);
  }
  if (!r.ok()) return FromGvcp(r);
  std::lock_guard<std::mutex> l(mu);
  regs[0x104] = ip;
  destination_set = true;
  return GC_ERR_SUCCESS;
}

GC_ERROR Stream::StartReceiver() {
  if (!receiver) return GC_ERR_SUCCESS;
  Device& d = *device;
  if (d.lost) return d.LostError();
  bool chosen;
  {
    std::lock_guard<std::mutex> l(mu);
    chosen = destination_set;
  }
  std::string err;
  if (!receiver->Open(d.iface->net, d.rec.ip, &err)) return SetError(GC_ERR_IO, err);
  if (d.writable() && !chosen) {
    // A host that never set a destination gets the stream on this interface.
    GC_ERROR e = OpenChannel(d.destination ? d.destination : d.iface->net.ip);
    if (e != GC_ERR_SUCCESS) return e;
  }
  uint32_t scps = 0, gvsp = 0;
  GvcpResult r = d.gvcp.ReadReg(kRegScps0, &scps);
  if (!r.ok()) return FromGvcp(r);
  // 64-bit block IDs exist from GigE Vision 2.0 on.
  if ((d.version >> 16) >= 2 && !d.gvcp.ReadReg(kRegGvspConfig, &gvsp).ok()) gvsp = 0;
  packet_size = scps & 0xFFFF;
  receiver->SetPacketLayout(packet_size, (gvsp & kGvspExtendedIds) != 0);
  receiver->Start(d.rec.ip, !d.writable());
  return GC_ERR_SUCCESS;
}

void Stream::StopReceiver() {
  if (receiver) receiver->Stop();
}

void Stream::Close() {
  StopReceiver();
  std::vector<std::shared_ptr<Buffer>> owned;
  uint32_t destination = 0;
  {
    std::lock_guard<std::mutex> l(mu);
    started = false;
    owned.swap(buffers);
    input.clear();
    output.clear();
    DropEvents();
    destination = Reg(0x104);
  }
  auto prod = CurrentProducer();
  if (prod) {
    for (auto& b : owned) prod->Remove(b.get());
    prod->Remove(this);
  }
  if (receiver && destination && device->writable() && !device->lost) device->gvcp.WriteReg(kRegScp0, 0);
  std::lock_guard<std::mutex> l(device->mu);
  for (auto& w : device->streams)
    if (w.lock().get() == this) w.reset();
}

}  // namespace kivgev

using namespace kivgev;

extern "C" {

GC_API DevOpenDataStream(DEV_HANDLE hDevice, const char* sDataStreamID, DS_HANDLE* phDataStream) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Device, d, hDevice, "device");
  if (BadPtr(phDataStream) || BadPtr(sDataStreamID)) return SetError(GC_ERR_INVALID_PARAMETER, "NULL parameter");
  std::lock_guard<std::mutex> l(d->mu);
  uint32_t index = 0;
  for (; index < d->streams.size(); ++index)
    if ("Stream" + std::to_string(index) == sDataStreamID) break;
  if (index == d->streams.size()) return SetError(GC_ERR_INVALID_ID, "Unknown data stream ID");
  if (d->streams[index].lock()) return SetError(GC_ERR_RESOURCE_IN_USE, "Data stream already open");
  auto s = std::make_shared<Stream>();
  s->device = d;
  s->index = index;
  s->id = sDataStreamID;
  for (uint32_t r = 0x100; r <= 0x106; ++r) s->regs[r] = 0;
  s->regs.erase(0x101);
  s->regs[0x100] = index + 1;
  if (index == 0) {
    ReceiverConfig cfg;
    cfg.packet_timeout_ms = prod_->settings.packet_timeout_ms;
    cfg.frame_timeout_ms = prod_->settings.frame_timeout_ms;
    cfg.socket_buffer = prod_->settings.socket_buffer;
    cfg.path = prod_->settings.receive;
    s->receiver.reset(new Receiver(s.get(), cfg));
  }
  d->streams[index] = s;
  prod_->Add(s);
  *phDataStream = s.get();
  return GC_ERR_SUCCESS;
}

GC_API DSGetParentDev(DS_HANDLE hDataStream, DEV_HANDLE* phDevice) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  if (BadPtr(phDevice)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  *phDevice = s->device.get();
  return GC_ERR_SUCCESS;
}

GC_API DSClose(DS_HANDLE hDataStream) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  s->Close();
  return GC_ERR_SUCCESS;
}

GC_API DSGetInfo(DS_HANDLE hDataStream, STREAM_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer,
                 size_t* piSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  auto sz = [&](size_t v) { return PutValue<size_t>(INFO_DATATYPE_SIZET, v, piType, pBuffer, piSize); };
  auto u64 = [&](uint64_t v) { return PutValue<uint64_t>(INFO_DATATYPE_UINT64, v, piType, pBuffer, piSize); };
  std::lock_guard<std::mutex> l(s->mu);
  switch (iInfoCmd) {
    case STREAM_INFO_ID: return PutString(s->id, piType, pBuffer, piSize);
    case STREAM_INFO_NUM_DELIVERED: return u64(s->delivered_since_start);
    case STREAM_INFO_NUM_UNDERRUN: return u64(s->underruns);
    case STREAM_INFO_NUM_ANNOUNCED: return sz(s->buffers.size());
    case STREAM_INFO_NUM_QUEUED: return sz(s->input.size());
    case STREAM_INFO_NUM_AWAIT_DELIVERY: return sz(s->output.size());
    case STREAM_INFO_NUM_STARTED: return u64(s->starts);
    case STREAM_INFO_PAYLOAD_SIZE: return SetError(GC_ERR_NOT_AVAILABLE, "The camera's PayloadSize feature tells");
    case STREAM_INFO_IS_GRABBING: return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, s->started, piType, pBuffer, piSize);
    case STREAM_INFO_DEFINES_PAYLOADSIZE: return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, 0, piType, pBuffer, piSize);
    case STREAM_INFO_TLTYPE: return PutString(TLTypeGEVName, piType, pBuffer, piSize);
    case STREAM_INFO_NUM_CHUNKS_MAX: return sz(0);
    // The engine may start before any buffer is announced: a host allocates
    // its resources first and its buffers later (the library does).
    case STREAM_INFO_BUF_ANNOUNCE_MIN: return sz(0);
    case STREAM_INFO_BUF_ALIGNMENT: return sz(1);
    case STREAM_INFO_FLOW_TABLE:
    case STREAM_INFO_GENDC_PREFETCH_DESCRIPTOR: return SetError(GC_ERR_NO_DATA, "No flows");
    case KIVGEV_STREAM_STALE_PACKETS: return u64(s->stale);
    case KIVGEV_STREAM_MALFORMED_PACKETS: return u64(s->malformed);
    case KIVGEV_STREAM_RESEND_REQUESTS: return u64(s->resend_requests);
    case KIVGEV_STREAM_ZERO_COPY_PACKETS: return u64(s->zero_copy);
    case KIVGEV_STREAM_RING:
      return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, s->receiver && s->receiver->ring(), piType, pBuffer, piSize);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown stream information command");
  }
}

static GC_ERROR Announce(Producer& p, const std::shared_ptr<Stream>& s, void* pBuffer, size_t iSize, void* pPrivate,
                         BUFFER_HANDLE* phBuffer) {
  auto b = std::make_shared<Buffer>();
  b->stream = s.get();
  b->size = iSize;
  b->user = pPrivate;
  if (pBuffer) {
    b->base = static_cast<uint8_t*>(pBuffer);
  } else {
    b->owned.reset(new (std::nothrow) uint8_t[iSize ? iSize : 1]);
    if (!b->owned) return SetError(GC_ERR_OUT_OF_MEMORY, "Out of memory");
    b->base = b->owned.get();
  }
  {
    std::lock_guard<std::mutex> l(s->mu);
    // The same memory twice is refused; empty tokens may share an address.
    if (pBuffer && iSize > 0)
      for (auto& o : s->buffers)
        if (o->base == pBuffer && o->size > 0 && !o->owned) return SetError(GC_ERR_RESOURCE_IN_USE, "Buffer already announced");
    s->buffers.push_back(b);
  }
  p.Add(b);
  *phBuffer = b.get();
  return GC_ERR_SUCCESS;
}

GC_API DSAnnounceBuffer(DS_HANDLE hDataStream, void* pBuffer, size_t iSize, void* pPrivate, BUFFER_HANDLE* phBuffer) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  if (BadPtr(phBuffer)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  return Announce(*prod_, s, pBuffer, iSize, pPrivate, phBuffer);
}

GC_API DSAllocAndAnnounceBuffer(DS_HANDLE hDataStream, size_t iSize, void* pPrivate, BUFFER_HANDLE* phBuffer) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  if (BadPtr(phBuffer) || iSize == 0) return SetError(GC_ERR_INVALID_PARAMETER, "Invalid parameter");
  return Announce(*prod_, s, nullptr, iSize, pPrivate, phBuffer);
}

GC_API DSRevokeBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, void** pBuffer, void** pPrivate) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  auto b = FindBuffer(*prod_, *s, hBuffer);
  if (!b) return SetError(GC_ERR_INVALID_HANDLE, "Invalid buffer handle");
  {
    std::lock_guard<std::mutex> l(s->mu);
    if (b->state != Buffer::Idle) return SetError(GC_ERR_BUSY, "Buffer is still queued");
    if (!BadPtr(pBuffer)) *pBuffer = b->owned ? nullptr : b->base;
    if (!BadPtr(pPrivate)) *pPrivate = b->user;
    s->buffers.erase(std::find(s->buffers.begin(), s->buffers.end(), b));
  }
  prod_->Remove(b.get());
  return GC_ERR_SUCCESS;
}

GC_API DSQueueBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  auto b = FindBuffer(*prod_, *s, hBuffer);
  if (!b) return SetError(GC_ERR_INVALID_HANDLE, "Invalid buffer handle");
  std::lock_guard<std::mutex> l(s->mu);
  if (b->state != Buffer::Idle) return SetError(GC_ERR_RESOURCE_IN_USE, "Buffer already queued");
  ToInput(*s, b.get());
  return GC_ERR_SUCCESS;
}

GC_API DSGetBufferID(DS_HANDLE hDataStream, uint32_t iIndex, BUFFER_HANDLE* phBuffer) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  if (BadPtr(phBuffer)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  std::lock_guard<std::mutex> l(s->mu);
  if (iIndex >= s->buffers.size()) return SetError(GC_ERR_INVALID_INDEX, "Buffer index out of range");
  *phBuffer = s->buffers[iIndex].get();
  return GC_ERR_SUCCESS;
}

GC_API DSFlushQueue(DS_HANDLE hDataStream, ACQ_QUEUE_TYPE iOperation) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  std::lock_guard<std::mutex> l(s->mu);
  switch (iOperation) {
    case ACQ_QUEUE_INPUT_TO_OUTPUT:
      while (!s->input.empty()) {
        Buffer* b = s->input.front();
        Unqueue(*s, b);
        b->new_data = false;
        b->filled = 0;
        s->Deliver(b);
        s->delivered--;
        s->delivered_since_start--;
      }
      break;
    case ACQ_QUEUE_OUTPUT_DISCARD:
      while (!s->output.empty()) Unqueue(*s, s->output.front());
      break;
    case ACQ_QUEUE_ALL_TO_INPUT:
      while (!s->output.empty()) {
        Buffer* b = s->output.front();
        Unqueue(*s, b);
        ToInput(*s, b);
      }
      break;
    case ACQ_QUEUE_UNQUEUED_TO_INPUT:
      for (auto& b : s->buffers)
        if (b->state == Buffer::Idle) ToInput(*s, b.get());
      break;
    case ACQ_QUEUE_ALL_DISCARD:
      for (auto& b : s->buffers)
        if (b->state != Buffer::Filling) Unqueue(*s, b.get());
      break;
    default:
      return SetError(GC_ERR_INVALID_PARAMETER, "Unknown flush operation");
  }
  return GC_ERR_SUCCESS;
}

GC_API DSStartAcquisition(DS_HANDLE hDataStream, ACQ_START_FLAGS /*iStartFlags*/, uint64_t iNumToAcquire) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  if (iNumToAcquire == 0) return SetError(GC_ERR_INVALID_PARAMETER, "Nothing to acquire");
  {
    std::lock_guard<std::mutex> l(s->mu);
    if (s->started) return SetError(GC_ERR_RESOURCE_IN_USE, "Acquisition already started");
    s->started = true;
    s->starts++;
    s->to_acquire = iNumToAcquire;
    s->delivered_since_start = 0;
  }
  GC_ERROR e = s->StartReceiver();
  if (e != GC_ERR_SUCCESS) {
    std::lock_guard<std::mutex> l(s->mu);
    s->started = false;
  }
  return e;
}

GC_API DSStopAcquisition(DS_HANDLE hDataStream, ACQ_STOP_FLAGS /*iStopFlags*/) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  {
    std::lock_guard<std::mutex> l(s->mu);
    if (!s->started) return SetError(GC_ERR_RESOURCE_IN_USE, "Acquisition not started");
    s->started = false;
  }
  s->StopReceiver();
  return GC_ERR_SUCCESS;
}

GC_API DSGetBufferInfo(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, BUFFER_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                       void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  auto b = FindBuffer(*prod_, *s, hBuffer);
  if (!b) return SetError(GC_ERR_INVALID_HANDLE, "Invalid buffer handle");
  INFO_DATATYPE* t = piType;
  void* o = pBuffer;
  size_t* n = piSize;
  auto sz = [&](size_t v) { return PutValue<size_t>(INFO_DATATYPE_SIZET, v, t, o, n); };
  auto u64 = [&](uint64_t v) { return PutValue<uint64_t>(INFO_DATATYPE_UINT64, v, t, o, n); };
  auto b8 = [&](bool v) { return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, v ? 1 : 0, t, o, n); };
  auto ptr = [&](void* v) { return PutValue<void*>(INFO_DATATYPE_PTR, v, t, o, n); };
  std::lock_guard<std::mutex> l(s->mu);
  const bool image = b->size > 0;
  switch (iInfoCmd) {
    case BUFFER_INFO_BASE: return ptr(b->base);
    case BUFFER_INFO_SIZE: return sz(b->size);
    case BUFFER_INFO_USER_PTR: return ptr(b->user);
    case BUFFER_INFO_TIMESTAMP:
    case BUFFER_INFO_TIMESTAMP_NS: return u64(b->timestamp);
    case BUFFER_INFO_NEW_DATA: return b8(b->new_data);
    case BUFFER_INFO_IS_QUEUED: return b8(b->state != Buffer::Idle);
    case BUFFER_INFO_IS_ACQUIRING: return b8(b->state == Buffer::Filling);
    case BUFFER_INFO_IS_INCOMPLETE: return b8(b->incomplete);
    case BUFFER_INFO_TLTYPE: return PutString(TLTypeGEVName, t, o, n);
    case BUFFER_INFO_SIZE_FILLED:
    case BUFFER_INFO_DATA_SIZE: return sz(b->filled);
    case BUFFER_INFO_WIDTH: return sz(b->width);
    case BUFFER_INFO_HEIGHT: return sz(b->height);
    case BUFFER_INFO_XOFFSET: return sz(b->offset_x);
    case BUFFER_INFO_YOFFSET: return sz(b->offset_y);
    case BUFFER_INFO_XPADDING:
    case BUFFER_INFO_YPADDING: return sz(0);
    case BUFFER_INFO_FRAMEID: return u64(b->frame_id);
    case BUFFER_INFO_IMAGEPRESENT: return b8(image && b->new_data);
    case BUFFER_INFO_IMAGEOFFSET: return sz(0);
    case BUFFER_INFO_PAYLOADTYPE: return sz(image ? PAYLOAD_TYPE_IMAGE : PAYLOAD_TYPE_UNKNOWN);
    case BUFFER_INFO_PIXELFORMAT: return u64(b->pixel_format);
    case BUFFER_INFO_PIXELFORMAT_NAMESPACE: return u64(PIXELFORMAT_NAMESPACE_PFNC_32BIT);
    case BUFFER_INFO_DELIVERED_IMAGEHEIGHT: return sz(b->new_data ? b->height : 0);
    case BUFFER_INFO_PIXEL_ENDIANNESS: return PutValue<int32_t>(INFO_DATATYPE_INT32, PIXELENDIANNESS_LITTLE, t, o, n);
    case BUFFER_INFO_DATA_LARGER_THAN_BUFFER: return b8(b->too_small);
    case BUFFER_INFO_CONTAINS_CHUNKDATA:
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
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  if (!FindBuffer(*prod_, *s, hBuffer)) return SetError(GC_ERR_INVALID_HANDLE, "Invalid buffer handle");
  if (BadPtr(piNumChunks)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumChunks = 0;
  return GC_ERR_SUCCESS;
}

GC_API DSGetBufferInfoStacked(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, DS_BUFFER_INFO_STACKED* pInfoStacked,
                              size_t iNumInfos) {
  return kivgentl::BufferInfoStacked(DSGetBufferInfo, hDataStream, hBuffer, pInfoStacked, iNumInfos);
}

GC_API DSGetNumBufferParts(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t* piNumParts) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  if (!FindBuffer(*prod_, *s, hBuffer)) return SetError(GC_ERR_INVALID_HANDLE, "Invalid buffer handle");
  if (BadPtr(piNumParts)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumParts = 0;  // single-part images only
  return GC_ERR_SUCCESS;
}

GC_API DSGetBufferPartInfo(DS_HANDLE, BUFFER_HANDLE, uint32_t, BUFFER_PART_INFO_CMD, INFO_DATATYPE*, void*, size_t*) {
  KIVGEV_ENTRY();
  return SetError(GC_ERR_NO_DATA, "Single-part images only");
}

GC_API DSGetBufferPartInfoStacked(DS_HANDLE, BUFFER_HANDLE, DS_BUFFER_PART_INFO_STACKED*, size_t) {
  KIVGEV_ENTRY();
  return SetError(GC_ERR_NO_DATA, "Single-part images only");
}

GC_API DSAnnounceCompositeBuffer(DS_HANDLE, size_t, void**, size_t*, void*, BUFFER_HANDLE*) {
  KIVGEV_ENTRY();
  return SetError(GC_ERR_NOT_IMPLEMENTED, "Composite buffers are not supported");
}

GC_API DSGetNumFlows(DS_HANDLE hDataStream, uint32_t* piNumFlows) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  if (BadPtr(piNumFlows)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumFlows = 0;
  return GC_ERR_SUCCESS;
}

GC_API DSGetFlowInfo(DS_HANDLE, uint32_t, FLOW_INFO_CMD, INFO_DATATYPE*, void*, size_t*) {
  KIVGEV_ENTRY();
  return SetError(GC_ERR_NO_DATA, "No flows");
}

GC_API DSGetNumBufferSegments(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t* piNumSegments) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Stream, s, hDataStream, "data stream");
  if (!FindBuffer(*prod_, *s, hBuffer)) return SetError(GC_ERR_INVALID_HANDLE, "Invalid buffer handle");
  if (BadPtr(piNumSegments)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumSegments = 0;
  return GC_ERR_SUCCESS;
}

GC_API DSGetBufferSegmentInfo(DS_HANDLE, BUFFER_HANDLE, uint32_t, SEGMENT_INFO_CMD, INFO_DATATYPE*, void*, size_t*) {
  KIVGEV_ENTRY();
  return SetError(GC_ERR_NO_DATA, "No segments");
}

}  // extern "C"
