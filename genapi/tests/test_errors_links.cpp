// Device error reporting (pError), typed child links and events by id.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>

#include "fake_port.h"

using namespace KivGenApi;
using kivtest::Fixture;

namespace {

// One status register flags errors for every node below.
const char* kErrorNodes = R"(
  <IntReg Name="Status"><Address>0x100</Address><Length>4</Length><AccessMode>RO</AccessMode><pPort>Device</pPort>
    <Cachable>NoCache</Cachable></IntReg>
  <Enumeration Name="Err"><pValue>Status</pValue>
    <EnumEntry Name="Ok"><Value>0</Value></EnumEntry>
    <EnumEntry Name="Busy"><Value>2</Value><DisplayName>Device busy</DisplayName><Description>try later</Description></EnumEntry>
  </Enumeration>
  <IntReg Name="R"><Address>0</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><pError>Err</pError></IntReg>
  <FloatReg Name="FR"><Address>8</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><pError>Err</pError></FloatReg>
  <StringReg Name="SR"><Address>16</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><pError>Err</pError></StringReg>
  <Register Name="Raw"><Address>20</Address><Length>2</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><pError>Err</pError></Register>
  <Integer Name="I"><pValue>R</pValue><pError>Err</pError></Integer>
  <Float Name="F"><pValue>FR</pValue><pError>Err</pError></Float>
  <Boolean Name="B"><pValue>R</pValue><pError>Err</pError></Boolean>
  <Enumeration Name="E"><pValue>R</pValue><pError>Err</pError><EnumEntry Name="Zero"><Value>0</Value></EnumEntry></Enumeration>
  <String Name="S"><pValue>SR</pValue><pError>Err</pError></String>
  <Command Name="C"><pValue>R</pValue><CommandValue>1</CommandValue><pError>Err</pError></Command>
  <IntSwissKnife Name="K"><pVariable Name="X">R</pVariable><Formula>X+1</Formula><pError>Err</pError></IntSwissKnife>
  <Converter Name="Cv"><pValue>R</pValue><FormulaTo>FROM</FormulaTo><FormulaFrom>TO</FormulaFrom><pError>Err</pError></Converter>
)";

TEST(DeviceErrors, VerifiedReadsOfEveryValueKindCheckTheErrorNode) {
  Fixture f(kErrorNodes);
  f.port.PokeU32LE(0x100, 2);
  uint8_t raw[2];
  // Plain reads do not look at the error register.
  f.port.Clear();
  EXPECT_EQ(CIntegerPtr(f.Node("I"))->GetValue(), 0);
  EXPECT_NO_THROW(CBooleanPtr(f.Node("B"))->GetValue());
  EXPECT_NO_THROW(CRegisterPtr(f.Node("Raw"))->Get(raw, 2));
  for (const auto& a : f.port.log) EXPECT_NE(a.address, 0x100);

  std::vector<std::pair<const char*, std::function<void()>>> verified = {
      {"R", [&] { CIntegerPtr(f.Node("R"))->GetValue(true); }},
      {"FR", [&] { CFloatPtr(f.Node("FR"))->GetValue(true); }},
      {"SR", [&] { CStringPtr(f.Node("SR"))->GetValue(true); }},
      {"Raw", [&] { CRegisterPtr(f.Node("Raw"))->Get(raw, 2, true); }},
      {"I", [&] { CIntegerPtr(f.Node("I"))->GetValue(true); }},
      {"F", [&] { CFloatPtr(f.Node("F"))->GetValue(true); }},
      {"B", [&] { CBooleanPtr(f.Node("B"))->GetValue(true); }},
      {"E", [&] { CEnumerationPtr(f.Node("E"))->GetIntValue(true); }},
      {"S", [&] { CStringPtr(f.Node("S"))->GetValue(true); }},
      {"K", [&] { CIntegerPtr(f.Node("K"))->GetValue(true); }},
      {"Cv", [&] { CFloatPtr(f.Node("Cv"))->GetValue(true); }},
  };
  for (auto& v : verified) {
    try {
      v.second();
      ADD_FAILURE() << v.first << ": no exception";
    } catch (const InvalidArgumentException& e) {
      EXPECT_NE(std::string(e.GetDescription()).find("Device busy: try later"), std::string::npos) << v.first;
    }
  }
  f.port.PokeU32LE(0x100, 0);
  for (auto& v : verified) EXPECT_NO_THROW(v.second()) << v.first;
}

