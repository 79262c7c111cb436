// The compiled form of a formula: a flat postfix program over a value stack.
// Shared by the compiler (formula.cpp) and the evaluator (formula_eval.cpp).
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "formula.h"

namespace KivGenApi {
namespace detail {

enum class Op : uint8_t {
  Const,  // push the literal
  Var,    // push values[arg]
  Neg,
  BitNot,
  Add, Sub, Mul, Div, Mod, Pow, Shl, Shr,
  Lt, Gt, Le, Ge, Eq, Ne,
  BitAnd, BitXor, BitOr,
  AndJump,      // top false: replace by 0 and jump; else pop
  OrJump,       // top true: replace by 1 and jump; else pop
  ToBool,       // top := top != 0
  JumpIfFalse,  // pop; jump when it was 0
  Jump,
  // Functions of one argument (ROUND2 takes two).
  Sgn, Abs, Sqrt, Exp, Ln, Lg, Sin, Cos, Tan, Asin, Acos, Atan,
  Trunc, Floor, Ceil, Round, Round2, Frac,
  FloatOnly,  // integer mode: a float function or constant was reached
};

// Jumps are relative (next pc = pc + 1 + arg), so a compiled sub-expression
// can be copied into a formula unchanged.
struct Instr {
  Op op;
  int32_t arg;  // variable index, jump offset, or source location for errors
  union {
    int64_t i;
    double f;
  };
};

// Source locations packed into Instr::arg: which text (0 = the formula,
// k = expression k-1) and the 1-based column in it.
constexpr int kColumnBits = 22;
constexpr int32_t kColumnMask = (1 << kColumnBits) - 1;
constexpr int32_t kMaxSourceIndex = (1 << (31 - kColumnBits)) - 1;

inline int32_t PackLocation(int source, size_t column) {
  int32_t s = source > kMaxSourceIndex ? kMaxSourceIndex : source;
  int32_t c = column > static_cast<size_t>(kColumnMask) ? kColumnMask : static_cast<int32_t>(column);
  return (s << kColumnBits) | c;
}

// Evaluation keeps its value stack in a fixed array; deeper formulas are
// rejected when compiled.
constexpr size_t kMaxStack = 256;
// Nested parentheses, function arguments and conditionals recurse in the
// parser; this bound keeps hostile input from exhausting the thread's stack.
constexpr int kMaxNesting = 200;

struct Program {
  CFormula::Mode mode = CFormula::Mode::Integer;
  std::vector<Instr> code;
  std::vector<bool> used;
  bool uses_values = false;
  // Quoted description of each source text ("formula \"A+B\"", ...), for errors.
  std::vector<std::string> sources;
  std::vector<std::string> texts;  // the raw texts, same order
  std::string Where(int32_t location) const;
  std::string NameAt(int32_t location) const;  // the identifier starting there
};

struct CFormula::Impl : Program {};

// Conversion used wherever a double meets int64 (bitwise operators, float
// variables in integer formulas, integer results of float formulas):
// truncates toward zero, saturates at the int64 limits, NaN gives 0.
inline int64_t SaturatingInt(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 9223372036854775807.0) return std::numeric_limits<int64_t>::max();
  if (v <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

}  // namespace detail
}  // namespace KivGenApi
