// Value nodes: Integer and Float ranges, Boolean, Command, Enumeration,
// String, smart pointers and the exception family.
#include <gtest/gtest.h>

#include "fake_port.h"
#include "kivgenapi/GenApiCompat.h"

using namespace KivGenApi;
using kivtest::Fixture;

namespace {

const char* kReg = R"(<IntReg Name="R%"><Address>0x%</Address><Length>4</Length><AccessMode>RW</AccessMode>
  <pPort>Device</pPort><Endianess>BigEndian</Endianess></IntReg>)";

std::string RegAt(const char* suffix, const char* hex) {
  std::string s = kReg;
  s.replace(s.find('%'), 1, suffix);
  s.replace(s.find('%'), 1, hex);
  return s;
}

TEST(Integer, RangeAndIncrementChecksOnVerifiedWrites) {
  Fixture f(RegAt("0", "0") + R"(
    <Integer Name="Max"><Value>100</Value></Integer>
    <Integer Name="I"><pValue>R0</pValue><Min>10</Min><pMax>Max</pMax><Inc>5</Inc><Unit>px</Unit></Integer>
    <Integer Name="Free"><Value>3</Value></Integer>
    <Integer Name="ZeroInc"><Value>3</Value><Inc>0</Inc></Integer>
    <Integer Name="Inherit"><pValue>R0</pValue></Integer>)");
  CIntegerPtr i(f.Node("I"));
  i->SetValue(15);
  EXPECT_EQ(f.port.Peek(0, 4), (std::vector<uint8_t>{0, 0, 0, 15}));
  EXPECT_THROW(i->SetValue(5), OutOfRangeException);
  EXPECT_THROW(i->SetValue(105), OutOfRangeException);
  EXPECT_THROW(i->SetValue(17), OutOfRangeException);
  i->SetValue(17, false);  // no verification: goes through
  EXPECT_EQ(i->GetValue(), 17);
  EXPECT_THROW(i->GetValue(true), OutOfRangeException);
  CIntegerPtr(f.Node("Max"))->SetValue(200);
  EXPECT_EQ(i->GetMax(), 200);
  i->SetValue(200);
  EXPECT_EQ(std::string(i->GetUnit()), "px");
  EXPECT_THROW(CIntegerPtr(f.Node("ZeroInc"))->SetValue(3), LogicalErrorException);
  // Without Min/Max the target's range applies.
  EXPECT_EQ(CIntegerPtr(f.Node("Inherit"))->GetMax(), 0xFFFFFFFFll);
  CIntegerPtr free(f.Node("Free"));
  EXPECT_EQ(free->GetMin(), INT64_MIN);
  free->FromString("0x20");
  EXPECT_EQ(free->GetValue(), 32);
  EXPECT_THROW(free->FromString("twelve"), InvalidArgumentException);
  i->ImposeMax(150);
  EXPECT_EQ(i->GetMax(), 150);
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

TEST(Integer, IndexedTableAndValueCopies) {
  Fixture f(RegAt("0", "0") + RegAt("1", "4") + R"(
    <Integer Name="Idx"><Value>0</Value></Integer>
    <Integer Name="Table"><pIndex>Idx</pIndex><ValueIndexed Index="0">10</ValueIndexed>
      <pValueIndexed Index="1">R1</pValueIndexed><ValueDefault>99</ValueDefault></Integer>
    <Integer Name="Mirror"><pValue>R0</pValue><pValueCopy>R1</pValueCopy></Integer>)");
  CIntegerPtr t(f.Node("Table")), idx(f.Node("Idx"));
  EXPECT_EQ(t->GetValue(), 10);
  idx->SetValue(1);
  f.port.PokeU32BE(4, 44);
  EXPECT_EQ(t->GetValue(), 44);
  idx->SetValue(7);
  EXPECT_EQ(t->GetValue(), 99);
  CIntegerPtr(f.Node("Mirror"))->SetValue(5);
  EXPECT_EQ(f.port.Peek(0, 4), f.port.Peek(4, 4));
}

TEST(Float, MinMaxButNoIncrementCheck) {
  Fixture f(R"(<Float Name="F"><Value>1.5</Value><Min>-1</Min><Max>10.5</Max><Inc>0.5</Inc>
      <Unit>us</Unit><DisplayNotation>Fixed</DisplayNotation><DisplayPrecision>3</DisplayPrecision></Float>
    <Float Name="Open"><Value>0</Value></Float>)");
  CFloatPtr fl(f.Node("F"));
  EXPECT_DOUBLE_EQ(fl->GetValue(), 1.5);
  fl->SetValue(0.3);  // not a multiple of Inc: floats do not check it
  EXPECT_DOUBLE_EQ(fl->GetValue(), 0.3);
  EXPECT_THROW(fl->SetValue(11), OutOfRangeException);
  EXPECT_THROW(fl->FromString("abc"), InvalidArgumentException);
  EXPECT_EQ(fl->GetDisplayPrecision(), 3);
  EXPECT_TRUE(fl->HasInc());
  EXPECT_FALSE(CFloatPtr(f.Node("Open"))->HasInc());
  EXPECT_GT(CFloatPtr(f.Node("Open"))->GetMax(), 1e300);
}

TEST(Boolean, OnOffValuesAndStrangeValues) {
  Fixture f(RegAt("0", "0") + R"(<Boolean Name="B"><pValue>R0</pValue><OnValue>0x10</OnValue><OffValue>2</OffValue></Boolean>
    <Boolean Name="Floating"><Value>true</Value></Boolean>)");
  CBooleanPtr b(f.Node("B"));
  b->SetValue(true);
  EXPECT_EQ(f.port.Peek(0, 4), (std::vector<uint8_t>{0, 0, 0, 0x10}));
  EXPECT_TRUE(b->GetValue());
  *b = false;
  EXPECT_EQ(f.port.Peek(0, 4), (std::vector<uint8_t>{0, 0, 0, 2}));
  f.port.PokeU32BE(0, 7);
  EXPECT_THROW(b->GetValue(false, true), LogicalErrorException);
  CBooleanPtr fl(f.Node("Floating"));
  EXPECT_TRUE(fl->GetValue());
  fl->FromString("false");
  EXPECT_EQ(std::string(fl->ToString()), "false");
}

TEST(Command, ExecuteWritesValueAndIsDoneReadsPastTheCache) {
  Fixture f(RegAt("0", "0") + R"(
    <Command Name="C"><pValue>R0</pValue><CommandValue>0x4321</CommandValue></Command>
    <IntReg Name="W"><Address>8</Address><Length>4</Length><AccessMode>WO</AccessMode><pPort>Device</pPort></IntReg>
    <Command Name="WoCmd"><pValue>W</pValue><CommandValue>1</CommandValue></Command>
    <Command Name="Floating"><Value>0</Value><CommandValue>1</CommandValue></Command>)");
  CCommandPtr c(f.Node("C"));
  c->Execute();
  EXPECT_EQ(f.port.Peek(0, 4), (std::vector<uint8_t>{0, 0, 0x43, 0x21}));
  EXPECT_FALSE(c->IsDone());
  EXPECT_EQ(std::string(c->ToString()), "1");
  f.port.PokeU32BE(0, 0);  // the device clears the bit when done
  EXPECT_TRUE(c->IsDone());
  EXPECT_EQ(std::string(c->ToString()), "0");
  CCommandPtr wo(f.Node("WoCmd"));
  wo->Execute();
  EXPECT_TRUE(wo->IsDone());
  CCommandPtr fl(f.Node("Floating"));
  fl->FromString("1");
  EXPECT_TRUE(fl->IsDone());
  EXPECT_THROW(fl->FromString("0"), InvalidArgumentException);
  EXPECT_THROW(fl->FromString("go"), InvalidArgumentException);
}

const char* kEnum = R"(
    <Integer Name="Avail"><Value>1</Value></Integer>
    <Enumeration Name="E"><pValue>R0</pValue>
      <EnumEntry Name="Mono8"><Value>0x01080001</Value></EnumEntry>
      <EnumEntry Name="Mono16"><Value>0x01100007</Value><pIsAvailable>Avail</pIsAvailable></EnumEntry>
      <EnumEntry Name="Odd"><Value>5</Value><NumericValue>2.5</NumericValue><Symbolic>OddOne</Symbolic></EnumEntry>
      <EnumEntry Name="Gone"><Value>6</Value><pIsImplemented>Zero</pIsImplemented></EnumEntry>
    </Enumeration>
    <Integer Name="Zero"><Value>0</Value></Integer>)";

