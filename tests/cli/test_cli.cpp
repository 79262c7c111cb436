// kivcam, the command-line tool, run as a user runs it against the virtual cameras.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <utility>
#include <string>

#include "cli_run.h"

namespace {

using namespace clitest;

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
  Result help = Kivcam("--help");
  EXPECT_EQ(help.code, 0);
  EXPECT_TRUE(Has(help, "usage: kivcam"));
  Result version = Kivcam("--version");
  EXPECT_EQ(version.code, 0);
  EXPECT_TRUE(Has(version, "library revision 10106")) << version.out;
}

// Every usage error says what is wrong, then points at --help; none opens a
// camera or prints the whole usage text.
TEST(Cli, UsageErrorsSayWhatIsWrongFirst) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "missing command"},
      {"bogus", "unknown command 'bogus'"},
      {"--bogus", "unknown option '--bogus'"},
      {"list extra", "list takes no arguments"},
      {"info", "missing argument: CAMERA"},
      {"info first extra", "info takes no arguments"},
      {"info notanumber", "'notanumber' is not a camera UID"},
      {"info -1", "a UID has no sign"},
      {"info +5", "a UID has no sign"},
      {"info 18446744073709551616", "out of range for a 64-bit UID"},
      {"get first", "missing argument: FEATURE"},
      {"set first Width", "'Width' is not FEATURE=VALUE"},
      {"features first --wide", "features takes only --long"},
      {"reg read first", "missing argument: ADDRESS"},
      {"reg read first 0x0 abc", "'abc' is not a register count"},
      {"reg read first 0x0 5000", "count 5000 is above the limit of 4096 registers"},
      {"reg read first 0x0 0", "at least 1"},
      {"reg read first 0x100000000", "a register address has 32 bits"},
      {"reg write first 0xA00 0x1FFFFFFFF", "a register value has 32 bits"},
      {"reg write first 0xA00", "missing argument: VALUE"},
      {"reg poke first 0xA00", "unknown reg operation 'poke'"},
      {"first", "missing step after CAMERA"},
      {"first Width", "'Width' is not a step"},
      {"set first Width=0xFFFFFFFFFFFFFD80", "out of range for a 64-bit integer"},
      {"set first Width=99999999999999999999", "out of range for a 64-bit integer"},
      {"set first Width=12abc", "'12abc' is not an integer"},
  };
  for (const auto& [args, reason] : cases) {
    Result r = Kivcam(args);
    EXPECT_EQ(r.code, 2) << args << "\n" << r.out;
    const std::string first_line = r.out.substr(0, r.out.find('\n'));
    EXPECT_EQ(first_line.rfind("kivcam: ", 0), 0u) << args << "\n" << r.out;
    EXPECT_NE(first_line.find(reason), std::string::npos) << args << "\n" << r.out;
    EXPECT_TRUE(Has(r, "Try 'kivcam --help'")) << args;
    EXPECT_FALSE(Has(r, "usage:")) << args;
  }
}

TEST(Cli, CameraUidsAreDecimalWithLeadingZerosOrHex) {
  Result list = Kivcam("list");
  std::string uid = list.out.substr(list.out.find('\n') + 1);
  uid = uid.substr(0, uid.find(' '));
  ASSERT_FALSE(uid.empty()) << list.out;
  char hex[32];
  std::snprintf(hex, sizeof hex, "0x%llX", std::stoull(uid));
  for (const std::string& spelling : {uid, "00" + uid, std::string(hex)}) {
    Result r = Kivcam("info " + spelling);
    EXPECT_EQ(r.code, 0) << spelling << "\n" << r.out;
    EXPECT_TRUE(Has(r, "UID          " + uid + " ")) << spelling << "\n" << r.out;
  }
}

TEST(Cli, NonFiniteFloatsAreRefusedAndNothingIsSet) {
  for (const char* bad : {"nan", "inf", "-Infinity", "1e999"}) {
    Result r = Kivcam(std::string("first set ExposureTime=") + bad + " get ExposureTime");
    EXPECT_EQ(r.code, 2) << bad << "\n" << r.out;
    EXPECT_TRUE(Has(r, "is not a finite number")) << bad << "\n" << r.out;
    EXPECT_FALSE(Has(r, "ExposureTime = ")) << bad << "\n" << r.out;
  }
  Result ok = Kivcam("set first ExposureTime=2.5e3");
  EXPECT_EQ(ok.code, 0) << ok.out;
  EXPECT_TRUE(Has(ok, "ExposureTime = 2500 us")) << ok.out;
}

TEST(Cli, CategoriesAndCommandsAreNamedAsSuch) {
  Result cat = Kivcam("get first DeviceControl");
  EXPECT_EQ(cat.code, 1);
  EXPECT_TRUE(Has(cat, "DeviceControl is a category, not a value; its features: DeviceVendorName, ")) << cat.out;
  EXPECT_FALSE(Has(cat, "DeviceControl = "));
  Result cmd = Kivcam("first set AcquisitionStart=1 get AcquisitionMode");
  EXPECT_EQ(cmd.code, 1);
  EXPECT_TRUE(Has(cmd, "AcquisitionStart is a command: run it with exec")) << cmd.out;
  EXPECT_FALSE(Has(cmd, "AcquisitionMode ="));  // the steps stop at the failure
}

