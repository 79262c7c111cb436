// The camera class family: one opened camera device with its two data
// streams, its image buffers, its stream thread, its node map, its conversion
// engine and its state flags. The interface that opened it owns it; Close (of
// transport::CDevice) is its one teardown.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "camera/image_buffer.h"
#include "camera/stream_thread.h"
#include "camera/streams.h"
#include "conv/conv_types.h"
#include "kivcam/kivcam.h"
#include "kivgenapi/KivGenApi.h"
#include "kivgentl/gentl.h"
#include "platform/platform.h"
#include "transport/device.h"

namespace kivcam::transport {
class CPort;
}
namespace kivcam::conv {
class CConv;
}

namespace kivcam::camera {

// Bits of CheckState.
constexpr uint32_t kStateVisible = 0x01;
constexpr uint32_t kStateWatch = 0x02;
constexpr uint32_t kStateControl = 0x04;
constexpr uint32_t kStateAllocated = 0x08;
constexpr uint32_t kStateNotAllocated = 0x10;
constexpr uint32_t kStateStarted = 0x20;
constexpr uint32_t kStateStopped = 0x40;
constexpr uint32_t kStateMulticast = 0x80;

class CCamera : public transport::CDevice {
 public:
  // Opens the streams and loads the description; raises Error with the
  // failure's text. The device closes again when construction fails. Image
  // buffers come from `buffers`, which outlives the camera's teardown.
  CCamera(transport::CGenTL* producer, transport::CInterface* owner, const std::string& device_id,
          transport::DeviceHandle device, uint32_t description_index, bool watch, CBufferPool* buffers);
  ~CCamera() override;

  // Refreshes the presence flag and reports it; *query_ok is false when the
  // producer could not be asked (its text is logged).
  virtual bool CheckVisible(bool* query_ok);
  virtual void PreCall() = 0;
  // Raw 32-bit registers in host order; false when the access failed.
  virtual bool ReadRegister(uint32_t address, uint32_t* value) = 0;
  virtual bool WriteRegister(uint32_t address, uint32_t value) = 0;
  // Whether the stream goes to a multicast group (GigE only); refreshes the
  // flag CheckState tests. Raises Error (7) when a register can't be read.
  virtual bool CheckMulticast() { return false; }
  // The last CheckMulticast's result.
  virtual bool multicast() const { return false; }
  // Watch mode: whether the stream watched has ended (the controlling
  // application released the camera, or died). Any thread; no lock.
  virtual bool WatchedStreamGone() { return false; }
  // Fills the transport record of a delivered image.
  virtual void GetImageInfo(const uint8_t* data, uint32_t status, uint32_t value, ImageInfo* info) = 0;

  // Every operation below raises Error with the caller's code on failure and
  // runs under the camera lock unless it says otherwise.

  // Raises Error with the code of the first failing test of `mask`.
  void CheckState(uint32_t mask);
  void CameraInfo(CameraListEntry* info);
  void SetCmdTimeOut(uint32_t milliseconds);

  // Resources and buffers.
  virtual void AllocResources();
  virtual void ReleaseResources();
  // A new buffer of the current geometry, or null (no code) when the
  // features can't be read or memory runs out.
  ImageBuffer* ImageAlloc();
  void ImageFree(const ImageBuffer* buffer);
  void ImageFreeAll();
  void RevokeAllBuffers();

  // Requests and VSync.
  void ImageStart();
  void ImageStop();
  void ImageReq(const ImageBuffer* buffer);
  // Leaves the camera lock for the waits. Raises Error (14) after filling
  // the buffer and `info` when the image arrived with an error status.
  void ImageComplete(const ImageBuffer* buffer, uint32_t timeout, ImageInfo* info);
  void ImageReqAbortAll();
  HVSYNC VSyncReq();
  void VSyncComplete(HVSYNC token, uint32_t timeout);

  // The image callback.
  void SetImageCallBack(void* context, ImageCallBack callback, uint32_t count, bool pass_info);
  void StopImageCallBack();

  // Conversion: under the conversion lock (ConvMode: camera lock, then it).
  void ConvMode(const conv::ConvMode& mode, const conv::YuvCoef& coef);
  // The record's geometry, the current format's kind and phase.
  void ImageConvExec(const ImageBuffer* image, void* dst);
  // The geometry and kind recorded at resource allocation.
  void BufferConvExec(const void* src, void* dst);
  // The bitmap the conversions write (SetBMPINFO and GetBMPINFO alike).
  void BmpInfo(KIVCAM_BITMAPINFO* info, uint32_t* size, bool mono);

