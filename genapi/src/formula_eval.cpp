// Formula evaluation: one pass over the postfix program with a fixed-size
// value stack, so it neither parses nor allocates and needs no locking.
//
// Evaluation never fails: register contents are not under the description's
// control, so every operation has a value for every operand.
// - Division and remainder by zero give 0 (0 ** negative too, its integer
//   power being 1 / 0).
// - Shift counts are taken modulo 64, as 64-bit shift instructions do: a
//   count read from a register may hold anything.
// - An integer formula computes in int64 until a double meets an operation
//   (a float literal, PI or E, a float variable, a function with a float
//   result); that operation and what is computed from it are double, and the
//   result is truncated toward zero at the end. 0.1 * TO is TO / 10.
#include <cmath>
#include <limits>

#include "formula_code.h"

namespace KivGenApi {
namespace detail {
namespace {

// Integer arithmetic wraps around in two's complement instead of being
// undefined on overflow.
int64_t Wrap(uint64_t v) { return static_cast<int64_t>(v); }
uint64_t U(int64_t v) { return static_cast<uint64_t>(v); }

// Comparisons give 1 or 0 in both modes.
template <typename T>
bool Relation(Op op, T a, T b) {
  switch (op) {
    case Op::Lt: return a < b;
    case Op::Gt: return a > b;
    case Op::Le: return a <= b;
    case Op::Ge: return a >= b;
    case Op::Eq: return a == b;
    default: return a != b;
  }
}

int64_t IntPow(int64_t base, int64_t exp) {
  if (exp < 0) {
    // Integer powers with negative exponents truncate toward zero.
    if (base == 1) return 1;
    if (base == -1) return (exp & 1) ? -1 : 1;
    return 0;
  }
  uint64_t result = 1, b = U(base);
  for (uint64_t e = U(exp); e; e >>= 1) {
    if (e & 1) result *= b;
    b *= b;
  }
  return Wrap(result);
}

int64_t IntBinary(Op op, int64_t a, int64_t b) {
  switch (op) {
    case Op::Add: return Wrap(U(a) + U(b));
    case Op::Sub: return Wrap(U(a) - U(b));
    case Op::Mul: return Wrap(U(a) * U(b));
    case Op::Div:
      if (b == 0) return 0;
      if (b == -1) return Wrap(0 - U(a));
      return a / b;
    case Op::Mod:
      if (b == 0 || b == -1) return 0;
      return a % b;
    case Op::Pow: return IntPow(a, b);
    case Op::Shl: return Wrap(U(a) << (b & 63));
    case Op::Shr: return a >> (b & 63);  // arithmetic: keeps the sign of negative values
    case Op::BitAnd: return a & b;
    case Op::BitXor: return a ^ b;
    case Op::BitOr: return a | b;
    case Op::Lt: case Op::Gt: case Op::Le: case Op::Ge: case Op::Eq: case Op::Ne:
      return Relation(op, a, b);
    default: return 0;
  }
}

double RoundTo(double x, double digits) {
  const double n = std::trunc(digits);
  if (std::isnan(n)) return std::numeric_limits<double>::quiet_NaN();
  if (n == 0) return std::round(x);
  if (n > 0) {
    // Beyond double's precision there is nothing left to round.
    if (n > 330) return x;
    const double scale = std::pow(10.0, n);
    const double y = x * scale;
    return std::isfinite(y) ? std::round(y) / scale : x;
  }
  if (n < -330) return 0.0 * x;
  const double scale = std::pow(10.0, -n);
  return std::round(x / scale) * scale;
}

double FloatBinary(Op op, double a, double b) {
  switch (op) {
    case Op::Add: return a + b;
    case Op::Sub: return a - b;
    case Op::Mul: return a * b;
    case Op::Div: return b == 0 ? 0.0 : a / b;
    case Op::Mod: return b == 0 ? 0.0 : std::fmod(a, b);
    case Op::Pow: return std::pow(a, b);
    case Op::Lt: case Op::Gt: case Op::Le: case Op::Ge: case Op::Eq: case Op::Ne:
      return Relation(op, a, b);
    case Op::Round2: return RoundTo(a, b);
    default:
      // Bitwise operators and shifts work on the int64 values.
      return static_cast<double>(IntBinary(op, SaturatingInt(a), SaturatingInt(b)));
  }
}

double FloatUnary(Op op, double x) {
  switch (op) {
    case Op::Neg: return -x;
    case Op::BitNot: return static_cast<double>(~SaturatingInt(x));
    case Op::Sgn: return (x > 0) - (x < 0);
    case Op::Abs: return std::fabs(x);
    case Op::Sqrt: return std::sqrt(x);
    case Op::Exp: return std::exp(x);
    case Op::Ln: return std::log(x);
    case Op::Lg: return std::log10(x);
    case Op::Sin: return std::sin(x);
    case Op::Cos: return std::cos(x);
    case Op::Tan: return std::tan(x);
    case Op::Asin: return std::asin(x);
    case Op::Acos: return std::acos(x);
    case Op::Atan: return std::atan(x);
    case Op::Trunc: return std::trunc(x);
    case Op::Floor: return std::floor(x);
    case Op::Ceil: return std::ceil(x);
    case Op::Round: return std::round(x);  // half away from zero
    case Op::Frac: return x - std::trunc(x);
    default: return x;
  }
}

// Functions whose result is a double even for an integer argument.
bool FloatResult(Op op) {
  switch (op) {
    case Op::Sqrt: case Op::Exp: case Op::Ln: case Op::Lg: case Op::Sin: case Op::Cos: case Op::Tan:
    case Op::Asin: case Op::Acos: case Op::Atan: case Op::Round2:
      return true;
    default:
      return false;
  }
}

int64_t IntUnary(Op op, int64_t x) {
  switch (op) {
    case Op::Neg: return Wrap(0 - U(x));
    case Op::BitNot: return ~x;
    case Op::Sgn: return (x > 0) - (x < 0);
    case Op::Abs: return x < 0 ? Wrap(0 - U(x)) : x;
    case Op::Frac: return 0;
    default: return x;  // TRUNC, FLOOR, CEIL, ROUND of an integer
  }
}

// A value of an integer formula: int64 until a double reaches it.
struct Num {
  bool fl;
  int64_t i;
  double f;
};
Num Int(int64_t v) { return {false, v, 0.0}; }
Num Dbl(double v) { return {true, 0, v}; }
double AsDouble(const Num& n) { return n.fl ? n.f : static_cast<double>(n.i); }
int64_t AsInt(const Num& n) { return n.fl ? SaturatingInt(n.f) : n.i; }
bool Truth(const Num& n) { return n.fl ? n.f != 0 : n.i != 0; }

Num MixedBinary(Op op, const Num& a, const Num& b) {
  const bool ints = !a.fl && !b.fl;
  switch (op) {
    case Op::Add: case Op::Sub: case Op::Mul: case Op::Div: case Op::Mod: case Op::Pow:
      return ints ? Int(IntBinary(op, a.i, b.i)) : Dbl(FloatBinary(op, AsDouble(a), AsDouble(b)));
    case Op::Lt: case Op::Gt: case Op::Le: case Op::Ge: case Op::Eq: case Op::Ne:
      return Int(ints ? Relation(op, a.i, b.i) : Relation(op, AsDouble(a), AsDouble(b)));
    case Op::Round2:
      return Dbl(RoundTo(AsDouble(a), AsDouble(b)));
    default:
      return Int(IntBinary(op, AsInt(a), AsInt(b)));
  }
}

Num MixedUnary(Op op, const Num& x) {
  if (!x.fl) return FloatResult(op) ? Dbl(FloatUnary(op, static_cast<double>(x.i))) : Int(IntUnary(op, x.i));
  if (op == Op::BitNot) return Int(~SaturatingInt(x.f));
  if (op == Op::Sgn) return Int((x.f > 0) - (x.f < 0));
  return Dbl(FloatUnary(op, x.f));
}

// The three evaluators differ only in their value type.
struct IntRules {
  using T = int64_t;
  static T Const(const Instr& in) { return in.i; }
  static T ConstF(const Instr& in) { return SaturatingInt(in.f); }  // not emitted into int-only programs
  static T Load(const FormulaValue& v) { return v.is_float ? SaturatingInt(v.f) : v.i; }
  static bool Truth(T v) { return v != 0; }
  static T Bool(bool b) { return b; }
  static T Unary(Op op, T x) { return IntUnary(op, x); }
  static T Binary(Op op, T a, T b) { return IntBinary(op, a, b); }
};
struct FloatRules {
  using T = double;
  static T Const(const Instr& in) { return in.f; }
  static T ConstF(const Instr& in) { return in.f; }
  static T Load(const FormulaValue& v) { return v.AsFloat(); }
  static bool Truth(T v) { return v != 0; }
  static T Bool(bool b) { return b; }
  static T Unary(Op op, T x) { return FloatUnary(op, x); }
  static T Binary(Op op, T a, T b) { return FloatBinary(op, a, b); }
};
struct MixedRules {
  using T = Num;
  static T Const(const Instr& in) { return Int(in.i); }
  static T ConstF(const Instr& in) { return Dbl(in.f); }
  static T Load(const FormulaValue& v) { return v.is_float ? Dbl(v.f) : Int(v.i); }
  static bool Truth(const T& v) { return detail::Truth(v); }
  static T Bool(bool b) { return Int(b); }
  static T Unary(Op op, const T& x) { return MixedUnary(op, x); }
  static T Binary(Op op, const T& a, const T& b) { return MixedBinary(op, a, b); }
};

template <typename R>
typename R::T Run(const Program& im, const FormulaValue* values) {
  using T = typename R::T;
  T stack[kMaxStack];
  size_t sp = 0;
  const Instr* code = im.code.data();
  const size_t n = im.code.size();
  for (size_t pc = 0; pc < n; ++pc) {
    const Instr& in = code[pc];
    switch (in.op) {
      case Op::Const:
        stack[sp++] = R::Const(in);
        break;
      case Op::ConstF:
        stack[sp++] = R::ConstF(in);
        break;
      case Op::Var:
        stack[sp++] = R::Load(values[in.arg]);
        break;
      case Op::AndJump:
        if (!R::Truth(stack[sp - 1])) {
          stack[sp - 1] = R::Bool(false);  // -0.0 is false too, but the result is plain 0
          pc += in.arg;
        } else {
          --sp;
        }
        break;
      case Op::OrJump:
        if (R::Truth(stack[sp - 1])) {
          stack[sp - 1] = R::Bool(true);
          pc += in.arg;
        } else {
          --sp;
        }
        break;
      case Op::ToBool:
        stack[sp - 1] = R::Bool(R::Truth(stack[sp - 1]));
        break;
      case Op::JumpIfFalse:
        if (!R::Truth(stack[--sp])) pc += in.arg;
        break;
      case Op::Jump:
        pc += in.arg;
        break;
      case Op::Neg: case Op::BitNot: case Op::Sgn: case Op::Abs: case Op::Sqrt: case Op::Exp:
      case Op::Ln: case Op::Lg: case Op::Sin: case Op::Cos: case Op::Tan: case Op::Asin:
      case Op::Acos: case Op::Atan: case Op::Trunc: case Op::Floor: case Op::Ceil: case Op::Round:
      case Op::Frac:
        stack[sp - 1] = R::Unary(in.op, stack[sp - 1]);
        break;
      default: {  // binary operators
        const T b = stack[--sp];
        stack[sp - 1] = R::Binary(in.op, stack[sp - 1], b);
        break;
      }
    }
  }
  return stack[0];
}

}  // namespace

FormulaValue CFormula::Evaluate(const FormulaValue* values) const {
  const Program& im = *impl_;
  if (!im.used_list.empty() && !values) throw FormulaError("no variable values given to a formula that uses variables");
  if (im.mode == Mode::Integer) {
    bool mixed = im.has_float;
    for (size_t k = 0; k < im.used_list.size() && !mixed; ++k) mixed = values[im.used_list[k]].is_float;
    if (!mixed) return FormulaValue::Int(Run<IntRules>(im, values));
    return FormulaValue::Int(AsInt(Run<MixedRules>(im, values)));
  }
  const double r = Run<FloatRules>(im, values);
  FormulaValue v;
  v.is_float = true;
  v.f = r;
  v.i = SaturatingInt(r);
  return v;
}

int64_t CFormula::EvaluateInt(const FormulaValue* values) const {
  FormulaValue v = Evaluate(values);
  return v.i;
}

double CFormula::EvaluateFloat(const FormulaValue* values) const { return Evaluate(values).AsFloat(); }

}  // namespace detail
}  // namespace KivGenApi
