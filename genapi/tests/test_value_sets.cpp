// Mirrored values (pValueCopy) and lists of valid values.
#include <gtest/gtest.h>

#include <cmath>

#include "fake_port.h"

using namespace KivGenApi;
using kivtest::Bytes;
using kivtest::Fixture;

namespace {

TEST(ValueCopy, RangeIsTheIntersectionAndWritesGoInDocumentOrder) {
  Fixture f(R"(
    <IntReg Name="Wide"><Address>0</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></IntReg>
    <IntReg Name="Narrow"><Address>8</Address><Length>2</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></IntReg>
    <IntReg Name="Ro"><Address>12</Address><Length>2</Length><AccessMode>RO</AccessMode><pPort>Device</pPort></IntReg>
    <Integer Name="Low"><Value>0</Value><Min>-5</Min><Max>1000</Max></Integer>
    <Integer Name="Stepped"><Value>0</Value><Min>0</Min><Max>100</Max><Inc>2</Inc></Integer>
    <Integer Name="M"><pValue>Narrow</pValue><pValueCopy>Low</pValueCopy><pValueCopy>Wide</pValueCopy></Integer>
    <Integer Name="WithRo"><pValue>Wide</pValue><pValueCopy>Ro</pValueCopy></Integer>
    <Integer Name="Mixed"><pValue>Wide</pValue><pValueCopy>Stepped</pValueCopy></Integer>)");
  CIntegerPtr m(f.Node("M"));
  EXPECT_EQ(m->GetMin(), 0);     // Narrow's minimum beats Low's -5
  EXPECT_EQ(m->GetMax(), 1000);  // Low's maximum beats both registers
  EXPECT_THROW(m->SetValue(1001), OutOfRangeException);
  f.port.Clear();
  m->SetValue(513);
  ASSERT_EQ(f.port.Writes(), 2u);
  EXPECT_EQ(f.port.log[0].address, 8);  // pValue first, then the copies in order
  EXPECT_EQ(f.port.log[1].address, 0);
  EXPECT_EQ(CIntegerPtr(f.Node("Low"))->GetValue(), 513);
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{0x01, 0x02, 0, 0}));
  EXPECT_EQ(m->GetValue(false, true), 513);
  // A read-only copy makes the whole node read-only.
  EXPECT_EQ(CIntegerPtr(f.Node("WithRo"))->GetAccessMode(), RO);
  // Copies with different increments cannot be written together.
  CIntegerPtr mixed(f.Node("Mixed"));
  EXPECT_EQ(mixed->GetAccessMode(), RO);
  EXPECT_THROW(mixed->SetValue(4), AccessException);
  EXPECT_EQ(mixed->GetMax(), 100);
}

TEST(ValueCopy, FloatEnumerationBooleanAndCommandMirror) {
  Fixture f(R"(
    <Float Name="A"><Value>0</Value><Min>-5</Min><Max>5</Max></Float>
    <Float Name="B"><Value>0</Value><Min>0</Min><Max>10</Max></Float>
    <Float Name="F"><pValue>A</pValue><pValueCopy>B</pValueCopy></Float>
    <Integer Name="X"><Value>0</Value></Integer>
    <Integer Name="Y"><Value>0</Value></Integer>
    <Enumeration Name="E"><EnumEntry Name="One"><Value>1</Value></EnumEntry>
      <EnumEntry Name="Two"><Value>2</Value></EnumEntry><pValue>X</pValue><pValueCopy>Y</pValueCopy></Enumeration>
    <Boolean Name="Bo"><pValue>X</pValue><pValueCopy>Y</pValueCopy><OnValue>7</OnValue><OffValue>3</OffValue></Boolean>
    <Command Name="C"><pValue>X</pValue><pValueCopy>Y</pValueCopy><CommandValue>9</CommandValue></Command>)");
  CFloatPtr fl(f.Node("F"));
  EXPECT_DOUBLE_EQ(fl->GetMin(), 0);
  EXPECT_DOUBLE_EQ(fl->GetMax(), 5);
  fl->SetValue(2.5);
  EXPECT_DOUBLE_EQ(CFloatPtr(f.Node("B"))->GetValue(), 2.5);
  EXPECT_THROW(fl->SetValue(7), OutOfRangeException);
  CIntegerPtr y(f.Node("Y"));
  CEnumerationPtr(f.Node("E"))->FromString("Two");
  EXPECT_EQ(y->GetValue(), 2);
  CBooleanPtr(f.Node("Bo"))->SetValue(true);
  EXPECT_EQ(y->GetValue(), 7);
  CCommandPtr(f.Node("C"))->Execute();
  EXPECT_EQ(y->GetValue(), 9);
}