  platform::RecursiveLock& lock() { return m_csCamera; }
  platform::RecursiveLock& conv_lock() { return m_csConv; }
  KivGenApi::CNodeMapRef* node_map() const { return m_pNodeMap.get(); }
  bool watch() const { return m_bWatch; }
  bool started() const { return m_bStarted; }
  bool allocated() const { return m_imageStream.event() != nullptr; }
  uint32_t description_index() const { return m_nDescriptionIndex; }
  // Whether `buffer` is one of this camera's (or any live buffer at all).
  bool Owns(const ImageBuffer* buffer) const;

 protected:
  friend class CStreamThread;

  void ReleaseDevice() override;
  // A camera that went away ends the waits for its images at once: they
  // would otherwise wait for images that never come.
  void PresenceLost() override;
  // The shared part of AllocResources; GigE and USB size the buffers first.
  void AllocCommon(const char* op);
  // The stop of acquisition and the freeing of every buffer that the GigE and
  // USB classes run before the device closes.
  void StopAndFreeAll();
  // Raises Error (7) when "PayloadSize" can't be read.
  uint32_t ReadPayloadSize();
  // A delivered buffer with a failed status: notes a USB transport failure
  // and writes the status to the call log (level 2).
  void NoteFailedStatus(const char* op, uint32_t status, bool pause);
  // The USB stream reset request after a transport failure, once.
  void ResetStreamIfFailed();

  platform::RecursiveLock m_csCamera;
  platform::RecursiveLock m_csConv;
  uint32_t m_nDescriptionIndex;
  CBufferPool* buffers_;
  std::unique_ptr<conv::CConv> m_pConv;
  std::unique_ptr<KivGenApi::CNodeMapRef> m_pNodeMap;
  std::unique_ptr<transport::CPort> m_pPort;
  KivGenApi::CIntegerPtr m_ptrWidth;
  KivGenApi::CIntegerPtr m_ptrHeight;
  KivGenApi::CIntegerPtr m_ptrPayloadSize;
  KivGenApi::CEnumerationPtr m_ptrPixelFormat;
  KivGenApi::CIntegerPtr m_ptrTLParamsLocked;
  KivGenApi::CCommandPtr m_ptrAcquisitionStart;
  KivGenApi::CCommandPtr m_ptrAcquisitionStop;
  CImageStream m_imageStream;
  CVSyncStream m_vsyncStream;
  CStreamThread m_streamThread;
  const bool m_bWatch;
  bool m_bStarted = false;
  // Written by the stream thread, read by the exports.
  std::atomic<bool> m_bIoError{false};
  uint32_t m_nPayloadSize = 0;
  uint32_t m_nBufferSize = 0;
  uint32_t m_nInfoOffset = 0;
  uint32_t m_nConvKind = 0xFFFFFFFFu;  // unsupported until resources are allocated
  uint32_t m_nBayerPhase = 0;
  uint32_t m_nPixelBits = 0;
  uint32_t m_nWidth = 0;
  uint32_t m_nHeight = 0;
  const bool m_bLittleEndian;

 private:
  // Loads the description (the data-folder copy first when asked, then the
  // device's first URL) and binds the standard features.
  void LoadDescription();
  void BindFeatures(std::unique_ptr<KivGenApi::CNodeMapRef> map);
  // What the camera holds on the device, released in order; runs once.
  void Teardown();
  // The current "PixelFormat" as a conversion kind, phase and bit count.
  void LookUpPixelFormat(uint32_t* kind, uint32_t* phase, uint32_t* bits);
  bool torn_down_ = false;
};

class CCameraIIDC : public CCamera {
 public:
  using CCamera::CCamera;
  void PreCall() override {}
  bool ReadRegister(uint32_t, uint32_t*) override { return false; }
  bool WriteRegister(uint32_t, uint32_t) override { return false; }
  // Cycle-time fields from the status and the per-image value.
  void GetImageInfo(const uint8_t* data, uint32_t status, uint32_t value, ImageInfo* info) override;
};

// The camera class of the producer's kind, made of an opened device; null for
// a kind without one. Raises Error when the construction fails ("Not
// Support" for a read-only USB camera).
std::shared_ptr<CCamera> CreateCamera(transport::CGenTL* producer, transport::CInterface* owner,
                                      const std::string& device_id, transport::DeviceHandle& device,
                                      uint32_t description_index, bool read_only, CBufferPool* buffers);

}  // namespace kivcam::camera
