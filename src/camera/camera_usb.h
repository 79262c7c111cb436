// USB3 Vision cameras: buffer geometry from the streaming registers, leader
// and trailer of each image, little-endian registers, the USB information
// record.
#pragma once

#include "camera/camera.h"

namespace kivcam::camera {

class CCameraUSB : public CCamera {
 public:
  CCameraUSB(transport::CGenTL* producer, transport::CInterface* owner, const std::string& device_id,
             transport::DeviceHandle device, uint32_t description_index, CBufferPool* buffers);

  void PreCall() override {}
  bool ReadRegister(uint32_t address, uint32_t* value) override;
  bool WriteRegister(uint32_t address, uint32_t value) override;
  // Sizes the buffers from the device's streaming registers first.
  void AllocResources() override;
  // Leader and trailer of the image.
  void GetImageInfo(const uint8_t* data, uint32_t status, uint32_t value, ImageInfo* info) override;

  // Raises Error (99) when a query fails; its text is logged.
  void CameraInfo(USBCameraInfo* info);
  using CCamera::CameraInfo;

 private:
  uint32_t m_nTrailerOffset = 0;
  uint32_t m_nStreamParam = 0;
};

}  // namespace kivcam::camera
