// The camera's own conversion engine: replaced (never changed) by ConvMode,
// created with the automatic shift at the first start, used by the
// conversions of acquired images and raw buffers.
#include "camera/camera.h"
#include "conv/bmpinfo.h"
#include "conv/conv.h"
#include "conv/pixel_format.h"
#include "diag/error.h"

namespace kivcam::camera {

namespace {
// The engine's result codes are the library's error numbers.
void Check(int code) {
  if (code != conv::kConvOk) throw Error(static_cast<uint32_t>(code));
}
}  // namespace

void CCamera::ConvMode(const conv::ConvMode& mode, const conv::YuvCoef& coef) {
  platform::LockGuard g(m_csConv);
  m_pConv.reset();
  try {
    m_pConv = std::make_unique<conv::CConv>(mode, coef);
  } catch (...) {
    throw Error(KIVCAM_ERR_OTHER);
  }
}

void CCamera::ImageConvExec(const ImageBuffer* image, void* dst) {
  platform::LockGuard g(m_csConv);
  if (!visible()) throw Error(KIVCAM_ERR_NO_CAMERA);
  if (!allocated()) throw Error(KIVCAM_ERR_NOT_ALLOCATED);
  if (!m_pConv) throw Error(KIVCAM_ERR_OTHER);
  conv::ConvReq req{image->Width, image->Height, m_nConvKind, m_nBayerPhase, image->LittleEndian, image->Data, dst};
  Check(m_pConv->Convert(req));
}

void CCamera::BufferConvExec(const void* src, void* dst) {
  platform::LockGuard g(m_csConv);
  if (!m_pConv) throw Error(KIVCAM_ERR_OTHER);
  conv::ConvReq req{m_nWidth, m_nHeight, m_nConvKind, m_nBayerPhase, m_bLittleEndian ? 1u : 0u, src, dst};
  Check(m_pConv->Convert(req));
}

void CCamera::BmpInfo(KIVCAM_BITMAPINFO* info, uint32_t* size, bool mono) {
  if (!visible()) throw Error(KIVCAM_ERR_NO_CAMERA);
  if (!allocated()) throw Error(KIVCAM_ERR_NOT_ALLOCATED);
  if (m_nConvKind == conv::KIND_UNSUPPORTED) throw Error(KIVCAM_ERR_FORMAT);
  uint32_t width = 0, height = 0;
  if (*size != 0) {
    try {
      width = static_cast<uint32_t>(m_ptrWidth->GetValue());
      height = static_cast<uint32_t>(m_ptrHeight->GetValue());
    } catch (...) {
      throw Error(KIVCAM_ERR_ACCESS);
    }
  }
  platform::LockGuard g(m_csConv);
  Check(conv::CameraBmpInfo(info, size, mono, m_nConvKind, width, height, m_pConv != nullptr,
                            m_pConv ? m_pConv->OutputSelector() : 0));
}

}  // namespace kivcam::camera
