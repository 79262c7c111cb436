// The output filter through its exports, with the reader library on the other
// side: sizes, the ring's slot rule, the statuses, the log lines, the undo of
// a failed Alloc and the names a channel leaves.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "diag/log_reader.h"
#include "diag/process_objects.h"
#include "kivcam/kivcam_reader.h"
#include "kivcam_loader.h"
#include "platform/platform.h"

namespace {

namespace platform = kivcam::platform;
namespace diag = kivcam::diag;

uint32_t Self() { return platform::ProcessId(); }

std::vector<std::string> ChannelNames() {
  const uint32_t pid = Self();
  std::vector<std::string> found;
  for (const std::string& n : platform::ListMachineWideNames()) {
    if (n == diag::FilterEventName(pid) || n == diag::FilterHeaderName(pid) || n == diag::FilterDataName(pid)) {
      found.push_back(n);
    }
  }
  return found;
}

std::string ShmPath(const std::string& name) { return "/dev/shm" + platform::MachineWideName(name); }

struct Reader {
  KIVCAMREADER* r = KIVCAMREADER_Open(Self());
  ~Reader() { KIVCAMREADER_Close(r); }
  KIVCAMFILTER_HEADER Header() const {
    KIVCAMFILTER_HEADER h{};
    KIVCAMREADER_GetHeader(r, &h);
    return h;
  }
  // The first byte of the frame taken, or -1 when nothing was new.
  int Take() {
    const void* frame = nullptr;
    return KIVCAMREADER_Take(r, &frame) == 1 ? *static_cast<const unsigned char*>(frame) : -1;
  }
};

class Filter : public ::testing::Test {
 protected:
  void TearDown() override { lib.KIVCAMFILTER_Free(); }
  // A frame of the channel's size whose bytes are all `value`.
  std::vector<unsigned char> Frame(unsigned char value, uint32_t w = 64, uint32_t h = 32) {
    return std::vector<unsigned char>(size_t{w} * h * 4, value);
  }
  // The writer's slot i as the test sees it through its own view.
  const unsigned char* Slot(uint32_t i) {
    if (!data) {
      data = platform::SharedMapping::Open(diag::FilterDataName(Self()), 2 * 8192);
      header = platform::SharedMapping::Open(diag::FilterHeaderName(Self()), 28);
    }
    return static_cast<const unsigned char*>(data->data()) + i * 8192;
  }
  const KIVCAMFILTER_HEADER& Shared() { return *static_cast<const KIVCAMFILTER_HEADER*>(header->data()); }

