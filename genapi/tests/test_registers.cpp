// Register nodes against a recording port: addresses, byte order, bit
// fields, sign, caching and invalidation as visible port traffic.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "fake_port.h"

using namespace KivGenApi;
using kivtest::Bytes;
using kivtest::Fixture;

namespace {

std::string Reg(const char* type, const char* name, const char* body, const char* len = "4",
                const char* endian = "LittleEndian", const char* access = "RW") {
  return std::string("<") + type + " Name=\"" + name + "\">" + body + "<Length>" + len + "</Length><AccessMode>" +
         access + "</AccessMode><pPort>Device</pPort><Endianess>" + endian + "</Endianess></" + type + ">";
}

TEST(Address, SumsLiteralsPointersKnivesAndIndexes) {
  Fixture f(R"(
    <Integer Name="Base"><Value>0x100</Value></Integer>
    <Integer Name="Sel"><Value>2</Value></Integer>
    <Integer Name="Stride"><Value>0x10</Value></Integer>
    <IntReg Name="R"><Address>0x1000</Address><pAddress>Base</pAddress>
      <IntSwissKnife Name="Knife"><pVariable Name="B">Base</pVariable><Formula>B*2</Formula></IntSwissKnife>
      <Length>4</Length><AccessMode>RO</AccessMode><pPort>Device</pPort><Endianess>LittleEndian</Endianess></IntReg>
    <IntReg Name="IdxOffset"><Address>0</Address><pIndex Offset="8">Sel</pIndex>
      <Length>4</Length><AccessMode>RO</AccessMode><pPort>Device</pPort><Cachable>NoCache</Cachable></IntReg>
    <IntReg Name="IdxPOffset"><Address>0</Address><pIndex pOffset="Stride">Sel</pIndex>
      <Length>2</Length><AccessMode>RO</AccessMode><pPort>Device</pPort><Cachable>NoCache</Cachable></IntReg>
    <IntReg Name="IdxLength"><Address>0</Address><pIndex>Sel</pIndex>
      <Length>2</Length><AccessMode>RO</AccessMode><pPort>Device</pPort><Cachable>NoCache</Cachable></IntReg>)");
  auto last_read = [&](const char* n) {
    f.port.Clear();
    CIntegerPtr(f.Node(n))->GetValue();
    return f.port.log.back().address;
  };
  EXPECT_EQ(last_read("R"), 0x1000 + 0x100 + 0x200);
  EXPECT_EQ(last_read("IdxOffset"), 2 * 8);
  EXPECT_EQ(last_read("IdxPOffset"), 2 * 0x10);
  EXPECT_EQ(last_read("IdxLength"), 2 * 2);  // no offset given: the register length
  // The selector changes the address on the next access.
  CIntegerPtr(f.Node("Sel"))->SetValue(3);
  EXPECT_EQ(last_read("IdxOffset"), 3 * 8);
}

// One maker gives every register its offset as an embedded IntSwissKnife,
// StructRegs included, some of them following a selector.
const char* kEmbedded = R"(
    <Enumeration Name="Sel"><EnumEntry Name="A"><Value>0</Value></EnumEntry>
      <EnumEntry Name="B"><Value>1</Value></EnumEntry><Value>0</Value></Enumeration>
    <Integer Name="Idx"><Value>2</Value></Integer>
    <Integer Name="Stride"><Value>0x40</Value></Integer>
    <Integer Name="Base"><Value>0x100</Value></Integer>
    <Integer Name="Other"><Value>0</Value></Integer>
    <StructReg Comment="FeatInq"><Address>0x1000</Address>
      <IntSwissKnife Name="FeatInq_Offset"><pVariable Name="S">Sel</pVariable><Formula>S * 0x10</Formula></IntSwissKnife>
      <Length>4</Length><AccessMode>RO</AccessMode><pPort>Device</pPort><pInvalidator>Feat_Val</pInvalidator>
      <Endianess>LittleEndian</Endianess>
      <StructEntry Name="Feat_Imp"><Bit>31</Bit></StructEntry>
      <StructEntry Name="Feat_Avl"><pInvalidator>Other</pInvalidator><Bit>30</Bit></StructEntry>
    </StructReg>
    <Enumeration Name="Feat"><pIsImplemented>Feat_Imp</pIsImplemented><pIsAvailable>Feat_Avl</pIsAvailable>
      <EnumEntry Name="Off"><Value>0</Value></EnumEntry><EnumEntry Name="On"><Value>1</Value></EnumEntry>
      <pValue>Feat_Val</pValue></Enumeration>
    <IntReg Name="Feat_Val"><Address>0x1004</Address>
      <IntSwissKnife Name="FeatVal_Offset"><pVariable Name="S">Sel</pVariable><Formula>S * 0x10</Formula></IntSwissKnife>
      <Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></IntReg>
    <StringReg Name="Str"><Address>0x2000</Address><IntSwissKnife Name="Str_Offset"><Formula>2 * 0x20</Formula></IntSwissKnife>
      <pIndex Offset="0x100">Idx</pIndex><Length>8</Length><AccessMode>RO</AccessMode><pPort>Device</pPort></StringReg>
    <FloatReg Name="Flt"><Address>0x3000</Address><Address>0x10</Address><pAddress>Base</pAddress>
      <IntSwissKnife Name="Flt_Offset"><Formula>4</Formula></IntSwissKnife>
      <IntSwissKnife Name="Flt_Offset2"><pVariable Name="I">Idx</pVariable><Formula>I</Formula></IntSwissKnife>
      <pIndex pOffset="Stride">Idx</pIndex><Length>4</Length><AccessMode>RO</AccessMode><pPort>Device</pPort></FloatReg>)";