TEST(DeviceErrors, WritesOfCommandsStringsAndRegistersCheckTheErrorNode) {
  Fixture f(kErrorNodes);
  f.port.PokeU32LE(0x100, 2);
  const uint8_t raw[2] = {1, 2};
  EXPECT_THROW(CCommandPtr(f.Node("C"))->Execute(), InvalidArgumentException);
  EXPECT_THROW(CStringPtr(f.Node("S"))->SetValue("ab"), InvalidArgumentException);
  EXPECT_THROW(CStringPtr(f.Node("SR"))->SetValue("ab"), InvalidArgumentException);
  EXPECT_THROW(CRegisterPtr(f.Node("Raw"))->Set(raw, 2), InvalidArgumentException);
  // The write itself reached the device before the error was read back.
  EXPECT_EQ(f.port.Peek(20, 2), (kivtest::Bytes{1, 2}));
  f.port.PokeU32LE(0x100, 5);  // a code without an entry still fails
  EXPECT_THROW(CIntegerPtr(f.Node("I"))->SetValue(3), InvalidArgumentException);
}

std::set<std::string> Names(INode* n, ELinkType type) {
  NodeList_t list;
  n->GetChildren(list, type);
  std::set<std::string> out;
  for (INode* c : list) EXPECT_TRUE(out.insert(std::string(c->GetName())).second) << "duplicate " << c->GetName();
  return out;
}

TEST(Links, ChildrenByLinkType) {
  using S = std::set<std::string>;
  Fixture f(R"(
    <Integer Name="Base"><Value>0</Value></Integer>
    <Integer Name="Avail"><Value>1</Value></Integer>
    <Integer Name="Other"><Value>0</Value></Integer>
    <Integer Name="MinN"><Value>0</Value></Integer>
    <Integer Name="V"><Value>2</Value></Integer>
    <IntReg Name="R"><pAddress>Base</pAddress><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort>
      <pInvalidator>Other</pInvalidator><pIsAvailable>Avail</pIsAvailable></IntReg>
    <IntReg Name="R2"><Address>8</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></IntReg>
    <Integer Name="I"><pValue>R</pValue><pValueCopy>R2</pValueCopy><pMin>MinN</pMin></Integer>
    <Converter Name="Cv"><pVariable Name="G">V</pVariable><FormulaTo>FROM*G</FormulaTo><FormulaFrom>TO/G</FormulaFrom>
      <pValue>I</pValue></Converter>
    <IntSwissKnife Name="K"><pVariable Name="X">I</pVariable><Formula>X+1</Formula></IntSwissKnife>)");
  INode* i = f.Node("I");
  EXPECT_EQ(Names(i, ctReadingChildren), (S{"R", "MinN"}));
  EXPECT_EQ(Names(i, ctWritingChildren), (S{"R", "R2"}));
  EXPECT_EQ(Names(i, ctValueChangingChildren), (S{"R"}));
  EXPECT_EQ(Names(i, ctTerminalNodes), (S{"R", "R2"}));
  EXPECT_EQ(Names(i, ctDependingNodes), (S{"Cv", "K"}));
  EXPECT_EQ(Names(i, ctParentNodes), (S{"Cv", "K"}));
  NodeList_t def;
  i->GetChildren(def);
  EXPECT_EQ(def.size(), 2u) << "reading children by default";

  INode* cv = f.Node("Cv");
  EXPECT_EQ(Names(cv, ctReadingChildren), (S{"I", "V"}));
  EXPECT_EQ(Names(cv, ctWritingChildren), (S{"I"}));
  EXPECT_EQ(Names(cv, ctValueChangingChildren), (S{"I", "V"}));
  EXPECT_EQ(Names(cv, ctTerminalNodes), (S{"R", "R2"}));

  INode* r = f.Node("R");
  EXPECT_EQ(Names(r, ctReadingChildren), (S{"Base", "Avail", "Device"}));
  EXPECT_EQ(Names(r, ctWritingChildren), (S{"Device"}));
  EXPECT_EQ(Names(r, ctValueChangingChildren), (S{"Base", "Device"}));
  EXPECT_EQ(Names(r, ctInvalidatingChildren), (S{"Other"}));
  EXPECT_EQ(Names(r, ctTerminalNodes), (S{"R"}));
  EXPECT_EQ(Names(r, ctParentNodes), (S{"I"}));
  EXPECT_EQ(Names(f.Node("Other"), ctDependingNodes), (S{"R"}));
  EXPECT_EQ(Names(f.Node("Base"), ctDependingNodes), (S{"R"}));

  EXPECT_EQ(Names(f.Node("K"), ctTerminalNodes), (S{"K"}));  // read-only: nothing written below
  EXPECT_EQ(Names(f.Node("K"), ctWritingChildren), S{});
  EXPECT_EQ(Names(f.Node("V"), ctTerminalNodes), (S{"V"}));
  EXPECT_EQ(Names(f.Node("V"), ctReadingChildren), S{});
}

