// The node-map engine on the virtual cameras' own description, with a port
// that goes to the producer's registers: every feature the library relies on
// must evaluate, and writes must reach the device.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <set>

#include "gentl_api.h"
#include "kivgenapi/KivGenApi.h"

namespace {

namespace ga = KivGenApi;

// The device's remote register space as the engine sees it.
class ProducerPort : public ga::IPort {
 public:
  ProducerPort(Producer& p, PORT_HANDLE port) : p_(p), port_(port) {}
  ga::EAccessMode GetAccessMode() const override { return ga::RW; }
  void Read(void* buffer, int64_t address, int64_t length) override {
    size_t n = static_cast<size_t>(length);
    if (p_.GCReadPort(port_, static_cast<uint64_t>(address), buffer, &n) != GC_ERR_SUCCESS) {
      throw ga::AccessException("read failed: " + p_.LastError());
    }
  }
  void Write(const void* buffer, int64_t address, int64_t length) override {
    size_t n = static_cast<size_t>(length);
    if (p_.GCWritePort(port_, static_cast<uint64_t>(address), buffer, &n) != GC_ERR_SUCCESS) {
      throw ga::AccessException("write failed: " + p_.LastError());
    }
  }

 private:
  Producer& p_;
  PORT_HANDLE port_;
};

class VirtualDescription : public ProducerTest, public ::testing::WithParamInterface<bool> {
 protected:
  VirtualDescription() : ProducerTest(GetParam()) {}

  // The plain-text description of the camera behind `port` (its .xml URL).
  std::string Description(PORT_HANDLE port) {
    uint32_t count = 0;
    EXPECT_EQ(p.GCGetNumPortURLs(port, &count), GC_ERR_SUCCESS);
    for (uint32_t i = 0; i < count; ++i) {
      char url[512] = {};
      size_t n = sizeof url;
      INFO_DATATYPE t;
      p.GCGetPortURLInfo(port, i, URL_INFO_URL, &t, url, &n);
      std::string u = url;  // Local:<file>;<hex address>;<hex length>
      size_t s1 = u.find(';'), s2 = u.find(';', s1 + 1);
      if (s1 == std::string::npos || s2 == std::string::npos) continue;
      std::string file = u.substr(6, s1 - 6);
      if (file.size() < 4 || file.substr(file.size() - 4) != ".xml") continue;
      uint64_t addr = std::strtoull(u.substr(s1 + 1, s2 - s1 - 1).c_str(), nullptr, 16);
      uint64_t len = std::strtoull(u.substr(s2 + 1).c_str(), nullptr, 16);
      std::string text((len + 3) / 4 * 4, '\0');
      size_t got = text.size();
      EXPECT_EQ(p.GCReadPort(port, addr, text.data(), &got), GC_ERR_SUCCESS);
      text.resize(len);
      return text;
    }
    ADD_FAILURE() << "no plain description URL";
    return {};
  }
};

TEST_P(VirtualDescription, EveryFeatureEvaluatesOverTheDevicePort) {
  DEV_HANDLE dev = Open(0);
  ASSERT_NE(dev, nullptr);
  PORT_HANDLE port = Port(dev);
  std::string xml = Description(port);
  ASSERT_FALSE(xml.empty());

  ga::CNodeMapRef map;
  ASSERT_NO_THROW(map._LoadXMLFromString(xml.c_str()));
  ProducerPort remote(p, port);
  ASSERT_TRUE(map._Connect(&remote, "Device"));

  // The features the library binds and configures.
  for (const char* name : {"Width", "Height", "PixelFormat", "PayloadSize", "TLParamsLocked",
                           "AcquisitionStart", "AcquisitionStop"}) {
    ga::INode* n = map._GetNode(name);
    ASSERT_NE(n, nullptr) << name;
    EXPECT_TRUE(ga::IsImplemented(n->GetAccessMode())) << name;
  }

  // Every readable value evaluates without an error.
  ga::NodeList_t nodes;
  map._GetNodes(nodes);
  int read = 0;
  for (ga::INode* n : nodes) {
    auto* v = dynamic_cast<ga::IValue*>(n);
    ga::EInterfaceType type = n->GetPrincipalInterfaceType();
    if (!v || type == ga::intfICommand || type == ga::intfICategory || type == ga::intfIPort)
      continue;
    if (!ga::IsReadable(n->GetAccessMode())) continue;
    EXPECT_NO_THROW(v->ToString()) << n->GetName();
    ++read;
  }
  EXPECT_GT(read, 30);

  // Identity strings come from the device's string registers.
  char model[256] = {};
  size_t size = sizeof model;
  INFO_DATATYPE t;
  ASSERT_EQ(p.DevGetInfo(dev, DEVICE_INFO_MODEL, &t, model, &size), GC_ERR_SUCCESS);
  ga::CStringPtr model_node = map._GetNode("DeviceModelName");
  ASSERT_TRUE(model_node.IsValid());
  EXPECT_EQ(std::string(model_node->GetValue().c_str()), std::string(model));

  // Writes reach the device: a new width changes the payload size.
  ga::CIntegerPtr width = map._GetNode("Width");
  ga::CIntegerPtr payload = map._GetNode("PayloadSize");
  ASSERT_TRUE(width.IsValid() && payload.IsValid());
  int64_t w0 = width->GetValue(), p0 = payload->GetValue();
  int64_t w1 = width->GetMin() + width->GetInc();
  ASSERT_NE(w1, w0);
  width->SetValue(w1);
  EXPECT_EQ(width->GetValue(false, true), w1);
  EXPECT_EQ(payload->GetValue(false, true) * w0, p0 * w1);

  // Every pixel format the camera offers can be selected and read back.
  ga::CEnumerationPtr format = map._GetNode("PixelFormat");
  ASSERT_TRUE(format.IsValid());
  ga::StringList_t symbols;
  format->GetSymbolics(symbols);
  ASSERT_FALSE(symbols.empty());
  for (const auto& s : symbols) {
    format->FromString(s);
    EXPECT_EQ(std::string(format->ToString(false, true).c_str()), std::string(s.c_str()));
  }
  p.DevClose(dev);
}

// The engine's debugging tool reads the same description from a file.
TEST_P(VirtualDescription, DumpToolPrintsEveryNode) {
  DEV_HANDLE dev = Open(0);
  ASSERT_NE(dev, nullptr);
  std::string xml = Description(Port(dev));
  p.DevClose(dev);
  std::string file = testing::TempDir() + "kivsim_" + std::to_string(getpid()) + ".xml";
  { std::ofstream(file) << xml; }
  // An empty memory: every node is evaluated and printed, registers as errors.
  std::string cmd = std::string(KIVSIM_LIB_DIR) + "/../bin/kivgenapi-dump --mem /dev/null '" + file + "'";
  FILE* out = popen(cmd.c_str(), "r");
  ASSERT_NE(out, nullptr);
  std::string text;
  char buf[4096];
  while (size_t n = fread(buf, 1, sizeof buf, out)) text.append(buf, n);
  int status = pclose(out);
  unlink(file.c_str());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text.substr(0, 2000);
  for (const char* name :
       {"\nWidth\tInteger\t", "\nPixelFormat\tEnumeration\t", "\nAcquisitionStart\tCommand\t"}) {
    EXPECT_NE(text.find(name), std::string::npos) << name;
  }
}

INSTANTIATE_TEST_SUITE_P(Producers, VirtualDescription, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "USB" : "GigE"; });

}  // namespace
