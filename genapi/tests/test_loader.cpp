// Loading: real descriptions of several makers, malformed input, injection.
#include <gtest/gtest.h>

#include <fstream>
#include <pugixml.hpp>
#include <set>
#include <sstream>
#include <zip.h>
#include <unistd.h>

#include "fake_port.h"

using namespace KivGenApi;
using kivtest::Describe;
using kivtest::FakePort;

namespace {

// Reads every node through its interface; errors are fine, crashes and
// foreign exception types are not.
size_t TouchEveryNode(CNodeMapRef& map) {
  NodeList_t nodes;
  map._GetNodes(nodes);
  size_t readable = 0;
  for (INode* n : nodes) {
    try {
      if (!IsReadable(n)) continue;
      CValuePtr v(n);
      if (v.IsValid()) {
        (void)v->ToString();
        ++readable;
      }
    } catch (const GenericException&) {
    }
  }
  return readable;
}

class RealDescriptions : public ::testing::TestWithParam<const char*> {};

// A register image of seeded random bytes: whatever a device may hold.
class RandomImagePort : public IPort {
 public:
  explicit RandomImagePort(uint64_t seed) : seed_(seed) {}
  EAccessMode GetAccessMode() const override { return RW; }
  void Read(void* buf, int64_t address, int64_t length) override {
    auto* p = static_cast<uint8_t*>(buf);
    for (int64_t i = 0; i < length; ++i) {
      uint64_t x = (static_cast<uint64_t>(address + i) + seed_ * 0x9E3779B97F4A7C15ull) * 0xBF58476D1CE4E5B9ull;
      p[i] = static_cast<uint8_t>((x ^ (x >> 31)) >> 24);
    }
  }
  void Write(const void*, int64_t, int64_t) override { throw std::runtime_error("the image is read-only"); }

 private:
  uint64_t seed_;
};

// Every named node of the document (nested ones included, Extension
// contents excluded) under the name the map gives it.
void NamedNodes(const pugi::xml_node& parent, const std::string& enumeration, std::vector<std::string>& out) {
  static const std::set<std::string> kTypes = {
      "Node", "Category", "Integer", "IntReg", "MaskedIntReg", "StructEntry", "Float", "FloatReg", "Boolean",
      "Command", "Enumeration", "EnumEntry", "String", "StringReg", "Register", "Converter", "IntConverter",
      "SwissKnife", "IntSwissKnife", "Port", "ConfRom", "TextDesc", "IntKey", "AdvFeatureLock", "SmartFeature"};
  for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling()) {
    if (c.type() != pugi::node_element) continue;
    std::string tag = c.name();
    tag = tag.substr(tag.find(':') + 1);
    if (tag == "Extension") continue;
    std::string name = c.attribute("Name").value();
    if (kTypes.count(tag) && !name.empty())
      out.push_back(tag == "EnumEntry" && !enumeration.empty() ? "EnumEntry_" + enumeration + "_" + name : name);
    NamedNodes(c, tag == "Enumeration" ? name : std::string(), out);
  }
}

// Every node is present and reads over a zero-filled device, again after a
// global invalidation (dependencies between cached nodes survive it), and
// over random register images. There no formula fails and no port error
// escapes: the only errors are access errors and the value errors of
// enumerations (a value no entry has) and booleans (neither OnValue nor
// OffValue).
TEST_P(RealDescriptions, EveryNodeIsPresentAndReadsOverZeroAndRandomImages) {
  std::string path = std::string(KIVGENAPI_TESTDATA) + "/" + GetParam();
  pugi::xml_document doc;
  if (!doc.load_file(path.c_str())) GTEST_SKIP() << "testdata folder missing: " << path;
  std::vector<std::string> names;
  NamedNodes(doc.document_element(), "", names);
  CNodeMapRef map;
  ASSERT_NO_THROW(map._LoadXMLFromFile(path));
  for (const auto& n : names) EXPECT_NE(map._GetNode(n.c_str()), nullptr) << n;
  NodeList_t nodes;
  map._GetNodes(nodes);
  EXPECT_GT(nodes.size(), 10u);
  FakePort zeros;
  EXPECT_TRUE(map._Connect(&zeros, "Device") || map._GetNode("Device") == nullptr);
  EXPECT_GT(TouchEveryNode(map), 0u);
  map._InvalidateNodes();
  EXPECT_GT(TouchEveryNode(map), 0u);
  int failures = 0;
  size_t reads = 0;
  for (uint64_t seed = 1; seed <= 6 && failures < 10; ++seed) {
    RandomImagePort port(seed);
    map._Connect(&port, "Device");
    for (INode* n : nodes) {
      const EInterfaceType type = n->GetPrincipalInterfaceType();
      try {
        if (!IsReadable(n)) continue;
        if (CIntegerPtr i = n) {
          i->GetMin(), i->GetMax();
        } else if (CFloatPtr f = n) {
          f->GetMin(), f->GetMax();
        }
        if (CValuePtr v = n) v->ToString();
        ++reads;
      } catch (const AccessException&) {
      } catch (const InvalidArgumentException&) {
        if (type != intfIEnumeration && ++failures)
          ADD_FAILURE() << GetParam() << " seed " << seed << ": " << n->GetName() << ": InvalidArgumentException";
      } catch (const LogicalErrorException& e) {
        if (type != intfIBoolean && ++failures)
          ADD_FAILURE() << GetParam() << " seed " << seed << ": " << n->GetName() << ": " << e.GetDescription();
      } catch (const GenericException& e) {
        ++failures;
        ADD_FAILURE() << GetParam() << " seed " << seed << ": " << n->GetName() << ": " << e.what();
      } catch (const std::exception& e) {
        ++failures;
        ADD_FAILURE() << GetParam() << " seed " << seed << ": " << n->GetName() << ": " << e.what();
      }
    }
  }
  EXPECT_GT(reads, nodes.size());  // most nodes read, not merely skipped
}

