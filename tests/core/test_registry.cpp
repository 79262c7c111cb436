// Handles are raw addresses the application hands back: only live objects
// of the right kind may come back out, without reading through anything else.
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
class GigECamera : public Camera {};
class Port : public CBase {};

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { registry::Create(); }
  void TearDown() override { registry::Destroy(); }
};

TEST_F(RegistryTest, OnlyLiveObjectsOfTheRightKindAreFound) {
  auto gige = std::make_unique<GigECamera>();
  auto port = std::make_unique<Port>();
  void* h = gige->handle();
  EXPECT_EQ(FindLive<Camera>(h), gige.get());
  EXPECT_EQ(FindLive<GigECamera>(h), gige.get());
  EXPECT_EQ(FindLive<Camera>(port->handle()), nullptr);  // wrong kind
  EXPECT_EQ(FindLive<Port>(h), nullptr);
  EXPECT_EQ(FindLive<Camera>(nullptr), nullptr);

  int on_stack = 0;  // a foreign address is never dereferenced
  EXPECT_EQ(registry::Find(&on_stack), nullptr);

  gige.reset();  // stale
  EXPECT_EQ(FindLive<Camera>(h), nullptr);
}

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