TEST(ValidValueSet, ListsReplaceTheIncrementAndRefuseOtherValues) {
  Fixture f(R"(
    <Integer Name="I"><Value>2</Value><Min>1</Min><Max>8</Max><ValidValueSet>1;2;4;16</ValidValueSet></Integer>
    <Float Name="F"><Value>1.5</Value><Min>0</Min><Max>10</Max><ValidValueSet>0.5;1.5;2.25;12</ValidValueSet></Float>)");
  CIntegerPtr i(f.Node("I"));
  EXPECT_EQ(i->GetIncMode(), listIncrement);
  EXPECT_EQ(i->GetListOfValidValues(), (int64_autovector_t{1, 2, 4}));
  EXPECT_EQ(i->GetListOfValidValues(false), (int64_autovector_t{1, 2, 4, 16}));
  i->SetValue(4);
  EXPECT_THROW(i->SetValue(3), OutOfRangeException);
  EXPECT_THROW(i->SetValue(16), OutOfRangeException);  // listed, but above Max
  EXPECT_EQ(i->GetValue(), 4);
  i->SetValue(3, false);  // unverified writes skip the list like the range
  EXPECT_THROW(i->GetValue(true), OutOfRangeException);

  CFloatPtr fl(f.Node("F"));
  EXPECT_EQ(fl->GetIncMode(), listIncrement);
  EXPECT_TRUE(fl->HasInc());
  EXPECT_EQ(fl->GetListOfValidValues(), (double_autovector_t{0.5, 1.5, 2.25}));
  EXPECT_EQ(fl->GetListOfValidValues(false).size(), 4u);
  fl->SetValue(2.25);
  EXPECT_DOUBLE_EQ(fl->GetValue(), 2.25);
  EXPECT_THROW(fl->SetValue(2.0), OutOfRangeException);
  EXPECT_THROW(fl->FromString("12"), OutOfRangeException);
  EXPECT_DOUBLE_EQ(fl->GetValue(), 2.25);
}

TEST(ValidValueSet, ConvertersMapTheListThroughFormulaFrom) {
  Fixture f(R"(
    <IntReg Name="Raw"><Address>0</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></IntReg>
    <Integer Name="Code"><pValue>Raw</pValue><Min>0</Min><Max>100</Max><ValidValueSet>1;2;4</ValidValueSet></Integer>
    <Converter Name="Ms"><FormulaTo>FROM*2</FormulaTo><FormulaFrom>TO/2</FormulaFrom><pValue>Code</pValue></Converter>
    <IntConverter Name="Neg"><FormulaTo>10-FROM</FormulaTo><FormulaFrom>10-TO</FormulaFrom><pValue>Code</pValue></IntConverter>
    <Converter Name="Free"><FormulaTo>FROM</FormulaTo><FormulaFrom>TO</FormulaFrom><pValue>Raw</pValue></Converter>)");
  CFloatPtr ms(f.Node("Ms"));
  EXPECT_EQ(ms->GetIncMode(), listIncrement);
  EXPECT_EQ(ms->GetListOfValidValues(), (double_autovector_t{0.5, 1, 2}));
  ms->SetValue(1);
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{2, 0, 0, 0}));
  EXPECT_THROW(ms->SetValue(1.5), OutOfRangeException);
  CIntegerPtr neg(f.Node("Neg"));
  EXPECT_EQ(neg->GetIncMode(), listIncrement);
  EXPECT_EQ(neg->GetListOfValidValues(), (int64_autovector_t{6, 8, 9}));  // sorted after mapping
  neg->SetValue(6);
  EXPECT_EQ(CIntegerPtr(f.Node("Code"))->GetValue(), 4);
  EXPECT_THROW(neg->SetValue(7), OutOfRangeException);
  EXPECT_EQ(CFloatPtr(f.Node("Free"))->GetIncMode(), noIncrement);
}