INSTANTIATE_TEST_SUITE_P(Makers, RealDescriptions,
                         ::testing::Values("aravis-fake-camera.xml", "aravis-testsuite.xml", "pgr-flea3-ge-28s4c.xml",
                                           "flir-blackflys-u3-161s7m.xml", "mikrotron-cxp-mc206x.xml"));

TEST(Loader, RejectsMalformedDocuments) {
  const char* bad[] = {
      "",
      "<RegisterDescription>",
      "<Other/>",
      "<RegisterDescription><Integer><Value>1</Value></Integer></RegisterDescription>",  // no Name
      "<RegisterDescription><Integer Name=\"A\"><Value>x</Value></Integer></RegisterDescription>",
      "<RegisterDescription><Integer Name=\"A\"/><Integer Name=\"A\"/></RegisterDescription>",
      "<RegisterDescription><Boolean Name=\"B\"><Value>0</Value><OnValue>3</OnValue><OffValue>3</OffValue>"
      "</Boolean></RegisterDescription>",
      "<RegisterDescription><IntReg Name=\"R\"><Address>0</Address><Length>9</Length><pPort>D</pPort></IntReg>"
      "</RegisterDescription>",
      "<RegisterDescription><MaskedIntReg Name=\"R\"><Address>0</Address><Length>2</Length><pPort>D</pPort>"
      "<Bit>16</Bit></MaskedIntReg></RegisterDescription>",
  };
  for (const char* xml : bad) {
    CNodeMapRef map;
    EXPECT_THROW(map._LoadXMLFromString(xml), RuntimeException) << xml;
    EXPECT_EQ(map._Ptr, nullptr);
  }
  // Nested address knives a thousand levels deep.
  std::string deep;
  for (int i = 0; i < 1000; ++i) deep += "<IntSwissKnife Name=\"K" + std::to_string(i) + "\">";
  for (int i = 0; i < 1000; ++i) deep += "</IntSwissKnife>";
  CNodeMapRef map;
  EXPECT_THROW(map._LoadXMLFromString(Describe(deep)), RuntimeException);
}

TEST(Loader, SecondLoadAndUnloadedReferenceAreErrors) {
  CNodeMapRef map;
  EXPECT_THROW(map._GetNode("X"), AccessException);
  map._LoadXMLFromString(Describe("<Integer Name=\"A\"><Value>1</Value></Integer>"));
  EXPECT_THROW(map._LoadXMLFromString(Describe("")), RuntimeException);
  EXPECT_EQ(map._GetNode("Missing"), nullptr);
  FakePort port;
  EXPECT_FALSE(map._Connect(&port, "NoSuchPort"));
  EXPECT_FALSE(map._Connect(&port, "A"));  // not a port
  EXPECT_TRUE(map._Connect(&port));
}

