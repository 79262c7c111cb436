// Cost of compiling typical SwissKnife and Converter formulas once at load
// time, and of evaluating them on every read.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "formula.h"

using KivGenApi::detail::CFormula;
using KivGenApi::detail::FormulaValue;
using Mode = CFormula::Mode;

namespace {

struct Case {
  const char* text;
  Mode mode;
};

// Shapes seen in real camera descriptions.
const Case kCases[] = {
    {"(A*B+C)/2", Mode::Integer},
    {"(A*B+C)/2", Mode::Float},
    {"A = 0 ? 100 : A = 1 ? B << 4 : A = 2 ? (B & 0xFF) | C : A = 3 ? ~B : 0", Mode::Integer},
    {"(TO * 1000) / (0x10 + C) + ROUND(TO * 0.5, 2) - TRUNC(B / 3)", Mode::Float},  // converter
    {"B <> 0 && A % B = 0 ? EXP(LN(A) / 2) : SQRT(ABS(A - B))", Mode::Float},
};
const std::vector<std::string> kNames = {"A", "B", "C", "TO"};

void BM_Compile(benchmark::State& state) {
  const Case& c = kCases[state.range(0)];
  const std::string text = c.text;
  for (auto _ : state) {
    CFormula f(text, c.mode, kNames);
    benchmark::DoNotOptimize(f);
  }
  state.SetLabel(std::string(c.mode == Mode::Integer ? "int: " : "float: ") + c.text);
}

void BM_Evaluate(benchmark::State& state) {
  const Case& c = kCases[state.range(0)];
  CFormula f(c.text, c.mode, kNames);
  FormulaValue values[] = {FormulaValue::Int(3), FormulaValue::Int(7), FormulaValue::Int(11),
                           FormulaValue::Float(12.5)};
  for (auto _ : state) {
    benchmark::DoNotOptimize(values);
    benchmark::DoNotOptimize(f.Evaluate(values));
  }
  state.SetLabel(std::string(c.mode == Mode::Integer ? "int: " : "float: ") + c.text);
}

}  // namespace

BENCHMARK(BM_Compile)->DenseRange(0, 4);
BENCHMARK(BM_Evaluate)->DenseRange(0, 4);

BENCHMARK_MAIN();
