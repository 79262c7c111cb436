#include "camera/streams.h"

#include <algorithm>
#include <cstring>

#include "transport/gentl.h"

namespace kivcam::camera {

namespace {
constexpr size_t kIdBytes = 2048;
// All images the producer can deliver: 32 bits of ones, zero-extended.
constexpr uint64_t kAllImages = 0xFFFFFFFFull;
}  // namespace

CDataStream::~CDataStream() {
  if (m_hStream) m_pGenTL->fn().DSClose(m_hStream);
}

void CDataStream::Open(transport::CGenTL* producer, DEV_HANDLE device, uint32_t index) {
  m_pGenTL = producer;
  const transport::EntryPoints& fn = producer->fn();
  char id[kIdBytes] = {};
  size_t size = sizeof id;
  if (fn.DevGetDataStreamID(device, index, id, &size) != GC_ERR_SUCCESS) producer->RaiseLastError();
  id[sizeof id - 1] = '\0';
  if (fn.DevOpenDataStream(device, id, &m_hStream) != GC_ERR_SUCCESS) {
    m_hStream = nullptr;
    producer->RaiseLastError();
  }
}

void CDataStream::Close() {
  if (!m_hStream) return;
  UnregisterEvent();
  FlushQueues();
  m_pGenTL->fn().DSClose(m_hStream);
  m_hStream = nullptr;
}

GC_ERROR CDataStream::RegisterEvent() {
  EVENT_HANDLE e = nullptr;
  GC_ERROR rc = m_pGenTL->fn().GCRegisterEvent(m_hStream, EVENT_NEW_BUFFER, &e);
  if (rc == GC_ERR_SUCCESS) m_hEvent = e;
  return rc;
}

void CDataStream::UnregisterEvent() {
  if (!event()) return;
  m_pGenTL->fn().GCUnregisterEvent(m_hStream, EVENT_NEW_BUFFER);
  m_hEvent = nullptr;
}

GC_ERROR CDataStream::StartAcquisition() {
  return m_pGenTL->fn().DSStartAcquisition(m_hStream, ACQ_START_FLAGS_DEFAULT, kAllImages);
}

void CDataStream::StopAcquisition() { m_pGenTL->fn().DSStopAcquisition(m_hStream, ACQ_STOP_FLAGS_KILL); }

void CDataStream::FlushQueues() {
  m_pGenTL->fn().DSFlushQueue(m_hStream, ACQ_QUEUE_INPUT_TO_OUTPUT);
  m_pGenTL->fn().DSFlushQueue(m_hStream, ACQ_QUEUE_OUTPUT_DISCARD);
}

GC_ERROR CDataStream::ReadRegister(uint64_t address, uint32_t* value) {
  size_t size = sizeof *value;
  return m_pGenTL->fn().GCReadPort(m_hStream, address, value, &size);
}

GC_ERROR CDataStream::WriteRegister(uint64_t address, uint32_t value) {
  size_t size = sizeof value;
  return m_pGenTL->fn().GCWritePort(m_hStream, address, &value, &size);
}

GC_ERROR CDataStream::WaitNewBuffer(uint64_t timeout_ms, NewBufferEvent* out) {
  EVENT_NEW_BUFFER_DATA data{};
  size_t size = sizeof data;
  EVENT_HANDLE e = event();
  waiters_.fetch_add(1, std::memory_order_acq_rel);
  GC_ERROR rc = m_pGenTL->fn().EventGetData(e, &data, &size, timeout_ms);
  waiters_.fetch_sub(1, std::memory_order_acq_rel);
  out->buffer = data.BufferHandle;
  out->data = static_cast<uint8_t*>(data.pUserPointer);
  return rc;
}

void CDataStream::KillWaits() {
  EVENT_HANDLE e = event();
  if (e && waiters_.load(std::memory_order_acquire) > 0) m_pGenTL->fn().EventKill(e);
}

Image_Buffer* CImageStream::Find(const ImageBuffer* record) const {
  for (const auto& b : m_vecImages) {
    if (b->record() == record) return b.get();
  }
  return nullptr;
}

void CImageStream::RevokeAll() {
  const transport::EntryPoints& fn = m_pGenTL->fn();
  for (Places* place : {&m_mapAnnounced, &m_mapQueued, &m_mapFilled}) {
    while (!place->empty()) {
      fn.DSRevokeBuffer(m_hStream, place->begin()->second, nullptr, nullptr);
      place->erase(place->begin());
    }
  }
}

void CVSyncStream::RevokeAll() {
  const transport::EntryPoints& fn = m_pGenTL->fn();
  for (std::vector<BUFFER_HANDLE>* tokens : {&m_vecVSyncFree, &m_vecVSyncQueued, &m_vecVSyncFilled}) {
    while (!tokens->empty()) {
      fn.DSRevokeBuffer(m_hStream, tokens->front(), nullptr, nullptr);
      tokens->erase(tokens->begin());
    }
  }
}

}  // namespace kivcam::camera
