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

// Syntax errors (at compile time) and evaluation errors (division by zero, a
// float-only function in integer mode, ...). The node map turns it into its
// own exception type with the node's name.
class FormulaError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One variable value: integer nodes give int64, float nodes give double.
struct FormulaValue {
  bool is_float = false;
  int64_t i = 0;
  double f = 0.0;
  static FormulaValue Int(int64_t v) { return {false, v, static_cast<double>(v)}; }
  static FormulaValue Float(double v) { return {true, static_cast<int64_t>(v), v}; }
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

  // Evaluates with values[i] bound to variables[i]. Throws FormulaError on
  // evaluation errors. Thread-safe for concurrent evaluations.
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