TEST(Address, EmbeddedKnivesInEveryRegisterKindAreNodesAndAddUp) {
  Fixture f(kEmbedded);
  for (const char* n : {"FeatInq_Offset", "FeatVal_Offset", "Str_Offset", "Flt_Offset", "Flt_Offset2"})
    EXPECT_TRUE(CIntegerPtr(f.Node(n)).IsValid()) << n;
  auto last_read = [&](const std::function<void()>& read) {
    f.port.Clear();
    read();
    return f.port.log.empty() ? -1 : f.port.log.back().address;
  };
  EXPECT_EQ(last_read([&] { CStringPtr(f.Node("Str"))->GetValue(); }), 0x2000 + 0x40 + 2 * 0x100);
  EXPECT_EQ(last_read([&] { CFloatPtr(f.Node("Flt"))->GetValue(); }), 0x3000 + 0x10 + 0x100 + 4 + 2 + 2 * 0x40);
  // Both entries of the structure read the structure's register.
  EXPECT_EQ(last_read([&] { CIntegerPtr(f.Node("Feat_Imp"))->GetValue(); }), 0x1000);
  EXPECT_EQ(last_read([&] { CIntegerPtr(f.Node("Feat_Avl"))->GetValue(false, true); }), 0x1000);
  // The selector moves the structure and the register behind the knives.
  CEnumerationPtr(f.Node("Sel"))->FromString("B");
  EXPECT_EQ(last_read([&] { CIntegerPtr(f.Node("Feat_Imp"))->GetValue(); }), 0x1010);
  EXPECT_EQ(last_read([&] { CIntegerPtr(f.Node("Feat_Val"))->GetValue(); }), 0x1014);
  EXPECT_EQ(last_read([&] { CIntegerPtr(f.Node("FeatInq_Offset"))->GetValue(); }), -1);  // no register
}

