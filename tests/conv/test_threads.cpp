// Threads sharing one engine: run under ThreadSanitizer too (label threads).
// No OpenMP here, whose runtime the sanitizer cannot see into.
#include <gtest/gtest.h>

#include <thread>

#include "conv/pixel_format.h"
#include "helpers.h"

namespace kivcam::conv::test {
namespace {

// Several threads converting YUV through one fresh engine race to build the
// table; every one of them must see the finished table.
TEST(Engine, ConcurrentFirstYuvConversions) {
  const std::vector<uint8_t> src = RandomBytes(64 * 16 * 2, 5);
  Dst want(64, 16, 1);
  ASSERT_EQ(kConvOk, ConvertInto(want, src.data(), KIND_YUV422_YUYV, 0, Mode(0, 1)));
  for (int round = 0; round < 20; ++round) {
    CConv conv(Mode(0, 1));
    std::vector<Dst> dsts;
    for (int i = 0; i < 4; ++i) dsts.emplace_back(64, 16, 1);
    std::vector<std::thread> threads;
    for (auto& d : dsts) {
      threads.emplace_back([&conv, &src, &d] {
        ConvReq r{64, 16, KIND_YUV422_YUYV, 0, 1, src.data(), d.buf.get()};
        EXPECT_EQ(kConvOk, conv.Convert(r));
      });
    }
    for (auto& th : threads) th.join();
    for (auto& d : dsts) ASSERT_EQ(want.Pixels(), d.Pixels());
  }
}

}  // namespace
}  // namespace kivcam::conv::test
