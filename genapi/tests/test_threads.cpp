// Concurrent use of one node map from several threads: the map lock keeps
// caches, access modes and port traffic consistent.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "fake_port.h"

using namespace KivGenApi;

namespace {

// The fake port is not thread-safe on its own; the map lock must serialise it.
class CountingPort : public kivtest::FakePort {
 public:
  void Read(void* b, int64_t a, int64_t n) override {
    EXPECT_FALSE(busy.exchange(true));
    FakePort::Read(b, a, n);
    log.clear();
    busy = false;
  }
  void Write(const void* b, int64_t a, int64_t n) override {
    EXPECT_FALSE(busy.exchange(true));
    FakePort::Write(b, a, n);
    log.clear();
    busy = false;
  }
  std::atomic<bool> busy{false};
};

TEST(Threads, ReadersWritersAndLockTogglesStayConsistent) {
  CNodeMapRef map;
  map._LoadXMLFromString(kivtest::Describe(R"(
    <IntReg Name="Lock"><Address>0</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></IntReg>
    <IntReg Name="R"><Address>4</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort>
      <pIsLocked>Lock</pIsLocked></IntReg>
    <IntSwissKnife Name="Twice"><pVariable Name="R">R</pVariable><Formula>R*2</Formula></IntSwissKnife>)"));
  CountingPort port;
  map._Connect(&port);
  CIntegerPtr lock(map._GetNode("Lock")), r(map._GetNode("R")), twice(map._GetNode("Twice"));
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      {
        // Check and write under the map lock so the lock toggle cannot interleave.
        std::lock_guard<std::recursive_mutex> l(map._Ptr->GetLock());
        if (IsWritable(r)) r->SetValue(i);
      }
      if (i % 7 == 0) lock->SetValue(i % 2);
    }
    stop = true;
  });
  std::thread reader([&] {
    while (!stop) {
      std::lock_guard<std::recursive_mutex> l(map._Ptr->GetLock());
      EXPECT_EQ(twice->GetValue(), 2 * r->GetValue());
    }
  });
  writer.join();
  reader.join();
  EXPECT_EQ(twice->GetValue(false, true), 2 * r->GetValue(false, true));
}

}  // namespace