TEST(Loader, GroupsStructsAndExtensionsAreFlattened) {
  kivtest::Fixture f(R"(
    <Group Comment="outer"><Group Comment="inner">
      <Integer Name="Deep"><Value>5</Value><Extension><Integer Name="Hidden"/></Extension></Integer>
    </Group></Group>
    <StructReg Comment="s">
      <Address>0x10</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort>
      <Endianess>BigEndian</Endianess>
      <StructEntry Name="Hi"><LSB>15</LSB><MSB>0</MSB></StructEntry>
      <StructEntry Name="Lo"><LSB>31</LSB><MSB>16</MSB><AccessMode>RO</AccessMode></StructEntry>
    </StructReg>)");
  EXPECT_EQ(CIntegerPtr(f.Node("Deep"))->GetValue(), 5);
  EXPECT_EQ(f.Node("Hidden"), nullptr);
  f.port.PokeU32BE(0x10, 0x12345678);
  EXPECT_EQ(CIntegerPtr(f.Node("Hi"))->GetValue(), 0x1234);
  EXPECT_EQ(CIntegerPtr(f.Node("Lo"))->GetValue(), 0x5678);
  EXPECT_EQ(f.Node("Hi")->GetAccessMode(), RW);
  EXPECT_EQ(f.Node("Lo")->GetAccessMode(), RO);  // the entry's own element wins
}

TEST(Loader, DanglingReferencesAndCyclesLoadAndFailOnUse) {
  kivtest::Fixture f(R"(
    <Integer Name="A"><pValue>Nowhere</pValue></Integer>
    <IntSwissKnife Name="K"><pVariable Name="X">Gone</pVariable><Formula>X+1</Formula></IntSwissKnife>
    <Category Name="Root"><pFeature>A</pFeature><pFeature>Missing</pFeature></Category>
    <Integer Name="CycleA"><pValue>CycleB</pValue></Integer>
    <Integer Name="CycleB"><pValue>CycleA</pValue></Integer>
    <IntSwissKnife Name="Self"><pVariable Name="X">Self</pVariable><Formula>X+1</Formula></IntSwissKnife>
    <Integer Name="C"><Value>1</Value><pIsAvailable>D</pIsAvailable></Integer>
    <Integer Name="D"><Value>1</Value><pIsAvailable>C</pIsAvailable></Integer>)");
  EXPECT_EQ(f.Node("A")->GetAccessMode(), NA);
  EXPECT_THROW(CIntegerPtr(f.Node("A"))->GetValue(), AccessException);
  EXPECT_EQ(f.Node("K")->GetAccessMode(), NA);
  FeatureList_t features;
  CCategoryPtr(f.Node("Root"))->GetFeatures(features);
  EXPECT_EQ(features.size(), 1u);
  for (const char* n : {"CycleA", "Self", "C"})
    EXPECT_THROW(CIntegerPtr(f.Node(n))->GetValue(), GenericException) << n << " evaluated through a cycle";
}

