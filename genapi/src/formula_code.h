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
  Const,   // push the literal (int64 in integer formulas, double in float ones)
  ConstF,  // push a double literal in an integer formula
  Var,     // push values[arg]
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
};

// Jumps are relative (next pc = pc + 1 + arg), so a compiled sub-expression
// can be copied into a formula unchanged.
struct Instr {
  Op op;
  int32_t arg;  // variable index or jump offset
  union {
    int64_t i;
    double f;
  };
};

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
  std::vector<int32_t> used_list;  // indices of the used variables
  // An integer formula that mentions a float literal, PI, E or a function
  // with a float result; without one (and with integer variables) it runs
  // on plain int64 values.
  bool has_float = false;
};

struct CFormula::Impl : Program {};

}  // namespace detail
}  // namespace KivGenApi
