// Load time of a large generated description, of the real descriptions in
// the test data and of a lookup table written as a formula; node lookup,
// cached and uncached integer reads, and a SwissKnife evaluation.
#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>
#include <sstream>
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
const char* kHead =
    "<?xml version=\"1.0\"?>\n<RegisterDescription ModelName=\"Bench\" VendorName=\"Kiv\" "
    "StandardNameSpace=\"None\" SchemaMajorVersion=\"1\" SchemaMinorVersion=\"1\" SchemaSubMinorVersion=\"0\" "
    "MajorVersion=\"1\" MinorVersion=\"0\" SubMinorVersion=\"0\" ProductGuid=\"0\" VersionGuid=\"0\" "
    "xmlns=\"http://www.genicam.org/GenApi/Version_1_1\">\n<Port Name=\"Device\"/>\n";

std::string Generate(int features) {
  std::string x = std::string(kHead) + "<Integer Name=\"Locked\"><Value>0</Value></Integer>\n<Category Name=\"Root\">";
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

// The shape of a thermal camera's description that loaded slowly: a
// Converter whose two formulas are piecewise-linear tables over hundreds of
// calibration points, each point a variable of its own.
std::string LookupTable(int points) {
  std::string x = kHead, vars, from, to;
  x += "<IntReg Name=\"Raw\"><Address>0</Address><Length>4</Length><AccessMode>RW</AccessMode>"
       "<pPort>Device</pPort></IntReg>\n";
  for (int i = 0; i < points; ++i) {
    std::string n = std::to_string(i), m = std::to_string(i + 1);
    x += "<Integer Name=\"CalRaw" + n + "\"><Value>" + std::to_string(i * 64) + "</Value></Integer><Integer Name=\"CalT" +
         n + "\"><Value>" + std::to_string(2000 + i * 13) + "</Value></Integer>\n";
    vars += "<pVariable Name=\"R" + n + "\">CalRaw" + n + "</pVariable><pVariable Name=\"T" + n + "\">CalT" + n +
            "</pVariable>";
    if (i + 1 == points) break;
    from += "TO &lt; R" + m + " ? T" + n + " + (TO - R" + n + ") * (T" + m + " - T" + n + ") / (R" + m + " - R" + n + ") : ";
    to += "FROM &lt; T" + m + " ? R" + n + " + (FROM - T" + n + ") * (R" + m + " - R" + n + ") / (T" + m + " - T" + n + ") : ";
  }
  x += "<Converter Name=\"Temperature\">" + vars + "<FormulaTo>" + to + "0</FormulaTo><FormulaFrom>" + from +
       "0</FormulaFrom><pValue>Raw</pValue></Converter>\n";
  return x + "</RegisterDescription>\n";
}

const std::string& Description() {
  static const std::string xml = Generate(1000);
  return xml;
}

void Load(benchmark::State& state, const std::string& xml) {
  for (auto _ : state) {
    CNodeMapRef map;
    map._LoadXMLFromString(xml);
    benchmark::DoNotOptimize(map._Ptr);
  }
  state.counters["bytes"] = static_cast<double>(xml.size());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * xml.size()));
}

void BM_LoadDescription(benchmark::State& state) { Load(state, Description()); }
BENCHMARK(BM_LoadDescription)->Unit(benchmark::kMillisecond);

// 192 points make about 62 KB, the size of the ordinary shape below; four
// times the points show how the load time grows with the table.
void BM_LoadLookupTable(benchmark::State& state) { Load(state, LookupTable(static_cast<int>(state.range(0)))); }
BENCHMARK(BM_LoadLookupTable)->Arg(192)->Arg(768)->Unit(benchmark::kMillisecond);

void BM_LoadOrdinary62K(benchmark::State& state) {
  static const std::string xml = Generate(65);
  Load(state, xml);
}
BENCHMARK(BM_LoadOrdinary62K)->Unit(benchmark::kMillisecond);

// The real descriptions of the test data, read in place.
void BM_LoadRealDescription(benchmark::State& state, const char* file) {
  std::ifstream in(std::string(KIVGENAPI_TESTDATA) + "/" + file, std::ios::binary);
  if (!in) return state.SkipWithError("test data missing");
  std::ostringstream ss;
  ss << in.rdbuf();
  Load(state, ss.str());
}
BENCHMARK_CAPTURE(BM_LoadRealDescription, aravis_fake_camera, "aravis-fake-camera.xml")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_LoadRealDescription, aravis_testsuite, "aravis-testsuite.xml")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_LoadRealDescription, pgr_flea3_ge, "pgr-flea3-ge-28s4c.xml")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_LoadRealDescription, mikrotron_cxp, "mikrotron-cxp-mc206x.xml")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_LoadRealDescription, flir_blackflys_u3, "flir-blackflys-u3-161s7m.xml")->Unit(benchmark::kMillisecond);

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
