// Opening and closing cameras: the searches, their result codes, the
// description sources and what a failed open leaves behind.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <zip.h>

#include "cam_env.h"
#include "kivgenapi/KivGenApi.h"
#include "child_process.h"

namespace camtest {
namespace {

using Open = CameraTest;

uint64_t UidOf(CamLib& lib, HCAMERA cam) {
  CameraListEntry e{};
  return lib.KIVCAM_CameraInfo(cam, &e) ? e.UID : 0;
}

TEST_F(Open, FirstOpenableTakesGigEBeforeUsbAndSkipsCamerasInUse) {
  Load();
  HCAMERA cam[4] = {};
  for (int i = 0; i < 3; ++i) ASSERT_EQ(lib_->KIVCAM_Open(KIVCAM_UID_ANY, &cam[i]), KIVCAM_TRUE);
  EXPECT_EQ(UidOf(*lib_, cam[0]), kGigE1);
  EXPECT_EQ(UidOf(*lib_, cam[1]), kGigE2);
  EXPECT_EQ(UidOf(*lib_, cam[2]), kUsb1);
  cam[3] = reinterpret_cast<HCAMERA>(8);
  EXPECT_EQ(Err(lib_->KIVCAM_Open(KIVCAM_UID_ANY, &cam[3])), KIVCAM_ERR_NO_CAMERA);
  EXPECT_EQ(cam[3], nullptr);
  // A closed camera is free again.
  ASSERT_EQ(lib_->KIVCAM_Close(cam[1]), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_Open(KIVCAM_UID_ANY, &cam[1]), KIVCAM_TRUE);
  EXPECT_EQ(UidOf(*lib_, cam[1]), kGigE2);
}

TEST_F(Open, ByUidResultCodes) {
  Load();
  HCAMERA cam = reinterpret_cast<HCAMERA>(8);
  EXPECT_EQ(Err(lib_->KIVCAM_Open(0, &cam)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(cam, nullptr);  // written before the UID is tested
  EXPECT_EQ(Err(lib_->KIVCAM_Open(kGigE2, nullptr)), KIVCAM_ERR_PARAM);
  ASSERT_EQ(lib_->KIVCAM_Open(kGigE2, &cam), KIVCAM_TRUE);
  EXPECT_EQ(lib_->KIVCAM_GetLastError(), 0u);
  EXPECT_EQ(UidOf(*lib_, cam), kGigE2);
  HCAMERA again = nullptr;
  EXPECT_EQ(Err(lib_->KIVCAM_Open(kGigE2, &again)), KIVCAM_ERR_ALREADY_OPEN);
  EXPECT_EQ(Err(lib_->KIVCAM_Open(0x123456789ull, &again)), KIVCAM_ERR_NO_CAMERA);
  // The open lines carry the UID and the new handle.
  char text[64];
  std::snprintf(text, sizeof text, "Start Req UID=0x%08X %08X", unsigned(kGigE2 >> 32),
                unsigned(kGigE2 & 0xFFFFFFFFu));
  EXPECT_TRUE(log_->Saw("KIVCAM_Open", text));
  std::snprintf(text, sizeof text, "End HCAMERA=0x%016llX",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(cam)));
  EXPECT_TRUE(log_->Saw("KIVCAM_Open", text));
  EXPECT_TRUE(log_->Saw("KIVCAM_Open", "Error=4,"));
}

TEST_F(Open, ByRecordUidKeyOrFirstAndItsArgumentRules) {
  Load();
  HCAMERA cam = nullptr, other = nullptr, third = nullptr;
  KIVCAM_OPENPARAM p = Param(KIVCAM_UID_ANY, "cam2");
  ASSERT_EQ(lib_->KIVCAM_OpenGigE(&p, &cam), KIVCAM_TRUE);
  EXPECT_EQ(UidOf(*lib_, cam), kGigE2);
  EXPECT_EQ(Err(lib_->KIVCAM_OpenGigE(&p, &other)), KIVCAM_ERR_ALREADY_OPEN);
  // The USB producer has its own first camera called cam1.
  p = Param(KIVCAM_UID_ANY, "cam1");
  ASSERT_EQ(lib_->KIVCAM_OpenUSB(&p, &other), KIVCAM_TRUE);
  EXPECT_EQ(UidOf(*lib_, other), kUsb1);
  // The first openable GigE camera; then none is left of that kind.
  p = Param(KIVCAM_UID_ANY);
  ASSERT_EQ(lib_->KIVCAM_OpenGigE(&p, &third), KIVCAM_TRUE);
  EXPECT_EQ(UidOf(*lib_, third), kGigE1);
  EXPECT_EQ(Err(lib_->KIVCAM_OpenGigE(&p, &third)), KIVCAM_ERR_NO_CAMERA);
  p = Param(kGigE1);
  EXPECT_EQ(Err(lib_->KIVCAM_OpenGigE(&p, &third)), KIVCAM_ERR_ALREADY_OPEN);
  p = Param(KIVCAM_UID_ANY, "nobody");
  EXPECT_EQ(Err(lib_->KIVCAM_OpenUSB(&p, &third)), KIVCAM_ERR_NO_CAMERA);

  // Argument errors: a UID and a key at once, no record, nowhere to put the handle.
  cam = reinterpret_cast<HCAMERA>(8);
  KIVCAM_OPENPARAM both = Param(kGigE1, "cam1");
  EXPECT_EQ(Err(lib_->KIVCAM_OpenGigE(&both, &cam)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAM_OpenUSB(&both, &cam)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(cam, reinterpret_cast<HCAMERA>(8));  // untouched on argument errors
  EXPECT_EQ(Err(lib_->KIVCAM_OpenGigE(nullptr, &cam)), KIVCAM_ERR_PARAM);
  p = Param(KIVCAM_UID_ANY);
  EXPECT_EQ(Err(lib_->KIVCAM_OpenUSB(&p, nullptr)), KIVCAM_ERR_PARAM);
  // A GigE key needs its terminator inside the 16 bytes; 15 characters run the search.
  std::memset(p.DeviceKey, 'k', sizeof p.DeviceKey);
  EXPECT_EQ(Err(lib_->KIVCAM_OpenGigE(&p, &cam)), KIVCAM_ERR_PARAM);
  p.DeviceKey[15] = '\0';
  EXPECT_EQ(Err(lib_->KIVCAM_OpenGigE(&p, &cam)), KIVCAM_ERR_NO_CAMERA);
}

// A camera another process holds: the first-openable search passes it by and
// an open by its UID says it is in use; once released it opens here.
TEST_F(Open, CameraHeldByAnotherProcess) {
  log_.reset();  // the child starts threads: fork from a single-threaded parent
  kivtest::Pipe opened, release;
  kivtest::ChildProcess child([&]() -> int {
    CamLib lib;
    if (!lib.loaded() || !lib.KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION)) return 2;
    HCAMERA cam = nullptr;
    if (!lib.KIVCAM_Open(KIVCAM_UID_ANY, &cam) || UidOf(lib, cam) != kGigE1) return 3;
    opened.Send('o');
    release.Receive();
    return 0;
  });
  ASSERT_EQ(opened.Receive(), 'o');
  Load();
  HCAMERA cam = nullptr;
  EXPECT_EQ(Err(lib_->KIVCAM_Open(kGigE1, &cam)), KIVCAM_ERR_ALREADY_OPEN);
  ASSERT_EQ(lib_->KIVCAM_Open(KIVCAM_UID_ANY, &cam), KIVCAM_TRUE);
  EXPECT_EQ(UidOf(*lib_, cam), kGigE2);
  release.Send('x');
  EXPECT_EQ(child.Join(), 0);
  EXPECT_EQ(lib_->KIVCAM_Open(kGigE1, &cam), KIVCAM_TRUE);
}

// The default world's first GigE camera keeps its ZIP description at URL 0 and
// the plain one at URL 1; the data-folder copies are looked for by URL 0's name.
const char kZipName[] = "KivSim_KivSim-GC1920M.zip";
const char kAddName[] = "KivSim_KivSim-GC1920M_KIVADD.xml";

// A one-entry archive, stored; `damage` flips a byte of the stored data.
bool WriteZip(const std::string& path, const std::string& data, bool damage) {
  zipFile z = zipOpen64(path.c_str(), APPEND_STATUS_CREATE);
  if (!z) return false;
  zip_fileinfo info{};
  bool ok = zipOpenNewFileInZip64(z, "inner.xml", &info, nullptr, 0, nullptr, 0, nullptr, 0, 0, 0) == ZIP_OK &&
            zipWriteInFileInZip(z, data.data(), static_cast<unsigned>(data.size())) == ZIP_OK &&
            zipCloseFileInZip(z) == ZIP_OK;
  zipClose(z, nullptr);
  if (!ok || !damage) return ok;
  std::FILE* f = std::fopen(path.c_str(), "r+b");
  if (!f) return false;
  std::fseek(f, 30 + 9 + 100, SEEK_SET);  // past the local header and the name
  int c = std::fgetc(f);
  std::fseek(f, -1, SEEK_CUR);
  std::fputc(c ^ 0x20, f);
  std::fclose(f);
  return true;
}

TEST_F(Open, ZipCopyInTheDataFolder) {
  std::string xml = DefaultDescription();
  ASSERT_FALSE(xml.empty());
  ASSERT_TRUE(WriteZip(DataFolder() + "/" + kZipName, xml, false));
  Load();
  HCAMERA cam = nullptr;
  KIVCAM_OPENPARAM p = Param(kGigE1, "", KIVCAM_DESCRIPTION_DATA_FOLDER_FIRST);
  ASSERT_EQ(lib_->KIVCAM_OpenGigE(&p, &cam), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_Close(cam), KIVCAM_TRUE);
  // A damaged entry: its check fails at the end of the extraction.
  ASSERT_TRUE(WriteZip(DataFolder() + "/" + kZipName, xml, true));
  EXPECT_EQ(lib_->KIVCAM_OpenGigE(&p, &cam), KIVCAM_FALSE);
  EXPECT_TRUE(log_->Saw("CInterface::OpenCamera", "Memory Alloc Error"));
  // A file that is no archive at all counts as no copy: the device's URL 0 is read.
  WriteDataFile(kZipName, "not an archive");
  ASSERT_EQ(lib_->KIVCAM_OpenGigE(&p, &cam), KIVCAM_TRUE);
}

// Copies in the data folder come first when asked for: one that is no
// description, one that lacks a standard feature, then a good one with an
// additional description injected. A failed open leaves the device free.
TEST_F(Open, DataFolderCopyAndAdditionalDescription) {
  std::string xml = DefaultDescription();
  ASSERT_NE(xml.find("TLParamsLocked"), std::string::npos);
  std::string broken = xml;
  for (size_t at; (at = broken.find("\"TLParamsLocked\"")) != std::string::npos;) broken.replace(at, 16, "\"X\"");
  const std::string copy = "KivSim_KivSim-GC1920M.xml";
  WriteDataFile(kAddName, AdditionalDescription("<Integer Name=\"KivAddedFeature\"><Value>4242</Value></Integer>"));
  World("[camera]\ntransport = gige\ninterface = 0\nmodel = KivSim-GC1920M\ndescription = plain\n");
  Load();
  HCAMERA cam = nullptr;
  KIVCAM_OPENPARAM p = Param(KIVCAM_UID_ANY, "", KIVCAM_DESCRIPTION_DATA_FOLDER_FIRST);
  WriteDataFile(copy, "<this is not a description");
  EXPECT_EQ(Err(lib_->KIVCAM_OpenGigE(&p, &cam)), KIVCAM_ERR_NO_CAMERA);
  EXPECT_TRUE(log_->Saw("CInterface::OpenCamera", "xml File Not Found Error"));
  WriteDataFile(copy, broken);
  EXPECT_EQ(lib_->KIVCAM_OpenGigE(&p, &cam), KIVCAM_FALSE);
  EXPECT_TRUE(log_->Saw("CInterface::OpenCamera", "Std Node NotFound"));
  auto added = [&] {
    void* map = nullptr;
    if (!lib_->KIVCAM_GetNodeMap(cam, &map) || !map) return false;
    KivGenApi::INodeMap* nodes = static_cast<KivGenApi::CNodeMapRef*>(map)->_Ptr;
    return nodes && nodes->GetNode("TLParamsLocked") && nodes->GetNode("KivAddedFeature");
  };
  WriteDataFile(copy, xml);
  ASSERT_EQ(lib_->KIVCAM_OpenGigE(&p, &cam), KIVCAM_TRUE);
  EXPECT_TRUE(added());
  ASSERT_EQ(lib_->KIVCAM_Close(cam), KIVCAM_TRUE);
  // Without either file the description comes from the device's URL 0, which
  // has no such feature.
  std::remove((DataFolder() + "/" + kAddName).c_str());
  std::remove((DataFolder() + "/" + copy).c_str());
  ASSERT_EQ(lib_->KIVCAM_OpenGigE(&p, &cam), KIVCAM_TRUE);
  EXPECT_FALSE(added());
  ASSERT_EQ(lib_->KIVCAM_Close(cam), KIVCAM_TRUE);
  p.DescriptionIndex = 5;  // beyond the URLs: URL 0
  ASSERT_EQ(lib_->KIVCAM_OpenGigE(&p, &cam), KIVCAM_TRUE);
}

// The fourth camera, with a single stream, is refused.
TEST_F(Open, GigEConfigurationHeartbeatAndPacketSize) {
  World("[camera]\ntransport = gige\ninterface = 0\npacket_size_max = 8000\n"
        "[camera]\ntransport = gige\ninterface = 0\npacket_size_max = 8000\npacket_size_limit = 4000\n"
        "[camera]\ntransport = gige\ninterface = 0\npacket_size_max = 1500\npacket_size_limit = 1000\n"
        "[camera]\ntransport = gige\ninterface = 0\nstreams = 1\n");
  Load();
  HCAMERA cam[4] = {};
  for (int i = 0; i < 3; ++i) ASSERT_EQ(lib_->KIVCAM_Open(KIVCAM_UID_ANY, &cam[i]), KIVCAM_TRUE);
  EXPECT_EQ(Err(lib_->KIVCAM_Open(KIVCAM_UID_ANY, &cam[3])), KIVCAM_ERR_NO_CAMERA);
  EXPECT_TRUE(log_->Saw("CInterface::OpenCamera", "DataStreams Error"));
  // Heartbeat: 500..60000 in steps of 1, so the 10 s target itself.
  EXPECT_EQ(lib_->ReadBE(cam[0], 0x0938), 10000u);
  // Packet size: the maximum passes its stream test, a failing test falls back
  // to standard frames, and a maximum of 1500 needs no test (it would fail).
  EXPECT_EQ(lib_->ReadBE(cam[0], 0x0D04) & 0xFFFF, 8000u);
  EXPECT_EQ(lib_->ReadBE(cam[1], 0x0D04) & 0xFFFF, 1500u);
  EXPECT_EQ(lib_->ReadBE(cam[2], 0x0D04) & 0xFFFF, 1500u);
  // Heartbeat still enabled, pending acknowledgements switched on.
  EXPECT_EQ(lib_->ReadBE(cam[0], 0x0954) & 3u, 2u);
}

TEST_F(Open, FailureAtEachProducerCallOnTheOpenPath) {
  Load();
  ASSERT_TRUE(GigE().loaded());
  struct Case {
    const char* call;
    const char* logged;  // the producer's own text when null; nothing looked for when empty
  };
  const Case cases[] = {{"DevGetPort", nullptr},       {"DevGetNumDataStreams", nullptr},
                        {"DevGetDataStreamID", nullptr}, {"DevOpenDataStream", nullptr},
                        {"GCGetNumPortURLs", nullptr},   {"GCGetPortURLInfo", nullptr},
                        {"GCReadPort", "XML Data Read Error"},
                        {"IFOpenDevice", ""},  // a refusal other than "in use" is no open
                        {"IFGetDeviceID", ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.call);
    std::string text = std::string("Injected ") + c.call;
    ASSERT_EQ(GigE().fail_next(c.call, -1001, text.c_str(), 1), 0);
    HCAMERA cam = reinterpret_cast<HCAMERA>(8);
    EXPECT_EQ(Err(lib_->KIVCAM_Open(kGigE1, &cam)), KIVCAM_ERR_NO_CAMERA);
    EXPECT_EQ(cam, nullptr);
    if (!c.logged || *c.logged) {
      EXPECT_TRUE(log_->Saw("CInterface::OpenCamera", c.logged ? c.logged : text));
    }
    // Nothing stays open: the same camera opens at once.
    ASSERT_EQ(lib_->KIVCAM_Open(kGigE1, &cam), KIVCAM_TRUE);
    ASSERT_EQ(lib_->KIVCAM_Close(cam), KIVCAM_TRUE);
  }
}

// Close-all leaves port objects; an unload closes what is left of both.
TEST_F(Open, CloseAllClosesCamerasButNotPortsUnloadClosesBoth) {
  Load();
  HCAMERA a = nullptr, b = nullptr;
  HCAMERAPORT port = nullptr;
  ASSERT_EQ(lib_->KIVCAM_Open(kGigE1, &a), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_Open(kUsb1, &b), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_OpenReg(&port), KIVCAM_TRUE);
  lib_->KIVCAM_CloseAll();
  EXPECT_TRUE(log_->Saw("KIVCAM_CloseAll", "End  "));
  uint32_t state = 0;
  EXPECT_EQ(Err(lib_->KIVCAM_Camera(a, &state)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAM_Close(b)), KIVCAM_ERR_PARAM);
  CameraListEntry e{};
  EXPECT_EQ(lib_->KIVCAM_CameraRegInfo(port, &e), KIVCAM_TRUE);
  EXPECT_EQ(Uid(e), kGigE2);  // the first device free at the time
  ASSERT_EQ(lib_->KIVCAM_Open(kGigE1, &a), KIVCAM_TRUE);
  Unload();
  Load();
  ASSERT_EQ(lib_->KIVCAM_Open(kGigE1, &a), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_Open(kGigE2, &a), KIVCAM_TRUE);
}

}  // namespace
}  // namespace camtest
