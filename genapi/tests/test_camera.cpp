// A whole camera description, used the way the camera library uses it:
// payload following the image format, selectors, and an add-on description
// injected at load. The single constructs have their own tests.
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
    port.PokeU32BE(0x100, 640);
    port.PokeU32BE(0x104, 480);
    port.PokeU32BE(0x108, 0x01080001);
    ASSERT_TRUE(map._Connect(&port, "Device"));
  }
  CNodeMapRef map;
  FakePort port;
};

TEST_F(Camera, PayloadFollowsWidthAndAFormatOfferedByACapabilityBit) {
  CIntegerPtr width(map._GetNode("Width")), payload(map._GetNode("PayloadSize"));
  CEnumerationPtr format(map._GetNode("PixelFormat"));
  ASSERT_TRUE(width.IsValid() && payload.IsValid() && format.IsValid());
  EXPECT_EQ(payload->GetValue(), 640 * 480);
  width->SetValue(1280);
  EXPECT_EQ(payload->GetValue(), 1280 * 480);
  EXPECT_THROW(format->FromString("Mono12Packed"), AccessException);
  port.Poke(0x10C, {0x00, 0x00, 0x00, 0x01});  // bit 31 in big-endian numbering
  map._InvalidateNodes();
  format->FromString("Mono12Packed");
  EXPECT_EQ(payload->GetValue(), 1280 * 480 * 3 / 2);
  EXPECT_THROW(width->SetValue(1930), OutOfRangeException);      // above WidthMax
  EXPECT_THROW(width->SetValue(1288 + 4), OutOfRangeException);  // off the increment
}

TEST_F(Camera, SelectorSwitchesTheGainRegister) {
  CEnumerationPtr sel(map._GetNode("GainSelector"));
  CFloatPtr gain(map._GetNode("Gain"));
  FeatureList_t selected, selecting;
  CSelectorPtr(map._GetNode("GainSelector"))->GetSelectedFeatures(selected);
  ASSERT_EQ(selected.size(), 1u);
  CSelectorPtr(map._GetNode("Gain"))->GetSelectingFeatures(selecting);
  ASSERT_EQ(selecting.size(), 1u);
  EXPECT_EQ(std::string(selecting[0]->GetNode()->GetName()), "GainSelector");
  gain->SetValue(1.0);
  *sel = "Blue";
  gain->SetValue(3.5);
  EXPECT_EQ(port.Peek(0x800, 2), (std::vector<uint8_t>{0, 10}));
  EXPECT_EQ(port.Peek(0x804, 2), (std::vector<uint8_t>{0, 35}));
  *sel = "All";
  EXPECT_DOUBLE_EQ(gain->GetValue(), 1.0);
}

TEST_F(Camera, ConverterInvalidatorCommandValueNodeAndUnsupportedNodes) {
  CFloatPtr exposure(map._GetNode("ExposureTime"));
  exposure->SetValue(1000);  // 1000 us at 500 ns per tick
  EXPECT_EQ(port.Peek(0x304, 4), (std::vector<uint8_t>{0, 0, 0x07, 0xD0}));
  CIntegerPtr(map._GetNode("TickNs"))->SetValue(1000);
  EXPECT_DOUBLE_EQ(exposure->GetValue(), 2000);
  CCommandPtr(map._GetNode("AcquisitionStop"))->Execute();  // pCommandValue
  EXPECT_EQ(port.Peek(0x300, 4), (std::vector<uint8_t>{0, 0, 0, 2}));
  EXPECT_EQ(map._GetNode("LegacyRom")->GetAccessMode(), NI);
  EXPECT_EQ(std::string(map._GetNode("Height")->GetDisplayName()), "Height");  // defaults to the name
  EXPECT_FALSE(map._GetNode("WidthReg")->IsFeature());
}

TEST(CameraAddOn, InjectedFileAddsAndOverrides) {
  CNodeMapRef map;
  map._LoadXMLFromFileInject(kDir + "/camera.xml", kDir + "/camera_kivadd.xml");
  FakePort port;
  map._Connect(&port);
  EXPECT_EQ(CIntegerPtr(map._GetNode("Width"))->GetMax(), 1280);
  CIntegerPtr(map._GetNode("LedBrightness"))->SetValue(200);
  EXPECT_EQ(port.Peek(0x900, 1), (std::vector<uint8_t>{200}));
  FeatureList_t root;
  CCategoryPtr(map._GetNode("Root"))->GetFeatures(root);
  EXPECT_EQ(root.size(), 6u);
}

}  // namespace
