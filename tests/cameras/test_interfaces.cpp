// Interfaces that come and go while cameras on them are open: the producer in
// front of the virtual GigE producer hides one interface on request.
#include <dlfcn.h>

#include "cam_env.h"

namespace camtest {
namespace {

class Interfaces : public CameraTest {
 protected:
  void LoadWithShim() {
    std::string dir = Temp() + "/lib";
    CopyLibrary(dir, {"KivUSBGenTL.cti"});
    CopyFile(LibDir() + "/KivShimGenTL.cti", dir + "/KivGigEGenTL.cti");
    CopyFile(LibDir() + "/KivGigEGenTL.cti", dir + "/KivRealGigEGenTL.cti");
    setenv("KIVSHIM_REAL", (dir + "/KivRealGigEGenTL.cti").c_str(), 1);
    Load(dir);
    shim_ = dlopen((dir + "/KivGigEGenTL.cti").c_str(), RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(shim_, nullptr);
    hide_ = reinterpret_cast<void (*)(int64_t)>(dlsym(shim_, "kivshim_hide"));
    set_url_ = reinterpret_cast<void (*)(const char*)>(dlsym(shim_, "kivshim_set_url"));
    ASSERT_NE(hide_, nullptr);
    ASSERT_NE(set_url_, nullptr);
  }
  void TearDown() override {
    if (shim_) dlclose(shim_);
    CameraTest::TearDown();
    unsetenv("KIVSHIM_REAL");
  }
  void* shim_ = nullptr;
  void (*hide_)(int64_t) = nullptr;
  void (*set_url_)(const char*) = nullptr;
};

TEST_F(Interfaces, VanishedInterfaceTakesItsCamerasAndPortsWithIt) {
  LoadWithShim();
  HCAMERA gige = nullptr, usb = nullptr;
  HCAMERAPORT port = nullptr;
  ASSERT_EQ(lib_->KIVCAM_Open(kGigE1, &gige), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_OpenReg(&port), KIVCAM_TRUE);  // the other camera on the same adapter
  ASSERT_EQ(lib_->KIVCAM_Open(kUsb1, &usb), KIVCAM_TRUE);

  // The empty first adapter goes: the second keeps its object and its camera.
  hide_(0);
  lib_->KIVCAM_ReDetection();
  uint32_t state = 0;
  ASSERT_EQ(lib_->KIVCAM_Camera(gige, &state), KIVCAM_TRUE);
  EXPECT_EQ(state, 1u);
  CameraListEntry e{};
  EXPECT_EQ(lib_->KIVCAM_CameraRegInfo(port, &e), KIVCAM_TRUE);

  // The second adapter goes (the first is back): its camera and port object die with it.
  hide_(1);
  lib_->KIVCAM_ReDetection();
  EXPECT_EQ(Err(lib_->KIVCAM_Camera(gige, &state)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAM_CameraRegInfo(port, &e)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(lib_->KIVCAM_Close(gige), KIVCAM_FALSE);
  ASSERT_EQ(lib_->KIVCAM_Camera(usb, &state), KIVCAM_TRUE);  // another producer's camera stays
  std::vector<CameraListEntry> list = lib_->List();
  ASSERT_EQ(list.size(), 1u);  // the first adapter has none
  EXPECT_EQ(list[0].CameraKind, KIVCAM_CAMERAKIND_USB);

  // Back again: a new interface object, and the devices were closed properly.
  hide_(-1);
  lib_->KIVCAM_ReDetection();
  ASSERT_EQ(lib_->List().size(), 3u);
  ASSERT_EQ(lib_->KIVCAM_Open(kGigE1, &gige), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_Open(kGigE2, &gige), KIVCAM_TRUE);
}

TEST_F(Interfaces, InterfaceThatCannotBeBuiltIsLeftOut) {
  LoadWithShim();
  Sim real(Temp() + "/lib/KivRealGigEGenTL.cti");
  ASSERT_TRUE(real.loaded());
  // Returning, the adapter can't register its event (logged, its handle
  // closed), or the producer refuses to open it (its own text).
  const std::pair<const char*, const char*> failures[] = {{"GCRegisterEvent", "RegisterEvent Error"},
                                                          {"TLOpenInterface", "Injected TLOpenInterface"}};
  for (const auto& [call, text] : failures) {
    SCOPED_TRACE(call);
    hide_(1);
    lib_->KIVCAM_ReDetection();
    ASSERT_EQ(real.fail_next(call, -1001, (std::string("Injected ") + call).c_str(), 1), 0);
    hide_(-1);
    lib_->KIVCAM_ReDetection();
    EXPECT_TRUE(log_->Saw("CGenTL::UpdateInterface", text));
    EXPECT_EQ(lib_->List().size(), 1u);
  }
  // A third return works; the interface handles closed on the way were
  // really closed, or the producer would refuse to open it again.
  hide_(1);
  lib_->KIVCAM_ReDetection();
  hide_(-1);
  lib_->KIVCAM_ReDetection();
  EXPECT_EQ(lib_->List().size(), 3u);
}

// Description URLs the virtual cameras never give: the producer in front
// rewrites them. Each open that fails leaves its text under the opener.
TEST_F(Interfaces, DescriptionUrlsAndTheirFailureTexts) {
  std::string xml = DefaultDescription();
  ASSERT_FALSE(xml.empty());
  LoadWithShim();
  struct Case {
    const char* url;
    const char* text;
  };
  const Case failing[] = {
      {"no scheme here", "URL Error"},
      {"http://example.com/cam.xml", "URL Error"},
      {"File:missing.xml", "Local File Error"},
      {"LOCAL:cam.xml;FFFFFF00;100", "XML Data Read Error"},
      {"local:cam.zip;0;40", "Memory Alloc Error"},  // registers that hold no archive
  };
  for (const Case& c : failing) {
    SCOPED_TRACE(c.url);
    log_->Clear();
    set_url_(c.url);
    HCAMERA cam = reinterpret_cast<HCAMERA>(8);
    EXPECT_EQ(Err(lib_->KIVCAM_Open(kGigE1, &cam)), KIVCAM_ERR_NO_CAMERA);
    EXPECT_TRUE(log_->Saw("CInterface::OpenCamera", c.text));
  }
  // A FILE: URL names a file of the data folder, in any case of the scheme.
  WriteDataFile("cam.xml", xml);
  set_url_("fIlE:cam.xml");
  HCAMERA cam = OpenUid(kGigE1);
  ASSERT_EQ(lib_->KIVCAM_Close(cam), KIVCAM_TRUE);
  // Looking in the data folder first also takes a LOCAL: URL's file name there.
  set_url_("LOCAL:cam.xml;FFFFFF00;100");
  KIVCAM_OPENPARAM p = Param(kGigE1, "", KIVCAM_DESCRIPTION_DATA_FOLDER_FIRST);
  ASSERT_EQ(lib_->KIVCAM_OpenGigE(&p, &cam), KIVCAM_TRUE);
}

}  // namespace
}  // namespace camtest
