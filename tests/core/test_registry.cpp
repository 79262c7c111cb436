// The registry of live objects behind every handle check. Stale, foreign,
// null and wrong-kind handles are refused through every export in the camera
// and conversion-handle tests; here what those cannot reach.
#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "core/base.h"

namespace {

using kivcam::core::CBase;
using kivcam::core::FindLive;
namespace registry = kivcam::core::registry;

class Camera : public CBase {};

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { registry::Create(); }
  void TearDown() override { registry::Destroy(); }
};

TEST_F(RegistryTest, RemovedBeforeDestructionIsNoLongerFound) {
  auto cam = std::make_unique<Camera>();
  registry::Remove(cam.get());
  EXPECT_EQ(FindLive<Camera>(cam->handle()), nullptr);
}

TEST_F(RegistryTest, ConcurrentCreationAndLookupStayConsistent) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 2000; ++i) {
        auto c = std::make_unique<Camera>();
        ASSERT_EQ(FindLive<Camera>(c->handle()), c.get());
      }
    });
  }
  for (auto& t : threads) t.join();
}

}  // namespace
