// The handle table behind every handle check. Exports refusing stale,
// foreign and wrong-kind handles are tested through the library; here what
// they cannot force: an object address the allocator hands out again.
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "core/handles.h"

namespace {

using kivcam::core::HandleKind;
using kivcam::core::HandleTable;

struct Object {
  int value;
};

// One block of storage that successive objects are built into, as an
// allocator reusing the freed address would.
struct Reused {
  alignas(Object) unsigned char storage[sizeof(Object)];
  std::shared_ptr<Object> Make(int v) {
    return std::shared_ptr<Object>(new (storage) Object{v}, [](Object* o) { o->~Object(); });
  }
};

TEST(HandleTable, AHandleStaysRefusedWhenItsAddressIsReused) {
  HandleTable table;
  Reused block;
  auto first = block.Make(1);
  void* old_handle = table.Add(HandleKind::kCamera, first);
  ASSERT_NE(old_handle, nullptr);
  table.Remove(old_handle);
  first.reset();
  auto second = block.Make(2);
  ASSERT_EQ(static_cast<void*>(second.get()), static_cast<void*>(block.storage));
  void* new_handle = table.Add(HandleKind::kCamera, second);
  EXPECT_NE(new_handle, old_handle);
  EXPECT_EQ(table.Find(old_handle, HandleKind::kCamera), nullptr);
  EXPECT_EQ(table.Find(new_handle, HandleKind::kCamera), second);
}

TEST(HandleTable, ObjectDestroyedByItsOwnerIsGoneForTheTable) {
  HandleTable table;
  auto object = std::make_shared<Object>();
  void* h = table.Add(HandleKind::kPort, object);
  object.reset();  // the owner let go; nobody removed the handle
  EXPECT_EQ(table.Find(h, HandleKind::kPort), nullptr);
  EXPECT_EQ(table.size(), 0u);
}

TEST(HandleTable, RefusesOtherKindsForeignPointersAndTheEndOfItsSpace) {
  HandleTable table(2);
  auto object = std::make_shared<Object>();
  void* h = table.Add(HandleKind::kConv, object);
  EXPECT_EQ(table.Find(h, HandleKind::kCamera), nullptr);
  EXPECT_EQ(table.Find(object.get(), HandleKind::kConv), nullptr);  // its address is no handle
  EXPECT_EQ(table.Find(static_cast<char*>(h) + 1, HandleKind::kConv), nullptr);
  EXPECT_NE(table.Add(HandleKind::kConv, object), nullptr);
  EXPECT_EQ(table.Add(HandleKind::kConv, object), nullptr);  // two values, never reused
  EXPECT_EQ(table.Find(h, HandleKind::kConv), object);
}

TEST(HandleTable, ConcurrentAddFindAndRemoveStayConsistent) {
  HandleTable table;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&table] {
      for (int i = 0; i < 2000; ++i) {
        auto o = std::make_shared<Object>(Object{i});
        void* h = table.Add(HandleKind::kCamera, o);
        ASSERT_EQ(table.Find(h, HandleKind::kCamera), o);
        table.Remove(h);
        ASSERT_EQ(table.Find(h, HandleKind::kCamera), nullptr);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(table.size(), 0u);
}

}  // namespace