TEST(EnumNumericValue, FloatsReadNumericValuesAndWriteTheNearestAvailableEntry) {
  Fixture f(R"(
    <IntReg Name="Sel"><Address>0</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort></IntReg>
    <Integer Name="HasFast"><Value>0</Value></Integer>
    <Enumeration Name="Rate"><pValue>Sel</pValue>
      <EnumEntry Name="Slow"><Value>0</Value><NumericValue>12.5</NumericValue></EnumEntry>
      <EnumEntry Name="Mid"><Value>1</Value><NumericValue>25</NumericValue></EnumEntry>
      <EnumEntry Name="Fast"><pIsAvailable>HasFast</pIsAvailable><Value>2</Value><NumericValue>100</NumericValue></EnumEntry>
      <EnumEntry Name="Plain"><Value>7</Value></EnumEntry>
    </Enumeration>
    <Float Name="Hz"><pValue>Rate</pValue></Float>)");
  CEnumerationPtr rate(f.Node("Rate"));
  CFloatPtr hz(f.Node("Hz"));
  EXPECT_DOUBLE_EQ(hz->GetValue(), 12.5);
  EXPECT_DOUBLE_EQ(hz->GetMin(), 7);  // Plain's NumericValue defaults to its Value
  EXPECT_DOUBLE_EQ(hz->GetMax(), 25);  // Fast is not available
  hz->SetValue(20);
  EXPECT_EQ(std::string(rate->ToString()), "Mid");
  EXPECT_EQ(f.port.Peek(0, 4), (Bytes{1, 0, 0, 0}));
  hz->SetValue(90, false);  // nearest available, not Fast
  EXPECT_EQ(std::string(rate->ToString()), "Mid");
  CIntegerPtr(f.Node("HasFast"))->SetValue(1);
  EXPECT_DOUBLE_EQ(hz->GetMax(), 100);
  hz->SetValue(90);
  EXPECT_EQ(rate->GetIntValue(), 2);
  EXPECT_DOUBLE_EQ(hz->GetValue(), 100);
  f.port.PokeU32BE(0, 0x09000000);  // a value with no entry
  EXPECT_THROW(hz->GetValue(false, true), InvalidArgumentException);
}

// NaN passes every comparison with a range, and an infinity is above no
// DBL_MAX-less maximum: neither reaches a float node, verified or not.
TEST(FloatValues, NonFiniteValuesAreRefusedByEveryFloatNode) {
  Fixture f(R"(
    <Float Name="Plain"><Value>1</Value></Float>
    <FloatReg Name="Reg"><Address>0</Address><Length>8</Length><AccessMode>RW</AccessMode><pPort>Device</pPort>
      <Endianess>LittleEndian</Endianess></FloatReg>
    <Converter Name="Conv"><FormulaTo>FROM*2</FormulaTo><FormulaFrom>TO/2</FormulaFrom><pValue>Reg</pValue></Converter>)");
  CFloatPtr reg(f.Node("Reg"));
  reg->SetValue(1.5);
  for (const char* name : {"Plain", "Reg", "Conv"}) {
    CFloatPtr node(f.Node(name));
    const double before = node->GetValue();
    for (double bad : {NAN, INFINITY, -INFINITY}) {
      EXPECT_THROW(node->SetValue(bad), InvalidArgumentException) << name << " " << bad;
      EXPECT_THROW(node->SetValue(bad, false), InvalidArgumentException) << name << " " << bad;
    }
    for (const char* text : {"nan", "-inf", "1e999"}) {
      EXPECT_THROW(node->FromString(text), InvalidArgumentException) << name << " " << text;
    }
    EXPECT_EQ(node->GetValue(), before) << name;
  }
}

}  // namespace
