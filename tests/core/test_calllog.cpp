// The call log's writer rules, exercised on the writer code itself with a
// reader that takes lines the way any monitor must.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <regex>
#include <string>

#include "child_process.h"
#include "diag/call_log.h"
#include "diag/log_reader.h"
#include "platform/platform.h"

namespace {

using kivcam::diag::kLogSlots;
namespace diag = kivcam::diag;

const std::regex kTime(R"(^\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2}'\d{3}  )");

// The part of a line after its time stamp, after checking the stamp's shape.
std::string Body(const std::string& line) {
  std::smatch m;
  EXPECT_TRUE(std::regex_search(line, m, kTime)) << line;
  return m.empty() ? line : line.substr(m.length(0));
}

std::string Ids() {
  return "ThreadID=" + std::to_string(kivcam::platform::ThreadId()) +
         ", ProcessID=" + std::to_string(kivcam::platform::ProcessId()) + "\n";
}

class CallLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(reader_.Open());
    reader_.SetLevel(0);
    reader_.Take();
    diag::OpenCallLog();
    std::memset(diag::CurrentLogArea()->Line, 0, sizeof diag::CurrentLogArea()->Line);
    if (diag::CurrentSharedData()) diag::CurrentSharedData()->MonitorProcessId = 0;
  }
  void TearDown() override {
    reader_.SetLevel(0);
    diag::CloseCallLog(false);
  }
  kivcam::diag::LogReader reader_;
};

TEST_F(CallLogTest, LevelZeroWritesNothingAndVerboseNeedsLevelTwo) {
  diag::LogEvent(false, "CTest::Op", "hidden");
  EXPECT_EQ(diag::CurrentLogArea()->Pending, 0u);

  reader_.SetLevel(1);
  diag::LogEvent(true, "CTest::Op", "verbose at 1");
  diag::LogEvent(false, "CTest::Op", "normal at 1");
  reader_.SetLevel(2);
  diag::LogEvent(true, "CTest::Op", "verbose at 2");
  auto lines = reader_.Take();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("normal at 1"), std::string::npos);
  EXPECT_NE(lines[1].find("verbose at 2"), std::string::npos);
}

TEST_F(CallLogTest, EveryLineFamilyHasItsExactLayout) {
  reader_.SetLevel(1);
  const void* cam = reinterpret_cast<const void*>(uintptr_t{0x7f12ab340010});
  const void* buf = reinterpret_cast<const void*>(uintptr_t{0xABCDEF});
  diag::LogExport(false, "KIVCAM_SetCallBack", "Start");
  diag::LogExportError(false, "KIVCAM_SetStructVersion", 16);
  diag::LogCamera(false, "KIVCAM_Close", "End  ", cam);
  diag::LogCameraError(false, "KIVCAM_Close", 6, cam);
  diag::LogConvHandle(false, "KIVCAM_CloseConvHandle", "Start", buf);
  diag::LogBufferError(false, "KIVCAM_ImageFree", 12, buf, cam);
  diag::LogOpenUidStart("KIVCAM_Open", 0x0000001234567890ULL);
  diag::LogOpenEnd("KIVCAM_Open", cam);
  diag::LogEvent(false, "CKivCamDLL::UserBusEvent", "BusReset Detection");
  diag::LogDump(false, "CCamera::Test", "Value", buf);
  diag::LogLoad("DLL ATTACH");
  auto lines = reader_.Take();
  ASSERT_EQ(lines.size(), 11u);
  const std::string ids = Ids();
  const std::string pid = "ProcessID=" + std::to_string(kivcam::platform::ProcessId()) + "\n";
  EXPECT_EQ(Body(lines[0]), "KIVCAM_SetCallBack           Start " + ids);
  EXPECT_EQ(Body(lines[1]), "KIVCAM_SetStructVersion      Error=16, " + ids);
  EXPECT_EQ(Body(lines[2]), "KIVCAM_Close                 End   HCAMERA=0x00007F12AB340010, " + ids);
  EXPECT_EQ(Body(lines[3]), "KIVCAM_Close                 Error=6, HCAMERA=0x00007F12AB340010, " + ids);
  EXPECT_EQ(Body(lines[4]), "KIVCAM_CloseConvHandle       Start HCTBL=0x0000000000ABCDEF, " + ids);
  EXPECT_EQ(Body(lines[5]),
            "KIVCAM_ImageFree             Error=12, Buffer=0x0000000000ABCDEF, "
            "HCAMERA=0x00007F12AB340010, " + ids);
  EXPECT_EQ(Body(lines[6]), "KIVCAM_Open                  Start Req UID=0x00000012 34567890, " + ids);
  EXPECT_EQ(Body(lines[7]), "KIVCAM_Open                  End HCAMERA=0x00007F12AB340010, " + ids);
  EXPECT_EQ(Body(lines[8]), "CKivCamDLL::UserBusEvent           BusReset Detection " + ids);
  EXPECT_EQ(Body(lines[9]), "CCamera::Test                      Value DUMP=0x0000000000ABCDEF, " + ids);
  EXPECT_EQ(Body(lines[10]), "DLL ATTACH " + pid);
}