// An enumeration whose implemented and available flags are structure
// entries at a selector-dependent address.
TEST(Address, AccessFlagsFromEmbeddedAddressesFollowTheSelector) {
  Fixture f(kEmbedded);
  f.port.PokeU32LE(0x1000, 0xC0000000);  // A: implemented and available
  f.port.PokeU32LE(0x1010, 0x80000000);  // B: implemented only
  f.port.PokeU32LE(0x1004, 1);
  CEnumerationPtr feat(f.Node("Feat"));
  EXPECT_EQ(feat->GetAccessMode(), RW);
  EXPECT_EQ(std::string(feat->ToString()), "On");
  CEnumerationPtr(f.Node("Sel"))->FromString("B");
  EXPECT_EQ(feat->GetAccessMode(), NA);
  f.port.PokeU32LE(0x1010, 0);
  f.Node("FeatInq_Offset")->InvalidateNode();  // reaches the entries through the knife
  EXPECT_EQ(feat->GetAccessMode(), NI);
  // The structure's invalidator and the entry's own one both apply.
  CEnumerationPtr(f.Node("Sel"))->FromString("A");
  EXPECT_EQ(feat->GetAccessMode(), RW);
  f.port.PokeU32LE(0x1000, 0x80000000);
  EXPECT_EQ(feat->GetAccessMode(), RW);  // cached
  CIntegerPtr(f.Node("Other"))->SetValue(1);
  EXPECT_EQ(feat->GetAccessMode(), NA);
  f.port.PokeU32LE(0x1000, 0xC0000000);
  CIntegerPtr(f.Node("Feat_Val"))->SetValue(0);
  EXPECT_EQ(feat->GetAccessMode(), RW);
}

TEST(ByteOrder, IntRegAssemblesBothOrdersAndSignExtends) {
  Fixture f(Reg("IntReg", "LE", "<Address>0</Address>") + Reg("IntReg", "BE", "<Address>0</Address>", "4", "BigEndian") +
            Reg("IntReg", "S16", "<Address>0</Address><Sign>Signed</Sign>", "2", "BigEndian") +
            Reg("IntReg", "U64", "<Address>8</Address>", "8", "BigEndian"));
  f.port.Poke(0, {0x12, 0x34, 0x56, 0x78});
  EXPECT_EQ(CIntegerPtr(f.Node("LE"))->GetValue(), 0x78563412);
  EXPECT_EQ(CIntegerPtr(f.Node("BE"))->GetValue(), 0x12345678);
  f.port.Poke(0, {0xFF, 0xFE});
  f.map._InvalidateNodes();
  EXPECT_EQ(CIntegerPtr(f.Node("S16"))->GetValue(), -2);
  EXPECT_EQ(CIntegerPtr(f.Node("S16"))->GetMin(), -32768);
  EXPECT_EQ(CIntegerPtr(f.Node("S16"))->GetMax(), 32767);
  EXPECT_EQ(CIntegerPtr(f.Node("U64"))->GetMax(), INT64_MAX);

  CIntegerPtr(f.Node("BE"))->SetValue(0x0A0B0C0D);
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{0x0A, 0x0B, 0x0C, 0x0D}));
  CIntegerPtr(f.Node("LE"))->SetValue(0x0A0B0C0D);
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{0x0D, 0x0C, 0x0B, 0x0A}));
  CIntegerPtr(f.Node("S16"))->SetValue(-3);
  EXPECT_EQ(f.port.Peek(0, 2), (Bytes{0xFF, 0xFD}));
  EXPECT_THROW(CIntegerPtr(f.Node("S16"))->SetValue(40000), OutOfRangeException);

  // Imposed bounds: a later one replaces the earlier, never beyond the register's own range.
  CIntegerPtr s16(f.Node("S16"));
  s16->ImposeMax(100);
  s16->ImposeMin(-100);
  EXPECT_THROW(s16->SetValue(101), OutOfRangeException);
  s16->ImposeMax(1000);
  EXPECT_EQ(s16->GetMax(), 1000);
  s16->SetValue(1000);
  s16->ImposeMax(50000);
  s16->ImposeMin(-50000);
  EXPECT_EQ(s16->GetMax(), 32767);
  EXPECT_EQ(s16->GetMin(), -32768);
}

