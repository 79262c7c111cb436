// kivcam-view as a user runs it, against a writer process that the test
// drives: the list of channels, one frame taken and saved, a run saving every
// Nth frame until Ctrl-C, the end of a channel, and usage errors.
#include <gtest/gtest.h>
#include <png.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "child_process.h"
#include "diag/process_objects.h"
#include "kivcam_loader.h"
#include "platform/platform.h"

namespace {

namespace platform = kivcam::platform;

constexpr uint32_t kWidth = 64, kHeight = 48, kUser = 0xABCD;

std::string View() { return kivtest::BuildDir() + "/bin/kivcam-view"; }

// Pixel (x, y) of frame n: B, G, R, X.
unsigned char Byte(uint32_t n, uint32_t x, uint32_t y, int c) {
  return static_cast<unsigned char>(c == 0 ? x * 3 + n : c == 1 ? y * 5 : c == 2 ? n * 40 : 0xEE);
}

// A writer process the test drives through a pipe, one command a byte:
// 'p' publishes the next frame, 't' publishes it and waits until the reader
// has taken it, 'f' frees the channel, 'q' ends. Each command is answered
// with 'k' once done ('x' on failure). With `channel` false it loads the
// library and makes no channel.
class Writer {
 public:
  explicit Writer(bool channel = true)
      : child_([this, channel] { return Run(channel); }) {
    ok_ = reply_.Receive() == 'k';
  }
  ~Writer() { command_.Send('q'); }  // and the child is joined
  bool ok() const { return ok_; }
  uint32_t pid() const { return static_cast<uint32_t>(child_.pid()); }
  bool Do(char command) {
    command_.Send(command);
    return reply_.Receive() == 'k';
  }

 private:
  int Run(bool channel) {
    kivtest::KivCamLibrary lib;
    if (!lib.loaded() || (channel && lib.KIVCAMFILTER_Alloc(kWidth, kHeight, kUser) != KIVCAMFILTER_OK)) {
      reply_.Send('x');
      return 1;
    }
    reply_.Send('k');
    std::vector<unsigned char> frame(kWidth * kHeight * 4);
    uint32_t n = 0;
    for (;;) {
      char c = command_.Receive();
      if (c == 'q' || c == 0) return 0;
      bool done = true;
      if (c == 'p' || c == 't') {
        ++n;
        for (uint32_t y = 0; y < kHeight; ++y) {
          for (uint32_t x = 0; x < kWidth; ++x) {
            for (int b = 0; b < 4; ++b) frame[(y * kWidth + x) * 4 + b] = Byte(n, x, y, b);
          }
        }
        done = lib.KIVCAMFILTER_OutPut(frame.data()) >= KIVCAMFILTER_NEWEST_SLOT;
        if (done && c == 't') done = WaitTaken();
      } else if (c == 'f') {
        done = lib.KIVCAMFILTER_Free() == KIVCAMFILTER_OK;
      }
      reply_.Send(done ? 'k' : 'x');
    }
  }
  // Until the reader's index reaches the newest frame (bounded).
  bool WaitTaken() {
    auto header = platform::SharedMapping::Open(kivcam::diag::FilterHeaderName(platform::ProcessId()),
                                                sizeof(KIVCAMFILTER_HEADER));
    if (!header) return false;
    auto* h = static_cast<volatile KIVCAMFILTER_HEADER*>(header->data());
    for (int ms = 0; ms < kivtest::kBoundMs; ++ms) {
      if (h->ReadIndex == h->WriteIndex) return true;
      platform::SleepMs(1);
    }
    return false;
  }

  kivtest::Pipe command_, reply_;
  kivtest::ChildProcess child_;
  bool ok_ = false;
};

std::string TempDir() {
  std::string dir = testing::TempDir() + "kivview_" + std::to_string(getpid()) + "_" +
                    testing::UnitTest::GetInstance()->current_test_info()->name();
  mkdir(dir.c_str(), 0700);
  return dir;
}

bool Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// True when the PNG holds frame n as R, G, B.
bool PngIsFrame(const std::string& path, uint32_t n, std::string* why) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) {
    *why = "not a PNG";
    return false;
  }
  image.format = PNG_FORMAT_RGB;
  std::vector<unsigned char> rgb(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr)) {
    *why = "unreadable";
    return false;
  }
  if (image.width != kWidth || image.height != kHeight) {
    *why = "size " + std::to_string(image.width) + "x" + std::to_string(image.height);
    return false;
  }
  for (uint32_t y = 0; y < kHeight; ++y) {
    for (uint32_t x = 0; x < kWidth; ++x) {
      const unsigned char* p = &rgb[(y * kWidth + x) * 3];
      if (p[0] != Byte(n, x, y, 2) || p[1] != Byte(n, x, y, 1) || p[2] != Byte(n, x, y, 0)) {
        *why = "pixel " + std::to_string(x) + "," + std::to_string(y);
        return false;
      }
    }
  }
  return true;
}

