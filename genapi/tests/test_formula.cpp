// Formula compiler and evaluator: reference values, precedence, integer
// versus float semantics, values for every operand (division by zero, any
// shift count), compile errors and robustness against hostile input.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "formula.h"

using KivGenApi::detail::CFormula;
using KivGenApi::detail::FormulaError;
using KivGenApi::detail::FormulaValue;
using Mode = CFormula::Mode;

namespace {

// Variables of the tests: name and value.
using Vars = std::vector<std::pair<std::string, FormulaValue>>;
using Exprs = std::vector<std::pair<std::string, std::string>>;

std::vector<std::string> Names(const Vars& vars) {
  std::vector<std::string> names;
  for (const auto& v : vars) names.push_back(v.first);
  return names;
}
std::vector<FormulaValue> Values(const Vars& vars) {
  std::vector<FormulaValue> values;
  for (const auto& v : vars) values.push_back(v.second);
  return values;
}

double F(const std::string& text, const Vars& vars = {}, const Exprs& exprs = {}) {
  CFormula f(text, Mode::Float, Names(vars), exprs);
  auto values = Values(vars);
  return f.EvaluateFloat(values.data());
}
int64_t I(const std::string& text, const Vars& vars = {}, const Exprs& exprs = {}) {
  CFormula f(text, Mode::Integer, Names(vars), exprs);
  auto values = Values(vars);
  return f.EvaluateInt(values.data());
}

// The compile error's message ("" when the text compiles).
std::string CompileError(const std::string& text, Mode mode = Mode::Float, const Vars& vars = {},
                         const Exprs& exprs = {}) {
  try {
    CFormula f(text, mode, Names(vars), exprs);
  } catch (const FormulaError& e) {
    return e.what();
  }
  return "";
}

FormulaValue Int(int64_t v) { return FormulaValue::Int(v); }
FormulaValue Flt(double v) { return FormulaValue::Float(v); }

}  // namespace

struct ValueCase {
  const char* text;
  Mode mode;
  double want;
};
constexpr Mode kI = Mode::Integer;
constexpr Mode kF = Mode::Float;

void ExpectValues(const ValueCase* cases, size_t n) {
  for (size_t k = 0; k < n; ++k) {
    const ValueCase& c = cases[k];
    if (c.mode == kI) {
      EXPECT_EQ(I(c.text), static_cast<int64_t>(c.want)) << c.text;
    } else {
      EXPECT_NEAR(F(c.text), c.want, 1e-12 * (1 + std::fabs(c.want))) << c.text;
    }
  }
}

