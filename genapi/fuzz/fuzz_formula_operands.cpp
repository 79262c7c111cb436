// Fuzz target of formula evaluation over operands read from registers:
// the input chooses the variables' values as well as the text, so shift
// counts, divisors and exponents take any value a register can hold.
// Input: one byte whose bits mark the float variables, four 8-byte values
// (int64 or the bits of a double) for A, B, C and D, then the formula. A
// formula that compiles must evaluate in both modes: any FormulaError from
// evaluation is a finding, as are crashes and undefined behaviour.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "formula.h"

using KivGenApi::detail::CFormula;
using KivGenApi::detail::FormulaError;
using KivGenApi::detail::FormulaValue;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kVars = 4, kHeader = 1 + 8 * kVars;
  if (size < kHeader || size > kHeader + 4096) return 0;
  static const std::vector<std::string> names = {"A", "B", "C", "D"};
  FormulaValue values[kVars];
  for (size_t k = 0; k < kVars; ++k) {
    uint64_t bits;
    std::memcpy(&bits, data + 1 + 8 * k, 8);
    if (data[0] >> k & 1) {
      double d;
      std::memcpy(&d, &bits, 8);
      values[k] = FormulaValue::Float(d);
    } else {
      values[k] = FormulaValue::Int(static_cast<int64_t>(bits));
    }
  }
  const std::string text(reinterpret_cast<const char*>(data + kHeader), size - kHeader);
  for (CFormula::Mode mode : {CFormula::Mode::Integer, CFormula::Mode::Float}) {
    std::unique_ptr<CFormula> f;
    try {
      f = std::make_unique<CFormula>(text, mode, names);
    } catch (const FormulaError&) {
      continue;
    }
    try {
      volatile int64_t i = f->EvaluateInt(values);
      volatile double d = f->EvaluateFloat(values);
      (void)i;
      (void)d;
    } catch (const FormulaError&) {
      std::abort();
    }
  }
  return 0;
}