TEST(Length, FromANodeIsSettledAtEachAccessAndBounded) {
  Fixture f(R"(<Integer Name="Len"><Value>2</Value></Integer>
    <IntReg Name="R"><Address>0</Address><pLength>Len</pLength><AccessMode>RW</AccessMode><pPort>Device</pPort>
      <Endianess>BigEndian</Endianess><Cachable>NoCache</Cachable></IntReg>
    <FloatReg Name="F"><Address>0</Address><pLength>Len</pLength><AccessMode>RW</AccessMode><pPort>Device</pPort>
      <Endianess>BigEndian</Endianess></FloatReg>
    <StringReg Name="S"><Address>0</Address><pLength>Len</pLength><AccessMode>RW</AccessMode><pPort>Device</pPort></StringReg>
    <Register Name="Raw"><Address>0</Address><pLength>Len</pLength><AccessMode>RW</AccessMode><pPort>Device</pPort></Register>)");
  f.port.Poke(0, {0x01, 0x02, 0x03, 0x04});
  CIntegerPtr r(f.Node("R")), len(f.Node("Len"));
  EXPECT_EQ(r->GetValue(), 0x0102);
  EXPECT_EQ(r->GetMax(), 0xFFFF);
  EXPECT_THROW(CFloatPtr(f.Node("F"))->GetValue(), LogicalErrorException);
  len->SetValue(4);
  EXPECT_EQ(r->GetValue(), 0x01020304);
  len->SetValue(9);
  EXPECT_THROW(r->GetValue(), LogicalErrorException);
  f.port.Clear();
  for (int64_t bad : {int64_t(-1), int64_t(0), int64_t(1) << 40}) {
    len->SetValue(bad);
    EXPECT_THROW(CStringPtr(f.Node("S"))->GetValue(), OutOfRangeException);
    EXPECT_THROW(CRegisterPtr(f.Node("Raw"))->GetLength(), OutOfRangeException);
  }
  EXPECT_EQ(f.port.Reads(), 0u);
}

TEST(BitFields, LittleAndBigEndianNumberingAgree) {
  // The same physical field (bits 4..7 of the value) in both numberings.
  Fixture f(Reg("MaskedIntReg", "LE", "<Address>0</Address><LSB>4</LSB><MSB>7</MSB>", "2") +
            Reg("MaskedIntReg", "BE", "<Address>0x10</Address><LSB>11</LSB><MSB>8</MSB>", "2", "BigEndian") +
            Reg("MaskedIntReg", "BEBit31", "<Address>0x20</Address><Bit>31</Bit>", "4", "BigEndian") +
            Reg("MaskedIntReg", "LEBit0", "<Address>0x20</Address><Bit>24</Bit>", "4", "LittleEndian"));
  f.port.Poke(0, {0xA5, 0x00});      // LE value 0x00A5 -> bits 4..7 = 0xA
  f.port.Poke(0x10, {0x00, 0xA5});   // BE value 0x00A5 -> bits 4..7 = 0xA
  f.port.Poke(0x20, {0x01, 0, 0, 0x01});
  EXPECT_EQ(CIntegerPtr(f.Node("LE"))->GetValue(), 0xA);
  EXPECT_EQ(CIntegerPtr(f.Node("BE"))->GetValue(), 0xA);
  EXPECT_EQ(CIntegerPtr(f.Node("BEBit31"))->GetValue(), 1);  // last byte, lowest bit
  EXPECT_EQ(CIntegerPtr(f.Node("LEBit0"))->GetValue(), 1);   // last byte in little endian is bit 24
  EXPECT_EQ(CIntegerPtr(f.Node("LE"))->GetMax(), 15);
}

