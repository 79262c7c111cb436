// Formula evaluation: one pass over the postfix program with a fixed-size
// value stack, so it neither parses nor allocates and needs no locking.
#include <cmath>
#include <limits>

#include "formula_code.h"

namespace KivGenApi {
namespace detail {
namespace {

[[noreturn]] void Fail(const Program& im, int32_t location, const std::string& what) {
  throw FormulaError(what + " at " + im.Where(location));
}

// Integer arithmetic wraps around in two's complement instead of being
// undefined on overflow.
int64_t Wrap(uint64_t v) { return static_cast<int64_t>(v); }
uint64_t U(int64_t v) { return static_cast<uint64_t>(v); }

// Comparisons give 1 or 0 in both modes.
template <typename T>
T Relation(Op op, T a, T b) {
  switch (op) {
    case Op::Lt: return a < b;
    case Op::Gt: return a > b;
    case Op::Le: return a <= b;
    case Op::Ge: return a >= b;
    case Op::Eq: return a == b;
    default: return a != b;
  }
}

void CheckDivisor(const Program& im, const Instr& in, bool zero) {
  if (zero) Fail(im, in.arg, in.op == Op::Div ? "division by zero" : "remainder of a division by zero");
}

int64_t IntPow(const Program& im, const Instr& in, int64_t base, int64_t exp) {
  if (exp < 0) {
    // Integer powers with negative exponents truncate toward zero.
    if (base == 0) Fail(im, in.arg, "zero raised to a negative power");
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

int64_t Shift(const Program& im, const Instr& in, int64_t v, int64_t count) {
  if (count < 0 || count > 63) Fail(im, in.arg, "shift count " + std::to_string(count) + " outside 0..63");
  if (in.op == Op::Shl) return Wrap(U(v) << count);
  return v >> count;  // arithmetic: keeps the sign of negative values
}

int64_t IntBinary(const Program& im, const Instr& in, int64_t a, int64_t b) {
  switch (in.op) {
    case Op::Add: return Wrap(U(a) + U(b));
    case Op::Sub: return Wrap(U(a) - U(b));
    case Op::Mul: return Wrap(U(a) * U(b));
    case Op::Div:
      CheckDivisor(im, in, b == 0);
      if (b == -1) return Wrap(0 - U(a));
      return a / b;
    case Op::Mod:
      CheckDivisor(im, in, b == 0);
      if (b == -1) return 0;
      return a % b;
    case Op::Pow: return IntPow(im, in, a, b);
    case Op::Shl:
    case Op::Shr: return Shift(im, in, a, b);
    case Op::BitAnd: return a & b;
    case Op::BitXor: return a ^ b;
    case Op::BitOr: return a | b;
    case Op::Lt: case Op::Gt: case Op::Le: case Op::Ge: case Op::Eq: case Op::Ne:
      return Relation(in.op, a, b);
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

double FloatBinary(const Program& im, const Instr& in, double a, double b) {
  switch (in.op) {
    case Op::Add: return a + b;
    case Op::Sub: return a - b;
    case Op::Mul: return a * b;
    case Op::Div:
      CheckDivisor(im, in, b == 0);
      return a / b;
    case Op::Mod:
      CheckDivisor(im, in, b == 0);
      return std::fmod(a, b);
    case Op::Pow: return std::pow(a, b);
    case Op::Lt: case Op::Gt: case Op::Le: case Op::Ge: case Op::Eq: case Op::Ne:
      return Relation(in.op, a, b);
    case Op::Round2: return RoundTo(a, b);
    default:
      // Bitwise operators and shifts work on the int64 values.
      return static_cast<double>(IntBinary(im, in, SaturatingInt(a), SaturatingInt(b)));
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

int64_t IntUnary(Op op, int64_t x) {
  switch (op) {
    case Op::Neg: return Wrap(0 - U(x));
    case Op::BitNot: return ~x;
    case Op::Sgn: return (x > 0) - (x < 0);
    default: return x;
  }
}

inline int64_t Load(const FormulaValue& v, int64_t*) { return v.is_float ? SaturatingInt(v.f) : v.i; }
inline double Load(const FormulaValue& v, double*) { return v.AsFloat(); }

template <typename T>
T Run(const Program& im, const FormulaValue* values) {
  T stack[kMaxStack];
  size_t sp = 0;
  const Instr* code = im.code.data();
  const size_t n = im.code.size();
  for (size_t pc = 0; pc < n; ++pc) {
    const Instr& in = code[pc];
    switch (in.op) {
      case Op::Const:
        if constexpr (std::is_same_v<T, double>) {
          stack[sp++] = in.f;
        } else {
          stack[sp++] = in.i;
        }
        break;
      case Op::Var:
        stack[sp++] = Load(values[in.arg], static_cast<T*>(nullptr));
        break;
      case Op::AndJump:
        if (stack[sp - 1] == 0) {
          stack[sp - 1] = 0;  // -0.0 is false too, but the result is plain 0
          pc += in.arg;
        } else {
          --sp;
        }
        break;
      case Op::OrJump:
        if (stack[sp - 1] != 0) {
          stack[sp - 1] = 1;
          pc += in.arg;
        } else {
          --sp;
        }
        break;
      case Op::ToBool:
        stack[sp - 1] = stack[sp - 1] != 0;
        break;
      case Op::JumpIfFalse:
        if (stack[--sp] == 0) pc += in.arg;
        break;
      case Op::Jump:
        pc += in.arg;
        break;
      case Op::FloatOnly:
        Fail(im, in.arg, im.NameAt(in.arg) + " is available in float formulas only");
      case Op::Neg: case Op::BitNot: case Op::Sgn: case Op::Abs: case Op::Sqrt: case Op::Exp:
      case Op::Ln: case Op::Lg: case Op::Sin: case Op::Cos: case Op::Tan: case Op::Asin:
      case Op::Acos: case Op::Atan: case Op::Trunc: case Op::Floor: case Op::Ceil: case Op::Round:
      case Op::Frac:
        if constexpr (std::is_same_v<T, double>) {
          stack[sp - 1] = FloatUnary(in.op, stack[sp - 1]);
        } else {
          stack[sp - 1] = IntUnary(in.op, stack[sp - 1]);
        }
        break;
      default: {  // binary operators
        const T b = stack[--sp];
        if constexpr (std::is_same_v<T, double>) {
          stack[sp - 1] = FloatBinary(im, in, stack[sp - 1], b);
        } else {
          stack[sp - 1] = IntBinary(im, in, stack[sp - 1], b);
        }
        break;
      }
    }
  }
  return stack[0];
}

}  // namespace

FormulaValue CFormula::Evaluate(const FormulaValue* values) const {
  if (impl_->uses_values && !values) throw FormulaError("no variable values given to " + impl_->sources[0]);
  if (impl_->mode == Mode::Integer) return FormulaValue::Int(Run<int64_t>(*impl_, values));
  const double r = Run<double>(*impl_, values);
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
