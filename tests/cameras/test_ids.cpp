// Device IDs, link codes and description URLs as the library reads them.
#include <gtest/gtest.h>

#include "transport/ids.h"

namespace {

using namespace kivcam::transport;

TEST(DeviceIds, UidIsTheDecimalNumberAfterTheFirstSeparator) {
  EXPECT_EQ(ParseUid("dev::1234"), 1234u);
  EXPECT_EQ(ParseUid("KivGEV::1250999896372"), 0x012345678934ull);
  EXPECT_EQ(ParseUid("a::12::34"), 12u);       // the first separator counts
  EXPECT_EQ(ParseUid("x::56abc"), 56u);        // up to the first non-digit
  EXPECT_EQ(ParseUid("x::18446744073709551615"), 0xFFFFFFFFFFFFFFFFull);
  EXPECT_EQ(ParseUid("7890"), 890u);           // no separator: from the second character
  EXPECT_EQ(ParseUid("x:: 5"), 0u);            // a blank is not a digit
  EXPECT_EQ(ParseUid(""), 0u);
  EXPECT_EQ(ParseUid(nullptr), 0u);
}

TEST(DeviceIds, LinkCodesAndKindsByTransport) {
  EXPECT_EQ(LinkCode(kKindGigE, 100), 0u);
  EXPECT_EQ(LinkCode(kKindGigE, 1000), 6u);
  EXPECT_EQ(LinkCode(kKindUSB, 0x200), 7u);
  EXPECT_EQ(LinkCode(kKindUSB, 0x300), 8u);
  EXPECT_EQ(LinkCode(kKindIIDC, 42), 42u);
  EXPECT_EQ(LinkCode(9, 100), 0u);
  uint32_t kind = 77;
  EXPECT_TRUE(CameraKindOf(kKindIIDC, &kind));
  EXPECT_EQ(kind, 0u);
  EXPECT_TRUE(CameraKindOf(kKindGigE, &kind));
  EXPECT_EQ(kind, 1u);
  EXPECT_TRUE(CameraKindOf(kKindUSB, &kind));
  EXPECT_EQ(kind, 2u);
  kind = 77;
  EXPECT_FALSE(CameraKindOf(4, &kind));
  EXPECT_EQ(kind, 77u);
}

TEST(DescriptionUrls, LocalUrlWithAddressAndLength) {
  DescriptionUrl u = ParseDescriptionUrl("LOCAL:Model_v1.2.zip;8000;1A2D");
  ASSERT_TRUE(u.valid);
  EXPECT_EQ(u.scheme, "LOCAL:");
  EXPECT_EQ(u.location, "Model_v1.2.zip");
  EXPECT_EQ(u.address, 0x8000u);
  EXPECT_EQ(u.length, 0x1A2Du);
  EXPECT_TRUE(u.zip);
  EXPECT_EQ(AdditionalFileName(u.location), "Model_v12_KIVADD.xml");

  u = ParseDescriptionUrl("local:cam.xml;10;20;more;fields");
  EXPECT_EQ(u.scheme, "LOCAL:");  // any case
  EXPECT_EQ(u.address, 0x10u);
  EXPECT_EQ(u.length, 0x20u);
  EXPECT_FALSE(u.zip);
  EXPECT_TRUE(ParseDescriptionUrl("LoCaL:Cam.Zip.bak;0;1").zip);  // ".ZIP" anywhere
}

TEST(DescriptionUrls, FileUrlsAndBrokenOnes) {
  DescriptionUrl u = ParseDescriptionUrl("File:sub/dir/cam.xml");
  ASSERT_TRUE(u.valid);
  EXPECT_EQ(u.scheme, "FILE:");
  EXPECT_EQ(u.location, "sub/dir/cam.xml");
  EXPECT_EQ(u.address, 0u);
  EXPECT_EQ(u.length, 0u);
  EXPECT_FALSE(ParseDescriptionUrl("no scheme at all").valid);
  u = ParseDescriptionUrl("http://host/cam.xml");
  EXPECT_TRUE(u.valid);
  EXPECT_EQ(u.scheme, "HTTP:");
  EXPECT_EQ(AdditionalFileName("a.b"), "_KIVADD.xml");  // too short to keep anything
}

}  // namespace
