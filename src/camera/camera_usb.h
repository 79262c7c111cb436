// USB3 Vision cameras: little-endian registers and the USB information record.
#pragma once

#include "camera/camera.h"

namespace kivcam::camera {

class CCameraUSB : public CCamera {
 public:
  CCameraUSB(transport::CGenTL* producer, transport::CInterface* owner, const std::string& device_id,
             transport::DeviceHandle device, uint32_t description_index);

  void PreCall() override {}
  bool ReadRegister(uint32_t address, uint32_t* value) override;
  bool WriteRegister(uint32_t address, uint32_t value) override;

  // Raises Error (99) when a query fails; its text is logged.
  void CameraInfo(USBCameraInfo* info);
  using CCamera::CameraInfo;

 private:
  uint32_t m_nTrailerOffset = 0;
  uint32_t m_nStreamParam = 0;
};

}  // namespace kivcam::camera