TEST_F(CallLogTest, FullLogDropsLinesAndLongLinesAreCutToTheirSlot) {
  reader_.SetLevel(1);
  for (unsigned i = 0; i < kLogSlots + 1; ++i) {
    diag::WriteLine(false, "line %u\n", i);
  }
  EXPECT_EQ(diag::CurrentLogArea()->Pending, kLogSlots);
  auto lines = reader_.Take();
  ASSERT_EQ(lines.size(), kLogSlots);
  EXPECT_EQ(Body(lines[31]), "line 31\n");  // the 33rd never made it

  diag::WriteLine(false, "after reset\n");
  ASSERT_EQ(diag::CurrentLogArea()->Pending, 1u);
  EXPECT_EQ(Body(std::string(diag::CurrentLogArea()->Line[0])), "after reset\n");
  // A line too long for its slot is cut, spilling nothing into the next.
  reader_.Take();
  std::memset(diag::CurrentLogArea()->Line, 0, sizeof diag::CurrentLogArea()->Line);
  diag::WriteLine(false, "%s\n", std::string(3000, 'x').c_str());
  EXPECT_EQ(strnlen(diag::CurrentLogArea()->Line[0], diag::kLogSlotSize), diag::kLogSlotSize - 1);
  EXPECT_EQ(diag::CurrentLogArea()->Line[1][0], '\0');
}

// A holder that does not let go (alive, so not abandoned) costs a line, not
// the caller: the line is dropped after a bounded wait and counted.
TEST_F(CallLogTest, AStuckHolderCostsADroppedLineNotAHang) {
  reader_.SetLevel(1);
  kivtest::Pipe held, done;
  kivtest::ChildProcess holder([&] {
    auto m = kivcam::platform::NamedMutex::CreateOrOpen(KIVCAM_LOG_MUTEX_NAME);
    if (!m || m->Wait() != kivcam::platform::MutexWait::kAcquired) return 1;
    held.Send('h');
    done.Receive();
    m->Release();
    return 0;
  });
  ASSERT_EQ(held.Receive(), 'h');
  const uint32_t dropped = diag::DroppedLines();
  const uint32_t t0 = kivcam::platform::TickCount();
  diag::WriteLine(false, "waits in vain\n");
  const uint32_t waited = kivcam::platform::TickCount() - t0;
  EXPECT_GE(waited, 400u) << "the live holder's mutex was taken over";
  EXPECT_LT(waited, 5000u);
  EXPECT_EQ(diag::DroppedLines(), dropped + 1);
  done.Send('d');
  ASSERT_EQ(holder.Join(), 0);
  diag::WriteLine(false, "gets through\n");
  auto lines = reader_.Take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(Body(lines[0]), "gets through\n");
}

// Two processes writing at once: every slot holds one whole line, the slots
// are consecutive, and each writer's lines keep their order.
TEST_F(CallLogTest, TwoProcessesFillConsecutiveWholeSlots) {
  reader_.SetLevel(1);
  kivtest::Pipe go;
  auto writer = [&](int c) {
    return [&, c] {
      if (go.Receive() != 'g') return 2;
      for (int i = 0; i < 16; ++i) {
        diag::WriteLine(false, "writer %d line %02d %s\n", c, i, std::string(200, 'a' + c).c_str());
      }
      return 0;
    };
  };
  kivtest::ChildProcess first(writer(0)), second(writer(1));
  go.Send('g');
  go.Send('g');
  ASSERT_EQ(first.Join(), 0);
  ASSERT_EQ(second.Join(), 0);
  auto lines = reader_.Take();
  ASSERT_EQ(lines.size(), kLogSlots);
  std::map<int, int> next;
  const std::regex shape(R"(writer ([01]) line (\d\d) (a{200}|b{200})\n)");
  for (const std::string& l : lines) {
    std::smatch m;
    std::string body = Body(l);
    ASSERT_TRUE(std::regex_match(body, m, shape)) << body;
    int writer = std::stoi(m[1]);
    EXPECT_EQ(m[3].str()[0], 'a' + writer);
    EXPECT_EQ(std::stoi(m[2]), next[writer]++);
  }
  EXPECT_EQ(next[0], 16);
  EXPECT_EQ(next[1], 16);
}

}  // namespace
