// Every export of the camera layer refuses stale, foreign and wrong-kind
// handles with error 1, without reading through them.
#include <functional>
#include <vector>

#include "cam_env.h"

namespace camtest {
namespace {

using Handles = CameraTest;

TEST_F(Handles, EveryExportRefusesWhatIsNotItsLiveObject) {
  World("[camera]\ntransport = gige\n[camera]\ntransport = gige\n[camera]\ntransport = gige\n"
        "[camera]\ntransport = usb\n");
  Load();
  HCAMERA live = nullptr, stale = nullptr;
  HCAMERAPORT port = nullptr, stale_port = nullptr;
  // The stale objects die first, so the live ones may well take their place
  // in memory: their handles must stay apart all the same.
  ASSERT_EQ(lib_->KIVCAM_Open(KIVCAM_UID_ANY, &stale), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_OpenReg(&stale_port), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_Close(stale), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_CloseReg(stale_port), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_Open(KIVCAM_UID_ANY, &live), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_OpenReg(&port), KIVCAM_TRUE);
  long foreign[64] = {};  // looks like memory, is nobody's object

  CamLib& l = *lib_;
  unsigned char buf[1024];
  uint32_t size = 4, state = 0;
  CameraListEntry entry;
  GigECameraInfo gige;
  USBCameraInfo usb;
  void* map = nullptr;
  struct Export {
    const char* name;
    bool port;  // takes a port-only handle
    std::function<KIVCAM_BOOL(void*)> call;
  };
  auto cam = [](void* h) { return static_cast<HCAMERA>(h); };
  auto reg = [](void* h) { return static_cast<HCAMERAPORT>(h); };
  const Export exports[] = {
      {"ReadPort", false, [&](void* h) { size = 4; return l.KIVCAM_ReadPort(cam(h), 0, buf, &size); }},
      {"WritePort", false, [&](void* h) { size = 4; return l.KIVCAM_WritePort(cam(h), 0x0938, buf, &size); }},
      {"Camera", false, [&](void* h) { return l.KIVCAM_Camera(cam(h), &state); }},
      {"CameraInfo", false, [&](void* h) { return l.KIVCAM_CameraInfo(cam(h), &entry); }},
      {"CameraInfoGigE", false, [&](void* h) { return l.KIVCAM_CameraInfoGigE(cam(h), &gige); }},
      {"CameraInfoUSB", false, [&](void* h) { return l.KIVCAM_CameraInfoUSB(cam(h), &usb); }},
      {"GetNodeMap", false, [&](void* h) { return l.KIVCAM_GetNodeMap(cam(h), &map); }},
      {"SetCmdTimeOut", false, [&](void* h) { return l.KIVCAM_SetCmdTimeOut(cam(h), 1000); }},
      {"Close", false, [&](void* h) { return l.KIVCAM_Close(cam(h)); }},
      {"ReadReg", true, [&](void* h) { size = 4; return l.KIVCAM_ReadReg(reg(h), 0, buf, &size); }},
      {"WriteReg", true, [&](void* h) { size = 4; return l.KIVCAM_WriteReg(reg(h), 0x0938, buf, &size); }},
      {"CameraRegInfo", true, [&](void* h) { return l.KIVCAM_CameraRegInfo(reg(h), &entry); }},
      {"CloseReg", true, [&](void* h) { return l.KIVCAM_CloseReg(reg(h)); }},
  };
  for (const Export& e : exports) {
    SCOPED_TRACE(e.name);
    void* other_kind = e.port ? static_cast<void*>(live) : static_cast<void*>(port);
    for (void* bad : {e.port ? static_cast<void*>(stale_port) : static_cast<void*>(stale), other_kind,
                      static_cast<void*>(foreign), static_cast<void*>(nullptr)}) {
      EXPECT_EQ(Err(e.call(bad)), KIVCAM_ERR_PARAM);
    }
  }
  // The live objects were not disturbed by any of it (closing them comes last).
  for (const Export& e : exports) {
    SCOPED_TRACE(e.name);
    if (std::string(e.name) == "CameraInfoUSB") continue;  // 20 on a GigE camera
    EXPECT_EQ(e.call(e.port ? static_cast<void*>(port) : static_cast<void*>(live)), KIVCAM_TRUE);
  }
  // The refusal is logged with the handle (a burst like the one above may
  // overflow the 32 lines of the log, so on its own).
  log_->Clear();
  EXPECT_EQ(l.KIVCAM_ReadReg(nullptr, 0, buf, &size), KIVCAM_FALSE);
  EXPECT_TRUE(log_->Saw("KIVCAM_ReadReg", "Error=1, HCAMERA=0x0000000000000000"));
}

// The same camera opened and closed again and again: every handle is new,
// and none of the closed ones comes back, whatever memory the new object got.
TEST_F(Handles, AClosedHandleNeverComesBack) {
  Load();
  std::vector<HCAMERA> closed;
  for (int i = 0; i < 50; ++i) {
    HCAMERA cam = OpenUid(kGigE1);
    ASSERT_NE(cam, nullptr);
    for (HCAMERA old : closed) ASSERT_NE(cam, old);
    ASSERT_EQ(lib_->KIVCAM_Close(cam), KIVCAM_TRUE);
    closed.push_back(cam);
  }
  HCAMERA live = OpenUid(kGigE1);
  uint32_t state = 0;
  for (HCAMERA old : closed) EXPECT_EQ(Err(lib_->KIVCAM_Camera(old, &state)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(lib_->KIVCAM_Camera(live, &state), KIVCAM_TRUE);
}

}  // namespace
}  // namespace camtest
