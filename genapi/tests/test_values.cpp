// Value nodes: Integer and Float ranges, Boolean, Command, Enumeration,
// String, smart pointers and the exception family.
#include <gtest/gtest.h>

#include "fake_port.h"
#include "kivgenapi/GenApiCompat.h"

using namespace KivGenApi;
using kivtest::Bytes;
using kivtest::Fixture;

namespace {

// Two big-endian registers: R0 at 0, R1 at 4.
const std::string kRegs = R"(
  <IntReg Name="R0"><Address>0</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort>
    <Endianess>BigEndian</Endianess></IntReg>
  <IntReg Name="R1"><Address>4</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort>
    <Endianess>BigEndian</Endianess></IntReg>)";

TEST(Integer, RangeIncrementTableAndText) {
  Fixture f(kRegs + R"(
    <Integer Name="Max"><Value>100</Value></Integer>
    <Integer Name="I"><pValue>R0</pValue><Min>10</Min><pMax>Max</pMax><Inc>5</Inc></Integer>
    <Integer Name="Free"><Value>3</Value></Integer>
    <Integer Name="ZeroInc"><Value>3</Value><Inc>0</Inc></Integer>
    <Integer Name="Inherit"><pValue>R0</pValue></Integer>
    <Integer Name="Table"><pIndex>Free</pIndex><ValueIndexed Index="0">10</ValueIndexed>
      <pValueIndexed Index="1">R1</pValueIndexed><ValueDefault>99</ValueDefault></Integer>)");
  CIntegerPtr i(f.Node("I"));
  i->SetValue(15);
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{0, 0, 0, 15}));
  for (int64_t bad : {5, 105, 17}) EXPECT_THROW(i->SetValue(bad), OutOfRangeException) << bad;
  i->SetValue(17, false);  // no verification: goes through
  EXPECT_EQ(i->GetValue(), 17);
  EXPECT_THROW(i->GetValue(true), OutOfRangeException);
  CIntegerPtr(f.Node("Max"))->SetValue(200);
  i->SetValue(200);
  i->ImposeMax(150);
  EXPECT_EQ(i->GetMax(), 150);
  i->ImposeMax(300);  // cannot widen the node's own range
  EXPECT_EQ(i->GetMax(), 200);
  EXPECT_THROW(CIntegerPtr(f.Node("ZeroInc"))->SetValue(3), LogicalErrorException);
  EXPECT_EQ(CIntegerPtr(f.Node("Inherit"))->GetMax(), 0xFFFFFFFFll);  // the target's range
  CIntegerPtr free(f.Node("Free")), table(f.Node("Table"));
  EXPECT_EQ(free->GetMin(), INT64_MIN);
  EXPECT_THROW(free->FromString("twelve"), InvalidArgumentException);
  free->FromString("0");
  EXPECT_EQ(table->GetValue(), 10);
  free->FromString("0x1");
  f.port.PokeU32BE(4, 44);
  EXPECT_EQ(table->GetValue(), 44);
  free->SetValue(7);
  EXPECT_EQ(table->GetValue(), 99);
}

TEST(Integer, AddressRepresentationsRoundTripAsText) {
  Fixture f(R"(<Integer Name="Ip"><Value>0</Value><Representation>IPV4Address</Representation></Integer>
    <Integer Name="Mac"><Value>0</Value><Representation>MACAddress</Representation></Integer>
    <Integer Name="Hex"><Value>255</Value><Representation>HexNumber</Representation></Integer>)");
  CIntegerPtr ip(f.Node("Ip")), mac(f.Node("Mac"));
  ip->FromString("192.168.1.20");
  EXPECT_EQ(ip->GetValue(), 0xC0A80114);
  EXPECT_EQ(std::string(ip->ToString()), "192.168.1.20");
  mac->FromString("00:1b:2C:3d:4E:5f");
  EXPECT_EQ(mac->GetValue(), 0x001B2C3D4E5Fll);
  EXPECT_EQ(std::string(mac->ToString()), "00:1B:2C:3D:4E:5F");
  EXPECT_EQ(std::string(CIntegerPtr(f.Node("Hex"))->ToString()), "0xff");
  for (const char* bad : {"1.2.3", "1.2.3.256", "1.2.3.4.5", "00:11:22:33:44", "a.b.c.d"})
    EXPECT_THROW(ip->FromString(bad), InvalidArgumentException) << bad;
}