TEST(Cli, RangesUnitsAndEntriesAreShown) {
  Result tree = Kivcam("features first --long");
  ASSERT_EQ(tree.code, 0) << tree.out;
  auto row = [&](const std::string& name, const std::string& rest) {
    return std::regex_search(tree.out, std::regex("\n +" + name + " +" + rest));
  };
  EXPECT_TRUE(row("ExposureTime", "Float +RW 10000 us  \\[10 \\.\\. 1000000\\] us\n")) << tree.out;
  EXPECT_TRUE(row("Width", "Integer +RW 640  \\[8 \\.\\. 1920, step 4\\]\n"));
  EXPECT_TRUE(row("PixelFormat", "Enumeration RW Mono8  \\{Mono8, Mono10Packed, [^}]*Mono16\\}\n"));
  EXPECT_TRUE(row("WidthMax", "Integer +RO 1920\n"));  // nothing to set: no range
  Result d = Kivcam("describe first PixelFormat Width");
  ASSERT_EQ(d.code, 0) << d.out;
  EXPECT_TRUE(Has(d, "PixelFormat\n  type         Enumeration\n  access       RW\n  value        Mono8\n"
                     "  entry        Mono8 = 17301505\n")) << d.out;
  EXPECT_TRUE(Has(d, "Width\n  type         Integer\n  access       RW\n  value        640\n"
                     "  range        [8 .. 1920, step 4]\n"));
}

// Settings last for the steps of one call: TriggerSoftware is available only
// while TriggerMode is On, which a second call would have forgotten.
TEST(Cli, StepsRunInOrderOnOneOpenCamera) {
  ASSERT_EQ(Kivcam("set first TriggerMode=On").code, 0);
  Result alone = Kivcam("exec first TriggerSoftware");
  EXPECT_EQ(alone.code, 1) << alone.out;
  Result steps = Kivcam("first set TriggerMode=On exec TriggerSoftware get TriggerMode Width");
  EXPECT_EQ(steps.code, 0) << steps.out;
  EXPECT_EQ(steps.out, "TriggerMode = On\nTriggerSoftware executed\nTriggerMode = On\nWidth = 640\n");
}

TEST(Cli, ShellRunsTypedStepsOnOneCameraAndKeepsGoingAfterMistakes) {
  Result r = Kivcam("shell first", "set TriggerMode=On\n\n# a comment\nbogus\nexec TriggerSoftware\nhelp\nget TriggerMode\nquit\nget Width\n");
  EXPECT_EQ(r.code, 2) << r.out;  // the worst step: a usage error
  EXPECT_TRUE(Has(r, "TriggerMode = On\n")) << r.out;
  EXPECT_TRUE(Has(r, "kivcam: unknown step 'bogus'")) << r.out;
  EXPECT_TRUE(Has(r, "Type 'help' for the steps."));
  EXPECT_TRUE(Has(r, "TriggerSoftware executed\n"));
  EXPECT_TRUE(Has(r, "reg read ADDRESS [COUNT]"));  // help
  EXPECT_FALSE(Has(r, "Width ="));                  // after quit
  EXPECT_EQ(Kivcam("shell first", "get Width\n").code, 0);
}

// Without producers beside the library: where it looked and how to point it.
TEST(Cli, ListWithoutProducersSaysWhereTheLibraryLooked) {
  char* tmp = realpath(testing::TempDir().c_str(), nullptr);
  ASSERT_NE(tmp, nullptr);
  const std::string root = std::string(tmp) + "/kivcam_noproducers_" + std::to_string(getpid());
  std::free(tmp);
  const std::string cli = std::string(KIVCAM_CLI), lib = std::string(KIVCAM_LIB);
  ASSERT_EQ(std::system(("rm -rf '" + root + "' && mkdir -p '" + root + "/bin' '" + root + "/lib' && cp '" + cli +
                         "' '" + root + "/bin/' && cp '" + lib + "' '" + root + "/lib/'").c_str()),
            0);
  Result r = RunLine("env -u LD_LIBRARY_PATH -u GENICAM_ROOT_V2_4 '" + root + "/bin/kivcam' list");
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(Has(r, "0 cameras\n")) << r.out;
  EXPECT_TRUE(Has(r, "  " + root + "/lib (the library's folder)\n")) << r.out;
  EXPECT_TRUE(Has(r, "(GENICAM_ROOT_V2_4 is not set)"));
  EXPECT_TRUE(Has(r, "KivGigEGenTL.cti: not in these folders"));
  EXPECT_TRUE(Has(r, "KivUSBGenTL.cti: not in these folders"));
  EXPECT_TRUE(Has(r, "put their folder on LD_LIBRARY_PATH or set\nGENICAM_ROOT_V2_4"));
  std::system(("rm -rf '" + root + "'").c_str());
}

}  // namespace
