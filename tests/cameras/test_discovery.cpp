// Producers and discovery: which producers load from where, and the camera list.
#include <cstdio>
#include <cstring>

#include "cam_env.h"

namespace camtest {
namespace {

using Discovery = CameraTest;

std::string Name(const char (&field)[256]) { return std::string(field, strnlen(field, 256)); }

TEST_F(Discovery, ListsEveryCameraInProducerAndInterfaceOrderIntoABufferBigEnough) {
  Load();
  CameraList head{};
  ASSERT_EQ(lib_->KIVCAM_GetList(&head), KIVCAM_TRUE);
  EXPECT_EQ(head.Count, 3u);  // count query: nothing written
  std::vector<CameraListEntry> list = lib_->List();
  ASSERT_EQ(list.size(), 3u);
  // The first GigE adapter has no camera; the second one's are listed.
  EXPECT_EQ(Uid(list[0]), kGigE1);
  EXPECT_EQ(Uid(list[1]), kGigE2);
  EXPECT_EQ(Uid(list[2]), kUsb1);
  EXPECT_EQ(list[0].CameraKind, KIVCAM_CAMERAKIND_GIGE);
  EXPECT_EQ(list[2].CameraKind, KIVCAM_CAMERAKIND_USB);
  EXPECT_EQ(list[0].LinkCode, 6u);  // a 1000 link is not the 100 one
  EXPECT_EQ(list[2].LinkCode, 8u);  // 0x300 is not 0x200
  EXPECT_EQ(list[0].Info1002, 0xC0A80201u);  // the adapter's address 192.168.2.1
  EXPECT_EQ(Name(list[0].Vendor), "KivCam");
  EXPECT_EQ(Name(list[0].Model), "KivSim-GC1920M");
  EXPECT_EQ(Name(list[2].Model), "KivSim-UC1920C");
  EXPECT_TRUE(log_->Saw("CInterface::GetDevCount", "GigE Camera Count DUMP=0x0000000000000002"));
  EXPECT_TRUE(log_->Saw("CInterface::GetDevCount", "USB Camera Count DUMP=0x0000000000000001"));

  // Room for fewer entries than there are: refused, the buffer left alone.
  std::vector<unsigned char> buf(KIVCAM_CAMERALIST_BYTES(3), 0xA5);
  auto* small = reinterpret_cast<CameraList*>(buf.data());
  small->Count = 2;
  EXPECT_EQ(Err(lib_->KIVCAM_GetList(small)), KIVCAM_ERR_BUFFER_SIZE);
  EXPECT_EQ(small->Count, 2u);
  for (size_t i = 4; i < buf.size(); ++i) ASSERT_EQ(buf[i], 0xA5) << i;
  EXPECT_EQ(Err(lib_->KIVCAM_GetList(nullptr)), KIVCAM_ERR_PARAM);
}

TEST_F(Discovery, ConfiguredLinksLongNamesAndUidsInTheListAndPortRecords) {
  World(
      "[camera]\ntransport = gige\ninterface = 0\nuid = 1250999896372\nlink = 100\nvendor = " +
      std::string(300, 'V') +
      "\n[camera]\ntransport = usb\nlink = 0x200\nmodel = " + std::string(255, 'M') + "\n");
  Load();
  std::vector<CameraListEntry> list = lib_->List();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(Uid(list[0]), 1250999896372ull);
  EXPECT_EQ(list[0].LinkCode, 0u);
  EXPECT_EQ(list[1].LinkCode, 7u);
  // Cut to 255 characters and terminated; 255 fit exactly.
  EXPECT_EQ(Name(list[0].Vendor), std::string(255, 'V'));
  EXPECT_EQ(Name(list[1].Model), std::string(255, 'M'));
  // A port object's record fills the field without a terminator.
  HCAMERAPORT port = nullptr;
  ASSERT_EQ(lib_->KIVCAM_OpenReg(&port), KIVCAM_TRUE);
  CameraListEntry e{};
  ASSERT_EQ(lib_->KIVCAM_CameraRegInfo(port, &e), KIVCAM_TRUE);
  EXPECT_EQ(e.CameraKind, KIVCAM_CAMERAKIND_GIGE);
  EXPECT_EQ(e.LinkCode, 0u);
  EXPECT_EQ(std::string(e.Vendor, 256), std::string(256, 'V'));
  // A failing query: 99, its text logged, the fields before it kept.
  ASSERT_EQ(GigE().fail_next("DevGetInfo", -1001, "Injected info", 1), 0);
  EXPECT_EQ(Err(lib_->KIVCAM_CameraRegInfo(port, &e)), KIVCAM_ERR_OTHER);
  EXPECT_TRUE(log_->Saw("CCameraPort::CameraInfo", "Injected info"));
  EXPECT_EQ(Uid(e), 0u);
}

// A module without GenTL entry points, then none at all, then the producer in
// the second place: $GENICAM_ROOT_V2_4/bin/Linux64_x64/TLIs. The other
// producer loads all along; each re-detection tries the missing one again.
TEST_F(Discovery, MissingOrBrokenProducerIsLoggedAndTheOtherStillLoads) {
  std::string dir = Temp() + "/lib";
  CopyLibrary(dir, {"KivGigEGenTL.cti"});
  CopyFile(LibDir() + "/KivNoEntries.cti", dir + "/KivUSBGenTL.cti");
  Load(dir);
  EXPECT_TRUE(log_->Saw("CKivCamDLL::CreateDrvList", "GenTL Load Entry Error"));
  EXPECT_EQ(lib_->List().size(), 2u);
  std::remove((dir + "/KivUSBGenTL.cti").c_str());
  lib_->KIVCAM_ReDetection();
  EXPECT_TRUE(log_->Saw("CKivCamDLL::CreateDrvList", "GenTL Module Not Found"));
  std::vector<CameraListEntry> list = lib_->List();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[1].CameraKind, KIVCAM_CAMERAKIND_GIGE);
  // Opens of the missing kind: not supported by key or UID, none to take first.
  HCAMERA cam = nullptr;
  KIVCAM_OPENPARAM p = Param(KIVCAM_UID_ANY, "cam1");
  EXPECT_EQ(Err(lib_->KIVCAM_OpenUSB(&p, &cam)), KIVCAM_ERR_NOT_SUPPORTED);
  p = Param(kUsb1);
  EXPECT_EQ(Err(lib_->KIVCAM_OpenUSB(&p, &cam)), KIVCAM_ERR_NOT_SUPPORTED);
  p = Param(KIVCAM_UID_ANY);
  EXPECT_EQ(Err(lib_->KIVCAM_OpenUSB(&p, &cam)), KIVCAM_ERR_NO_CAMERA);
  EXPECT_EQ(lib_->KIVCAM_OpenGigE(&p, &cam), KIVCAM_TRUE);

