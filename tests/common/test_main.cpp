// Test main shared by every test program: before anything can load the library
// or a producer, it gives this process machine-wide names of its own, so that
// test processes never meet each other, a running monitor or a real user.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

int main(int argc, char** argv) {
  if (!std::getenv("KIVCAM_IPC_NAMESPACE")) {
    char ns[64];
    auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
    std::snprintf(ns, sizeof ns, "_t%d_%llx", static_cast<int>(getpid()),
                  static_cast<unsigned long long>(ticks) & 0xffffffULL);
    setenv("KIVCAM_IPC_NAMESPACE", ns, 1);
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