// Writes `xml` as the only entry of a ZIP file and returns the file's bytes.
std::string Zip(const std::string& xml, const std::string& path) {
  zipFile z = zipOpen(path.c_str(), APPEND_STATUS_CREATE);
  EXPECT_NE(z, nullptr);
  EXPECT_EQ(zipOpenNewFileInZip(z, "camera.xml", nullptr, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                                Z_DEFAULT_COMPRESSION), ZIP_OK);
  zipWriteInFileInZip(z, xml.data(), static_cast<unsigned>(xml.size()));
  zipCloseFileInZip(z);
  zipClose(z, nullptr);
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

TEST(Loader, VeryLongReferenceChainsFailCleanly) {
  // 20000 integers, each reading the next and invalidated by the previous.
  const int n = 20000;
  std::string nodes;
  for (int i = 0; i < n; ++i) {
    std::string me = "N" + std::to_string(i), next = "N" + std::to_string(i + 1);
    nodes += "<Integer Name=\"" + me + "\">" +
             (i + 1 < n ? "<pValue>" + next + "</pValue>" : std::string("<Value>7</Value>")) +
             (i > 0 ? "<pInvalidator>N" + std::to_string(i - 1) + "</pInvalidator>" : std::string()) + "</Integer>";
  }
  kivtest::Fixture f(nodes);
  EXPECT_EQ(CIntegerPtr(f.Node("N19990"))->GetValue(), 7);
  EXPECT_THROW(CIntegerPtr(f.Node("N0"))->GetValue(), GenericException);  // too deep: not available
  f.Node("N0")->InvalidateNode();  // walks all 20000 dependents without recursion
  CIntegerPtr(f.Node("N19999"))->SetValue(8);
  EXPECT_EQ(CIntegerPtr(f.Node("N19990"))->GetValue(), 8);
}

TEST(Loader, ZipDescriptionsInMemoryAndOnDiskAndBrokenInput) {
  std::string path = ::testing::TempDir() + "kivgenapi_" + std::to_string(getpid()) + ".zip";
  std::string zip = Zip(Describe("<Integer Name=\"Z\"><Value>42</Value></Integer>"), path);
  for (bool from_file : {false, true}) {
    CNodeMapRef map;
    if (from_file) map._LoadXMLFromZIPFile(path);
    else map._LoadXMLFromZIPData(zip.data(), zip.size());
    EXPECT_EQ(CIntegerPtr(map._GetNode("Z"))->GetValue(), 42);
  }
  std::remove(path.c_str());
  CNodeMapRef map;
  const char junk[] = "PK\3\4 this is not really an archive";
  EXPECT_THROW(map._LoadXMLFromZIPData(zip.data(), zip.size() / 2), RuntimeException);
  EXPECT_THROW(map._LoadXMLFromZIPData(junk, sizeof junk), RuntimeException);
  EXPECT_THROW(map._LoadXMLFromFile("/nonexistent/file.xml"), RuntimeException);
  EXPECT_EQ(map._Ptr, nullptr);
}

TEST(Loader, OldStyleEntryReferencesAndSwappedPorts) {
  CNodeMapRef map;
  map._LoadXMLFromString(Describe(R"(
    <Port Name="Swapped"><SwapEndianess>Yes</SwapEndianess></Port>
    <EnumEntry Name="Slow"><Value>1</Value></EnumEntry>
    <EnumEntry Name="Fast"><Value>2</Value></EnumEntry>
    <Enumeration Name="Speed"><pEnumEntry>Slow</pEnumEntry><pEnumEntry>Fast</pEnumEntry><pValue>R</pValue></Enumeration>
    <IntReg Name="R"><Address>0</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Swapped</pPort>
      <Endianess>BigEndian</Endianess></IntReg>)", false));
  FakePort port;
  ASSERT_TRUE(map._Connect(&port, "Swapped"));
  CEnumerationPtr speed(map._GetNode("Speed"));
  *speed = "Fast";
  // A big-endian 2 seen through a quadlet-swapping port lands little-endian.
  EXPECT_EQ(port.Peek(0, 4), (std::vector<uint8_t>{2, 0, 0, 0}));
  EXPECT_EQ(std::string(speed->ToString(false, true)), "Fast");
}

// --- injection

TEST(Inject, AddsNodesExtendsCategoriesAndReplacesEnumerationsWithTheirEntries) {
  std::string a = Describe(R"(
    <Category Name="Root"><pFeature>Width</pFeature></Category>
    <Integer Name="Width"><Value>640</Value></Integer>
    <Enumeration Name="E"><EnumEntry Name="A"><Value>0</Value></EnumEntry><Value>0</Value></Enumeration>)");
  std::string b = Describe(R"(
    <Category Name="Root"><pFeature>Width</pFeature><pFeature>Extra</pFeature></Category>
    <Integer Name="Extra"><Value>7</Value></Integer>
    <Enumeration Name="E" MergePriority="1"><EnumEntry Name="A"><Value>0</Value></EnumEntry>
      <EnumEntry Name="B"><Value>1</Value></EnumEntry><Value>1</Value></Enumeration>)", false);
  CNodeMapRef map;
  map._LoadXMLFromStringInject(a, b);
  FeatureList_t features;
  CCategoryPtr(map._GetNode("Root"))->GetFeatures(features);
  ASSERT_EQ(features.size(), 2u);  // Width not repeated
  EXPECT_EQ(CIntegerPtr(map._GetNode("Extra"))->GetValue(), 7);
  EXPECT_TRUE(map._GetNode("Extra")->IsFeature());
  EXPECT_EQ(CEnumerationPtr(map._GetNode("E"))->ToString(), "B");
}

TEST(Inject, MergePriorityDecidesWhoWins) {
  std::string a = Describe("<Integer Name=\"W\"><Value>1</Value></Integer>");
  const struct {
    const char* attr;
    int64_t want;  // 0: a conflict
  } cases[] = {{" MergePriority=\"1\"", 2}, {" MergePriority=\"-1\"", 1}, {" MergePriority=\"0\"", 0}, {"", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.attr);
    std::string b = Describe(std::string("<Integer Name=\"W\"") + c.attr + "><Value>2</Value></Integer>", false);
    CNodeMapRef map;
    if (!c.want) {
      EXPECT_THROW(map._LoadXMLFromStringInject(a, b), RuntimeException);
      continue;
    }
    map._LoadXMLFromStringInject(a, b);
    EXPECT_EQ(CIntegerPtr(map._GetNode("W"))->GetValue(), c.want);
  }
}

}  // namespace
