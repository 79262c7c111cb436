// Access-mode resolution: register, port, pIs* references, imposed modes
// and the cached access mode following its inputs.
#include <gtest/gtest.h>

#include "fake_port.h"

using namespace KivGenApi;
using kivtest::Fixture;

namespace {

std::string Locked(const char* name, const char* access, const char* extra) {
  return std::string("<IntReg Name=\"") + name + "\"><Address>0x40</Address><Length>4</Length><AccessMode>" + access +
         "</AccessMode><pPort>Device</pPort>" + extra + "</IntReg>";
}

TEST(AccessMode, ReadOnlyPortMakesTheMapReadOnly) {
  Fixture f(Locked("R", "RW", "") + Locked("W", "WO", "") +
            R"(<Integer Name="I"><pValue>R</pValue></Integer><Integer Name="Free"><Value>1</Value></Integer>
               <Command Name="C"><pValue>R</pValue><CommandValue>1</CommandValue></Command>)");
  EXPECT_EQ(f.Node("R")->GetAccessMode(), RW);
  f.port.mode = RO;
  f.map._Connect(&f.port, "Device");  // reconnecting re-reads the port's mode
  EXPECT_EQ(f.Node("R")->GetAccessMode(), RO);
  EXPECT_EQ(f.Node("I")->GetAccessMode(), RO);
  EXPECT_EQ(f.Node("W")->GetAccessMode(), NA);
  EXPECT_EQ(f.Node("Free")->GetAccessMode(), RW);  // floating nodes have no port
  EXPECT_THROW(CIntegerPtr(f.Node("I"))->SetValue(1), AccessException);
  EXPECT_THROW(CCommandPtr(f.Node("C"))->Execute(), AccessException);
  EXPECT_EQ(f.port.Writes(), 0u);
}

TEST(AccessMode, ImplementedAvailableLockedEachAlone) {
  Fixture f(R"(
    <Integer Name="Flag"><Value>1</Value></Integer>
    <Integer Name="Impl"><Value>1</Value><pIsImplemented>Flag</pIsImplemented></Integer>
    <Integer Name="Avail"><Value>1</Value><pIsAvailable>Flag</pIsAvailable></Integer>
    <Integer Name="Lock"><Value>1</Value><pIsLocked>Flag</pIsLocked></Integer>
    <IntReg Name="WoLock"><Address>0</Address><Length>4</Length><AccessMode>WO</AccessMode><pPort>Device</pPort>
      <pIsLocked>Flag</pIsLocked></IntReg>)");
  CIntegerPtr flag(f.Node("Flag"));
  EXPECT_EQ(f.Node("Impl")->GetAccessMode(), RW);
  EXPECT_EQ(f.Node("Avail")->GetAccessMode(), RW);
  EXPECT_EQ(f.Node("Lock")->GetAccessMode(), RO);
  EXPECT_EQ(f.Node("WoLock")->GetAccessMode(), NA);
  flag->SetValue(0);  // the cached modes follow the write
  EXPECT_EQ(f.Node("Impl")->GetAccessMode(), NI);
  EXPECT_EQ(f.Node("Avail")->GetAccessMode(), NA);
  EXPECT_EQ(f.Node("Lock")->GetAccessMode(), RW);
  EXPECT_EQ(f.Node("WoLock")->GetAccessMode(), WO);
  EXPECT_THROW(CIntegerPtr(f.Node("Avail"))->GetValue(), AccessException);
}

TEST(AccessMode, UnreadableReferenceMakesTheNodeUnavailable) {
  Fixture f(Locked("WoFlag", "WO", "") + R"(
    <Integer Name="Off"><Value>0</Value></Integer>
    <Integer Name="NaFlag"><Value>1</Value><pIsAvailable>Off</pIsAvailable></Integer>
    <Integer Name="A"><Value>1</Value><pIsAvailable>WoFlag</pIsAvailable></Integer>
    <Integer Name="B"><Value>1</Value><pIsLocked>NaFlag</pIsLocked></Integer>
    <Integer Name="C"><Value>1</Value><pIsImplemented>Off</pIsImplemented><pIsAvailable>WoFlag</pIsAvailable></Integer>)");
  EXPECT_EQ(f.Node("A")->GetAccessMode(), NA);
  EXPECT_EQ(f.Node("B")->GetAccessMode(), NA);
  EXPECT_EQ(f.Node("C")->GetAccessMode(), NI);  // not implemented wins
}

TEST(AccessMode, ImposedModesOnlyNarrow) {
  Fixture f(Locked("R", "RO", "<ImposedAccessMode>RW</ImposedAccessMode>") +
            Locked("S", "RW", "<ImposedAccessMode>RO</ImposedAccessMode>") +
            Locked("T", "RW", "<ImposedAccessMode>WO</ImposedAccessMode>"));
  EXPECT_EQ(f.Node("R")->GetAccessMode(), RO);
  EXPECT_EQ(f.Node("S")->GetAccessMode(), RO);
  EXPECT_EQ(f.Node("T")->GetAccessMode(), WO);
  f.Node("T")->ImposeAccessMode(RO);  // WO combined with RO: neither
  EXPECT_EQ(f.Node("T")->GetAccessMode(), NA);
}

// A cached access mode follows writes to its references; a NoCache
// reference is read each time.
TEST(AccessMode, CacheFollowsLockWritesUnlessTheLockIsUncacheable) {
  Fixture f(R"(
    <IntReg Name="TLParamsLocked"><Address>0x100</Address><Length>4</Length><AccessMode>RW</AccessMode>
      <pPort>Device</pPort><Endianess>BigEndian</Endianess></IntReg>
    <IntReg Name="Width"><Address>0x200</Address><Length>4</Length><AccessMode>RW</AccessMode>
      <pPort>Device</pPort><pIsLocked>TLParamsLocked</pIsLocked></IntReg>
    <Integer Name="WidthFeature"><pValue>Width</pValue></Integer>
    <IntReg Name="Busy"><Address>0</Address><Length>4</Length><AccessMode>RO</AccessMode>
      <pPort>Device</pPort><Cachable>NoCache</Cachable></IntReg>
    <Integer Name="X"><Value>1</Value><pIsLocked>Busy</pIsLocked></Integer>)");
  CIntegerPtr lock(f.Node("TLParamsLocked"));
  EXPECT_EQ(f.Node("WidthFeature")->GetAccessMode(), RW);
  EXPECT_EQ(f.Node("Width")->IsAccessModeCacheable(), Yes);
  f.port.Clear();
  EXPECT_EQ(f.Node("WidthFeature")->GetAccessMode(), RW);
  EXPECT_EQ(f.port.Reads(), 0u);
  lock->SetValue(1);
  EXPECT_EQ(f.Node("Width")->GetAccessMode(), RO);
  EXPECT_EQ(f.Node("WidthFeature")->GetAccessMode(), RO);
  lock->SetValue(0);
  EXPECT_EQ(f.Node("WidthFeature")->GetAccessMode(), RW);

  EXPECT_EQ(f.Node("X")->IsAccessModeCacheable(), No);
  EXPECT_EQ(f.Node("X")->GetAccessMode(), RW);
  f.port.PokeU32LE(0, 1);
  EXPECT_EQ(f.Node("X")->GetAccessMode(), RO);
}

TEST(AccessMode, CategoriesKnivesAndEntries) {
  Fixture f(R"(
    <Integer Name="Zero"><Value>0</Value></Integer>
    <Integer Name="Hidden"><Value>1</Value><pIsImplemented>Zero</pIsImplemented></Integer>
    <Integer Name="Gone"><Value>1</Value><pIsAvailable>Zero</pIsAvailable></Integer>
    <Category Name="AllHidden"><pFeature>Hidden</pFeature></Category>
    <Category Name="SomeGone"><pFeature>Hidden</pFeature><pFeature>Gone</pFeature></Category>
    <IntSwissKnife Name="K"><pVariable Name="G">Gone</pVariable><Formula>G+1</Formula></IntSwissKnife>
    <IntSwissKnife Name="Ok"><pVariable Name="Z">Zero</pVariable><Formula>Z+1</Formula></IntSwissKnife>)");
  EXPECT_EQ(f.Node("AllHidden")->GetAccessMode(), NI);
  EXPECT_EQ(f.Node("SomeGone")->GetAccessMode(), RO);
  EXPECT_EQ(f.Node("K")->GetAccessMode(), NA);
  EXPECT_EQ(f.Node("Ok")->GetAccessMode(), RO);
  EXPECT_THROW(CIntegerPtr(f.Node("Ok"))->SetValue(1), AccessException);
}

}  // namespace