  std::string root = Temp() + "/genicam";
  MakeDirs(root + "/bin/Linux64_x64/TLIs");
  CopyFile(LibDir() + "/KivUSBGenTL.cti", root + "/bin/Linux64_x64/TLIs/KivUSBGenTL.cti");
  setenv("GENICAM_ROOT_V2_4", root.c_str(), 1);
  lib_->KIVCAM_ReDetection();
  list = lib_->List();
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(Uid(list[2]), kUsb1);
}

TEST_F(Discovery, ProducerThatFailsToStartLogsItsOwnText) {
  World("[camera]\nbogus = 1\n");
  Load();
  EXPECT_TRUE(log_->Saw("CKivCamDLL::CreateDrvList", "KIVSIM_CONFIG: line 2: unknown key bogus"));
  EXPECT_TRUE(lib_->List().empty());
  // Re-detection tries every missing producer again.
  World("[camera]\ntransport = usb\n");
  lib_->KIVCAM_ReDetection();
  std::vector<CameraListEntry> list = lib_->List();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].CameraKind, KIVCAM_CAMERAKIND_USB);
  // Only a USB camera: nothing to watch.
  HCAMERA h = nullptr;
  EXPECT_EQ(Err(lib_->KIVCAM_WatchOpen(KIVCAM_UID_ANY, &h)), KIVCAM_ERR_NO_CAMERA);
}

TEST_F(Discovery, ReDetectionLoadsProducersAndKeepsOpenCameras) {
  // Before any structure version no producer is loaded: an empty list, and
  // no camera of any kind.
  lib_ = std::make_unique<CamLib>();
  ASSERT_TRUE(lib_->loaded());
  std::vector<unsigned char> buf(KIVCAM_CAMERALIST_BYTES(4), 0);
  auto* list = reinterpret_cast<CameraList*>(buf.data());
  list->Count = 4;
  EXPECT_EQ(lib_->KIVCAM_GetList(list), KIVCAM_TRUE);
  EXPECT_EQ(list->Count, 0u);
  HCAMERA cam = reinterpret_cast<HCAMERA>(1);
  EXPECT_EQ(Err(lib_->KIVCAM_Open(KIVCAM_UID_ANY, &cam)), KIVCAM_ERR_NO_CAMERA);
  EXPECT_EQ(cam, nullptr);
  EXPECT_EQ(Err(lib_->KIVCAM_Open(kGigE1, &cam)), KIVCAM_ERR_NOT_SUPPORTED);
  // Re-detection loads them; a second one keeps them and their open cameras.
  lib_->KIVCAM_ReDetection();
  ASSERT_EQ(lib_->List().size(), 3u);
  cam = OpenUid(kUsb1);
  lib_->KIVCAM_ReDetection();
  uint32_t state = 7;
  EXPECT_EQ(lib_->KIVCAM_Camera(cam, &state), KIVCAM_TRUE);
  EXPECT_EQ(state, 1u);
  EXPECT_EQ(lib_->KIVCAM_Reset(), KIVCAM_TRUE);
  EXPECT_EQ(lib_->KIVCAM_Close(cam), KIVCAM_TRUE);
}

}  // namespace
}  // namespace camtest