TEST(Enumeration, EntriesByNameValueAndAvailability) {
  Fixture f(RegAt("0", "0") + kEnum);
  CEnumerationPtr e(f.Node("E"));
  ASSERT_NE(f.Node("EnumEntry_E_Mono8"), nullptr);
  *e = "Mono16";
  EXPECT_EQ(f.port.Peek(0, 4), (std::vector<uint8_t>{0x01, 0x10, 0x00, 0x07}));
  EXPECT_EQ(e->GetIntValue(), 0x01100007);
  EXPECT_EQ(std::string(**e), "Mono16");
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
  EXPECT_EQ(entries.size(), 4u);
  // The current entry (Mono16 after a device change) is now unavailable.
  f.port.Poke(0, {0x01, 0x10, 0x00, 0x07});
  EXPECT_EQ(e->GetIntValue(false, true), 0x01100007);
  EXPECT_THROW(e->GetIntValue(true), AccessException);
  f.port.PokeU32BE(0, 77);
  EXPECT_THROW(e->ToString(false, true), InvalidArgumentException);
  EXPECT_THROW(CValuePtr(f.Node("EnumEntry_E_Mono8"))->FromString("x"), AccessException);
}

TEST(Enumeration, DeviceChangesStayInvisibleUntilInvalidated) {
  Fixture f(RegAt("0", "0") + kEnum);
  CEnumerationPtr e(f.Node("E"));
  f.port.PokeU32BE(0, 5);
  EXPECT_EQ(std::string(e->ToString()), "OddOne");
  f.port.Poke(0, {0x01, 0x08, 0x00, 0x01});
  EXPECT_EQ(std::string(e->ToString()), "OddOne");
  EXPECT_EQ(e->GetIntValue(false, true), 0x01080001);
}