void RemoveDir(const std::string& dir) {
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
}

TEST(View, ListShowsTheProcessesThatHaveAChannel) {
  Writer writer, without(false);
  ASSERT_TRUE(writer.ok());
  ASSERT_TRUE(without.ok());
  kivtest::Program view;
  ASSERT_TRUE(view.Start({View(), "--list"}));
  EXPECT_EQ(view.Wait(), 0);
  EXPECT_NE(view.text.find(std::to_string(writer.pid()) + " "), std::string::npos) << view.text;
  EXPECT_NE(view.text.find("64x48"), std::string::npos) << view.text;
  EXPECT_NE(view.text.find("0x0000ABCD"), std::string::npos) << view.text;
  EXPECT_EQ(view.text.find(std::to_string(without.pid()) + " "), std::string::npos) << view.text;
}

TEST(View, OnceTakesTheNewestFrameSavesItAndCountsTheOthersAsDropped) {
  Writer writer;
  ASSERT_TRUE(writer.ok());
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(writer.Do('p'));
  const std::string base = TempDir(), dir = base + "/not/yet";  // made by the viewer
  kivtest::Program view;
  ASSERT_TRUE(view.Start({View(), std::to_string(writer.pid()), "--once", "--save", dir}));
  EXPECT_EQ(view.Wait(), 0) << view.text;
  EXPECT_NE(view.text.find("64x48, user value 0x0000ABCD"), std::string::npos) << view.text;
  EXPECT_NE(view.text.find("1 frames, 4 dropped, 1 saved"), std::string::npos) << view.text;
  std::string why;
  EXPECT_TRUE(PngIsFrame(dir + "/frame_000001.png", 5, &why)) << why;
  RemoveDir(base);
}

TEST(View, SavesEveryNthFrameUntilCtrlCAndThenPrintsTheTotals) {
  Writer writer;
  ASSERT_TRUE(writer.ok());
  const std::string dir = TempDir();
  kivtest::Program view;
  ASSERT_TRUE(view.Start({View(), std::to_string(writer.pid()), "--save", dir, "--every", "3"}));
  ASSERT_TRUE(view.ReadUntil("Ctrl-C ends\n")) << view.text;
  for (int i = 0; i < 7; ++i) ASSERT_TRUE(writer.Do('t')) << "frame " << i + 1 << " was not taken";
  kill(view.pid, SIGINT);
  EXPECT_EQ(view.Wait(), 0) << view.text;
  EXPECT_NE(view.text.find("7 frames, 0 dropped, 3 saved"), std::string::npos) << view.text;
  std::string why;
  for (uint32_t n : {1u, 4u, 7u}) {
    char name[32];
    std::snprintf(name, sizeof name, "/frame_%06u.png", n);
    EXPECT_TRUE(PngIsFrame(dir + name, n, &why)) << name << ": " << why;
  }
  EXPECT_FALSE(Exists(dir + "/frame_000002.png"));
  RemoveDir(dir);
}

TEST(View, EndsWhenTheWriterFreesItsChannel) {
  Writer writer;
  ASSERT_TRUE(writer.ok());
  kivtest::Program view;
  ASSERT_TRUE(view.Start({View(), std::to_string(writer.pid())}));
  ASSERT_TRUE(view.ReadUntil("Ctrl-C ends\n")) << view.text;
  ASSERT_TRUE(writer.Do('t'));
  ASSERT_TRUE(writer.Do('f'));
  EXPECT_EQ(view.Wait(), 1) << view.text;
  EXPECT_NE(view.text.find("is gone"), std::string::npos) << view.text;
  EXPECT_NE(view.text.find("1 frames, 0 dropped"), std::string::npos) << view.text;
}

TEST(View, UsageErrorsAndAProcessWithoutAChannel) {
  for (std::vector<std::string> args : {std::vector<std::string>{}, {"12x"}, {"--every", "0", "1"}, {"1", "--list"},
                                        {"1", "2"}}) {
    args.insert(args.begin(), View());
    kivtest::Program view;
    ASSERT_TRUE(view.Start(args));
    EXPECT_EQ(view.Wait(), 2) << args.size();
    EXPECT_NE(view.text.find("--help"), std::string::npos) << view.text;
  }
  Writer without(false);
  ASSERT_TRUE(without.ok());
  kivtest::Program view;
  ASSERT_TRUE(view.Start({View(), std::to_string(without.pid())}));
  EXPECT_EQ(view.Wait(), 1);
  EXPECT_NE(view.text.find("has no frame channel"), std::string::npos) << view.text;
}

}  // namespace