TEST(FormulaValues, LiteralsOperatorsAndFunctions) {
  const ValueCase cases[] = {
      // Reference results.
      {"10.2+10+0x10+010", kF, 46.2}, {"15/6", kF, 2.5}, {"25.2 % 7", kF, 4.2}, {"6.0-0x05", kF, 1},
      {"+2.2", kF, 2.2}, {"ROUND(5.5)", kF, 6}, {"ROUND(-5.5)", kF, -6}, {"ROUND(45.4545, 1)", kF, 45.5},
      {"ROUND(45.4545, -1)", kF, 50}, {"ROUND(1.25, 400)", kF, 1.25}, {"ROUND(15, -400)", kF, 0},
      {"ROUND(-1234.5, -2)", kF, -1200}, {"-5 && 7", kI, 1}, {"FRAC(-5.4)", kF, -0.4},
      {"TRUNC(-5.5)", kF, -5}, {"2**16", kI, 65536},
      // Literals: decimal leading zeros, hex as a 64-bit pattern in both
      // modes, float forms; integer formulas truncate their result.
      {"007", kI, 7}, {"0Xff", kI, 255}, {"0xFFFFFFFFFFFFFFFF", kI, -1}, {"0xFFFFFFFFFFFFFFFF", kF, -1},
      {".5 + 5.", kF, 5.5}, {"1.5e3 + 2E-1", kF, 1500.2}, {"123456789012345678901234567890", kF, 1.2345678901234568e29},
      {"7.9", kI, 7}, {"-7.9", kI, -7},
      // Functions, case-insensitive, and constants.
      {"SGN(-3.5)", kF, -1}, {"SGN(0.1)", kF, 1}, {"NEG(2.5)", kF, -2.5},
      {"ABS(-2.5)", kF, 2.5}, {"SQRT(6.25)", kF, 2.5}, {"EXP(1)", kF, M_E}, {"LN(E)", kF, 1},
      {"LG(1000)", kF, 3}, {"SIN(PI/2)", kF, 1}, {"COS(PI)", kF, -1}, {"TAN(PI/4)", kF, 1},
      {"ASIN(1)", kF, M_PI / 2}, {"ACOS(-1)", kF, M_PI}, {"ATAN(1)*4", kF, M_PI}, {"FLOOR(-2.5)", kF, -3},
      {"CEIL(-2.5)", kF, -2}, {"neg(sgn(-2)) + Abs(-1)", kF, 2},
      {"pi", kF, M_PI}, {"e", kF, M_E}, {"SGN(-7) + NEG(5)", kI, -6}, {"sgn(0)", kI, 0},
      // Integer versus float: truncating / and C %, integer **.
      {"15/6", kI, 2}, {"-15/6", kI, -2}, {"-15/6", kF, -2.5}, {"-7 % 3", kI, -1}, {"7 % -3", kI, 1},
      {"-7.5 % 2", kF, -1.5}, {"3**4", kI, 81}, {"2**-1", kF, 0.5}, {"(-1)**-3", kI, -1}, {"1**-3", kI, 1},
      // Float comparisons and logic give 1.0 / 0.0; bitwise operators and
      // shifts work on the truncated int64 values.
      {"2.5 > 2", kF, 1}, {"0.5 || 0", kF, 1}, {"0.5 && 0.25", kF, 1}, {"2.5 = 2.5", kF, 1},
      {"2.5 <> 2.5", kF, 0}, {"7.9 & 3.2", kF, 3}, {"1.9 << 3.7", kF, 8}, {"~2.5", kF, -3},
      {"5.5 ^ 1 | 8", kF, 12},
  };
  ExpectValues(cases, std::size(cases));
  EXPECT_FALSE(std::signbit(F("-0.0 && 1")));  // a plain 0, not the operand
}

// One case per pair of adjacent precedence levels and per associativity,
// plus the decisions: unary minus binds tighter than ** (C rules), = binds
// tighter than &, ?: and ** are right-associative, == is accepted for =.
TEST(FormulaPrecedence, Decisions) {
  const ValueCase cases[] = {
      {"2+3*4", kI, 14}, {"10-4-3", kI, 3}, {"100/10/5", kI, 2}, {"7/2*3%4", kI, 1}, {"2**3**2", kI, 512},
      {"-2**2", kI, 4}, {"-2**2", kF, 4}, {"2**-1", kI, 0}, {"~1+1", kI, -1}, {"1+2<<1", kI, 6},
      {"1<2=1", kI, 1}, {"7&3=3", kI, 1}, {"1|2^3&4", kI, 3}, {"1||0&&0", kI, 1}, {"1==1", kI, 1},
      {"1?2:0?3:4", kI, 2}, {"0?2:0?3:4", kI, 4}, {"0?2:1?3:4", kI, 3}, {"1?0?5:6:7", kI, 6},
      {"1&&0?5:6", kI, 6}, {"2+(0?1:2)*3", kI, 8}, {"-8>>1", kI, -4},
      {"2|1&&0", kI, 0}, {"1|1^1", kI, 1}, {"1^1&0", kI, 1}, {"1<<2<5", kI, 1}, {"2*3**2", kI, 18},
      {"256>>2>>1", kI, 32}, {"8%5%2", kI, 1}, {"3>2>1", kI, 0}, {"2=2=1", kI, 1},
  };
  ExpectValues(cases, std::size(cases));
  // Shapes from real camera descriptions.
  Vars v = {{"X", Int(1)}, {"A", Int(1)}, {"B", Int(0)}, {"Mode", Int(2)}};
  EXPECT_EQ(I("A = 1 && B", v), 0);
  EXPECT_EQ(I("Mode = 0 ? 100 : Mode = 1 ? 200 : Mode = 2 ? 300 : 400", v), 300);
  EXPECT_EQ(I("(X & 0x1) = 1 ? (Mode << 4) | 0xF : 0", v), 0x2F);
  EXPECT_EQ(I("A && NEG(B + 3)", v), 1);  // NEG is arithmetic, not a logical not
}

