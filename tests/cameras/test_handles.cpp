// Every export of the camera layer refuses stale, foreign and wrong-kind
// handles with error 1, without reading through them.
#include <functional>

#include "cam_env.h"

namespace camtest {
namespace {

using Handles = CameraTest;

struct CameraExport {
  const char* name;
  std::function<KIVCAM_BOOL(CamLib&, HCAMERA)> call;
};

struct PortExport {
  const char* name;
  std::function<KIVCAM_BOOL(CamLib&, HCAMERAPORT)> call;
};

std::vector<CameraExport> CameraExports() {
  static unsigned char buf[1024];
  static uint32_t size;
  static uint32_t state;
  static CameraListEntry entry;
  static GigECameraInfo gige;
  static USBCameraInfo usb;
  static void* map;
  return {
      {"ReadPort", [](CamLib& l, HCAMERA h) { size = 4; return l.KIVCAM_ReadPort(h, 0, buf, &size); }},
      {"WritePort", [](CamLib& l, HCAMERA h) { size = 4; return l.KIVCAM_WritePort(h, 0x0938, buf, &size); }},
      {"Camera", [](CamLib& l, HCAMERA h) { return l.KIVCAM_Camera(h, &state); }},
      {"CameraInfo", [](CamLib& l, HCAMERA h) { return l.KIVCAM_CameraInfo(h, &entry); }},
      {"CameraInfoGigE", [](CamLib& l, HCAMERA h) { return l.KIVCAM_CameraInfoGigE(h, &gige); }},
      {"CameraInfoUSB", [](CamLib& l, HCAMERA h) { return l.KIVCAM_CameraInfoUSB(h, &usb); }},
      {"GetNodeMap", [](CamLib& l, HCAMERA h) { return l.KIVCAM_GetNodeMap(h, &map); }},
      {"SetCmdTimeOut", [](CamLib& l, HCAMERA h) { return l.KIVCAM_SetCmdTimeOut(h, 1000); }},
      {"Close", [](CamLib& l, HCAMERA h) { return l.KIVCAM_Close(h); }},
  };
}

std::vector<PortExport> PortExports() {
  static unsigned char buf[1024];
  static uint32_t size;
  static CameraListEntry entry;
  return {
      {"ReadReg", [](CamLib& l, HCAMERAPORT h) { size = 4; return l.KIVCAM_ReadReg(h, 0, buf, &size); }},
      {"WriteReg", [](CamLib& l, HCAMERAPORT h) { size = 4; return l.KIVCAM_WriteReg(h, 0x0938, buf, &size); }},
      {"CameraRegInfo", [](CamLib& l, HCAMERAPORT h) { return l.KIVCAM_CameraRegInfo(h, &entry); }},
      {"CloseReg", [](CamLib& l, HCAMERAPORT h) { return l.KIVCAM_CloseReg(h); }},
  };
}

TEST_F(Handles, EveryExportRefusesWhatIsNotItsLiveObject) {
  World("[camera]\ntransport = gige\n[camera]\ntransport = gige\n[camera]\ntransport = gige\n"
        "[camera]\ntransport = usb\n");
  Load();
  HCAMERA live = nullptr, stale = nullptr;
  HCAMERAPORT port = nullptr, stale_port = nullptr;
  // The live objects exist before the stale ones die, so no address is reused for them.
  ASSERT_EQ(lib_->KIVCAM_Open(KIVCAM_UID_ANY, &live), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_OpenReg(&port), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_Open(KIVCAM_UID_ANY, &stale), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_OpenReg(&stale_port), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_Close(stale), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_CloseReg(stale_port), KIVCAM_TRUE);
  long foreign_object[64] = {};  // looks like memory, is nobody's object

  for (const auto& e : CameraExports()) {
    SCOPED_TRACE(e.name);
    for (HCAMERA bad : {stale, reinterpret_cast<HCAMERA>(port), reinterpret_cast<HCAMERA>(foreign_object),
                        static_cast<HCAMERA>(nullptr)}) {
      EXPECT_EQ(e.call(*lib_, bad), KIVCAM_FALSE);
      EXPECT_EQ(lib_->KIVCAM_GetLastError(), KIVCAM_ERR_PARAM);
    }
  }
  for (const auto& e : PortExports()) {
    SCOPED_TRACE(e.name);
    for (HCAMERAPORT bad : {stale_port, reinterpret_cast<HCAMERAPORT>(live),
                            reinterpret_cast<HCAMERAPORT>(foreign_object), static_cast<HCAMERAPORT>(nullptr)}) {
      EXPECT_EQ(e.call(*lib_, bad), KIVCAM_FALSE);
      EXPECT_EQ(lib_->KIVCAM_GetLastError(), KIVCAM_ERR_PARAM);
    }
  }
  // The live objects were not disturbed by any of it.
  for (const auto& e : CameraExports()) {
    SCOPED_TRACE(e.name);
    if (std::string(e.name) == "CameraInfoUSB") continue;  // 20 on a GigE camera
    EXPECT_EQ(e.call(*lib_, live), KIVCAM_TRUE);
  }
  for (const auto& e : PortExports()) {
    SCOPED_TRACE(e.name);
    EXPECT_EQ(e.call(*lib_, port), KIVCAM_TRUE);
  }
  // The refusal is logged with the handle (a burst like the one above may
  // overflow the 32 lines of the log, so on its own).
  log_->Clear();
  uint32_t size = 4;
  unsigned char b[4];
  EXPECT_EQ(lib_->KIVCAM_ReadReg(nullptr, 0, b, &size), KIVCAM_FALSE);
  EXPECT_TRUE(log_->Saw("KIVCAM_ReadReg", "Error=1, HCAMERA=0x0000000000000000"));
}

}  // namespace
}  // namespace camtest