TEST(Float, MinMaxButNoIncrementCheck) {
  Fixture f(R"(<Float Name="F"><Value>1.5</Value><Min>-1</Min><Max>10.5</Max><Inc>0.5</Inc></Float>
    <Float Name="Open"><Value>0</Value></Float>)");
  CFloatPtr fl(f.Node("F"));
  fl->SetValue(0.3);  // not a multiple of Inc: floats do not check it
  EXPECT_DOUBLE_EQ(fl->GetValue(), 0.3);
  EXPECT_THROW(fl->SetValue(11), OutOfRangeException);
  EXPECT_THROW(fl->FromString("abc"), InvalidArgumentException);
  EXPECT_TRUE(fl->HasInc());
  EXPECT_FALSE(CFloatPtr(f.Node("Open"))->HasInc());
  EXPECT_GT(CFloatPtr(f.Node("Open"))->GetMax(), 1e300);
}

TEST(BooleanCommandString, ValuesOnTheDeviceAndFloating) {
  Fixture f(kRegs + R"(
    <Boolean Name="B"><pValue>R0</pValue><OnValue>0x10</OnValue><OffValue>2</OffValue></Boolean>
    <Boolean Name="FloatingB"><Value>true</Value></Boolean>
    <Command Name="C"><pValue>R1</pValue><CommandValue>0x4321</CommandValue></Command>
    <IntReg Name="W"><Address>8</Address><Length>4</Length><AccessMode>WO</AccessMode><pPort>Device</pPort></IntReg>
    <Command Name="WoCmd"><pValue>W</pValue><CommandValue>1</CommandValue></Command>
    <Command Name="FloatingC"><Value>0</Value><CommandValue>1</CommandValue></Command>
    <StringReg Name="SR"><Address>16</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></StringReg>
    <String Name="S"><pValue>SR</pValue></String>
    <String Name="FloatingS"><Value>hello</Value></String>)");
  CBooleanPtr b(f.Node("B"));
  b->SetValue(true);
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{0, 0, 0, 0x10}));
  EXPECT_TRUE(b->GetValue());
  *b = false;
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{0, 0, 0, 2}));
  f.port.PokeU32BE(0, 7);  // neither on nor off
  EXPECT_THROW(b->GetValue(false, true), LogicalErrorException);
  CBooleanPtr(f.Node("FloatingB"))->FromString("false");
  EXPECT_EQ(std::string(CBooleanPtr(f.Node("FloatingB"))->ToString()), "false");

  // IsDone reads past the cache until the device clears the value.
  CCommandPtr c(f.Node("C"));
  c->Execute();
  EXPECT_EQ(f.port.Peek(4, 4), (Bytes{0, 0, 0x43, 0x21}));
  EXPECT_FALSE(c->IsDone());
  EXPECT_EQ(std::string(c->ToString()), "1");  // busy
  f.port.PokeU32BE(4, 0);
  EXPECT_TRUE(c->IsDone());
  CCommandPtr(f.Node("WoCmd"))->Execute();
  EXPECT_TRUE(CCommandPtr(f.Node("WoCmd"))->IsDone());
  CCommandPtr fc(f.Node("FloatingC"));
  fc->FromString("1");
  EXPECT_TRUE(fc->IsDone());
  EXPECT_THROW(fc->FromString("0"), InvalidArgumentException);

  CStringPtr s(f.Node("S"));
  s->SetValue("ab");
  EXPECT_EQ(std::string(CStringPtr(f.Node("SR"))->GetValue()), "ab");
  EXPECT_EQ(s->GetMaxLength(), 4);
  EXPECT_EQ(std::string(CStringPtr(f.Node("FloatingS"))->GetValue()), "hello");
}

