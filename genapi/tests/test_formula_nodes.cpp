// SwissKnife, IntSwissKnife, Converter and IntConverter nodes: variables
// with suffixes, integer and float semantics, ranges through formulas, and
// errors that name the node.
#include <gtest/gtest.h>

#include "fake_port.h"

using namespace KivGenApi;
using kivtest::Bytes;
using kivtest::Fixture;

namespace {

const char* kVars = R"(
  <Integer Name="A"><Value>15</Value><Min>-4</Min><Max>40</Max><Inc>3</Inc></Integer>
  <Integer Name="B"><Value>6</Value></Integer>
  <Float Name="F"><Value>25.2</Value></Float>
  <Enumeration Name="Mode"><Value>2</Value>
    <EnumEntry Name="Off"><Value>0</Value></EnumEntry><EnumEntry Name="On"><Value>2</Value></EnumEntry></Enumeration>)";

std::string Knife(const char* type, const char* name, const char* formula, const char* extra = "") {
  return std::string("<") + type + " Name=\"" + name + "\"><pVariable Name=\"A\">A</pVariable>" +
         "<pVariable Name=\"B\">B</pVariable><pVariable Name=\"F\">F</pVariable>" + extra + "<Formula>" + formula +
         "</Formula></" + type + ">";
}

// The node kind picks integer or float semantics; results follow the
// variables' caches.
TEST(SwissKnife, ModeByKindAndResultsFollowTheirVariables) {
  Fixture f(std::string(kVars) + Knife("SwissKnife", "FDiv", "A/B") + Knife("IntSwissKnife", "IDiv", "A/B") +
            Knife("IntSwissKnife", "Cond", "A=15 ? B&lt;&lt;2 : 0") + R"(
    <IntReg Name="R"><Address>0</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></IntReg>
    <IntSwissKnife Name="K"><pVariable Name="R">R</pVariable><Formula>R*2</Formula></IntSwissKnife>)");
  EXPECT_DOUBLE_EQ(CFloatPtr(f.Node("FDiv"))->GetValue(), 2.5);
  EXPECT_EQ(CIntegerPtr(f.Node("IDiv"))->GetValue(), 2);
  EXPECT_EQ(CIntegerPtr(f.Node("Cond"))->GetValue(), 24);
  EXPECT_THROW(CFloatPtr(f.Node("FDiv"))->SetValue(1.0), AccessException);
  CIntegerPtr k(f.Node("K")), r(f.Node("R"));
  f.port.PokeU32LE(0, 4);
  EXPECT_EQ(k->GetValue(), 8);
  r->SetValue(10);
  EXPECT_EQ(k->GetValue(), 20);
  f.port.PokeU32LE(0, 11);
  EXPECT_EQ(k->GetValue(), 20);             // R is cached
  EXPECT_EQ(k->GetValue(false, true), 22);  // IgnoreCache reaches through the formula
}

TEST(SwissKnife, SuffixVariablesConstantsAndExpressions) {
  Fixture f(std::string(kVars) + R"(
    <IntSwissKnife Name="Props">
      <pVariable Name="A.Min">A</pVariable><pVariable Name="A.Max">A</pVariable><pVariable Name="A.Inc">A</pVariable>
      <pVariable Name="A.Value">A</pVariable><pVariable Name="A.AccessMode">A</pVariable>
      <Formula>A.Min*1000000 + A.Max*10000 + A.Inc*1000 + A.Value*10 + A.AccessMode</Formula></IntSwissKnife>
    <IntSwissKnife Name="Entry">
      <pVariable Name="M">Mode</pVariable><pVariable Name="M.Entry.On">Mode</pVariable>
      <Formula>M = M.Entry.On</Formula></IntSwissKnife>
    <IntSwissKnife Name="BadEntry"><pVariable Name="X.Entry.On">B</pVariable><Formula>X.Entry.On</Formula></IntSwissKnife>
    <SwissKnife Name="Const"><pVariable Name="F">F</pVariable><Constant Name="HALF">0.5</Constant>
      <Expression Name="TWICE">F*2</Expression><Formula>TWICE*HALF</Formula></SwissKnife>)");
  EXPECT_EQ(CIntegerPtr(f.Node("Props"))->GetValue(), -4 * 1000000 + 40 * 10000 + 3 * 1000 + 150 + RW);
  EXPECT_EQ(CIntegerPtr(f.Node("Entry"))->GetValue(), 1);
  CEnumerationPtr(f.Node("Mode"))->FromString("Off");
  EXPECT_EQ(CIntegerPtr(f.Node("Entry"))->GetValue(), 0);
  EXPECT_THROW(CIntegerPtr(f.Node("BadEntry"))->GetValue(), RuntimeException);
  EXPECT_DOUBLE_EQ(CFloatPtr(f.Node("Const"))->GetValue(), 25.2);
}

TEST(SwissKnife, ErrorsSurfaceAtUseAndNameTheNode) {
  Fixture f(std::string(kVars) + Knife("IntSwissKnife", "Syntax", "A +* B") + Knife("SwissKnife", "Case", "a+1"));
  for (const char* n : {"Syntax", "Case"}) {
    try {
      CValuePtr(f.Node(n))->ToString();
      ADD_FAILURE() << n << " evaluated";
    } catch (const LogicalErrorException& e) {
      EXPECT_NE(std::string(e.GetDescription()).find(std::string("'") + n + "'"), std::string::npos) << e.what();
    }
  }
}

