// The IIDC transport record: no IIDC producer is loaded, so the decoding is
// checked on its own.
#include <gtest/gtest.h>

#include "camera/cycle_time.h"

namespace {

TEST(CycleTime, HalvesSplitIntoSecondsAndCycles) {
  KIVCAM_IMAGEINFO_IIDC i{};
  kivcam::camera::FillCycleTimeInfo(0xE0, 0xFFFF2005, &i);
  EXPECT_EQ(i.Transport, KIVCAM_CAMERAKIND_IIDC);
  EXPECT_EQ(i.StatusBits, 7u);
  EXPECT_EQ(i.HighSeconds, 0xFFFFFFFFu);  // no high stamp
  EXPECT_EQ(i.HighCycles, 0xFFFFFFFFu);
  EXPECT_EQ(i.LowSeconds, 1u);
  EXPECT_EQ(i.LowCycles, 5u);
  kivcam::camera::FillCycleTimeInfo(0x1F, 0xA3FF4001, &i);
  EXPECT_EQ(i.StatusBits, 0u);
  EXPECT_EQ(i.HighSeconds, 5u);
  EXPECT_EQ(i.HighCycles, 0x3FFu);
  EXPECT_EQ(i.LowSeconds, 2u);
  EXPECT_EQ(i.LowCycles, 1u);
}

}  // namespace