  kivtest::KivCamLibrary lib;
  std::unique_ptr<platform::SharedMapping> data, header;
};

TEST_F(Filter, FrameSizeAndStrideFollowTheSizeAndTheDataHoldsTwoSlots) {
  struct Case {
    uint32_t w, h, frame, stride;
  };
  for (Case c : {Case{640, 480, 1228800, 1228800}, Case{641, 480, 1230720, 1232896}, Case{1, 1, 4, 4096}}) {
    ASSERT_EQ(lib.KIVCAMFILTER_Alloc(c.w, c.h, 0xC0FFEE), KIVCAMFILTER_OK);
    Reader reader;
    ASSERT_NE(reader.r, nullptr);
    KIVCAMFILTER_HEADER h = reader.Header();
    EXPECT_EQ(h.Width, c.w);
    EXPECT_EQ(h.Height, c.h);
    EXPECT_EQ(h.UserValue, 0xC0FFEEu);
    EXPECT_EQ(h.FrameSize, c.frame);
    EXPECT_EQ(h.SlotStride, c.stride);
    EXPECT_EQ(h.WriteIndex, 0u);
    EXPECT_EQ(h.ReadIndex, 0u);
    EXPECT_NE(platform::SharedMapping::Open(diag::FilterDataName(Self()), 2 * size_t{c.stride}), nullptr);
    EXPECT_EQ(platform::SharedMapping::Open(diag::FilterDataName(Self()), 2 * size_t{c.stride} + 1), nullptr);
    EXPECT_EQ(reader.Take(), -1) << "nothing is published by Alloc";
    ASSERT_EQ(lib.KIVCAMFILTER_Free(), KIVCAMFILTER_OK);
  }
  // Sizes the header's 32 bits can't hold, and empty frames, make no channel.
  for (auto [w, h] : {std::pair{65536u, 65536u}, std::pair{0u, 480u}, std::pair{640u, 0u}}) {
    EXPECT_EQ(lib.KIVCAMFILTER_Alloc(w, h, 0), KIVCAMFILTER_ERROR) << w << "x" << h;
    EXPECT_TRUE(ChannelNames().empty());
  }
}

TEST_F(Filter, TheRingNeverHandsOutTheSlotTheReaderHolds) {
  ASSERT_EQ(lib.KIVCAMFILTER_Alloc(64, 32, 0), KIVCAMFILTER_OK);
  // Without a reader: the first frame goes to slot 1, the second finds the
  // read index (0) on the next slot and overwrites slot 1.
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(Frame('A').data()), KIVCAMFILTER_OK);
  EXPECT_EQ(Slot(1)[0], 'A');
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(Frame('B').data()), KIVCAMFILTER_NEWEST_SLOT);
  EXPECT_EQ(Slot(1)[0], 'B');
  EXPECT_EQ(Slot(0)[0], 0) << "slot 0 starts zeroed and stays untouched";
  EXPECT_EQ(Shared().WriteIndex, 1u);

  Reader reader;
  ASSERT_NE(reader.r, nullptr);
  EXPECT_EQ(reader.Take(), 'B');
  EXPECT_EQ(reader.Take(), -1) << "taken once";
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(Frame('C').data()), KIVCAMFILTER_OK);
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(Frame('D').data()), KIVCAMFILTER_NEWEST_SLOT);
  EXPECT_EQ(Slot(1)[0], 'B') << "the reader's slot was written";
  EXPECT_EQ(reader.Take(), 'D');

  // In place: the slot is handed out, published only by Flush.
  void* slot = nullptr;
  KIVCAMREADER_Wait(reader.r, 0);
  EXPECT_EQ(lib.KIVCAMFILTER_GetAddr(&slot), KIVCAMFILTER_OK);
  std::memset(slot, 'E', 64 * 32 * 4);
  EXPECT_EQ(Slot(1)[0], 'E') << "the next slot after the newest (0)";
  EXPECT_EQ(Shared().WriteIndex, 0u) << "not published before Flush";
  EXPECT_EQ(reader.Take(), -1);
  EXPECT_EQ(KIVCAMREADER_Wait(reader.r, 0), 0u) << "nobody woken before Flush";
  EXPECT_EQ(lib.KIVCAMFILTER_Flush(), KIVCAMFILTER_OK);
  EXPECT_EQ(KIVCAMREADER_Wait(reader.r, 0), 1u);
  EXPECT_EQ(Shared().WriteIndex, 1u);
  EXPECT_EQ(reader.Take(), 'E');
  // The reader holds slot 1 and slot 0 is the newest: GetAddr must say -1.
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(Frame('F').data()), KIVCAMFILTER_OK);
  EXPECT_EQ(lib.KIVCAMFILTER_GetAddr(&slot), KIVCAMFILTER_NEWEST_SLOT);
  EXPECT_EQ(static_cast<unsigned char*>(slot)[0], 'F') << "the newest frame's slot";
  EXPECT_EQ(lib.KIVCAMFILTER_Flush(), KIVCAMFILTER_OK);

  // Purge: the newest frame counts as taken, and the reader is woken.
  KIVCAMREADER_Wait(reader.r, 0);
  EXPECT_EQ(lib.KIVCAMFILTER_Purge(), KIVCAMFILTER_OK);
  EXPECT_EQ(Shared().ReadIndex, Shared().WriteIndex);
  EXPECT_EQ(KIVCAMREADER_Wait(reader.r, 0), 1u);
  EXPECT_EQ(reader.Take(), -1);
}