TEST(BitFields, WriteIsReadModifyWriteAndKeepsNeighbours) {
  Fixture f(Reg("MaskedIntReg", "F", "<Address>0</Address><LSB>8</LSB><MSB>11</MSB>") +
            Reg("MaskedIntReg", "S", "<Address>4</Address><LSB>0</LSB><MSB>3</MSB><Sign>Signed</Sign>") +
            Reg("MaskedIntReg", "W", "<Address>8</Address><LSB>0</LSB><MSB>63</MSB><Sign>Signed</Sign>", "8") +
            Reg("MaskedIntReg", "WO", "<Address>16</Address><LSB>4</LSB><MSB>7</MSB>", "1", "LittleEndian", "WO") +
            Reg("MaskedIntReg", "BE", "<Address>24</Address><LSB>31</LSB><MSB>16</MSB>", "4", "BigEndian"));
  f.port.PokeU32LE(0, 0xFFFFFFFF);
  CIntegerPtr F(f.Node("F"));
  F->SetValue(0x5);
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{0xFF, 0xF5, 0xFF, 0xFF}));
  EXPECT_THROW(F->SetValue(16), OutOfRangeException);
  EXPECT_THROW(F->SetValue(-1), OutOfRangeException);
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{0xFF, 0xF5, 0xFF, 0xFF}));

  f.port.PokeU32LE(4, 0x0000000F);
  CIntegerPtr S(f.Node("S"));
  EXPECT_EQ(S->GetValue(), -1);
  EXPECT_EQ(S->GetMin(), -8);
  EXPECT_EQ(S->GetMax(), 7);
  S->SetValue(-8);
  EXPECT_EQ(f.port.Peek(4, 1), (Bytes{0x08}));

  CIntegerPtr W(f.Node("W"));
  W->SetValue(INT64_MIN);
  EXPECT_EQ(W->GetValue(false, true), INT64_MIN);
  W->SetValue(-1);
  EXPECT_EQ(f.port.Peek(8, 8), Bytes(8, 0xFF));

  // A write-only register has no image to merge into: the rest is zero.
  f.port.Poke(16, {0xFF});
  CIntegerPtr(f.Node("WO"))->SetValue(3);
  EXPECT_EQ(f.port.Peek(16, 1), (Bytes{0x30}));

  f.port.Poke(24, {0xAB, 0xCD, 0, 0});  // big-endian bits 31..16 are the last two bytes
  CIntegerPtr(f.Node("BE"))->SetValue(1500);
  EXPECT_EQ(f.port.Peek(24, 4), (Bytes{0xAB, 0xCD, 0x05, 0xDC}));
}

TEST(OtherRegisters, FloatStringAndRawRegisters) {
  Fixture f(Reg("FloatReg", "F32", "<Address>0</Address>", "4", "BigEndian") +
            Reg("FloatReg", "F64", "<Address>8</Address>", "8", "LittleEndian") +
            Reg("StringReg", "Str", "<Address>0x20</Address>", "8") +
            Reg("Register", "Raw", "<Address>0x40</Address>", "3"));
  CFloatPtr(f.Node("F32"))->SetValue(1.5);
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{0x3F, 0xC0, 0x00, 0x00}));
  EXPECT_DOUBLE_EQ(CFloatPtr(f.Node("F32"))->GetValue(false, true), 1.5);
  CFloatPtr(f.Node("F64"))->SetValue(-2.25);
  EXPECT_DOUBLE_EQ(CFloatPtr(f.Node("F64"))->GetValue(false, true), -2.25);

  CStringPtr s(f.Node("Str"));
  s->SetValue("abc");
  EXPECT_EQ(f.port.Peek(0x20, 8), (Bytes{'a', 'b', 'c', 0, 0, 0, 0, 0}));
  EXPECT_EQ(std::string(s->GetValue(false, true)), "abc");
  EXPECT_THROW(s->SetValue("123456789"), OutOfRangeException);
  f.port.Poke(0x20, {'1', '2', '3', '4', '5', '6', '7', '8'});  // no terminator
  EXPECT_EQ(std::string(s->GetValue(false, true)), "12345678");

  CRegisterPtr r(f.Node("Raw"));
  uint8_t in[3] = {1, 2, 3}, out[3] = {};
  r->Set(in, 3);
  r->Get(out, 3);
  EXPECT_EQ(0, std::memcmp(in, out, 3));
  EXPECT_THROW(r->Set(in, 2), OutOfRangeException);
  EXPECT_THROW(r->Get(out, 4), OutOfRangeException);
  EXPECT_EQ(std::string(r->ToString()), "0x010203");
}

