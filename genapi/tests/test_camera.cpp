// A whole camera description, used the way the camera library uses it:
// binding standard features, the transport lock, selectors, converters,
// commands and an add-on description injected at load.
#include <gtest/gtest.h>

#include "fake_port.h"

using namespace KivGenApi;
using kivtest::FakePort;

namespace {

const std::string kDir = KIVGENAPI_TEST_XML;

class Camera : public ::testing::Test {
 protected:
  void SetUp() override {
    map._LoadXMLFromFile(kDir + "/camera.xml");
    port.Poke(0x48, {'K', 'i', 'v', 0});
    port.PokeU32BE(0x100, 640);
    port.PokeU32BE(0x104, 480);
    port.PokeU32BE(0x108, 0x01080001);
    ASSERT_TRUE(map._Connect(&port, "Device"));
  }
  template <class P>
  P Get(const char* name) {
    P p(map._GetNode(name));
    EXPECT_TRUE(p.IsValid()) << name;
    return p;
  }
  CNodeMapRef map;
  FakePort port;
};

TEST_F(Camera, StandardFeaturesBindAndPayloadFollowsFormat) {
  auto width = Get<CIntegerPtr>("Width");
  auto payload = Get<CIntegerPtr>("PayloadSize");
  auto format = Get<CEnumerationPtr>("PixelFormat");
  Get<CIntegerPtr>("TLParamsLocked");
  Get<CCommandPtr>("AcquisitionStart");
  Get<CCommandPtr>("AcquisitionStop");
  EXPECT_FALSE(CIntegerPtr(map._GetNode("PixelFormat")).IsValid());
  EXPECT_EQ(payload->GetValue(), 640 * 480);
  width->SetValue(1280);
  EXPECT_EQ(payload->GetValue(false, true), 1280 * 480);
  EXPECT_EQ(payload->GetValue(), 1280 * 480);
  // Mono12Packed is offered only when the capability bit says so.
  EXPECT_THROW(format->FromString("Mono12Packed"), AccessException);
  port.Poke(0x10C, {0x00, 0x00, 0x00, 0x01});  // bit 31 in big-endian numbering
  map._InvalidateNodes();
  format->FromString("Mono12Packed");
  EXPECT_EQ(format->GetIntValue(false, false), 0x010C0006);
  EXPECT_EQ(payload->GetValue(), 1280 * 480 * 3 / 2);
  EXPECT_THROW(width->SetValue(1930), OutOfRangeException);
  EXPECT_THROW(width->SetValue(1288 + 4), OutOfRangeException);
}

TEST_F(Camera, TransportLockFreezesImageFormat) {
  auto lock = Get<CIntegerPtr>("TLParamsLocked");
  lock->SetValue(1);
  EXPECT_FALSE(IsWritable(map._GetNode("Width")));
  EXPECT_TRUE(IsReadable(map._GetNode("Width")));
  EXPECT_THROW(Get<CEnumerationPtr>("PixelFormat")->FromString("BayerRG8"), AccessException);
  EXPECT_EQ(port.Peek(0x108, 4), (std::vector<uint8_t>{0x01, 0x08, 0x00, 0x01}));
  lock->SetValue(0);
  Get<CEnumerationPtr>("PixelFormat")->FromString("BayerRG8");
  EXPECT_EQ(port.Peek(0x108, 4), (std::vector<uint8_t>{0x01, 0x08, 0x00, 0x09}));
}

TEST_F(Camera, SelectorSwitchesTheGainRegister) {
  auto sel = Get<CEnumerationPtr>("GainSelector");
  auto gain = Get<CFloatPtr>("Gain");
  FeatureList_t selected;
  CSelectorPtr(map._GetNode("GainSelector"))->GetSelectedFeatures(selected);
  ASSERT_EQ(selected.size(), 1u);
  FeatureList_t selecting;
  CSelectorPtr(map._GetNode("Gain"))->GetSelectingFeatures(selecting);
  ASSERT_EQ(selecting.size(), 1u);
  EXPECT_EQ(std::string(selecting[0]->GetNode()->GetName()), "GainSelector");
  gain->SetValue(1.0);
  *sel = "Blue";
  gain->SetValue(3.5);
  EXPECT_EQ(port.Peek(0x800, 2), (std::vector<uint8_t>{0, 10}));
  EXPECT_EQ(port.Peek(0x804, 2), (std::vector<uint8_t>{0, 35}));
  EXPECT_DOUBLE_EQ(gain->GetValue(), 3.5);
  *sel = "All";
  EXPECT_DOUBLE_EQ(gain->GetValue(), 1.0);
  EXPECT_THROW(gain->SetValue(30), OutOfRangeException);
  EXPECT_EQ(std::string(gain->GetUnit()), "dB");
}

TEST_F(Camera, ExposureConverterAndItsInvalidator) {
  auto exposure = Get<CFloatPtr>("ExposureTime");
  exposure->SetValue(1000);  // 1000 us at 500 ns per tick
  EXPECT_EQ(port.Peek(0x304, 4), (std::vector<uint8_t>{0, 0, 0x07, 0xD0}));
  EXPECT_DOUBLE_EQ(exposure->GetMin(), 1.0);
  EXPECT_DOUBLE_EQ(exposure->GetMax(), 1000000.0);
  Get<CIntegerPtr>("TickNs")->SetValue(1000);
  EXPECT_DOUBLE_EQ(exposure->GetValue(), 2000);
  EXPECT_EQ(std::string(exposure->GetUnit()), "us");
}

TEST_F(Camera, CommandsBitsAndPackedFields) {
  auto start = Get<CCommandPtr>("AcquisitionStart");
  start->Execute(true);
  EXPECT_EQ(port.Peek(0x300, 4), (std::vector<uint8_t>{0, 0, 0, 1}));
  EXPECT_FALSE(start->IsDone());
  port.PokeU32BE(0x300, 0);
  EXPECT_TRUE(start->IsDone());
  Get<CCommandPtr>("AcquisitionStop")->Execute();
  EXPECT_EQ(port.Peek(0x300, 4), (std::vector<uint8_t>{0, 0, 0, 2}));
  EXPECT_TRUE(IsWritable(map._GetNode("DeviceReset")));
  EXPECT_FALSE(IsReadable(map._GetNode("DeviceReset")));

  port.PokeU32BE(0x204, 0xFFFFFFFF);
  Get<CBooleanPtr>("GevGVCPPendingAck")->SetValue(false);
  EXPECT_EQ(port.Peek(0x204, 4), (std::vector<uint8_t>{0xFF, 0xFF, 0xFF, 0xFE}));

  auto packet = Get<CIntegerPtr>("GevSCPSPacketSize");
  port.PokeU32BE(0xD04, 0xABCD0000);
  packet->SetValue(1500);
  EXPECT_EQ(port.Peek(0xD04, 4), (std::vector<uint8_t>{0xAB, 0xCD, 0x05, 0xDC}));
  EXPECT_EQ(packet->GetInc(), 4);
  EXPECT_THROW(packet->SetValue(1502), OutOfRangeException);
}

TEST_F(Camera, ImplementationTreeAndDocumentation) {
  EXPECT_EQ(map._GetNode("ReverseX")->GetAccessMode(), NI);
  port.Poke(0x10C, {0x00, 0x00, 0x00, 0x02});
  map._InvalidateNodes();
  EXPECT_EQ(map._GetNode("ReverseX")->GetAccessMode(), RW);
  port.Poke(0x10C, {0x00, 0x00, 0xFE, 0x00});  // big-endian bits 16..23 are value bits 8..15
  EXPECT_EQ(Get<CIntegerPtr>("CapsLevel")->GetValue(false, true), -2);
  EXPECT_EQ(map._GetNode("LegacyRom")->GetAccessMode(), NI);
  EXPECT_EQ(std::string(Get<CStringPtr>("DeviceVendorName")->GetValue()), "Kiv");
  port.Poke(0x600, {0x41, 0xC8, 0x00, 0x00});
  EXPECT_DOUBLE_EQ(Get<CFloatPtr>("DeviceTemperature")->GetValue(), 25.0);
  port.Poke(0x600, {0x41, 0xD0, 0x00, 0x00});
  EXPECT_DOUBLE_EQ(Get<CFloatPtr>("DeviceTemperature")->GetValue(), 26.0);  // NoCache
  INode* width = map._GetNode("Width");
  EXPECT_EQ(std::string(width->GetToolTip()), "Width of the image");
  EXPECT_EQ(std::string(map._GetNode("Height")->GetDisplayName()), "Height");
  EXPECT_EQ(width->GetNameSpace(), Standard);
  EXPECT_TRUE(width->IsFeature());
  EXPECT_FALSE(map._GetNode("WidthReg")->IsFeature());
  NodeList_t children;
  width->GetChildren(children);
  EXPECT_GE(children.size(), 3u);  // lock, register, maximum
}

TEST(CameraAddOn, InjectedDescriptionAddsAndOverrides) {
  CNodeMapRef map;
  map._LoadXMLFromFileInject(kDir + "/camera.xml", kDir + "/camera_kivadd.xml");
  FakePort port;
  map._Connect(&port);
  EXPECT_EQ(CIntegerPtr(map._GetNode("Width"))->GetMax(), 1280);
  CIntegerPtr led(map._GetNode("LedBrightness"));
  led->SetValue(200);
  EXPECT_EQ(port.Peek(0x900, 1), (std::vector<uint8_t>{200}));
  FeatureList_t root;
  CCategoryPtr(map._GetNode("Root"))->GetFeatures(root);
  EXPECT_EQ(root.size(), 6u);
  EXPECT_TRUE(map._GetNode("LedBrightness")->IsFeature());
}

TEST(CameraWatch, ReadOnlyPortMakesEveryRegisterReadOnly) {
  CNodeMapRef map;
  map._LoadXMLFromFile(kDir + "/camera.xml");
  FakePort port;
  port.mode = RO;
  map._Connect(&port);
  for (const char* reg : {"WidthReg", "PixelFormatReg", "TestPattern", "GainRaw", "ReverseXReg", "AcqCmdReg"})
    EXPECT_EQ(map._GetNode(reg)->GetAccessMode(), RO) << reg;
  EXPECT_EQ(map._GetNode("DeviceResetReg")->GetAccessMode(), NA);  // write-only on a read-only port
  EXPECT_FALSE(IsWritable(map._GetNode("Width")));
  EXPECT_THROW(CCommandPtr(map._GetNode("AcquisitionStart"))->Execute(), AccessException);
  EXPECT_EQ(port.Writes(), 0u);
}

}  // namespace