TEST_F(Filter, StatusesWithoutAChannelWithoutASlotAndForASecondAlloc) {
  void* slot = nullptr;
  auto frame = Frame('x');
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(frame.data()), KIVCAMFILTER_ERROR);
  EXPECT_EQ(lib.KIVCAMFILTER_GetAddr(&slot), KIVCAMFILTER_ERROR);
  EXPECT_EQ(slot, nullptr);
  EXPECT_EQ(lib.KIVCAMFILTER_Flush(), KIVCAMFILTER_ERROR);
  EXPECT_EQ(lib.KIVCAMFILTER_Purge(), KIVCAMFILTER_ERROR);
  EXPECT_EQ(lib.KIVCAMFILTER_Free(), KIVCAMFILTER_ERROR);
  EXPECT_TRUE(ChannelNames().empty());

  ASSERT_EQ(lib.KIVCAMFILTER_Alloc(64, 32, 1), KIVCAMFILTER_OK);
  EXPECT_EQ(lib.KIVCAMFILTER_Flush(), KIVCAMFILTER_NO_PENDING);
  ASSERT_EQ(lib.KIVCAMFILTER_GetAddr(&slot), KIVCAMFILTER_OK);
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(frame.data()), KIVCAMFILTER_OK);
  EXPECT_EQ(lib.KIVCAMFILTER_Flush(), KIVCAMFILTER_NO_PENDING) << "OutPut forgets the slot handed out";
  // Null pointers are refused and change nothing.
  ASSERT_EQ(lib.KIVCAMFILTER_GetAddr(&slot), KIVCAMFILTER_NEWEST_SLOT);
  EXPECT_EQ(lib.KIVCAMFILTER_GetAddr(nullptr), KIVCAMFILTER_ERROR);
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(nullptr), KIVCAMFILTER_ERROR);
  EXPECT_EQ(lib.KIVCAMFILTER_Flush(), KIVCAMFILTER_OK);

  // A second Alloc: 3, and the first channel goes on working.
  Reader reader;
  ASSERT_NE(reader.r, nullptr);
  EXPECT_EQ(lib.KIVCAMFILTER_Alloc(128, 128, 2), KIVCAMFILTER_EXISTS);
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(Frame('y').data()), KIVCAMFILTER_NEWEST_SLOT);  // nothing taken yet
  EXPECT_EQ(reader.Take(), 'y');
  EXPECT_EQ(reader.Header().UserValue, 1u);

  // Free takes the names along, and the process may allocate again.
  EXPECT_EQ(lib.KIVCAMFILTER_Free(), KIVCAMFILTER_OK);
  EXPECT_TRUE(ChannelNames().empty());
  EXPECT_EQ(KIVCAMREADER_Open(Self()), nullptr);
  EXPECT_TRUE(ChannelNames().empty()) << "a reader creates nothing";
  EXPECT_EQ(lib.KIVCAMFILTER_Free(), KIVCAMFILTER_ERROR);
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(frame.data()), KIVCAMFILTER_ERROR);
  EXPECT_EQ(lib.KIVCAMFILTER_Alloc(128, 128, 3), KIVCAMFILTER_OK);
  Reader again;
  ASSERT_NE(again.r, nullptr);
  EXPECT_EQ(again.Header().Width, 128u);
  EXPECT_EQ(reader.Header().Width, 64u) << "the old reader keeps its own views";
}

TEST_F(Filter, TheLastErrorIsLeftAloneAndTheFilterOutlivesTheLibraryObject) {
  ASSERT_FALSE(lib.KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION + 1));
  ASSERT_EQ(lib.KIVCAM_GetLastError(), KIVCAM_ERR_VERSION);
  void* slot = nullptr;
  auto frame = Frame('z');
  lib.KIVCAMFILTER_Flush();  // 2
  lib.KIVCAMFILTER_Alloc(64, 32, 0);
  lib.KIVCAMFILTER_Alloc(64, 32, 0);  // 3
  lib.KIVCAMFILTER_Flush();           // 1
  lib.KIVCAMFILTER_GetAddr(&slot);
  lib.KIVCAMFILTER_Flush();
  lib.KIVCAMFILTER_OutPut(frame.data());
  lib.KIVCAMFILTER_Purge();
  lib.KIVCAMFILTER_Free();
  EXPECT_EQ(lib.KIVCAM_GetLastError(), KIVCAM_ERR_VERSION);

  lib.KIVCAM_FreeLibrary();
  EXPECT_EQ(lib.KIVCAMFILTER_Alloc(64, 32, 0), KIVCAMFILTER_OK);
  EXPECT_EQ(lib.KIVCAMFILTER_OutPut(frame.data()), KIVCAMFILTER_OK);
}

// The lines of one export: "<name> Start", "<name> End  " or "<name> Error=N".
std::vector<std::string> FilterLines(diag::LogReader& log) {
  std::vector<std::string> out;
  for (const std::string& line : log.Take()) {
    size_t at = line.find("KIVCAMFILTER_");
    if (at == std::string::npos) continue;
    std::string rest = line.substr(at);
    size_t name_end = rest.find(' ');
    size_t event = rest.find_first_not_of(' ', name_end);
    size_t event_end = rest.find(rest.compare(event, 5, "Error") == 0 ? ',' : 'T', event);
    std::string ev = rest.substr(event, event_end - event);
    while (!ev.empty() && ev.back() == ' ') ev.pop_back();
    out.push_back(rest.substr(0, name_end) + " " + ev);
  }
  return out;
}

