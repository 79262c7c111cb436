// Load time of a large generated description, node lookup, cached and
// uncached integer reads, and a SwissKnife evaluation.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "kivgenapi/KivGenApi.h"

using namespace KivGenApi;

namespace {

class MemPort : public IPort {
 public:
  MemPort() : mem_(1 << 20, 0) {}
  EAccessMode GetAccessMode() const override { return RW; }
  void Read(void* b, int64_t a, int64_t n) override { std::memcpy(b, &mem_[static_cast<size_t>(a)], static_cast<size_t>(n)); }
  void Write(const void* b, int64_t a, int64_t n) override { std::memcpy(&mem_[static_cast<size_t>(a)], b, static_cast<size_t>(n)); }

 private:
  std::vector<uint8_t> mem_;
};

// A description shaped like a real camera's: registers with bit fields,
// integer features over them, enumerations, formulas and categories.
std::string Generate(int features) {
  std::string x =
      "<?xml version=\"1.0\"?>\n<RegisterDescription ModelName=\"Bench\" VendorName=\"Kiv\" "
      "StandardNameSpace=\"None\" SchemaMajorVersion=\"1\" SchemaMinorVersion=\"1\" SchemaSubMinorVersion=\"0\" "
      "MajorVersion=\"1\" MinorVersion=\"0\" SubMinorVersion=\"0\" ProductGuid=\"0\" VersionGuid=\"0\" "
      "xmlns=\"http://www.genicam.org/GenApi/Version_1_1\">\n<Port Name=\"Device\"/>\n"
      "<Integer Name=\"Locked\"><Value>0</Value></Integer>\n<Category Name=\"Root\">";
  for (int i = 0; i < features; ++i) x += "<pFeature>F" + std::to_string(i) + "</pFeature>";
  x += "</Category>\n";
  for (int i = 0; i < features; ++i) {
    std::string n = std::to_string(i), addr = std::to_string(i * 8);
    x += "<Integer Name=\"F" + n + "\" NameSpace=\"Custom\"><ToolTip>Feature number " + n +
         " of the generated camera</ToolTip><Description>A longer description of feature " + n +
         " so the file has the size of a real one.</Description><DisplayName>Feature " + n +
         "</DisplayName><Visibility>Expert</Visibility><pIsLocked>Locked</pIsLocked><pValue>R" + n +
         "</pValue><Min>0</Min><pMax>Max" + n + "</pMax><Inc>1</Inc></Integer>\n";
    x += "<IntReg Name=\"R" + n + "\"><Address>" + addr +
         "</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><Cachable>WriteThrough</Cachable>"
         "<Sign>Unsigned</Sign><Endianess>LittleEndian</Endianess><pInvalidator>M" + n + "</pInvalidator></IntReg>\n";
    x += "<MaskedIntReg Name=\"M" + n + "\"><Address>" + addr +
         "</Address><Length>4</Length><AccessMode>RW</AccessMode><pPort>Device</pPort><LSB>0</LSB><MSB>7</MSB>"
         "<Sign>Unsigned</Sign><Endianess>LittleEndian</Endianess></MaskedIntReg>\n";
    x += "<IntSwissKnife Name=\"Max" + n + "\"><pVariable Name=\"M\">M" + n +
         "</pVariable><Formula>(M + 1) * 1024 - 1</Formula></IntSwissKnife>\n";
    if (i % 10 == 0)
      x += "<Enumeration Name=\"E" + n + "\"><EnumEntry Name=\"Off\"><Value>0</Value></EnumEntry>"
           "<EnumEntry Name=\"On\"><Value>1</Value></EnumEntry><EnumEntry Name=\"Auto\"><Value>2</Value></EnumEntry>"
           "<pValue>M" + n + "</pValue></Enumeration>\n";
  }
  return x + "</RegisterDescription>\n";
}

const std::string& Description() {
  static const std::string xml = Generate(1000);
  return xml;
}

void BM_LoadDescription(benchmark::State& state) {
  const std::string& xml = Description();
  for (auto _ : state) {
    CNodeMapRef map;
    map._LoadXMLFromString(xml);
    benchmark::DoNotOptimize(map._Ptr);
  }
  state.counters["bytes"] = static_cast<double>(xml.size());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * xml.size()));
}
BENCHMARK(BM_LoadDescription)->Unit(benchmark::kMillisecond);

struct Loaded {
  Loaded() {
    map._LoadXMLFromString(Description());
    map._Connect(&port);
  }
  CNodeMapRef map;
  MemPort port;
};

Loaded& Map() {
  static Loaded l;
  return l;
}

void BM_NodeLookup(benchmark::State& state) {
  auto& m = Map();
  for (auto _ : state) benchmark::DoNotOptimize(m.map._GetNode("F1234"));
}
BENCHMARK(BM_NodeLookup);

void BM_CachedIntegerRead(benchmark::State& state) {
  CIntegerPtr p(Map().map._GetNode("R77"));
  p->GetValue();
  for (auto _ : state) benchmark::DoNotOptimize(p->GetValue());
}
BENCHMARK(BM_CachedIntegerRead);

void BM_CachedFeatureRead(benchmark::State& state) {
  CIntegerPtr p(Map().map._GetNode("F77"));
  p->GetValue();
  for (auto _ : state) benchmark::DoNotOptimize(p->GetValue());
}
BENCHMARK(BM_CachedFeatureRead);

void BM_UncachedIntegerRead(benchmark::State& state) {
  CIntegerPtr p(Map().map._GetNode("R78"));
  for (auto _ : state) benchmark::DoNotOptimize(p->GetValue(false, true));
}
BENCHMARK(BM_UncachedIntegerRead);

void BM_SwissKnifeEvaluation(benchmark::State& state) {
  CIntegerPtr p(Map().map._GetNode("Max79"));
  for (auto _ : state) benchmark::DoNotOptimize(p->GetValue(false, true));
}
BENCHMARK(BM_SwissKnifeEvaluation);

}  // namespace

BENCHMARK_MAIN();
