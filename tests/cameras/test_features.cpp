// The feature interface (kivcam_features.h) on the virtual cameras: values
// reach the device's registers, refusals carry the documented codes, the
// descriptions match the camera's GenICam description, and a command's wait
// leaves the camera to other threads.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "cam_env.h"

namespace camtest {
namespace {

class Features : public CameraTest {
 protected:
  // A text out of one of the text functions, through the size query first.
  template <typename Fn>
  std::string Text(Fn&& fn) {
    uint32_t size = 0;
    if (!fn(nullptr, &size) || size == 0) return "<failed>";
    std::string s(size, '\0');
    if (!fn(&s[0], &size)) return "<failed>";
    s.resize(size - 1);
    return s;
  }
  std::string Enum(HCAMERA cam, const char* name) {
    return Text([&](char* t, uint32_t* n) { return lib_->KIVCAMF_GetEnum(cam, name, t, n); });
  }
  std::string String(HCAMERA cam, const char* name) {
    return Text([&](char* t, uint32_t* n) { return lib_->KIVCAMF_GetString(cam, name, t, n); });
  }
  std::vector<std::string> Children(HCAMERA cam, const char* name) {
    KIVCAMF_INFO info{};
    std::vector<std::string> out;
    if (!lib_->KIVCAMF_GetInfo(cam, name, &info)) return out;
    for (uint32_t i = 0; i < info.ChildCount; ++i) {
      out.push_back(Text([&](char* t, uint32_t* n) { return lib_->KIVCAMF_GetChild(cam, name, i, t, n); }));
    }
    return out;
  }
};

// Every type reaches the device: registers read back what was set (GigE
// registers are big-endian), and the description's conversions apply.
TEST_F(Features, ValuesOfEveryTypeReachTheDevice) {
  Load();
  HCAMERA cam = OpenUid(kGigE2);  // the colour camera
  ASSERT_NE(cam, nullptr);
  int64_t i = 0;
  ASSERT_EQ(lib_->KIVCAMF_SetInt(cam, "Width", 320), KIVCAM_TRUE);
  EXPECT_EQ(lib_->ReadBE(cam, 0xA000), 320u);
  ASSERT_EQ(lib_->KIVCAMF_GetInt(cam, "Width", &i), KIVCAM_TRUE);
  EXPECT_EQ(i, 320);
  EXPECT_EQ(lib_->KIVCAM_GetLastError(), 0u);

  // The register counts 10 us steps.
  double f = 0;
  ASSERT_EQ(lib_->KIVCAMF_SetFloat(cam, "ExposureTime", 1234.0), KIVCAM_TRUE);
  EXPECT_EQ(lib_->ReadBE(cam, 0xA028), 123u);
  ASSERT_EQ(lib_->KIVCAMF_GetFloat(cam, "ExposureTime", &f), KIVCAM_TRUE);
  EXPECT_DOUBLE_EQ(f, 1230.0);

  KIVCAM_BOOL b = 7;
  ASSERT_EQ(lib_->KIVCAMF_SetBool(cam, "GevGVCPHeartbeatDisable", 5), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAMF_GetBool(cam, "GevGVCPHeartbeatDisable", &b), KIVCAM_TRUE);
  EXPECT_EQ(b, KIVCAM_TRUE);

  CameraListEntry e{};
  ASSERT_EQ(lib_->KIVCAM_CameraInfo(cam, &e), KIVCAM_TRUE);
  EXPECT_EQ(String(cam, "DeviceModelName"), std::string(e.Model));
  ASSERT_EQ(lib_->KIVCAMF_SetString(cam, "DeviceUserID", "probe-7"), KIVCAM_TRUE);
  EXPECT_EQ(String(cam, "DeviceUserID"), "probe-7");

  // By symbol and by value, PFNC codes.
  EXPECT_EQ(Enum(cam, "PixelFormat"), "BayerRG8");
  ASSERT_EQ(lib_->KIVCAMF_SetEnum(cam, "PixelFormat", "Mono8"), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAMF_GetEnumInt(cam, "PixelFormat", &i), KIVCAM_TRUE);
  EXPECT_EQ(i, 0x01080001);
  ASSERT_EQ(lib_->KIVCAMF_SetEnumInt(cam, "PixelFormat", 0x01080009), KIVCAM_TRUE);
  EXPECT_EQ(Enum(cam, "PixelFormat"), "BayerRG8");

  // Any value as text.
  ASSERT_EQ(lib_->KIVCAMF_FromString(cam, "Height", "100"), KIVCAM_TRUE);
  EXPECT_EQ(lib_->ReadBE(cam, 0xA004), 100u);
  EXPECT_EQ(Text([&](char* t, uint32_t* n) { return lib_->KIVCAMF_ToString(cam, "TriggerMode", t, n); }), "Off");
}

// Wrong names, types and values, refused accesses, small buffers and stale
// handles end in their codes; nothing is written by a refused call.
TEST_F(Features, RefusalsCarryTheirCodes) {
  Load();
  HCAMERA cam = OpenUid(kGigE1);
  ASSERT_NE(cam, nullptr);
  int64_t i = 0;
  double f = 0;
  EXPECT_EQ(Err(lib_->KIVCAMF_GetInt(cam, "NoSuchFeature", &i)), KIVCAM_ERR_PARAM);
  EXPECT_TRUE(log_->WaitFor("KIVCAMF_GetInt", "Feature Not Found: NoSuchFeature"));
  EXPECT_EQ(Err(lib_->KIVCAMF_GetInt(cam, nullptr, &i)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAMF_GetInt(cam, "Width", nullptr)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAMF_GetInt(cam, "PixelFormat", &i)), KIVCAM_ERR_PARAM);  // an enumeration
  EXPECT_EQ(Err(lib_->KIVCAMF_GetFloat(cam, "Width", &f)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAMF_Execute(cam, "Width", 100)), KIVCAM_ERR_PARAM);

  // Range and increment; entries that do not exist or are not offered.
  EXPECT_EQ(Err(lib_->KIVCAMF_SetInt(cam, "Width", 1924)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAMF_SetInt(cam, "Width", 322)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAMF_SetFloat(cam, "ExposureTime", NAN)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAMF_SetFloat(cam, "ExposureTime", 5.0)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAMF_SetEnum(cam, "PixelFormat", "NoSuchFormat")), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAMF_SetEnum(cam, "PixelFormat", "BayerRG8")), KIVCAM_ERR_PARAM);  // a mono camera
  EXPECT_EQ(Err(lib_->KIVCAMF_SetEnumInt(cam, "PixelFormat", 0x01080009)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(lib_->ReadBE(cam, 0xA000), 640u);

  // Access modes: a read-only counter, and the image format locked by
  // acquisition resources.
  EXPECT_EQ(Err(lib_->KIVCAMF_SetInt(cam, "FrameCounter", 1)), KIVCAM_ERR_ACCESS);
  ASSERT_EQ(lib_->KIVCAM_ResourceAlloc(cam), KIVCAM_TRUE);
  EXPECT_EQ(Err(lib_->KIVCAMF_SetInt(cam, "Width", 320)), KIVCAM_ERR_ACCESS);
  EXPECT_EQ(Err(lib_->KIVCAMF_SetEnum(cam, "PixelFormat", "Mono8")), KIVCAM_ERR_ACCESS);
  ASSERT_EQ(lib_->KIVCAM_ResourceRelease(cam), KIVCAM_TRUE);
  EXPECT_EQ(lib_->KIVCAMF_SetInt(cam, "Width", 320), KIVCAM_TRUE);

  // A text that does not fit: its size comes back, the buffer is untouched.
  char small[4] = "abc";
  uint32_t size = sizeof small;
  EXPECT_EQ(Err(lib_->KIVCAMF_GetString(cam, "DeviceModelName", small, &size)), KIVCAM_ERR_BUFFER_SIZE);
  EXPECT_EQ(size, sizeof "KivSim-GC1920M");
  EXPECT_STREQ(small, "abc");
  EXPECT_EQ(Err(lib_->KIVCAMF_GetString(cam, "DeviceModelName", small, nullptr)), KIVCAM_ERR_PARAM);

  // Gone, stale and foreign handles.
  EXPECT_EQ(Err(lib_->KIVCAMF_GetInt(reinterpret_cast<HCAMERA>(&i), "Width", &i)), KIVCAM_ERR_PARAM);
  ASSERT_NO_FATAL_FAILURE(Unplug(cam, kGigE1, false));
  EXPECT_EQ(Err(lib_->KIVCAMF_GetInt(cam, "Width", &i)), KIVCAM_ERR_NO_CAMERA);
  ASSERT_EQ(lib_->KIVCAM_Close(cam), KIVCAM_TRUE);
  EXPECT_EQ(Err(lib_->KIVCAMF_GetInt(cam, "Width", &i)), KIVCAM_ERR_PARAM);
}

// The reason behind the last error: the node map's words for a refused
// value, nothing for a failure without words, cleared by the next call,
// kept per thread, and reading it changes nothing.
TEST_F(Features, TheLastErrorComesWithItsReason) {
  Load();
  HCAMERA cam = OpenUid(kGigE1);
  ASSERT_NE(cam, nullptr);
  auto reason = [&] {
    const uint32_t need = lib_->KIVCAMF_GetLastErrorText(nullptr, 0);
    std::string s(need, '\0');
    EXPECT_EQ(lib_->KIVCAMF_GetLastErrorText(&s[0], need), need);
    EXPECT_EQ(s.back(), '\0');
    s.pop_back();
    return s;
  };
  EXPECT_EQ(reason(), "");
  EXPECT_EQ(Err(lib_->KIVCAMF_SetInt(cam, "Width", 322)), KIVCAM_ERR_PARAM);
  const std::string why = reason();
  EXPECT_NE(why.find("322"), std::string::npos) << why;
  EXPECT_EQ(lib_->KIVCAM_GetLastError(), KIVCAM_ERR_PARAM);  // reading the reason kept the code
  EXPECT_EQ(reason(), why);

  // Cut to the caller's buffer, always terminated; the size needed comes back.
  char cut[5] = "xxxx";
  EXPECT_EQ(lib_->KIVCAMF_GetLastErrorText(cut, sizeof cut), why.size() + 1);
  EXPECT_EQ(std::string(cut), why.substr(0, 4));

  // Another thread has its own (none); a failure without words replaces the
  // words; a success clears them.
  std::string other = "unset";
  std::thread([&] { other = reason(); }).join();
  EXPECT_EQ(other, "");
  EXPECT_EQ(Err(lib_->KIVCAMF_GetInt(cam, "Width", nullptr)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(reason(), "");
  EXPECT_EQ(Err(lib_->KIVCAMF_GetInt(cam, "NoSuchFeature", nullptr)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(lib_->KIVCAMF_SetEnum(cam, "PixelFormat", "NoSuchFormat")), KIVCAM_ERR_PARAM);
  EXPECT_NE(reason(), "");
  int64_t width = 0;
  ASSERT_EQ(lib_->KIVCAMF_GetInt(cam, "Width", &width), KIVCAM_TRUE);
  EXPECT_EQ(reason(), "");
}

// Descriptions: what the camera's GenICam description says of each type.
TEST_F(Features, DescriptionsFollowTheCameraDescription) {
  Load();
  HCAMERA cam = OpenUid(kUsb1);
  ASSERT_NE(cam, nullptr);
  auto info = [&](const char* name) {
    KIVCAMF_INFO i{};
    EXPECT_EQ(lib_->KIVCAMF_GetInfo(cam, name, &i), KIVCAM_TRUE) << name;
    return i;
  };
  const KIVCAMF_INFO w = info("Width");
  EXPECT_EQ(w.Type, KIVCAMF_TYPE_INTEGER);
  EXPECT_EQ(w.Access, KIVCAMF_ACCESS_RW);
  EXPECT_EQ(w.HasRange, 1u);
  EXPECT_EQ(w.IntMin, 8);
  EXPECT_EQ(w.IntMax, 1920);
  EXPECT_EQ(w.IntInc, 4);
  EXPECT_EQ(w.IncMode, KIVCAMF_INC_FIXED);
  // OffsetX's maximum follows Width.
  ASSERT_EQ(lib_->KIVCAMF_SetInt(cam, "Width", 1000), KIVCAM_TRUE);
  EXPECT_EQ(info("OffsetX").IntMax, 920);

  auto text = [&](const char* name, uint32_t which) {
    return Text([&](char* t, uint32_t* n) { return lib_->KIVCAMF_GetInfoText(cam, name, which, t, n); });
  };
  EXPECT_EQ(text("Width", KIVCAMF_TEXT_TOOLTIP), "Width of the image in pixels.");
  EXPECT_EQ(text("Width", KIVCAMF_TEXT_DISPLAYNAME), "Width");
  EXPECT_EQ(text("ExposureTime", KIVCAMF_TEXT_UNIT), "us");
  EXPECT_EQ(text("PixelFormat", KIVCAMF_TEXT_UNIT), "");
  EXPECT_EQ(text("Width", 4), "<failed>");

  const KIVCAMF_INFO ex = info("ExposureTime");
  EXPECT_EQ(ex.Type, KIVCAMF_TYPE_FLOAT);
  EXPECT_EQ(ex.FloatMin, 10.0);
  EXPECT_EQ(ex.FloatMax, 1000000.0);
  EXPECT_EQ(info("FrameCounter").Access, KIVCAMF_ACCESS_RO);
  const KIVCAMF_INFO ts = info("TriggerSoftware");
  EXPECT_EQ(ts.Type, KIVCAMF_TYPE_COMMAND);
  EXPECT_EQ(ts.Access, KIVCAMF_ACCESS_NA);  // TriggerMode is off

  // Entries: the USB camera offers every format; each symbol selects its value.
  const KIVCAMF_INFO pf = info("PixelFormat");
  EXPECT_EQ(pf.Type, KIVCAMF_TYPE_ENUMERATION);
  ASSERT_GT(pf.EntryCount, 10u);
  std::vector<std::string> symbols;
  for (uint32_t k = 0; k < pf.EntryCount; ++k) {
    int64_t value = 0;
    uint32_t access = 99;
    std::string symbol = Text(
        [&](char* t, uint32_t* n) { return lib_->KIVCAMF_GetEntry(cam, "PixelFormat", k, &value, &access, t, n); });
    EXPECT_EQ(access, KIVCAMF_ACCESS_RO) << symbol;
    ASSERT_EQ(lib_->KIVCAMF_SetEnum(cam, "PixelFormat", symbol.c_str()), KIVCAM_TRUE) << symbol;
    int64_t now = 0;
    ASSERT_EQ(lib_->KIVCAMF_GetEnumInt(cam, "PixelFormat", &now), KIVCAM_TRUE);
    EXPECT_EQ(now, value) << symbol;
    symbols.push_back(symbol);
  }
  EXPECT_NE(std::find(symbols.begin(), symbols.end(), "Mono8"), symbols.end());
  uint32_t size = 0;
  EXPECT_EQ(Err(lib_->KIVCAMF_GetEntry(cam, "PixelFormat", pf.EntryCount, nullptr, nullptr, nullptr, &size)),
            KIVCAM_ERR_PARAM);

  // The tree from Root.
  std::vector<std::string> root = Children(cam, "Root");
  EXPECT_NE(std::find(root.begin(), root.end(), "ImageFormatControl"), root.end());
  std::vector<std::string> format = Children(cam, "ImageFormatControl");
  EXPECT_NE(std::find(format.begin(), format.end(), "PixelFormat"), format.end());
  EXPECT_EQ(Children(cam, "Width").size(), 0u);
}

// A command executes on the device (a software trigger makes one frame), and
// the wait for one that is not done yet gives the camera up between looks:
// another thread completes it meanwhile.
TEST_F(Features, CommandsExecuteAndWaitForCompletion) {
  // A command whose value nobody clears but the test.
  WriteDataFile("KivSim_KivSim-GC1920M_KIVADD.xml",
                AdditionalDescription("<Command Name=\"KivSlowCommand\"><pValue>KivSlowValue</pValue>"
                                      "<CommandValue>1</CommandValue></Command>"
                                      "<Integer Name=\"KivSlowValue\"><Value>0</Value></Integer>"));
  Load();
  HCAMERA cam = OpenUid(kGigE1);
  ASSERT_NE(cam, nullptr);

  ASSERT_EQ(lib_->KIVCAMF_SetEnum(cam, "TriggerMode", "On"), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_ResourceAlloc(cam), KIVCAM_TRUE);
  ImageBuffer* buf = nullptr;
  ASSERT_EQ(lib_->KIVCAM_ImageAlloc(cam, &buf), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_ImageStart(cam), KIVCAM_TRUE);
  int64_t before = 0, after = 0;
  ASSERT_EQ(lib_->KIVCAMF_GetInt(cam, "FrameCounter", &before), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAM_ImageReq(cam, buf), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAMF_Execute(cam, "TriggerSoftware", 1000), KIVCAM_TRUE);
  EXPECT_EQ(lib_->KIVCAM_ImageComplete(cam, buf, 5000, nullptr), KIVCAM_TRUE);
  ASSERT_EQ(lib_->KIVCAMF_GetInt(cam, "FrameCounter", &after), KIVCAM_TRUE);
  EXPECT_EQ(after, before + 1);
  ASSERT_EQ(lib_->KIVCAM_ImageStop(cam), KIVCAM_TRUE);

  KIVCAM_BOOL done = 7;
  EXPECT_EQ(Err(lib_->KIVCAMF_Execute(cam, "KivSlowCommand", 0)), KIVCAM_ERR_TIMEOUT);
  ASSERT_EQ(lib_->KIVCAMF_IsDone(cam, "KivSlowCommand", &done), KIVCAM_TRUE);
  EXPECT_EQ(done, KIVCAM_FALSE);
  EXPECT_EQ(Err(lib_->KIVCAMF_Execute(cam, "KivSlowCommand", 30)), KIVCAM_ERR_TIMEOUT);

  ASSERT_EQ(lib_->KIVCAMF_SetInt(cam, "KivSlowValue", 0), KIVCAM_TRUE);
  std::atomic<bool> finished{false};
  std::thread device([&] {
    // The "device" completes the command once it sees it executed.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int64_t v = 0;
    while ((lib_->KIVCAMF_GetInt(cam, "KivSlowValue", &v) && v != 1) && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    lib_->KIVCAMF_SetInt(cam, "KivSlowValue", 0);
    finished = true;
  });
  EXPECT_EQ(lib_->KIVCAMF_Execute(cam, "KivSlowCommand", 20000), KIVCAM_TRUE);
  device.join();
  EXPECT_TRUE(finished);
  ASSERT_EQ(lib_->KIVCAMF_IsDone(cam, "KivSlowCommand", &done), KIVCAM_TRUE);
  EXPECT_EQ(done, KIVCAM_TRUE);
}

}  // namespace
}  // namespace camtest