TEST(FormulaSemantics, OverflowWrapsAndSaturates) {
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  Vars v = {{"MIN", Int(kMin)}, {"MAX", Int(kMax)}};
  EXPECT_EQ(I("MAX + 1", v), kMin);
  EXPECT_EQ(I("-MIN", v), kMin);
  EXPECT_EQ(I("MIN / -1", v), kMin);
  EXPECT_EQ(I("MIN % -1", v), 0);
  EXPECT_EQ(I("2 ** 64"), 0);
  EXPECT_EQ(I("MIN >> 63", v), -1);
  EXPECT_EQ(I("0x7fffffffffffffff"), kMax);
  EXPECT_EQ(I("-9223372036854775808"), kMin);
  EXPECT_EQ(I("1e30"), kMax);
  EXPECT_EQ(I("1e999"), kMax);
  EXPECT_EQ(F("1e999"), std::numeric_limits<double>::infinity());
  EXPECT_EQ(F("1e-999"), 0.0);
  // Float results outside int64 saturate when read as integers, NaN reads 0.
  EXPECT_EQ(CFormula("1e300", kF, {}).EvaluateInt(nullptr), kMax);
  CFormula nan("SQRT(-1)", kF, {});
  EXPECT_TRUE(std::isnan(nan.EvaluateFloat(nullptr)));
  EXPECT_EQ(nan.EvaluateInt(nullptr), 0);
}

// Operands read from registers may hold anything; every operation has a
// value, in both modes.
TEST(FormulaSemantics, DivisionByZeroGivesZero) {
  Vars v = {{"A", Int(6)}, {"Z", Int(0)}, {"N", Int(-1)}, {"FZ", Flt(0.0)}, {"BITS", Int(-2000000000)}};
  EXPECT_EQ(I("A / Z", v), 0);
  EXPECT_EQ(I("A % Z", v), 0);
  EXPECT_EQ(I("Z ** N", v), 0);  // 1 / 0
  EXPECT_EQ(I("A / Z + 1", v), 1);
  EXPECT_EQ(F("A / FZ", v), 0.0);
  EXPECT_EQ(F("A % FZ", v), 0.0);
  EXPECT_EQ(F("FZ / FZ", v), 0.0);
  EXPECT_EQ(I("A / 0.0 + 2", v), 2);
  // A fixed-point value whose position register holds a huge negative
  // count: 2**BITS underflows to 0.
  EXPECT_EQ(F("A / (2 ** BITS)", v), 0.0);
  EXPECT_EQ(I("A / (2 ** BITS)", v), 0);
  // Other float operations keep their IEEE results.
  EXPECT_EQ(F("2 ** -BITS", v), std::numeric_limits<double>::infinity());
  EXPECT_TRUE(std::isnan(F("SQRT(-A)", v)));
}

