// GigE Vision cameras: channel selection, heartbeat and packet size at
// opening, the stream test, the control-channel presence test and
// big-endian registers. The watch-mode state lives here too.
#pragma once

#include "camera/camera.h"

namespace kivcam::camera {

class CCameraGigE : public CCamera {
 public:
  CCameraGigE(transport::CGenTL* producer, transport::CInterface* owner, const std::string& device_id,
              transport::DeviceHandle device, uint32_t description_index, bool watch);

  bool CheckVisible(bool* query_ok) override;
  void PreCall() override {}
  bool ReadRegister(uint32_t address, uint32_t* value) override;
  bool WriteRegister(uint32_t address, uint32_t value) override;
  bool multicast() const override { return m_bMulticast; }

  // Raises Error (99) when a query fails; its text is logged.
  void CameraInfo(GigECameraInfo* info);
  using CCamera::CameraInfo;
  // Runs the producer's stream test: 0 when it passed, else the code it
  // reported (99 when it gave no answer).
  uint32_t TestStream();

 private:
  void SelectFirstChannels();
  void Configure();
  uint32_t m_nPacketCount = 0;
  bool m_bMulticast = false;
};

}  // namespace kivcam::camera
