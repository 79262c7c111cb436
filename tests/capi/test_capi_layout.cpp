// Run-time checks of what the header computes rather than declares; the
// record layouts themselves are pinned by the header's static assertions.
#include "kivcam/kivcam.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

GigECameraInfo InfoWithUidBytes(const uint8_t (&bytes)[6])
{
    GigECameraInfo info;
    std::memset(&info, 0xA5, sizeof info);  // neighbours must not leak into the UID
    std::memcpy(info.UID, bytes, sizeof bytes);
    return info;
}

TEST(GigEInfoUID, ReadsTheSixBytesMostSignificantFirst)
{
    // Device ID number 1250999896372 is 0x012345678934.
    const uint8_t bytes[6] = {0x01, 0x23, 0x45, 0x67, 0x89, 0x34};
    GigECameraInfo info = InfoWithUidBytes(bytes);
    EXPECT_EQ(KIVCAM_GigEInfoUID(&info), 1250999896372ull);
}

TEST(GigEInfoUID, HighBytesDoNotSignExtendBeyond48Bits)
{
    const uint8_t bytes[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE};
    GigECameraInfo info = InfoWithUidBytes(bytes);
    EXPECT_EQ(KIVCAM_GigEInfoUID(&info), 0xFFFFFFFFFFFEull);
}

}  // namespace