TEST(Caching, ModesAsPortTraffic) {
  Fixture f(Reg("IntReg", "WT", "<Address>0</Address><Cachable>WriteThrough</Cachable>") +
            Reg("IntReg", "WA", "<Address>4</Address><Cachable>WriteAround</Cachable>") +
            Reg("IntReg", "NC", "<Address>8</Address><Cachable>NoCache</Cachable>"));
  CIntegerPtr wt(f.Node("WT")), wa(f.Node("WA")), nc(f.Node("NC"));
  auto device_sets = [&](uint32_t v) {  // behind the map's back
    for (int a : {0, 4, 8}) f.port.PokeU32LE(a, v);
  };
  device_sets(1);
  for (auto* p : {&wt, &wa, &nc}) (*p)->GetValue();
  f.port.Clear();
  device_sets(2);
  EXPECT_EQ(wt->GetValue(), 1);
  EXPECT_EQ(wa->GetValue(), 1);
  EXPECT_EQ(nc->GetValue(), 2);
  EXPECT_EQ(f.port.Reads(), 1u);
  // After a write: WriteThrough keeps the written value, WriteAround reads again.
  wt->SetValue(5);
  wa->SetValue(5);
  device_sets(6);
  f.port.Clear();
  EXPECT_EQ(wt->GetValue(), 5);
  EXPECT_EQ(wa->GetValue(), 6);
  EXPECT_EQ(f.port.Reads(), 1u);
  // IgnoreCache and Verify go to the device; a global invalidation drops all.
  EXPECT_EQ(wt->GetValue(false, true), 6);
  f.port.PokeU32LE(0, 7);
  EXPECT_EQ(wt->GetValue(true), 7);
  f.port.PokeU32LE(0, 8);
  f.map._InvalidateNodes();
  EXPECT_EQ(wt->GetValue(), 8);
}

TEST(Caching, InvalidatorsAndInheritedModes) {
  Fixture f(Reg("MaskedIntReg", "A", "<Address>0</Address><LSB>0</LSB><MSB>7</MSB><pInvalidator>B</pInvalidator>") +
            Reg("MaskedIntReg", "B", "<Address>0</Address><LSB>8</LSB><MSB>15</MSB><pInvalidator>A</pInvalidator>") +
            R"(<IntReg Name="Sel"><Address>0x100</Address><Length>4</Length><AccessMode>RW</AccessMode>
                 <pPort>Device</pPort><Cachable>NoCache</Cachable></IntReg>)" +
            Reg("IntReg", "Indexed", "<Address>0x200</Address><pIndex Offset=\"4\">Sel</pIndex><Cachable>WriteAround</Cachable>"));
  f.port.PokeU32LE(0, 0x0201);
  CIntegerPtr a(f.Node("A")), b(f.Node("B"));
  EXPECT_EQ(a->GetValue(), 1);
  EXPECT_EQ(b->GetValue(), 2);
  b->SetValue(9);  // drops A's cached image through pInvalidator
  f.port.Clear();
  EXPECT_EQ(a->GetValue(), 1);
  EXPECT_EQ(f.port.Reads(), 1u);
  EXPECT_EQ(f.port.Peek(0, 2), (Bytes{0x01, 0x09}));
  // A NoCache address term makes the register uncacheable.
  EXPECT_EQ(f.Node("Indexed")->GetCachingMode(), NoCache);
}