TEST(FormulaSemantics, ShiftCountsAreTakenModulo64) {
  // A count from a register (3981807506 = 62 * 64 + 18) as in "(X >> Y) & 0xFF".
  Vars v = {{"X", Int(0x12345678)}, {"Y", Int(3981807506)}, {"N", Int(-1)}, {"FY", Flt(66.9)}};
  EXPECT_EQ(I("(X >> Y) & 0xFF", v), (0x12345678 >> 18) & 0xFF);
  EXPECT_DOUBLE_EQ(F("(X >> Y) & 0xFF", v), (0x12345678 >> 18) & 0xFF);
  EXPECT_EQ(I("1 << 64"), 1);
  EXPECT_EQ(I("1 << 65"), 2);
  EXPECT_EQ(I("1 >> N", v), 0);     // -1 is 63
  EXPECT_EQ(I("-8 >> N", v), -1);   // arithmetic shift by 63
  EXPECT_EQ(I("X << FY", v), int64_t{0x12345678} << 2);  // 66.9 truncates to 66
  EXPECT_EQ(F("1 << 64.5"), 1.0);
}

// An integer formula computes in int64 until a double takes part; from that
// operation on it is double, and the result is truncated toward zero.
TEST(FormulaSemantics, IntegerFormulasWithFloatOperands) {
  Vars v = {{"TO", Int(100)}, {"NEG", Int(-35311179)}, {"TEN", Int(10)}, {"G", Flt(2.75)}};
  EXPECT_EQ(I("0.1 * TO", v), 10);
  EXPECT_EQ(I("NEG * 0.5", v), -17655589);  // -17655589.5: truncated, not rounded away from zero
  EXPECT_EQ(I("NEG / 2.0", v), -17655589);
  EXPECT_EQ(I("-TEN / 4.0", v), -2);
  EXPECT_EQ(I("TEN / 3 * 1.5", v), 4);       // 10 / 3 is an integer division: 3 * 1.5
  EXPECT_EQ(I("TEN / 3.0 * 3", v), 10);
  EXPECT_EQ(I("G * 4", v), 11);              // float variables take part as doubles
  EXPECT_EQ(I("(0.5 < 1) / 2", v), 0);        // a comparison gives the integer 1
  EXPECT_EQ(I("2.9 | 4", v), 6);              // bitwise operators work on the truncated values
  EXPECT_EQ(I("-(2.5) * 2", v), -5);          // unary operators and ?: keep a double a double
  EXPECT_EQ(I("(0 ? 1 : 2.5) * 2", v), 5);
  EXPECT_EQ(I("9007199254740993 = 9007199254740992"), 0);  // integers compare exactly, not as doubles
  // Functions with a float result, PI and E work in integer formulas too.
  EXPECT_EQ(I("SQRT(TO) + 1", v), 11);
  EXPECT_EQ(I("ROUND(TEN / 4.0)", v), 3);
  EXPECT_EQ(I("ROUND(TEN / 4)", v), 2);      // ROUND of an integer is that integer
  EXPECT_EQ(I("ROUND(1234, -2)", v), 1200);
  EXPECT_EQ(I("TEN * PI", v), 31);
  EXPECT_EQ(I("TRUNC(-7 / 2.0)", v), -3);
  EXPECT_EQ(I("FRAC(TEN) + ABS(-TEN)", v), 10);
  EXPECT_EQ(I("E"), 2);
  // A result outside int64 saturates, NaN gives 0.
  EXPECT_EQ(I("TO * 1e300", v), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(I("LN(-1.0)"), 0);
}

TEST(FormulaVariables, BindingAndTypes) {
  Vars v = {{"V.Max", Int(100)}, {"SRC.Entry.Off", Int(3)}, {"SRC", Int(3)}, {"G", Flt(2.75)}};
  EXPECT_EQ(I("SRC = SRC.Entry.Off ? V.Max : 0", v), 100);
  EXPECT_DOUBLE_EQ(F("G * 4", v), 11.0);
  EXPECT_EQ(I("Gx", {{"Gx", Flt(-1e300)}}), std::numeric_limits<int64_t>::min());
  // A variable may shadow a constant or a function name when not called.
  EXPECT_DOUBLE_EQ(F("E + SIN", {{"E", Flt(1.5)}, {"SIN", Int(2)}}), 3.5);
  EXPECT_DOUBLE_EQ(F("e + SIN(0)", {{"E", Flt(1.5)}}), M_E);  // variables match exactly

  // Converter formulas bind TO and FROM like any other variable.
  CFormula from("TO * 10 + OLDTO", Mode::Integer, {"FROM", "TO", "OLDTO"});
  EXPECT_EQ(from.used_variables(), (std::vector<bool>{false, true, true}));
  FormulaValue values[] = {Int(0), Int(7), Int(1)};
  EXPECT_EQ(from.EvaluateInt(values), 71);
}

TEST(FormulaVariables, NamedExpressions) {
  Vars v = {{"X", Int(3)}, {"Y", Int(5)}, {"Z", Int(7)}};
  Exprs e = {{"TWICE", "2*X"}, {"SAFE", "Y = 0 ? 0 : X / Y"}, {"UNUSED", "Z"}};
  EXPECT_EQ(I("TWICE + TWICE * 10", v, e), 66);
  EXPECT_DOUBLE_EQ(F("SAFE * 10", v, e), 6.0);
  // An expression inlined inside a conditional keeps its own jumps right.
  EXPECT_EQ(I("X > 1 ? SAFE + 1 : TWICE", v, e), 1);
  EXPECT_EQ(I("X > 5 ? SAFE + 1 : TWICE", v, e), 6);

  CFormula f("TWICE + 1", Mode::Integer, Names(v), e);
  EXPECT_EQ(f.used_variables(), (std::vector<bool>{true, false, false}));  // UNUSED's Z is not a dependency

  EXPECT_NE(CompileError("A", Mode::Integer, {}, {{"A", "B + 1"}, {"B", "1"}}).find("cannot use other expressions"),
            std::string::npos);
  EXPECT_NE(CompileError("A", Mode::Integer, {}, {{"A", "A + 1"}}).find("cannot use other expressions"),
            std::string::npos);
  std::string bad = CompileError("A", Mode::Integer, {}, {{"A", "1 +"}});
  EXPECT_NE(bad.find("expression 'A'"), std::string::npos) << bad;
  EXPECT_NE(CompileError("X", Mode::Integer, v, {{"X", "1"}}), "");
}

TEST(FormulaErrors, RejectedAtCompileWithWhatAndWhere) {
  struct Case {
    const char* text;
    const char* what;  // part of the message
  } cases[] = {
      {"", "empty"}, {"   \t ", "empty"}, {"\"abc\"", "strings"}, {"'abc'", "strings"},
      {"1 $ 2", "'$'"}, {"#1", "'#'"}, {"!A", "'!'"}, {"1 != 2", "'!'"}, {"1 2 3", "number 2"},
      {"(1+2", "expected ')'"}, {"1+2)", "unexpected ')'"}, {"()", "empty parentheses"},
      {"SGN()", "SGN takes 1 argument, not 0"}, {"SGN(A,B)", "SGN takes 1 argument, not 2"},
      {"ROUND(A,B,C)", "ROUND takes 1 or 2 arguments, not 3"}, {"FOO(1)", "unknown function 'FOO'"},
      {"0x", "'0x' without"}, {"0xG1", "'0x' without"}, {"1.2.3", "malformed number"},
      {"2abc", "malformed number"}, {"0x1FFFFFFFFFFFFFFFF", "wider than 64 bits"}, {"A +", "end of text"},
      {"? 1 : 2", "'?'"}, {"A ? 1", "expected ':'"}, {"A ? 1 , 2", "expected ':'"},
      {"Blade", "did you mean 'BLADE'"}, {"Q", "unknown name 'Q'"}, {"SIN + 1", "needs its arguments"},
      {"A(1)", "is a variable, not a function"}, {"1 + * 2", "found '*'"}, {"SGN(1,)", "found ')'"},
      {"1\x01", "byte 0x01"},
  };
  Vars v = {{"A", Int(1)}, {"B", Int(1)}, {"C", Int(1)}, {"BLADE", Int(1)}};
  for (const auto& c : cases) {
    for (Mode mode : {Mode::Integer, Mode::Float}) {
      std::string msg = CompileError(c.text, mode, v);
      EXPECT_NE(msg.find(c.what), std::string::npos) << "'" << c.text << "' gave: " << msg;
      EXPECT_NE(msg.find("column"), std::string::npos) << msg;
    }
  }
  // The column points at the offending token.
  EXPECT_NE(CompileError("1 + 2 3").find("column 7"), std::string::npos);
  EXPECT_NE(CompileError("(1 + (2)").find("'(' at column 1"), std::string::npos);
  // Integer literals too wide are rejected in integer formulas only.
  EXPECT_NE(CompileError("18446744073709551616", Mode::Integer), "");
  EXPECT_EQ(CompileError("18446744073709551616", Mode::Float), "");
}

TEST(FormulaErrors, OnlyMissingValuesFailAtEvaluation) {
  CFormula needs("A + 1", Mode::Integer, {"A"});
  EXPECT_THROW(needs.Evaluate(nullptr), FormulaError);
  EXPECT_EQ(CFormula("2 + 3", Mode::Integer, {"A"}).EvaluateInt(nullptr), 5);
}

TEST(FormulaRobustness, DeepNestingIsBoundedNotACrash) {
  const int kHuge = 100000;
  auto repeat = [](const std::string& s, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
  };
  EXPECT_NE(CompileError(repeat("(", kHuge) + "1" + repeat(")", kHuge)).find("nested too deeply"), std::string::npos);
  EXPECT_NE(CompileError(repeat("ABS(", kHuge) + "1" + repeat(")", kHuge)), "");
  EXPECT_NE(CompileError(repeat("1 ? ", kHuge) + "1" + repeat(" : 0", kHuge)), "");
  // Right-associative chains pile up pending values; they are bounded too.
  EXPECT_NE(CompileError("1" + repeat("**1", kHuge)).find("too complex"), std::string::npos);

  // Long flat chains, long unary runs and a chain of else-branches are fine.
  EXPECT_EQ(I("1" + repeat("+1", kHuge)), kHuge + 1);
  EXPECT_EQ(I(repeat("-", kHuge) + "5"), 5);
  std::string chain;
  for (int i = 0; i < 5000; ++i) chain += "X = " + std::to_string(i) + " ? " + std::to_string(i * 2) + " : ";
  EXPECT_EQ(I(chain + "-1", {{"X", Int(4321)}}), 8642);

  // The deepest accepted nesting, each level passing through every parser
  // stage, stays within the thread's stack (checked under AddressSanitizer).
  EXPECT_DOUBLE_EQ(F(repeat("0||1&&-ABS(~", 199) + "0" + repeat(")", 199)), 1.0);
  // Moderate nesting, as written by hand, works in every form.
  const std::string nested = repeat("(", 150) + "2" + repeat(")", 150);
  EXPECT_EQ(F("ABS(" + nested + ") + " + nested), 4.0);
}

// Evaluation keeps no state in the formula: two threads sharing one must
// get the results a single thread gets.
TEST(FormulaThreads, ConcurrentEvaluationsAgree) {
  const char* text = "X > 100 ? (X * 3 + Y) / 2 : ROUND(X / 7, 2) + FRAC(Y / 3)";
  CFormula f(text, kF, {"X", "Y"});
  std::vector<std::array<FormulaValue, 2>> at;
  std::vector<double> want;
  for (int i = 0; i < 400; ++i) {
    at.push_back({Int(i), Int(400 - i)});
    want.push_back(F(text, {{"X", Int(i)}, {"Y", Int(400 - i)}}));
  }
  int mismatches[2] = {0, 0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 200; ++round)
        for (int i = 0; i < 400; ++i) mismatches[t] += f.EvaluateFloat(at[i].data()) != want[i];
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(mismatches[0] + mismatches[1], 0);
}
