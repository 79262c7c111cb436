// Compiled formulas of SwissKnife, IntSwissKnife, Converter and IntConverter
// nodes. A formula is compiled once when the description is loaded and then
// evaluated many times, so evaluation must not parse or allocate.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace KivGenApi {
namespace detail {

// Syntax errors, raised when a formula is compiled. A compiled formula
// evaluates without errors (see formula_eval.cpp). The node map turns it into
// its own exception type with the node's name.
class FormulaError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The one conversion from double to int64 wherever they meet (bitwise
// operators and shifts, the result of an integer formula that computed in
// double, a float node read or written as an integer): truncates toward
// zero, as a C cast does, saturates at the int64 limits, NaN gives 0.
inline int64_t SaturatingInt(double v) {
  if (v != v) return 0;
  if (v >= 9223372036854775807.0) return INT64_MAX;
  if (v <= -9223372036854775808.0) return INT64_MIN;
  return static_cast<int64_t>(v);
}

// One variable value: integer nodes give int64, float nodes give double.
struct FormulaValue {
  bool is_float = false;
  int64_t i = 0;
  double f = 0.0;
  static FormulaValue Int(int64_t v) { return {false, v, static_cast<double>(v)}; }
  static FormulaValue Float(double v) { return {true, SaturatingInt(v), v}; }
  double AsFloat() const { return is_float ? f : static_cast<double>(i); }
};

class CFormula {
 public:
  enum class Mode { Integer, Float };

  // Compiles `text`. Every identifier that is not a function or a constant
  // (PI, E; case-insensitive) must be one of `variables` (exact match; names
  // may contain dots, e.g. "V.Max" or "SRC.Entry.Off"); its index there is
  // the index into the value array at evaluation. `expressions` are named
  // sub-expressions (name, text) that the formula may use by name; they may
  // use variables but not each other. Throws FormulaError on any syntax error.
  CFormula(const std::string& text, Mode mode, const std::vector<std::string>& variables,
           const std::vector<std::pair<std::string, std::string>>& expressions = {});
  ~CFormula();
  CFormula(CFormula&&) noexcept;
  CFormula& operator=(CFormula&&) noexcept;

  // Evaluates with values[i] bound to variables[i]; throws FormulaError
  // only when values is null and the formula uses a variable. Thread-safe
  // for concurrent evaluations.
  FormulaValue Evaluate(const FormulaValue* values) const;
  int64_t EvaluateInt(const FormulaValue* values) const;   // integer result (truncated in float mode)
  double EvaluateFloat(const FormulaValue* values) const;  // float result

  Mode mode() const;
  // Which of the variables the formula actually uses (to register dependencies).
  const std::vector<bool>& used_variables() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace detail
}  // namespace KivGenApi
