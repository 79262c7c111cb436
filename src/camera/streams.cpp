#include "camera/streams.h"

#include "transport/gentl.h"

namespace kivcam::camera {

namespace {
constexpr size_t kIdBytes = 2048;
}

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
  const transport::EntryPoints& fn = m_pGenTL->fn();
  if (m_hEvent) fn.GCUnregisterEvent(m_hStream, EVENT_NEW_BUFFER);
  m_hEvent = nullptr;
  fn.DSFlushQueue(m_hStream, ACQ_QUEUE_INPUT_TO_OUTPUT);
  fn.DSFlushQueue(m_hStream, ACQ_QUEUE_OUTPUT_DISCARD);
  fn.DSClose(m_hStream);
  m_hStream = nullptr;
}

}  // namespace kivcam::camera
