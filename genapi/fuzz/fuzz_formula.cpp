// Fuzz target of the formula compiler: arbitrary text compiled in both modes
// and evaluated with fixed values. Input "F;X1;X2" gives the formula F and
// the named sub-expressions X1 and X2. FormulaError is the only allowed way
// to fail; a crash, hang, leak or undefined behaviour is a finding.
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "formula.h"

using KivGenApi::detail::CFormula;
using KivGenApi::detail::FormulaError;
using KivGenApi::detail::FormulaValue;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 8192) return 0;  // longer texts only repeat what shorter ones cover
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t semi; parts.size() < 3 && (semi = input.find(';', start)) != std::string::npos; start = semi + 1)
    parts.push_back(input.substr(start, semi - start));
  parts.push_back(input.substr(start));

  std::vector<std::pair<std::string, std::string>> expressions;
  for (size_t k = 1; k < parts.size(); ++k) expressions.emplace_back("X" + std::to_string(k), parts[k]);

  static const std::vector<std::string> names = {"A", "B", "V.Max", "TO", "SRC.Entry.Off", "F"};
  static const FormulaValue values[] = {
      FormulaValue::Int(7),
      FormulaValue::Int(0),
      FormulaValue::Float(2.5),
      FormulaValue::Int(-1),
      FormulaValue::Int(std::numeric_limits<int64_t>::min()),
      FormulaValue{true, 0, std::numeric_limits<double>::quiet_NaN()},
  };
  for (CFormula::Mode mode : {CFormula::Mode::Integer, CFormula::Mode::Float}) {
    try {
      CFormula f(parts[0], mode, names, expressions);
      volatile int64_t i = f.EvaluateInt(values);
      volatile double d = f.EvaluateFloat(values);
      (void)i;
      (void)d;
    } catch (const FormulaError&) {
    }
  }
  return 0;
}
