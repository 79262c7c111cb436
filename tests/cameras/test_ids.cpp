// Device IDs, link codes and description URLs as the library reads them.
#include <gtest/gtest.h>

#include "transport/ids.h"

namespace {

using namespace kivcam::transport;

TEST(DeviceIds, UidIsTheDecimalNumberAfterTheFirstSeparator) {
  const struct {
    const char* id;
    uint64_t uid;
  } cases[] = {{"KivGEV::1250999896372", 0x012345678934ull},
               {"a::12::34", 12},    // the first separator counts
               {"x::56abc", 56},     // up to the first non-digit
               {"x::18446744073709551615", 0xFFFFFFFFFFFFFFFFull},
               {"7890", 890},        // no separator: from the second character
               {"x:: 5", 0},         // a blank is not a digit
               {"", 0},
               {nullptr, 0}};
  for (const auto& c : cases) EXPECT_EQ(ParseUid(c.id), c.uid) << (c.id ? c.id : "null");
}

// Schemes, their case and broken URLs are tried through real opens in the
// interface tests; here the fields and names those do not reach.
TEST(DescriptionUrls, LocalUrlFieldsAndAdditionalFileNames) {
  DescriptionUrl u = ParseDescriptionUrl("LOCAL:Model_v1.2.zip;8000;1A2D");
  ASSERT_TRUE(u.valid);
  EXPECT_EQ(u.location, "Model_v1.2.zip");
  EXPECT_EQ(u.address, 0x8000u);
  EXPECT_EQ(u.length, 0x1A2Du);
  EXPECT_TRUE(u.zip);
  EXPECT_EQ(AdditionalFileName(u.location), "Model_v12_KIVADD.xml");
  EXPECT_EQ(AdditionalFileName("a.b"), "_KIVADD.xml");  // too short to keep anything
  u = ParseDescriptionUrl("local:cam.xml;10;20;more;fields");
  EXPECT_EQ(u.address, 0x10u);  // the fields after the length are ignored
  EXPECT_EQ(u.length, 0x20u);
  EXPECT_FALSE(u.zip);
  EXPECT_TRUE(ParseDescriptionUrl("LoCaL:Cam.Zip.bak;0;1").zip);  // ".ZIP" anywhere
}

}  // namespace