TEST(String, FloatingAndRegisterBacked) {
  Fixture f(R"(<StringReg Name="SR"><Address>0</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></StringReg>
    <String Name="S"><Value>hello</Value></String>
    <String Name="P"><pValue>SR</pValue></String>)");
  CStringPtr s(f.Node("S")), p(f.Node("P"));
  EXPECT_EQ(std::string(s->GetValue()), "hello");
  *s = "bye";
  EXPECT_EQ(std::string(**s), "bye");
  p->SetValue("ab");
  EXPECT_EQ(std::string(CStringPtr(f.Node("SR"))->GetValue()), "ab");
  EXPECT_EQ(p->GetMaxLength(), 4);
}

TEST(Integer, DeviceErrorAfterAWriteIsReported) {
  Fixture f(RegAt("0", "0") + RegAt("1", "4") + R"(
    <Enumeration Name="Err"><pValue>R1</pValue>
      <EnumEntry Name="Ok"><Value>0</Value></EnumEntry>
      <EnumEntry Name="TooBig"><Value>3</Value><Description>value exceeds the sensor size</Description></EnumEntry>
    </Enumeration>
    <Integer Name="I"><pValue>R0</pValue><pError>Err</pError></Integer>)");
  CIntegerPtr i(f.Node("I"));
  i->SetValue(5);
  f.port.PokeU32BE(4, 3);  // the device flags the next write
  try {
    i->SetValue(6);
    FAIL() << "no exception";
  } catch (const InvalidArgumentException& e) {
    EXPECT_NE(std::string(e.GetDescription()).find("sensor size"), std::string::npos);
  }
}

TEST(SmartPointers, WrongInterfaceGivesEmptyPointer) {
  Fixture f(RegAt("0", "0") + kEnum);
  CIntegerPtr wrong(f.Node("E"));
  EXPECT_FALSE(wrong.IsValid());
  EXPECT_FALSE(IsReadable(wrong));
  EXPECT_THROW(wrong->GetValue(), LogicalErrorException);
  CIntegerPtr missing(f.Node("Missing"));
  EXPECT_FALSE(missing);
  EXPECT_TRUE(missing == 0);
  EXPECT_THROW((void)(missing == 1), LogicalErrorException);
  CEnumerationPtr right(f.Node("E"));
  EXPECT_TRUE(right.IsValid());
  CNodePtr node(right);
  EXPECT_EQ(std::string(node->GetName()), "E");
  EXPECT_EQ(node->GetPrincipalInterfaceType(), intfIEnumeration);
  // GenApi spellings compile against the engine.
  GenApi::CIntegerPtr compat(f.Node("Avail"));
  EXPECT_EQ(compat->GetValue(), 1);
}

TEST(Exceptions, NameTheNodeAndTheReason) {
  Fixture f(R"(<Integer Name="Ro"><Value>1</Value><ImposedAccessMode>RO</ImposedAccessMode></Integer>)");
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