TEST_F(Filter, LinesCarryTheStatusAndPerFrameExportsAreVerbose) {
  diag::LogReader log;
  ASSERT_TRUE(log.Open());
  log.Take();
  log.SetLevel(1);
  void* slot = nullptr;
  auto frame = Frame('l');
  lib.KIVCAMFILTER_Alloc(64, 32, 0);
  lib.KIVCAMFILTER_Alloc(64, 32, 0);
  lib.KIVCAMFILTER_OutPut(frame.data());
  lib.KIVCAMFILTER_GetAddr(&slot);
  lib.KIVCAMFILTER_Flush();
  lib.KIVCAMFILTER_Flush();
  lib.KIVCAMFILTER_Purge();
  std::vector<std::string> expected{
      "KIVCAMFILTER_Alloc Start", "KIVCAMFILTER_Alloc End",   "KIVCAMFILTER_Alloc Start",
      "KIVCAMFILTER_Alloc Error=3", "KIVCAMFILTER_Flush Start", "KIVCAMFILTER_Flush End",
      "KIVCAMFILTER_Flush Start", "KIVCAMFILTER_Flush Error=1", "KIVCAMFILTER_Purge Start",
      "KIVCAMFILTER_Purge End"};
  EXPECT_EQ(FilterLines(log), expected);

  log.SetLevel(2);
  lib.KIVCAMFILTER_OutPut(frame.data());  // 0: slot 1
  lib.KIVCAMFILTER_OutPut(frame.data());  // -1: an End line too
  lib.KIVCAMFILTER_GetAddr(&slot);
  lib.KIVCAMFILTER_Free();
  lib.KIVCAMFILTER_Free();
  expected = {"KIVCAMFILTER_OutPut Start", "KIVCAMFILTER_OutPut End", "KIVCAMFILTER_OutPut Start",
              "KIVCAMFILTER_OutPut End",   "KIVCAMFILTER_GetAddr Start", "KIVCAMFILTER_GetAddr End",
              "KIVCAMFILTER_Free Start",   "KIVCAMFILTER_Free End",   "KIVCAMFILTER_Free Start",
              "KIVCAMFILTER_Free Error=2"};
  EXPECT_EQ(FilterLines(log), expected);
  log.SetLevel(0);
}

// Each step of Alloc that fails (the event, the header, the data mapping)
// leaves no object behind, so the next Alloc starts clean.
TEST_F(Filter, AFailedAllocUndoesEveryStep) {
  const uint32_t pid = Self();
  struct Block {
    std::string name;
    bool directory;  // a directory where a mapping should be, a plain file for the event's FIFO
  };
  for (const Block& b : {Block{diag::FilterEventName(pid), false}, Block{diag::FilterHeaderName(pid), true},
                         Block{diag::FilterDataName(pid), true}}) {
    const std::string path = ShmPath(b.name);
    if (b.directory) {
      ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    } else {
      std::ofstream(path) << "x";
    }
    EXPECT_EQ(lib.KIVCAMFILTER_Alloc(64, 32, 0), KIVCAMFILTER_ERROR) << b.name;
    std::vector<std::string> left = ChannelNames();
    EXPECT_EQ(left, std::vector<std::string>{b.name}) << "only the obstacle is left";
    if (b.directory) {
      rmdir(path.c_str());
    } else {
      unlink(path.c_str());
    }
    EXPECT_EQ(lib.KIVCAMFILTER_OutPut(Frame('u').data()), KIVCAMFILTER_ERROR) << "no channel";
    ASSERT_EQ(lib.KIVCAMFILTER_Alloc(64, 32, 0), KIVCAMFILTER_OK);
    ASSERT_EQ(lib.KIVCAMFILTER_Free(), KIVCAMFILTER_OK);
  }
}

TEST(FilterNames, GoAtUnloadAndStaleOnesOfOurIdGoAtLoad) {
  {
    kivtest::KivCamLibrary lib;
    ASSERT_EQ(lib.KIVCAMFILTER_Alloc(64, 32, 0), KIVCAMFILTER_OK);
    EXPECT_EQ(ChannelNames().size(), 3u);
    ASSERT_TRUE(lib.Unload());
    EXPECT_TRUE(ChannelNames().empty());
    EXPECT_EQ(KIVCAMREADER_Open(Self()), nullptr);
  }
  // As if an earlier process of this id had been killed with a channel.
  auto stale = platform::SharedMapping::CreateOrOpen(diag::FilterHeaderName(Self()), 28);
  ASSERT_NE(stale, nullptr);
  kivtest::KivCamLibrary lib;
  EXPECT_EQ(lib.KIVCAMFILTER_Alloc(64, 32, 0), KIVCAMFILTER_OK);
  EXPECT_EQ(lib.KIVCAMFILTER_Free(), KIVCAMFILTER_OK);
}

}  // namespace
