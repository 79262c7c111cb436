// GigE Vision cameras: channel selection, heartbeat and packet size at
// opening; the stream destination and packet geometry of the resources; the
// packet information of each image; the multicast test of watch mode; the
// stream test; big-endian registers.
#pragma once

#include "camera/camera.h"

namespace kivcam::camera {

class CCameraGigE : public CCamera {
 public:
  CCameraGigE(transport::CGenTL* producer, transport::CInterface* owner, const std::string& device_id,
              transport::DeviceHandle device, uint32_t description_index, bool watch, CBufferPool* buffers);

  bool CheckVisible(bool* query_ok) override;
  void PreCall() override {}
  bool ReadRegister(uint32_t address, uint32_t* value) override;
  bool WriteRegister(uint32_t address, uint32_t value) override;
  bool CheckMulticast() override;
  bool multicast() const override { return m_bMulticast; }
  bool WatchedStreamGone() override;
  void GetImageInfo(const uint8_t* data, uint32_t status, uint32_t value, ImageInfo* info) override;

  // Streams to the group `address` (4 bytes, first 239) when given, else to
  // the host's own address; `flag` goes to the producer.
  void AllocResources(const uint8_t* address, bool flag);
  void AllocResources() override { AllocResources(nullptr, false); }
  void ReleaseResources() override;
  // The producer's packet log of the image stream.
  void GetPktLog(GigEPacketLog* log);

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
  // The last multicast test: the stream goes to a group.
  bool m_bMulticast = false;
};

}  // namespace kivcam::camera