const std::string kEnum = kRegs + R"(
    <Integer Name="Avail"><Value>1</Value></Integer>
    <Enumeration Name="E"><pValue>R0</pValue>
      <EnumEntry Name="Mono8"><Value>0x01080001</Value></EnumEntry>
      <EnumEntry Name="Mono16"><Value>0x01100007</Value><pIsAvailable>Avail</pIsAvailable></EnumEntry>
      <EnumEntry Name="Odd"><Value>5</Value><NumericValue>2.5</NumericValue><Symbolic>OddOne</Symbolic></EnumEntry>
      <EnumEntry Name="Gone"><Value>6</Value><pIsImplemented>Zero</pIsImplemented></EnumEntry>
    </Enumeration>
    <Integer Name="Zero"><Value>0</Value></Integer>)";

TEST(Enumeration, EntriesByNameValueAndAvailability) {
  Fixture f(kEnum);
  CEnumerationPtr e(f.Node("E"));
  *e = "Mono16";
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{0x01, 0x10, 0x00, 0x07}));
  e->SetIntValue(5);
  EXPECT_EQ(std::string(e->ToString()), "OddOne");
  EXPECT_DOUBLE_EQ(e->GetCurrentEntry()->GetNumericValue(), 2.5);
  EXPECT_THROW(*e = "Nope", InvalidArgumentException);
  EXPECT_THROW(e->SetIntValue(42), InvalidArgumentException);
  EXPECT_THROW(e->FromString("Gone"), AccessException);
  EXPECT_THROW(e->SetIntValue(6, false), AccessException);
  EXPECT_EQ(e->GetEntry(42), nullptr);
  EXPECT_EQ(e->GetEntryByName("Nope"), nullptr);

  StringList_t symbolics;
  e->GetSymbolics(symbolics);
  EXPECT_EQ(symbolics.size(), 3u);
  CIntegerPtr(f.Node("Avail"))->SetValue(0);
  e->GetSymbolics(symbolics);
  EXPECT_EQ(symbolics.size(), 2u);  // Mono16 dropped once unavailable
  NodeList_t entries;
  e->GetEntries(entries);
  EXPECT_EQ(entries.size(), 4u);  // all of them
  // The current entry (Mono16 after a device change) is now unavailable.
  f.port.Poke(0, {0x01, 0x10, 0x00, 0x07});
  EXPECT_EQ(e->GetIntValue(false, true), 0x01100007);
  EXPECT_THROW(e->GetIntValue(true), AccessException);
  f.port.PokeU32BE(0, 77);
  EXPECT_THROW(e->ToString(false, true), InvalidArgumentException);
  ASSERT_NE(f.Node("EnumEntry_E_Mono8"), nullptr);
  EXPECT_THROW(CValuePtr(f.Node("EnumEntry_E_Mono8"))->FromString("x"), AccessException);
}

TEST(SmartPointersAndExceptions, WrongInterfaceMissingNodeAndMessages) {
  Fixture f(kEnum + R"(<Integer Name="Ro"><Value>1</Value><ImposedAccessMode>RO</ImposedAccessMode></Integer>)");
  CIntegerPtr wrong(f.Node("E")), missing(f.Node("Missing"));
  EXPECT_FALSE(wrong.IsValid());
  EXPECT_FALSE(IsReadable(wrong));
  EXPECT_THROW(wrong->GetValue(), LogicalErrorException);
  EXPECT_TRUE(missing == 0);
  EXPECT_THROW((void)(missing == 1), LogicalErrorException);
  EXPECT_EQ(CNodePtr(CEnumerationPtr(f.Node("E")))->GetPrincipalInterfaceType(), intfIEnumeration);
  GenApi::CIntegerPtr compat(f.Node("Avail"));  // the GenApi spellings
  EXPECT_EQ(compat->GetValue(), 1);
  try {
    CIntegerPtr(f.Node("Ro"))->SetValue(2);
    FAIL() << "no exception";
  } catch (const GenICam::AccessException& e) {
    EXPECT_NE(std::string(e.GetDescription()).find("'Ro'"), std::string::npos);
    EXPECT_NE(std::string(e.GetDescription()).find("not writable"), std::string::npos);
    EXPECT_NE(std::string(e.what()).find("AccessException"), std::string::npos);
    EXPECT_STREQ(e.GetNodeName(), "Ro");
  }
}

}  // namespace
