// kivcam, the command-line tool, run as a user runs it against the virtual cameras.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace {

struct Result {
  int code = -1;
  std::string out;
};

Result Kivcam(const std::string& args) {
  std::string cmd = std::string(KIVCAM_CLI) + " " + args + " 2>&1";
  Result r;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  while (size_t n = fread(buf, 1, sizeof buf, p)) r.out.append(buf, n);
  int status = pclose(p);
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

bool Has(const Result& r, const std::string& text) { return r.out.find(text) != std::string::npos; }

TEST(Cli, ListShowsEveryVirtualCamera) {
  Result r = Kivcam("list");
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(Has(r, "KivSim-GC1920M")) << r.out;
  EXPECT_TRUE(Has(r, "KivSim-GC1920C"));
  EXPECT_TRUE(Has(r, "KivSim-UC1920C"));
  EXPECT_TRUE(Has(r, "USB 3.0"));
  EXPECT_TRUE(Has(r, "3 cameras"));
  EXPECT_TRUE(Has(r, "KivSim-GC1920M           00:A0:B7:00:00:01")) << "a GigE camera's MAC";
}

TEST(Cli, InfoDecodesTheGigERecordOfTheFirstFreeCamera) {
  Result r = Kivcam("info first");
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(Has(r, "kind         GigE")) << r.out;
  EXPECT_TRUE(Has(r, "model        KivSim-GC1920M"));
  EXPECT_TRUE(Has(r, "MAC / UID    00:A0:B7:00:00:01"));
  EXPECT_TRUE(Has(r, "camera IP    192.168.2.100"));
}

TEST(Cli, InfoOfTheUsbCameraByUid) {
  Result list = Kivcam("list");
  size_t at = list.out.find("USB ");
  ASSERT_NE(at, std::string::npos) << list.out;
  std::string line = list.out.substr(list.out.rfind('\n', at) + 1);
  std::string uid = line.substr(0, line.find(' '));
  Result r = Kivcam("info " + uid);
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(Has(r, "kind         USB")) << r.out;
  EXPECT_TRUE(Has(r, "family"));
}

TEST(Cli, FeaturesGetSetAndExec) {
  Result tree = Kivcam("features first");
  ASSERT_EQ(tree.code, 0) << tree.out;
  EXPECT_TRUE(Has(tree, "ImageFormatControl")) << tree.out;
  EXPECT_TRUE(Has(tree, "    PixelFormat"));  // nested under its category

  Result set = Kivcam("set first Width=320 OffsetX=16");
  ASSERT_EQ(set.code, 0) << set.out;
  EXPECT_TRUE(Has(set, "Width = 320\nOffsetX = 16\n")) << set.out;

  Result get = Kivcam("get first SensorWidth");
  EXPECT_EQ(get.code, 0);
  EXPECT_TRUE(Has(get, "SensorWidth = 1920")) << get.out;

  Result bad = Kivcam("set first Width=7");  // not a multiple of the increment
  EXPECT_EQ(bad.code, 1);
  EXPECT_TRUE(Has(bad, "setting Width to '7' failed")) << bad.out;

  Result unknown = Kivcam("get first NoSuchFeature");
  EXPECT_EQ(unknown.code, 1);
  EXPECT_TRUE(Has(unknown, "no feature 'NoSuchFeature'"));

  Result exec = Kivcam("exec first AcquisitionStart AcquisitionStop");
  EXPECT_EQ(exec.code, 0) << exec.out;
  EXPECT_TRUE(Has(exec, "AcquisitionStop executed"));
}

TEST(Cli, RegistersAreReadInTheCamerasByteOrder) {
  Result r = Kivcam("reg read first 0x0");  // GigE Vision version register: 2.0
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(Has(r, "0x00000000  0x00020000")) << r.out;
}

TEST(Cli, FailuresNameTheErrorAndUsageErrorsExitWithTwo) {
  Result missing = Kivcam("info 12345");
  EXPECT_EQ(missing.code, 1);
  EXPECT_TRUE(Has(missing, "KIVCAM_ERR_NO_CAMERA")) << missing.out;
  EXPECT_EQ(Kivcam("info notanumber").code, 2);
  EXPECT_EQ(Kivcam("reg read first").code, 2);
  EXPECT_EQ(Kivcam("frobnicate").code, 2);
  Result help = Kivcam("--help");
  EXPECT_EQ(help.code, 0);
  EXPECT_TRUE(Has(help, "usage: kivcam"));
}

}  // namespace