TEST(Caching, PollingInvalidatesAfterItsTimeAndCallbacksFire) {
  Fixture f(Reg("IntReg", "P", "<Address>0</Address><PollingTime>1000</PollingTime>") +
            R"(<Integer Name="Dep"><pValue>P</pValue></Integer>)");
  CIntegerPtr p(f.Node("P"));
  int fired = 0;
  f.Node("Dep")->RegisterCallback([&](INode*) { ++fired; });
  f.port.PokeU32LE(0, 1);
  EXPECT_EQ(p->GetValue(), 1);
  f.port.PokeU32LE(0, 2);
  f.map._Poll(500);
  EXPECT_EQ(p->GetValue(), 1);
  EXPECT_EQ(fired, 0);
  f.map._Poll(500);
  EXPECT_EQ(p->GetValue(), 2);
  EXPECT_EQ(fired, 1);
  // Invalidating a feature reaches the register it reads from.
  f.port.PokeU32LE(0, 3);
  f.Node("Dep")->InvalidateNode();
  EXPECT_EQ(CIntegerPtr(f.Node("Dep"))->GetValue(), 3);
}

TEST(Caching, CommandsAndEnumerationsPollOnlyWhileSomethingIsPending) {
  Fixture f(Reg("IntReg", "R", "<Address>0</Address>") + Reg("IntReg", "E", "<Address>4</Address>") + R"(
    <Command Name="C"><pValue>R</pValue><CommandValue>1</CommandValue><PollingTime>100</PollingTime></Command>
    <Enumeration Name="Auto"><pValue>E</pValue><PollingTime>100</PollingTime>
      <EnumEntry Name="Off"><Value>0</Value></EnumEntry>
      <EnumEntry Name="Once"><Value>1</Value><IsSelfClearing>Yes</IsSelfClearing></EnumEntry></Enumeration>)");
  int command_events = 0, enum_events = 0;
  f.Node("C")->RegisterCallback([&](INode*) { ++command_events; });
  f.Node("Auto")->RegisterCallback([&](INode*) { ++enum_events; });
  f.map._Poll(100);
  EXPECT_EQ(command_events, 0);  // idle command, enumeration on a steady entry
  EXPECT_EQ(enum_events, 0);
  CCommandPtr(f.Node("C"))->Execute();
  CEnumerationPtr(f.Node("Auto"))->FromString("Once");
  command_events = enum_events = 0;
  f.map._Poll(100);
  EXPECT_EQ(command_events, 1);
  EXPECT_EQ(enum_events, 1);
  f.port.PokeU32LE(4, 0);  // the device finished the one-shot
  f.map._Poll(100);
  EXPECT_EQ(std::string(CEnumerationPtr(f.Node("Auto"))->ToString()), "Off");
  enum_events = 0;
  f.map._Poll(100);
  EXPECT_EQ(enum_events, 0);
}

TEST(PortErrors, PassThroughUnchangedAndAreNotRemembered) {
  Fixture f(Reg("IntReg", "R", "<Address>0</Address>") +
            R"(<Integer Name="X"><Value>5</Value><pIsAvailable>R</pIsAvailable></Integer>)");
  CIntegerPtr r(f.Node("R"));
  f.port.fail = true;
  EXPECT_THROW(r->GetValue(), std::runtime_error);
  EXPECT_THROW(r->SetValue(3), std::runtime_error);
  EXPECT_EQ(f.Node("X")->GetAccessMode(), NA);  // an availability that cannot be read
  f.port.fail = false;
  f.port.PokeU32LE(0, 4);
  EXPECT_EQ(r->GetValue(), 4);
  EXPECT_EQ(f.Node("X")->GetAccessMode(), RW);
  // A port that is not connected makes its registers unavailable.
  CNodeMapRef map;
  map._LoadXMLFromString(kivtest::Describe(Reg("IntReg", "R", "<Address>0</Address>")));
  EXPECT_EQ(map._GetNode("R")->GetAccessMode(), NA);
  EXPECT_THROW(CIntegerPtr(map._GetNode("R"))->GetValue(), AccessException);
}

}  // namespace