const char* kConverter = R"(
  <IntReg Name="Raw"><Address>0</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></IntReg>
  <Integer Name="RawRange"><pValue>Raw</pValue><Min>1</Min><Max>5</Max></Integer>
  <Integer Name="Offset"><Value>100</Value></Integer>
  <Converter Name="Us"><pVariable Name="OFF">Offset</pVariable>
    <FormulaTo>(FROM-OFF)*2</FormulaTo><FormulaFrom>TO/2+OFF</FormulaFrom><pValue>RawRange</pValue>
    <Slope>Increasing</Slope></Converter>
  <Converter Name="Rev"><FormulaTo>10-FROM</FormulaTo><FormulaFrom>10-TO</FormulaFrom><pValue>RawRange</pValue></Converter>
  <Converter Name="Half"><FormulaTo>FROM/2</FormulaTo><FormulaFrom>TO*2</FormulaFrom><pValue>Raw</pValue></Converter>
  <IntConverter Name="IHalf"><FormulaTo>FROM/2</FormulaTo><FormulaFrom>TO*2</FormulaFrom><pValue>Raw</pValue></IntConverter>
  <Converter Name="Lower"><FormulaTo>from</FormulaTo><FormulaFrom>TO</FormulaFrom><pValue>Raw</pValue></Converter>
  <SwissKnife Name="NegHalf"><pVariable Name="R">Raw</pVariable><Formula>-R/2</Formula></SwissKnife>
  <Integer Name="NegHalfInt"><pValue>NegHalf</pValue></Integer>)";

TEST(Converter, BothFormulasRangesSlopeAndTruncation) {
  Fixture f(kConverter);
  CFloatPtr us(f.Node("Us")), rev(f.Node("Rev")), half(f.Node("Half"));
  us->SetValue(102);
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{4, 0, 0, 0}));
  EXPECT_DOUBLE_EQ(us->GetValue(), 102);
  EXPECT_DOUBLE_EQ(us->GetMin(), 100.5);
  EXPECT_DOUBLE_EQ(us->GetMax(), 102.5);
  EXPECT_THROW(us->SetValue(200), OutOfRangeException);
  // A decreasing formula swaps the ends of the range.
  EXPECT_DOUBLE_EQ(rev->GetMin(), 5);
  EXPECT_DOUBLE_EQ(rev->GetMax(), 9);
  rev->SetValue(7);
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{3, 0, 0, 0}));
  half->SetValue(7);  // 3.5 goes into the integer register truncated
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{3, 0, 0, 0}));
  EXPECT_DOUBLE_EQ(half->GetValue(), 6);
  EXPECT_EQ(CIntegerPtr(f.Node("NegHalfInt"))->GetValue(), -1);  // -1.5 toward zero
  CIntegerPtr ihalf(f.Node("IHalf"));
  ihalf->SetValue(7);  // integer division truncates
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{3, 0, 0, 0}));
  EXPECT_EQ(ihalf->GetValue(), 6);
  EXPECT_EQ(ihalf->GetMax(), 2 * int64_t(0xFFFFFFFF));
  EXPECT_THROW(CFloatPtr(f.Node("Lower"))->SetValue(1), LogicalErrorException);  // TO and FROM are upper case
}

// A fixed-point temperature whose position register holds a huge negative
// count (a register image, not a real temperature): value and range read 0
// instead of failing.
TEST(Converter, FixedPointOverAnyPositionRegisterHasAValue) {
  Fixture f(R"(
    <IntReg Name="Val"><Address>0</Address><Length>4</Length><AccessMode>RO</AccessMode><pPort>Device</pPort>
      <Sign>Signed</Sign></IntReg>
    <IntReg Name="Posn"><Address>4</Address><Length>4</Length><AccessMode>RO</AccessMode><pPort>Device</pPort>
      <Sign>Signed</Sign></IntReg>
    <Converter Name="Temp"><pVariable Name="FRACBITS">Posn</pVariable><FormulaTo>FROM*(2**FRACBITS)</FormulaTo>
      <FormulaFrom>TO/(2**FRACBITS)</FormulaFrom><pValue>Val</pValue><Slope>Increasing</Slope></Converter>
    <IntSwissKnife Name="Byte"><pVariable Name="X">Val</pVariable><pVariable Name="Y">Posn</pVariable>
      <Formula>(X &gt;&gt; Y) &amp; 0xFF</Formula></IntSwissKnife>)");
  f.port.PokeU32LE(0, 0x12345678);
  f.port.PokeU32LE(4, 0x88CA6C00);  // -2000000000
  CFloatPtr temp(f.Node("Temp"));
  EXPECT_EQ(temp->GetValue(), 0.0);
  EXPECT_EQ(temp->GetMin(), 0.0);
  EXPECT_EQ(temp->GetMax(), 0.0);
  EXPECT_EQ(CIntegerPtr(f.Node("Byte"))->GetValue(), (0x12345678 >> (-2000000000 & 63)) & 0xFF);
  f.port.PokeU32LE(4, 4);
  f.map._InvalidateNodes();
  EXPECT_DOUBLE_EQ(temp->GetValue(), 0x12345678 / 16.0);
}

// The description of an open-source engine's test suite: an IntConverter
// whose FormulaFrom multiplies by a float literal.
TEST(IntConverter, FloatLiteralInTheTestSuiteDescription) {
  std::string path = std::string(KIVGENAPI_TESTDATA) + "/aravis-testsuite.xml";
  CNodeMapRef map;
  try {
    map._LoadXMLFromFile(path);
  } catch (const RuntimeException&) {
    GTEST_SKIP() << "testdata folder missing: " << path;
  }
  CIntegerPtr conv(map._GetNode("IntConverter")), value(map._GetNode("ConverterValue"));
  EXPECT_EQ(conv->GetValue(), 10);  // 0.1 * 100
  conv->SetValue(25);
  EXPECT_EQ(value->GetValue(), 250);
  EXPECT_EQ(conv->GetValue(), 25);
}

}  // namespace
