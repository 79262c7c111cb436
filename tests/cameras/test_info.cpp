// Camera information records, presence and the bus events that refresh it,
// the node map and the command timeout.
#include <unistd.h>

#include <cstring>

#include "cam_env.h"
#include "child_process.h"
#include "kivgenapi/KivGenApi.h"
#include "platform/platform.h"

namespace camtest {
namespace {

using Info = CameraTest;

TEST_F(Info, GigEAndUsbRecordsByteForByte) {
  const std::string vendor32(32, 'A');
  World("[camera]\ntransport = gige\ninterface = 0\nuid = 1250999896372\nvendor = " + vendor32 +
        "\nmodel = Short\nserial = SN-123\nuser_name = front\nversion = 2.5.1\n"
        "[camera]\ntransport = usb\nuid = 0x4B49560000000009\nserial = " + std::string(64, 'S') +
        "\nuser_name = back\n");
  Load();
  HCAMERA cam = nullptr, usb = nullptr;
  ASSERT_EQ(lib_->KIVCAM_Open(1250999896372ull, &cam), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_Open(0x4B49560000000009ull, &usb), KIVCAM_TRUE);
  GigECameraInfo g;
  std::memset(&g, 0xA5, sizeof g);
  ASSERT_EQ(lib_->KIVCAM_CameraInfoGigE(cam, &g), KIVCAM_TRUE);
  const unsigned char* raw = reinterpret_cast<const unsigned char*>(&g);
  const unsigned char uid[6] = {0x01, 0x23, 0x45, 0x67, 0x89, 0x34};
  EXPECT_EQ(std::memcmp(raw + 4, uid, 6), 0);
  EXPECT_EQ(g.Info1002, 0xC0A80101u);  // adapter 0: 192.168.1.1
  EXPECT_EQ(g.Info1003, 2u);
  EXPECT_EQ(g.Reserved, 0u);
  EXPECT_EQ(g.Info1005, 0xC0A80164u);  // the camera's own address
  // 32 characters fill the vendor field with no terminator; the model is
  // followed by zeros.
  EXPECT_EQ(std::memcmp(raw + 20, vendor32.data(), 32), 0);
  EXPECT_EQ(std::string(g.Model, 32), "Short" + std::string(27, '\0'));
  EXPECT_STREQ(g.DeviceVersion, "2.5.1");
  EXPECT_STREQ(g.ManufacturerInfo, "KivCam virtual camera");
  EXPECT_STREQ(g.SerialNumber, "SN-123");
  EXPECT_STREQ(g.UserDefinedName, "front");
  EXPECT_EQ(Err(lib_->KIVCAM_CameraInfoGigE(cam, nullptr)), KIVCAM_ERR_PARAM);

  USBCameraInfo u;
  std::memset(&u, 0xA5, sizeof u);
  ASSERT_EQ(lib_->KIVCAM_CameraInfoUSB(usb, &u), KIVCAM_TRUE);
  EXPECT_EQ(u.Info1003_1004, 1u << 16);
  EXPECT_EQ(u.Info1002, (1u << 8) | 1u);
  EXPECT_STREQ(u.Vendor, "KivCam");
  EXPECT_STREQ(u.FamilyName, "KivSim");
  EXPECT_STREQ(u.DeviceVersion, "1.2.0");
  EXPECT_EQ(std::string(u.SerialNumber, 64), std::string(64, 'S'));  // no terminator
  EXPECT_STREQ(u.UserDefinedName, "back");
  EXPECT_EQ(u.Info1011, 0x4B49560000000009ull);
  // Each record only for its own kind.
  EXPECT_EQ(Err(lib_->KIVCAM_CameraInfoUSB(cam, &u)), KIVCAM_ERR_NOT_USB);
  EXPECT_EQ(Err(lib_->KIVCAM_CameraInfoGigE(usb, &g)), KIVCAM_ERR_NOT_GIGE);
}

TEST_F(Info, ProducerFailureLeavesAPartialRecord) {
  Load();
  HCAMERA cam = OpenUid(kGigE1);
  ASSERT_TRUE(GigE().loaded());
  // The export's presence test reads the flag, not the producer, so the
  // record's first query is the one that fails.
  GigECameraInfo g;
  std::memset(&g, 0xA5, sizeof g);
  CameraListEntry e{};
  ASSERT_EQ(GigE().fail_next("DevGetInfo", -1001, "Injected info", 1), 0);
  EXPECT_EQ(Err(lib_->KIVCAM_CameraInfo(cam, &e)), KIVCAM_ERR_OTHER);
  EXPECT_TRUE(log_->Saw("CCamera::CameraInfo", "Injected info"));
  ASSERT_EQ(GigE().fail_next("DevGetInfo", -1001, "Injected info", 1), 0);
  EXPECT_EQ(lib_->KIVCAM_CameraInfoGigE(cam, &g), KIVCAM_FALSE);
  EXPECT_TRUE(log_->Saw("CCameraGigE::CameraInfo", "Injected info"));
  for (unsigned char b : g.UID) EXPECT_EQ(b, 0);
}

// The general record is the camera's list entry; unplugged, the camera has
// none until it is back.
TEST_F(Info, GeneralRecordMatchesTheListUntilTheCameraIsUnplugged) {
  Load();
  std::vector<CameraListEntry> list = lib_->List();
  ASSERT_EQ(list.size(), 3u);
  HCAMERA cam = OpenUid(kUsb1);
  CameraListEntry e;
  std::memset(&e, 0xA5, sizeof e);
  ASSERT_EQ(lib_->KIVCAM_CameraInfo(cam, &e), KIVCAM_TRUE);
  EXPECT_EQ(std::memcmp(&e, &list[2], sizeof e), 0);
  EXPECT_EQ(Err(lib_->KIVCAM_CameraInfo(cam, nullptr)), KIVCAM_ERR_PARAM);
  uint32_t state = 7;
  log_->Clear();  // the 32-line log drops lines while full, so this check stands alone
  ASSERT_EQ(lib_->KIVCAM_Camera(cam, &state), KIVCAM_TRUE);
  EXPECT_EQ(state, 1u);
  EXPECT_TRUE(log_->Saw("KIVCAM_Camera", "End   Connect, HCAMERA=0x"));

  ASSERT_NO_FATAL_FAILURE(Unplug(cam, kUsb1, true));
  EXPECT_TRUE(log_->Saw("KIVCAM_Camera", "End   Disconnect, HCAMERA=0x"));
  EXPECT_EQ(Err(lib_->KIVCAM_CameraInfo(cam, &e)), KIVCAM_ERR_NO_CAMERA);
  void* map = nullptr;
  EXPECT_EQ(Err(lib_->KIVCAM_GetNodeMap(cam, &map)), KIVCAM_ERR_NO_CAMERA);
  USBCameraInfo u{};
  EXPECT_EQ(Err(lib_->KIVCAM_CameraInfoUSB(cam, &u)), KIVCAM_ERR_NO_CAMERA);

  ASSERT_EQ(USB().plug(CameraIndex(kUsb1, true), 1), 0);
  ASSERT_EQ(lib_->KIVCAM_Camera(cam, &state), KIVCAM_TRUE);
  EXPECT_EQ(state, 1u);
  EXPECT_EQ(lib_->KIVCAM_CameraInfo(cam, &e), KIVCAM_TRUE);
}

TEST_F(Info, BusResetRefreshesPresenceWithoutBeingAsked) {
  Load();
  HCAMERA cam = OpenUid(kGigE2);
  // The interface's threads see the producer's event; the bus-reset thread
  // refreshes its cameras, then tells the library from its own thread (the
  // event thread tells it too, on its own time).
  ASSERT_EQ(GigE().plug(CameraIndex(kGigE2, false), 0), 0);
  ASSERT_TRUE(log_->WaitFor("CInterface::BusEventGet_Thread", "BusReset Event"));
  ASSERT_TRUE(log_->WaitFor("CInterface::BusReset_Thread", "BusReset "));
  std::string line = log_->LineWith("CInterface::BusReset_Thread", "BusReset ");
  std::string thread = line.substr(line.find("ThreadID="));
  ASSERT_TRUE(log_->WaitFor("BusReset Detection", thread.substr(0, thread.find(','))));
  CameraListEntry e{};
  EXPECT_EQ(Err(lib_->KIVCAM_CameraInfo(cam, &e)), KIVCAM_ERR_NO_CAMERA);
}

TEST_F(Info, AnotherProcessWakesTheUsbInterface) {
  Load();
  const uint32_t parent = static_cast<uint32_t>(getpid());
  kivtest::ChildProcess child([parent]() -> int {
    auto e = kivcam::platform::NamedEvent::CreateOrOpen(KIVCAM_PROCESS_USB_EVENT_PREFIX + std::to_string(parent));
    if (!e) return 2;
    e->Set();
    return 0;
  });
  ASSERT_EQ(child.Join(), 0);
  ASSERT_TRUE(log_->WaitFor("CInterface::BusReset_Thread", "BusReset "));
  ASSERT_TRUE(log_->WaitFor("CKivCamDLL::UserBusEvent", "BusReset Detection"));
  EXPECT_FALSE(log_->Saw("BusEventGet_Thread", "BusReset Event"));  // not the producer's event
}

TEST_F(Info, NodeMapReadsThroughTheCamerasPort) {
  Load();
  HCAMERA cam = OpenUid(kGigE1);
  void* raw = nullptr;
  EXPECT_EQ(Err(lib_->KIVCAM_GetNodeMap(cam, nullptr)), KIVCAM_ERR_PARAM);
  ASSERT_EQ(lib_->KIVCAM_GetNodeMap(cam, &raw), KIVCAM_TRUE);
  auto* map = static_cast<KivGenApi::CNodeMapRef*>(raw);
  ASSERT_NE(map->_Ptr, nullptr);
  KivGenApi::INode* width = map->_Ptr->GetNode("Width");
  ASSERT_NE(width, nullptr);
  auto* value = dynamic_cast<KivGenApi::IValue*>(width);
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(value->ToString(false, true), "640");
  EXPECT_EQ(width->GetAccessMode(), KivGenApi::RW);
  // A short answer from the producer is a failed read.
  ASSERT_TRUE(GigE().loaded());
  ASSERT_EQ(GigE().short_reads(1), 0);
  EXPECT_ANY_THROW(value->ToString(false, true));
  EXPECT_EQ(value->ToString(false, true), "640");
  // An absent camera is not read at all.
  ASSERT_EQ(GigE().plug(CameraIndex(kGigE1, false), 0), 0);
  EXPECT_ANY_THROW(value->ToString(false, true));
}

TEST_F(Info, CommandTimeoutBoundsAndVersion) {
  lib_ = std::make_unique<CamLib>();
  ASSERT_TRUE(lib_->loaded());
  ASSERT_EQ(lib_->KIVCAM_SetStructVersion(10101), KIVCAM_TRUE);
  HCAMERA cam = OpenUid(kGigE1);
  // The version is tested before anything else, the handle included.
  EXPECT_EQ(Err(lib_->KIVCAM_SetCmdTimeOut(cam, 1000)), KIVCAM_ERR_VERSION);
  EXPECT_EQ(Err(lib_->KIVCAM_SetCmdTimeOut(nullptr, 1000)), KIVCAM_ERR_VERSION);
  ASSERT_EQ(lib_->KIVCAM_SetStructVersion(KIVCAM_STRUCT_VERSION_CMDTIMEOUT), KIVCAM_TRUE);
  for (uint32_t ms : {0u, 500u, 600000u}) EXPECT_EQ(lib_->KIVCAM_SetCmdTimeOut(cam, ms), KIVCAM_TRUE) << ms;
  for (uint32_t ms : {1u, 499u, 600001u}) EXPECT_EQ(Err(lib_->KIVCAM_SetCmdTimeOut(cam, ms)), KIVCAM_ERR_PARAM) << ms;
  // The producer's refusal: 99 and its text.
  Sim sim(LibDir() + "/KivGigEGenTL.cti");
  ASSERT_TRUE(sim.loaded());
  ASSERT_EQ(sim.fail_next("GCWritePort", -1001, "Injected write", 1), 0);
  EXPECT_EQ(Err(lib_->KIVCAM_SetCmdTimeOut(cam, 700)), KIVCAM_ERR_OTHER);
  EXPECT_TRUE(log_->Saw("CCamera::SetCmdTimeOut", "Injected write"));
}

}  // namespace
}  // namespace camtest