TEST(Events, AnEventIdInvalidatesItsNodesAndTheirDependentsAndFiresCallbacks) {
  Fixture f(R"(
    <IntReg Name="TsReg"><Address>0x200</Address><Length>4</Length><AccessMode>RO</AccessMode><pPort>Device</pPort></IntReg>
    <Integer Name="EventTestTimestamp"><pValue>TsReg</pValue><EventID>9006</EventID></Integer>
    <IntSwissKnife Name="Doubled"><pVariable Name="T">EventTestTimestamp</pVariable><Formula>T*2</Formula></IntSwissKnife>
    <IntReg Name="Other"><Address>0x300</Address><Length>4</Length><AccessMode>RO</AccessMode><pPort>Device</pPort>
      <EventID>0x9007</EventID></IntReg>)");
  CIntegerPtr ts(f.Node("EventTestTimestamp")), doubled(f.Node("Doubled")), other(f.Node("Other"));
  f.port.PokeU32LE(0x200, 5);
  EXPECT_EQ(doubled->GetValue(), 10);
  EXPECT_EQ(other->GetValue(), 0);
  std::vector<std::string> fired;
  auto record = [&](INode* n) { fired.push_back(std::string(n->GetName())); };
  ts->GetNode()->RegisterCallback(record);
  doubled->GetNode()->RegisterCallback(record);
  other->GetNode()->RegisterCallback(record);

  f.port.PokeU32LE(0x200, 7);
  f.port.PokeU32LE(0x300, 1);
  f.port.Clear();
  EXPECT_EQ(ts->GetValue(), 5);  // cached until the event says otherwise
  EXPECT_EQ(f.port.Reads(), 0u);

  EXPECT_FALSE(f.map._InvalidateByEventID(0x1234));
  EXPECT_TRUE(fired.empty());
  EXPECT_TRUE(f.map._InvalidateByEventID(0x9006));
  EXPECT_EQ(std::set<std::string>(fired.begin(), fired.end()),
            (std::set<std::string>{"EventTestTimestamp", "Doubled"}));
  EXPECT_EQ(doubled->GetValue(), 14);
  EXPECT_EQ(ts->GetValue(), 7);
  EXPECT_EQ(f.port.Reads(), 1u);  // one fresh register read serves both
  EXPECT_EQ(other->GetValue(), 0);  // not this event's node

  fired.clear();
  CEventAdapter adapter;
  EXPECT_FALSE(adapter.DeliverEvent(0x9007));  // nothing attached
  adapter.AttachNodeMap(f.map._Ptr);
  EXPECT_TRUE(adapter.DeliverEvent(0x9007));
  EXPECT_EQ(fired, (std::vector<std::string>{"Other"}));
  EXPECT_EQ(other->GetValue(), 1);
  adapter.DetachNodeMap();
  EXPECT_FALSE(adapter.DeliverEvent(0x9007));
}

}  // namespace
