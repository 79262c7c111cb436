// Register access on open cameras and through port-only objects.
#include <cstring>

#include "cam_env.h"

namespace camtest {
namespace {

using Registers = CameraTest;

// A GigE bootstrap register the camera answers, and one it refuses.
constexpr uint32_t kVersionReg = 0x0000;
constexpr uint32_t kHeartbeatReg = 0x0938;
constexpr uint32_t kNowhere = 0xFFFFFF00;

TEST_F(Registers, ReadAndWriteThroughAnOpenCameraAndAPortWhoseDeviceFails) {
  Load();
  HCAMERA cam = OpenUid(kGigE1);
  unsigned char b[8] = {};
  uint32_t size = 4;
  ASSERT_EQ(lib_->KIVCAM_ReadPort(cam, kVersionReg, b, &size), KIVCAM_TRUE);
  EXPECT_EQ(size, 4u);
  EXPECT_NE(b[0] | b[1] | b[2] | b[3], 0);

  unsigned char beat[4] = {0x00, 0x00, 0x0B, 0xB8};  // 3000 ms, big-endian on the wire
  size = 4;
  ASSERT_EQ(lib_->KIVCAM_WritePort(cam, kHeartbeatReg, beat, &size), KIVCAM_TRUE);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(lib_->ReadBE(cam, kHeartbeatReg), 3000u);

  size = 4;
  EXPECT_EQ(Err(lib_->KIVCAM_ReadPort(cam, kNowhere, b, &size)), KIVCAM_ERR_ACCESS);
  EXPECT_EQ(size, 4u);  // unchanged
  EXPECT_EQ(Err(lib_->KIVCAM_WritePort(cam, kNowhere, beat, &size)), KIVCAM_ERR_ACCESS);
  EXPECT_EQ(Err(lib_->KIVCAM_ReadPort(cam, kVersionReg, nullptr, &size)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAM_ReadPort(cam, kVersionReg, b, nullptr)), KIVCAM_ERR_PARAM);

  // The presence flag is not consulted on this path.
  ASSERT_TRUE(GigE().loaded());
  ASSERT_EQ(GigE().fail_next("GCReadPort", -1010, "Injected", 1), 0);
  size = 4;
  EXPECT_EQ(Err(lib_->KIVCAM_ReadPort(cam, kVersionReg, b, &size)), KIVCAM_ERR_ACCESS);

  // A port object whose device's remote port fails: the device is closed
  // again and the search goes on to the next producer.
  ASSERT_EQ(GigE().fail_next("DevGetPort", -1001, "Injected port", 1), 0);
  HCAMERAPORT port = nullptr;
  ASSERT_EQ(lib_->KIVCAM_OpenReg(&port), KIVCAM_TRUE);
  EXPECT_TRUE(log_->Saw("CInterface::OpenCameraPort", "Injected port"));
  CameraListEntry e{};
  ASSERT_EQ(lib_->KIVCAM_CameraRegInfo(port, &e), KIVCAM_TRUE);
  EXPECT_EQ(Uid(e), kUsb1);
  EXPECT_NE(OpenUid(kGigE2), nullptr);
}

TEST_F(Registers, PortObjectsHoldTheirDevice) {
  Load();
  HCAMERAPORT port[4] = {};
  for (int i = 0; i < 3; ++i) ASSERT_EQ(lib_->KIVCAM_OpenReg(&port[i]), KIVCAM_TRUE) << i;
  port[3] = reinterpret_cast<HCAMERAPORT>(8);
  EXPECT_EQ(Err(lib_->KIVCAM_OpenReg(&port[3])), KIVCAM_ERR_NO_CAMERA);
  EXPECT_EQ(port[3], nullptr);
  EXPECT_EQ(Err(lib_->KIVCAM_OpenReg(nullptr)), KIVCAM_ERR_PARAM);

  // A camera can't take a device a port object holds.
  HCAMERA cam = nullptr;
  EXPECT_EQ(Err(lib_->KIVCAM_Open(kGigE1, &cam)), KIVCAM_ERR_ALREADY_OPEN);

  CameraListEntry e;
  std::memset(&e, 0xA5, sizeof e);
  ASSERT_EQ(lib_->KIVCAM_CameraRegInfo(port[0], &e), KIVCAM_TRUE);
  EXPECT_EQ(Uid(e), kGigE1);
  EXPECT_EQ(e.CameraKind, KIVCAM_CAMERAKIND_GIGE);
  EXPECT_EQ(e.LinkCode, 6u);
  EXPECT_STREQ(e.Vendor, "KivCam");
  EXPECT_EQ(e.Vendor[255], 0);  // cleared first
  ASSERT_EQ(lib_->KIVCAM_CameraRegInfo(port[2], &e), KIVCAM_TRUE);
  EXPECT_EQ(e.CameraKind, KIVCAM_CAMERAKIND_USB);
  EXPECT_EQ(Err(lib_->KIVCAM_CameraRegInfo(port[2], nullptr)), KIVCAM_ERR_PARAM);

  unsigned char b[4] = {};
  uint32_t size = 4;
  ASSERT_EQ(lib_->KIVCAM_ReadReg(port[0], kHeartbeatReg, b, &size), KIVCAM_TRUE);
  unsigned char beat[4] = {0x00, 0x00, 0x07, 0xD0};
  ASSERT_EQ(lib_->KIVCAM_WriteReg(port[0], kHeartbeatReg, beat, &size), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_ReadReg(port[0], kHeartbeatReg, b, &size), KIVCAM_TRUE);
  EXPECT_EQ(std::memcmp(b, beat, 4), 0);
  EXPECT_EQ(Err(lib_->KIVCAM_ReadReg(port[0], kNowhere, b, &size)), KIVCAM_ERR_ACCESS);

  // Closing frees the device for a camera; the handle is dead afterwards.
  ASSERT_EQ(lib_->KIVCAM_CloseReg(port[0]), KIVCAM_TRUE);
  EXPECT_EQ(Err(lib_->KIVCAM_CloseReg(port[0])), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAM_ReadReg(port[0], kHeartbeatReg, b, &size)), KIVCAM_ERR_PARAM);
  ASSERT_EQ(lib_->KIVCAM_Open(kGigE1, &cam), KIVCAM_TRUE);
}

}  // namespace
}  // namespace camtest
