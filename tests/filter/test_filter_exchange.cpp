// A writer process and a reader process exchanging frames through the output
// filter: frames copied in arrive whole, frames filled in place are torn only
// where the writer was told it was writing the newest frame's slot, and a
// reader that dies holding the filter mutex does not stop the writer.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <set>
#include <vector>

#include "child_process.h"
#include "diag/process_objects.h"
#include "kivcam/kivcam_reader.h"
#include "kivcam_loader.h"
#include "platform/platform.h"

namespace {

constexpr uint32_t kWidth = 64, kHeight = 32;
constexpr uint32_t kWords = kWidth * kHeight;  // one 32-bit word a pixel
constexpr uint32_t kFrames = 10000;

// Word i of frame k: k in the upper half, i in the lower, so every word
// says which frame it belongs to and where.
uint32_t Word(uint32_t k, uint32_t i) { return k << 16 | i; }

// Statuses the writer was given, shared with the parent across the fork.
struct Shared {
  int8_t status[kFrames];
  uint32_t written;
};

Shared* MapShared() {
  void* p = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : new (p) Shared{};
}

enum Mode { kOutPut, kInPlace };

// The writer: its own library, a channel, then every frame as fast as it
// goes. Exit codes: 0 done, 1 the library or the channel failed.
int Writer(Mode mode, Shared* shared, const kivtest::Pipe& ready, const kivtest::Pipe& go) {
  kivtest::KivCamLibrary lib;
  if (!lib.loaded() || lib.KIVCAMFILTER_Alloc(kWidth, kHeight, 0) != KIVCAMFILTER_OK) return 1;
  ready.Send('r');
  if (go.Receive() != 'g') return 1;
  std::vector<uint32_t> frame(kWords);
  for (uint32_t k = 0; k < kFrames; ++k) {
    int32_t status;
    if (mode == kOutPut) {
      for (uint32_t i = 0; i < kWords; ++i) frame[i] = Word(k, i);
      status = lib.KIVCAMFILTER_OutPut(frame.data());
    } else {
      void* slot = nullptr;
      status = lib.KIVCAMFILTER_GetAddr(&slot);
      // Word by word, as a converter writes, so that a reader that looks
      // meanwhile has a real chance to see the frame half done.
      auto* words = static_cast<volatile uint32_t*>(slot);
      for (uint32_t i = 0; i < kWords; ++i) words[i] = Word(k, i);
      if (lib.KIVCAMFILTER_Flush() != KIVCAMFILTER_OK) return 1;
    }
    if (status != KIVCAMFILTER_OK && status != KIVCAMFILTER_NEWEST_SLOT) return 1;
    shared->status[k] = static_cast<int8_t>(status);
    __atomic_store_n(&shared->written, k + 1, __ATOMIC_RELEASE);
  }
  go.Receive();  // the channel stays until the reader is done
  return 0;
}

struct Seen {
  uint32_t taken = 0;
  uint32_t last = 0;            // the newest whole frame taken
  std::set<uint32_t> torn;      // the newest frame number in each torn frame
};

// Takes frames until the writer's last one came whole, or the writer is done
// and nothing newer is left to take (or the bound passed).
Seen Read(KIVCAMREADER* reader, const Shared* shared) {
  Seen seen;
  std::vector<uint32_t> copy(kWords);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (seen.last != kFrames - 1 && std::chrono::steady_clock::now() < deadline) {
    KIVCAMREADER_Wait(reader, 100);
    const bool done = __atomic_load_n(&shared->written, __ATOMIC_ACQUIRE) == kFrames;
    const void* frame = nullptr;
    if (KIVCAMREADER_Take(reader, &frame) != 1) {
      if (done) break;
      continue;
    }
    std::memcpy(copy.data(), frame, kWords * 4);
    ++seen.taken;
    uint32_t first = copy[0] >> 16, newest = first;
    bool whole = true;
    for (uint32_t i = 0; i < kWords; ++i) {
      uint32_t k = copy[i] >> 16;
      if (k > newest) newest = k;
      if (copy[i] != Word(first, i)) whole = false;
    }
    if (whole) {
      seen.last = first;
    } else {
      seen.torn.insert(newest);
    }
  }
  return seen;
}

Seen Exchange(Mode mode, Shared* shared) {
  kivtest::Pipe ready, go;
  kivtest::ChildProcess writer([&] { return Writer(mode, shared, ready, go); });
  EXPECT_EQ(ready.Receive(), 'r');
  KIVCAMREADER* reader = KIVCAMREADER_Open(static_cast<uint32_t>(writer.pid()));
  EXPECT_NE(reader, nullptr);
  if (!reader) {
    kill(writer.pid(), SIGKILL);
    return {};
  }
  go.Send('g');
  Seen seen = Read(reader, shared);
  go.Send('e');
  EXPECT_EQ(writer.Join(), 0);
  KIVCAMREADER_Close(reader);
  EXPECT_EQ(__atomic_load_n(&shared->written, __ATOMIC_ACQUIRE), kFrames);
  // Filled in place, the last frame may have been taken torn in the newest
  // slot; then nothing newer follows it (the caller checks its status).
  if (mode == kOutPut || !seen.torn.count(kFrames - 1))
    EXPECT_EQ(seen.last, kFrames - 1) << "the last frame never came whole";
  EXPECT_GT(seen.taken, 0u);
  ::testing::Test::RecordProperty("frames_taken", static_cast<int>(seen.taken));
  ::testing::Test::RecordProperty("frames_torn", static_cast<int>(seen.torn.size()));
  return seen;
}

TEST(FilterExchange, TenThousandFramesCopiedInArriveWhole) {
  Shared* shared = MapShared();
  ASSERT_NE(shared, nullptr);
  Seen seen = Exchange(kOutPut, shared);
  EXPECT_TRUE(seen.torn.empty()) << seen.torn.size() << " torn frames, the first from frame "
                                 << (seen.torn.empty() ? 0 : *seen.torn.begin());
  munmap(shared, sizeof(Shared));
}

TEST(FilterExchange, FramesFilledInPlaceAreTornOnlyWhereTheWriterWasToldNewestSlot) {
  Shared* shared = MapShared();
  ASSERT_NE(shared, nullptr);
  Seen seen = Exchange(kInPlace, shared);
  for (uint32_t k : seen.torn) {
    ASSERT_LT(k, kFrames);
    EXPECT_EQ(shared->status[k], KIVCAMFILTER_NEWEST_SLOT) << "frame " << k << " torn although the slot was free";
  }
  munmap(shared, sizeof(Shared));
}

TEST(FilterExchange, AReaderThatDiesHoldingTheMutexDoesNotStopTheWriter) {
  kivtest::KivCamLibrary lib;
  ASSERT_EQ(lib.KIVCAMFILTER_Alloc(kWidth, kHeight, 0), KIVCAMFILTER_OK);
  const uint32_t self = kivcam::platform::ProcessId();
  kivtest::Pipe holding, never;
  kivtest::ChildProcess reader([&] {
    auto mutex = kivcam::platform::NamedMutex::Open(kivcam::diag::FilterMutexName(self));
    if (!mutex || mutex->Wait(kivtest::kBoundMs) != kivcam::platform::MutexWait::kAcquired) return 1;
    holding.Send('h');
    never.Receive();
    return 0;
  });
  ASSERT_EQ(holding.Receive(), 'h');
  std::vector<uint32_t> frame(kWords, Word(7, 0));
  // The writer waits for the mutex the reader holds, until the reader dies.
  auto output = std::async(std::launch::async, [&] { return lib.KIVCAMFILTER_OutPut(frame.data()); });
  kill(reader.pid(), SIGKILL);
  EXPECT_EQ(reader.Join(), -1);
  ASSERT_EQ(output.wait_for(std::chrono::milliseconds(kivtest::kBoundMs)), std::future_status::ready);
  EXPECT_EQ(output.get(), KIVCAMFILTER_OK);

  // The mutex is usable again on both sides.
  KIVCAMREADER* r = KIVCAMREADER_Open(self);
  ASSERT_NE(r, nullptr);
  const void* taken = nullptr;
  EXPECT_EQ(KIVCAMREADER_Take(r, &taken), 1);
  EXPECT_EQ(*static_cast<const uint32_t*>(taken), Word(7, 0));
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(frame.data()), KIVCAMFILTER_OK);
  KIVCAMREADER_Close(r);
  EXPECT_EQ(lib.KIVCAMFILTER_Free(), KIVCAMFILTER_OK);
}

}  // namespace
