// Formula compiler and evaluator: reference values, precedence, integer
// versus float semantics, errors at compile and at evaluation, robustness
// against hostile input, and a randomized comparison with a tree evaluator.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <random>
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

// The message of the FormulaError that `fn` throws ("" when it throws none).
std::string ErrorOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const FormulaError& e) {
    return e.what();
  }
  return "";
}
std::string CompileError(const std::string& text, Mode mode = Mode::Float, const Vars& vars = {},
                         const Exprs& exprs = {}) {
  return ErrorOf([&] { CFormula f(text, mode, Names(vars), exprs); });
}

FormulaValue Int(int64_t v) { return FormulaValue::Int(v); }
FormulaValue Flt(double v) { return FormulaValue::Float(v); }

}  // namespace

TEST(FormulaValues, ReferenceResults) {
  EXPECT_DOUBLE_EQ(F("10.2+10+0x10+010"), 46.2);  // hex and a decimal leading zero
  EXPECT_EQ(I("A+B*C", {{"A", Int(2)}, {"B", Int(3)}, {"C", Int(4)}}), 14);
  EXPECT_DOUBLE_EQ(F("15/6"), 2.5);
  EXPECT_DOUBLE_EQ(F("25.2 % 7"), 4.2);
  EXPECT_DOUBLE_EQ(F("6.0-0x05"), 1.0);
  EXPECT_DOUBLE_EQ(F("+2.2"), 2.2);
  EXPECT_DOUBLE_EQ(F("ROUND(5.5)"), 6.0);
  EXPECT_DOUBLE_EQ(F("ROUND(-5.5)"), -6.0);
  EXPECT_DOUBLE_EQ(F("ROUND(45.4545, 1)"), 45.5);
  EXPECT_DOUBLE_EQ(F("ROUND(45.4545, -1)"), 50.0);
  EXPECT_DOUBLE_EQ(F("ROUND(45.4545, 0)"), 45.0);
  EXPECT_DOUBLE_EQ(F("ROUND(1.25, 400)"), 1.25);  // more digits than a double has
  EXPECT_DOUBLE_EQ(F("ROUND(15, -400)"), 0.0);
  EXPECT_DOUBLE_EQ(F("ROUND(-1234.5, -2)"), -1200.0);
  EXPECT_EQ(I("-5 && 7"), 1);
  EXPECT_DOUBLE_EQ(F("-5 && 7"), 1.0);
  EXPECT_NEAR(F("FRAC(-5.4)"), -0.4, 1e-12);
  EXPECT_DOUBLE_EQ(F("TRUNC(-5.5)"), -5.0);
  EXPECT_EQ(I("2**16"), 65536);
  EXPECT_EQ(I("0xFFFFFFFFFFFFFFFF"), -1);
  EXPECT_EQ(I("0Xff"), 255);
}

TEST(FormulaValues, Functions) {
  EXPECT_DOUBLE_EQ(F("SGN(-3.5)"), -1);
  EXPECT_DOUBLE_EQ(F("SGN(0)"), 0);
  EXPECT_DOUBLE_EQ(F("SGN(0.1)"), 1);
  EXPECT_DOUBLE_EQ(F("NEG(2.5)"), -2.5);
  EXPECT_DOUBLE_EQ(F("ABS(-2.5)"), 2.5);
  EXPECT_DOUBLE_EQ(F("SQRT(6.25)"), 2.5);
  EXPECT_DOUBLE_EQ(F("EXP(1)"), std::exp(1.0));
  EXPECT_DOUBLE_EQ(F("LN(E)"), 1.0);
  EXPECT_DOUBLE_EQ(F("LG(1000)"), 3.0);
  EXPECT_NEAR(F("SIN(PI/2)"), 1.0, 1e-15);
  EXPECT_NEAR(F("COS(PI)"), -1.0, 1e-15);
  EXPECT_NEAR(F("TAN(PI/4)"), 1.0, 1e-15);
  EXPECT_NEAR(F("ASIN(1)"), M_PI / 2, 1e-15);
  EXPECT_NEAR(F("ACOS(-1)"), M_PI, 1e-15);
  EXPECT_NEAR(F("ATAN(1)*4"), M_PI, 1e-15);
  EXPECT_DOUBLE_EQ(F("FLOOR(-2.5)"), -3);
  EXPECT_DOUBLE_EQ(F("CEIL(-2.5)"), -2);
  EXPECT_DOUBLE_EQ(F("CEIL(2.1)"), 3);
  EXPECT_DOUBLE_EQ(F("FRAC(7.25)"), 0.25);
  // Names of functions and constants ignore case.
  EXPECT_DOUBLE_EQ(F("neg(sgn(-2)) + Abs(-1)"), 2.0);
  EXPECT_DOUBLE_EQ(F("pi"), M_PI);
  EXPECT_DOUBLE_EQ(F("e"), M_E);
  // Integer formulas have SGN and NEG.
  EXPECT_EQ(I("SGN(-7) + NEG(5)"), -6);
  EXPECT_EQ(I("sgn(0)"), 0);
}

TEST(FormulaValues, Literals) {
  EXPECT_EQ(I("007"), 7);
  EXPECT_EQ(I("0x7fffffffffffffff"), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(I("-9223372036854775808"), std::numeric_limits<int64_t>::min());
  EXPECT_DOUBLE_EQ(F(".5 + 5."), 5.5);
  EXPECT_DOUBLE_EQ(F("1.5e3 + 2E-1"), 1500.2);
  EXPECT_DOUBLE_EQ(F("0xFFFFFFFFFFFFFFFF"), -1.0);  // hex is a 64-bit pattern in float formulas too
  EXPECT_DOUBLE_EQ(F("123456789012345678901234567890"), 1.2345678901234568e29);
  // Integer formulas truncate float literals.
  EXPECT_EQ(I("7.9"), 7);
  EXPECT_EQ(I("-7.9"), -7);
  EXPECT_EQ(I("1e30"), std::numeric_limits<int64_t>::max());
}

TEST(FormulaPrecedence, IntegerTable) {
  struct Case {
    const char* text;
    int64_t want;
  } cases[] = {
      {"2+3*4", 14},          {"(2+3)*4", 20},        {"10-4-3", 3},       {"100/10/5", 2},
      {"7/2*3%4", 1},         {"2**3**2", 512},       {"-2**2", 4},        {"2**-1", 0},
      {"-2**3", -8},          {"~0", -1},             {"~1+1", -1},        {"- -3", 3},
      {"2*-3", -6},           {"1+2<<1", 6},          {"1<<2+1", 8},       {"1<2=1", 1},
      {"2=2<1", 0},           {"3<>2=1", 1},          {"7&3=3", 1},        {"1|2^3&4", 3},
      {"6^3|8", 13},          {"12&10^6", 14},        {"1||0&&0", 1},      {"0&&1||1", 1},
      {"1?2:0?3:4", 2},       {"0?2:0?3:4", 4},       {"0?2:1?3:4", 3},    {"1?0?5:6:7", 6},
      {"2=2?5:6", 5},         {"1&&0?5:6", 6},        {"0||2?5:6", 5},     {"1==1", 1},
      {"3-2-1?8:9", 9},       {"(1?2:3)+10", 12},     {"2+(0?1:2)*3", 8},  {"1?2+3:4", 5},
      {"8>>1>>1", 2},         {"-8>>1", -4},          {"5%3*2", 4},        {"2*3%4", 2},
  };
  for (const auto& c : cases) EXPECT_EQ(I(c.text), c.want) << c.text;
}

TEST(FormulaPrecedence, RealFileShapes) {
  Vars v = {{"X", Int(1)}, {"A", Int(1)}, {"B", Int(0)}, {"Mode", Int(2)}};
  EXPECT_EQ(I("X = 1 ? 10 : 20", v), 10);
  EXPECT_EQ(I("A = 1 && B", v), 0);
  EXPECT_EQ(I("A && B ? 3 : 4", v), 4);
  EXPECT_EQ(I("Mode = 0 ? 100 : Mode = 1 ? 200 : Mode = 2 ? 300 : 400", v), 300);
  EXPECT_EQ(I("(X & 0x1) = 1 ? (Mode << 4) | 0xF : 0", v), 0x2F);
  // NEG is arithmetic, not a logical not.
  EXPECT_EQ(I("A && NEG(B + 3)", v), 1);
}

TEST(FormulaSemantics, IntegerVersusFloat) {
  EXPECT_EQ(I("15/6"), 2);
  EXPECT_EQ(I("-15/6"), -2);  // truncates toward zero
  EXPECT_DOUBLE_EQ(F("-15/6"), -2.5);
  EXPECT_EQ(I("-7 % 3"), -1);  // C remainder
  EXPECT_EQ(I("7 % -3"), 1);
  EXPECT_DOUBLE_EQ(F("-7.5 % 2"), -1.5);
  EXPECT_EQ(I("3**4"), 81);
  EXPECT_DOUBLE_EQ(F("2**-1"), 0.5);
  EXPECT_DOUBLE_EQ(F("-2**2"), 4.0);
  EXPECT_EQ(I("(-1)**-3"), -1);
  EXPECT_EQ(I("1**-3"), 1);
  // Comparisons and logic give 1.0 / 0.0 in float formulas.
  EXPECT_DOUBLE_EQ(F("2.5 > 2"), 1.0);
  EXPECT_DOUBLE_EQ(F("0.5 || 0"), 1.0);
  EXPECT_DOUBLE_EQ(F("0.5 && 0.25"), 1.0);
  EXPECT_DOUBLE_EQ(F("2.5 = 2.5"), 1.0);
  EXPECT_DOUBLE_EQ(F("2.5 <> 2.5"), 0.0);
  EXPECT_FALSE(std::signbit(F("-0.0 && 1")));  // a plain 0, not the operand
  // Bitwise operators and shifts work on the truncated int64 values.
  EXPECT_DOUBLE_EQ(F("7.9 & 3.2"), 3.0);
  EXPECT_DOUBLE_EQ(F("1.9 << 3.7"), 8.0);
  EXPECT_DOUBLE_EQ(F("~2.5"), -3.0);
  EXPECT_DOUBLE_EQ(F("5.5 ^ 1 | 8"), 12.0);
}

TEST(FormulaSemantics, OverflowWrapsInsteadOfTrapping) {
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  Vars v = {{"MIN", Int(kMin)}, {"MAX", Int(kMax)}};
  EXPECT_EQ(I("MAX + 1", v), kMin);
  EXPECT_EQ(I("MIN - 1", v), kMax);
  EXPECT_EQ(I("-MIN", v), kMin);
  EXPECT_EQ(I("MIN / -1", v), kMin);
  EXPECT_EQ(I("MIN % -1", v), 0);
  EXPECT_EQ(I("MAX * 2", v), -2);
  EXPECT_EQ(I("2 ** 64"), 0);
  EXPECT_EQ(I("3 ** 0"), 1);
  EXPECT_EQ(I("1 << 63", v), kMin);
  EXPECT_EQ(I("MIN >> 63", v), -1);
  // Float results outside int64 saturate when read as integers.
  CFormula big("1e300", Mode::Float, {});
  EXPECT_EQ(big.EvaluateInt(nullptr), kMax);
  CFormula nan("SQRT(-1)", Mode::Float, {});
  EXPECT_TRUE(std::isnan(nan.EvaluateFloat(nullptr)));
  EXPECT_EQ(nan.EvaluateInt(nullptr), 0);
}

TEST(FormulaSemantics, ShortCircuitAvoidsEvaluationErrors) {
  Vars v = {{"A", Int(10)}, {"B", Int(0)}};
  EXPECT_EQ(I("B = 0 ? 0 : A / B", v), 0);
  EXPECT_EQ(I("B <> 0 ? A / B : -1", v), -1);
  EXPECT_EQ(I("B && A / B", v), 0);
  EXPECT_EQ(I("A || A / B", v), 1);
  EXPECT_DOUBLE_EQ(F("B <> 0 && A % B", v), 0.0);
  // The other side is still evaluated when needed.
  EXPECT_NE(ErrorOf([&] { I("A && A / B", v); }), "");
  EXPECT_NE(ErrorOf([&] { I("B || A % B", v); }), "");
}

TEST(FormulaVariables, BindingAndTypes) {
  Vars v = {{"V.Max", Int(100)}, {"SRC.Entry.Off", Int(3)}, {"SRC", Int(3)}, {"G", Flt(2.75)}};
  EXPECT_EQ(I("SRC = SRC.Entry.Off ? V.Max : 0", v), 100);
  EXPECT_EQ(I("G * 4", v), 8);              // float variable truncated in integer formulas
  EXPECT_DOUBLE_EQ(F("G * 4", v), 11.0);    // but not in float formulas
  EXPECT_EQ(I("Gx", {{"Gx", Flt(-1e300)}}), std::numeric_limits<int64_t>::min());
  // A variable may shadow a constant or a function name when not called.
  EXPECT_DOUBLE_EQ(F("E + SIN", {{"E", Flt(1.5)}, {"SIN", Int(2)}}), 3.5);
  EXPECT_DOUBLE_EQ(F("e + SIN(0)", {{"E", Flt(1.5)}}), M_E);  // variables match exactly

  // Converter formulas bind TO and FROM like any other variable.
  CFormula from("TO * 10 + OLDTO", Mode::Integer, {"FROM", "TO", "OLDTO"});
  EXPECT_EQ(from.used_variables(), (std::vector<bool>{false, true, true}));
  FormulaValue values[] = {Int(0), Int(7), Int(1)};
  EXPECT_EQ(from.EvaluateInt(values), 71);
  EXPECT_EQ(from.mode(), Mode::Integer);
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
      {"", "empty"},
      {"   \t ", "empty"},
      {"\"abc\"", "strings"},
      {"'abc'", "strings"},
      {"1 $ 2", "'$'"},
      {"#1", "'#'"},
      {"!A", "'!'"},
      {"1 != 2", "'!'"},
      {"1 2 3", "number 2"},
      {"(1+2", "expected ')'"},
      {"1+2)", "unexpected ')'"},
      {"()", "empty parentheses"},
      {"SGN()", "SGN takes 1 argument, not 0"},
      {"SGN(A,B)", "SGN takes 1 argument, not 2"},
      {"ROUND(A,B,C)", "ROUND takes 1 or 2 arguments, not 3"},
      {"FOO(1)", "unknown function 'FOO'"},
      {"0x", "'0x' without"},
      {"0xG1", "'0x' without"},
      {"1.2.3", "malformed number"},
      {"2abc", "malformed number"},
      {"0x1FFFFFFFFFFFFFFFF", "wider than 64 bits"},
      {"A +", "end of text"},
      {"? 1 : 2", "'?'"},
      {"A ? 1", "expected ':'"},
      {"A ? 1 , 2", "expected ':'"},
      {"Blade", "did you mean 'BLADE'"},
      {"Q", "unknown name 'Q'"},
      {"SIN + 1", "needs its arguments"},
      {"A(1)", "is a variable, not a function"},
      {"1 + * 2", "found '*'"},
      {"SGN(1,)", "found ')'"},
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

TEST(FormulaErrors, RaisedAtEvaluation) {
  Vars v = {{"A", Int(6)}, {"Z", Int(0)}, {"N", Int(-1)}, {"FZ", Flt(0.0)}};
  struct Case {
    const char* text;
    Mode mode;
    const char* what;
  } cases[] = {
      {"A / Z", Mode::Integer, "division by zero at column 3"},
      {"A % Z", Mode::Integer, "remainder of a division by zero"},
      {"A / FZ", Mode::Float, "division by zero"},
      {"A % FZ", Mode::Float, "remainder of a division by zero"},
      {"Z ** N", Mode::Integer, "negative power"},
      {"1 << 64", Mode::Integer, "shift count 64"},
      {"1 >> N", Mode::Float, "shift count -1"},
      // Float-only functions and constants compile in integer formulas but
      // fail when reached.
      {"SQRT(4)", Mode::Integer, "SQRT is available in float formulas only at column 1"},
      {"A + round(A, 1)", Mode::Integer, "round is available in float formulas only at column 5"},
      {"2 * PI", Mode::Integer, "PI is available in float formulas only"},
  };
  for (const auto& c : cases) {
    std::unique_ptr<CFormula> f;
    ASSERT_NO_THROW(f = std::make_unique<CFormula>(c.text, c.mode, Names(v))) << c.text;
    auto values = Values(v);
    std::string msg = ErrorOf([&] { f->Evaluate(values.data()); });
    EXPECT_NE(msg.find(c.what), std::string::npos) << "'" << c.text << "' gave: " << msg;
  }
  // Errors inside a named expression point into that expression.
  std::string msg = ErrorOf([&] { I("1 + Q", v, {{"Q", "A / Z"}}); });
  EXPECT_NE(msg.find("column 3 of expression 'Q'"), std::string::npos) << msg;
  // An unreached float-only function does not fail.
  EXPECT_EQ(I("A > 0 ? 1 : SQRT(A)", v), 1);
  // Missing values for a formula that needs them.
  CFormula needs("A + 1", Mode::Integer, {"A"});
  EXPECT_THROW(needs.Evaluate(nullptr), FormulaError);
}

TEST(FormulaRobustness, DeepNestingIsBoundedNotACrash) {
  const int kHuge = 100000;
  std::string parens = std::string(kHuge, '(') + "1" + std::string(kHuge, ')');
  EXPECT_NE(CompileError(parens).find("nested too deeply"), std::string::npos);

  std::string calls;
  for (int i = 0; i < kHuge; ++i) calls += "ABS(";
  calls += "1" + std::string(kHuge, ')');
  EXPECT_NE(CompileError(calls), "");

  std::string conds;
  for (int i = 0; i < kHuge; ++i) conds += "1 ? ";
  conds += "1";
  for (int i = 0; i < kHuge; ++i) conds += " : 0";
  EXPECT_NE(CompileError(conds), "");

  // Right-associative chains pile up pending values; they are bounded too.
  std::string powers = "1";
  for (int i = 0; i < kHuge; ++i) powers += "**1";
  EXPECT_NE(CompileError(powers).find("too complex"), std::string::npos);

  // Long flat chains, long unary runs and a chain of else-branches are fine.
  std::string sum = "1";
  for (int i = 0; i < kHuge; ++i) sum += "+1";
  EXPECT_EQ(I(sum), kHuge + 1);
  std::string negs = std::string(kHuge, '-') + "5";
  EXPECT_EQ(I(negs), 5);
  std::string chain;
  for (int i = 0; i < 5000; ++i) chain += "X = " + std::to_string(i) + " ? " + std::to_string(i * 2) + " : ";
  chain += "-1";
  EXPECT_EQ(I(chain, {{"X", Int(4321)}}), 8642);

  // Moderate nesting, as written by hand, works in every form.
  std::string nested = std::string(150, '(') + "2" + std::string(150, ')');
  EXPECT_EQ(F("ABS(" + nested + ") + " + nested), 4.0);
}

TEST(FormulaThreads, ConcurrentEvaluationsAgree) {
  CFormula f("X > 100 ? (X * 3 + Y) / 2 : ROUND(X / 7, 2) + FRAC(Y / 3)", Mode::Float, {"X", "Y"});
  auto expected = [](int x, int y) {
    FormulaValue v[] = {FormulaValue::Int(x), FormulaValue::Int(y)};
    CFormula g("X > 100 ? (X * 3 + Y) / 2 : ROUND(X / 7, 2) + FRAC(Y / 3)", Mode::Float, {"X", "Y"});
    return g.EvaluateFloat(v);
  };
  std::vector<double> want(400);
  for (int i = 0; i < 400; ++i) want[i] = expected(i, 400 - i);
  int mismatches[2] = {0, 0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 200; ++round)
        for (int i = 0; i < 400; ++i) {
          FormulaValue v[] = {FormulaValue::Int(i), FormulaValue::Int(400 - i)};
          if (f.EvaluateFloat(v) != want[i]) ++mismatches[t];
        }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(mismatches[0] + mismatches[1], 0);
}

// ---- randomized comparison with a tree evaluator ----
//
// Random expression trees are printed with as few parentheses as the
// precedence table allows, and fully parenthesised; both texts must compile
// to the value the tree evaluates to directly, or both must fail.
namespace {

struct RefError {};

struct Node {
  enum Kind { Lit, Var, Unary, Binary, Cond } kind = Lit;
  std::string op;
  double lit = 0;
  int var = 0;
  std::vector<Node> kids;
};

const char* const kVarNames[] = {"A", "B", "C", "D"};
const int64_t kVarValues[] = {7, -3, 0, int64_t{1} << 40};

struct BinInfo {
  const char* op;
  int level;
};
const BinInfo kBinary[] = {{"||", 2}, {"&&", 3}, {"|", 4},  {"^", 5},  {"&", 6},  {"=", 7},   {"<>", 7},
                           {"<", 8},  {">", 8},  {"<=", 8}, {">=", 8}, {"<<", 9}, {">>", 9},  {"+", 10},
                           {"-", 10}, {"*", 11}, {"/", 11}, {"%", 11}, {"**", 12}};

int Level(const Node& n) {
  switch (n.kind) {
    case Node::Cond: return 1;
    case Node::Unary: return 13;
    case Node::Binary:
      for (const auto& b : kBinary)
        if (n.op == b.op) return b.level;
      return 0;
    default: return 14;
  }
}

std::string Print(const Node& n, bool full, bool is_float) {
  auto wrap = [&](const Node& kid, bool need) {
    std::string s = Print(kid, full, is_float);
    return (need || (full && kid.kind != Node::Lit && kid.kind != Node::Var)) ? "(" + s + ")" : s;
  };
  switch (n.kind) {
    case Node::Lit: {
      char buf[32];
      if (n.lit != std::floor(n.lit)) {
        std::snprintf(buf, sizeof buf, "%.1f", n.lit);
      } else if (static_cast<int>(n.lit) % 3 == 0) {
        std::snprintf(buf, sizeof buf, "0x%X", static_cast<unsigned>(n.lit));
      } else {
        std::snprintf(buf, sizeof buf, "%d", static_cast<int>(n.lit));
      }
      return buf;
    }
    case Node::Var: return kVarNames[n.var];
    case Node::Unary: return n.op + wrap(n.kids[0], Level(n.kids[0]) < 13);
    case Node::Binary: {
      const int l = Level(n);
      const bool right = n.op == "**";
      const int ll = Level(n.kids[0]), rl = Level(n.kids[1]);
      return wrap(n.kids[0], ll < l || (right && ll == l)) + " " + n.op + " " +
             wrap(n.kids[1], rl < l || (!right && rl == l));
    }
    case Node::Cond:
      return wrap(n.kids[0], Level(n.kids[0]) <= 1) + " ? " + wrap(n.kids[1], false) + " : " +
             wrap(n.kids[2], false);
  }
  return "";
}

Node Generate(std::mt19937& rng, int depth, bool is_float) {
  std::uniform_int_distribution<int> pick(0, 99);
  const int r = pick(rng);
  Node n;
  if (depth == 0 || r < 25) {
    if (r % 2) {
      n.kind = Node::Var;
      n.var = pick(rng) % 4;
    } else {
      n.lit = pick(rng) % 20;
      if (is_float && pick(rng) < 30) n.lit += 0.5;
    }
    return n;
  }
  if (r < 40) {
    n.kind = Node::Unary;
    const char* ops[] = {"-", "+", "~"};
    n.op = ops[pick(rng) % 3];
    n.kids.push_back(Generate(rng, depth - 1, is_float));
  } else if (r < 50) {
    n.kind = Node::Cond;
    for (int k = 0; k < 3; ++k) n.kids.push_back(Generate(rng, depth - 1, is_float));
  } else {
    n.kind = Node::Binary;
    n.op = kBinary[pick(rng) % (sizeof kBinary / sizeof kBinary[0])].op;
    for (int k = 0; k < 2; ++k) n.kids.push_back(Generate(rng, depth - 1, is_float));
  }
  return n;
}

int64_t RefToInt(double v) {
  if (v != v) return 0;
  if (v >= 0x1p63) return std::numeric_limits<int64_t>::max();
  if (v < -0x1p63) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

int64_t RefIntPow(int64_t base, int64_t exp) {
  if (exp < 0) {
    if (base == 0) throw RefError();
    return base == 1 ? 1 : base == -1 ? (exp % 2 ? -1 : 1) : 0;
  }
  uint64_t result = 1;  // most significant bit first
  for (int bit = 63; bit >= 0; --bit) {
    result *= result;
    if ((static_cast<uint64_t>(exp) >> bit) & 1) result *= static_cast<uint64_t>(base);
  }
  return static_cast<int64_t>(result);
}

int64_t RefIntOp(const std::string& op, int64_t a, int64_t b) {
  const uint64_t ua = static_cast<uint64_t>(a), ub = static_cast<uint64_t>(b);
  if (op == "+") return static_cast<int64_t>(ua + ub);
  if (op == "-") return static_cast<int64_t>(ua - ub);
  if (op == "*") return static_cast<int64_t>(ua * ub);
  if (op == "/" || op == "%") {
    if (b == 0) throw RefError();
    if (b == -1) return op == "/" ? static_cast<int64_t>(0 - ua) : 0;
    return op == "/" ? a / b : a % b;
  }
  if (op == "**") return RefIntPow(a, b);
  if (op == "<<" || op == ">>") {
    if (b < 0 || b > 63) throw RefError();
    return op == "<<" ? static_cast<int64_t>(ua << b) : a >> b;
  }
  if (op == "&") return a & b;
  if (op == "|") return a | b;
  if (op == "^") return a ^ b;
  if (op == "=") return a == b;
  if (op == "<>") return a != b;
  if (op == "<") return a < b;
  if (op == ">") return a > b;
  if (op == "<=") return a <= b;
  return a >= b;
}

template <typename T>
T Reference(const Node& n) {
  constexpr bool kFloat = std::is_same_v<T, double>;
  switch (n.kind) {
    case Node::Lit: return kFloat ? static_cast<T>(n.lit) : static_cast<T>(static_cast<int64_t>(n.lit));
    case Node::Var: return static_cast<T>(kVarValues[n.var]);
    case Node::Cond: return Reference<T>(n.kids[0]) != 0 ? Reference<T>(n.kids[1]) : Reference<T>(n.kids[2]);
    case Node::Unary: {
      T v = Reference<T>(n.kids[0]);
      if (n.op == "+") return v;
      if (n.op == "~") return static_cast<T>(~RefToInt(static_cast<double>(v)));
      if constexpr (kFloat) {
        return -v;
      } else {
        return static_cast<int64_t>(0 - static_cast<uint64_t>(v));
      }
    }
    case Node::Binary: {
      const T a = Reference<T>(n.kids[0]);
      if (n.op == "&&") return a != 0 && Reference<T>(n.kids[1]) != 0;
      if (n.op == "||") return a != 0 || Reference<T>(n.kids[1]) != 0;
      const T b = Reference<T>(n.kids[1]);
      if constexpr (kFloat) {
        const std::string& op = n.op;
        if ((op == "/" || op == "%") && b == 0) throw RefError();
        if (op == "+") return a + b;
        if (op == "-") return a - b;
        if (op == "*") return a * b;
        if (op == "/") return a / b;
        if (op == "%") return std::fmod(a, b);
        if (op == "**") return std::pow(a, b);
        if (op == "=") return a == b;
        if (op == "<>") return a != b;
        if (op == "<") return a < b;
        if (op == ">") return a > b;
        if (op == "<=") return a <= b;
        if (op == ">=") return a >= b;
        return static_cast<double>(RefIntOp(op, RefToInt(a), RefToInt(b)));
      } else {
        return RefIntOp(n.op, a, b);
      }
    }
  }
  return 0;
}

template <typename T>
void CompareRandom(Mode mode, unsigned seed) {
  std::mt19937 rng(seed);
  const bool is_float = mode == Mode::Float;
  std::vector<std::string> names(std::begin(kVarNames), std::end(kVarNames));
  std::vector<FormulaValue> values;
  for (int64_t v : kVarValues) values.push_back(FormulaValue::Int(v));
  int failures = 0;
  for (int trial = 0; trial < 3000 && failures < 5; ++trial) {
    const Node tree = Generate(rng, 1 + trial % 6, is_float);
    bool ref_throws = false;
    T want{};
    try {
      want = Reference<T>(tree);
    } catch (const RefError&) {
      ref_throws = true;
    }
    for (bool full : {false, true}) {
      const std::string text = Print(tree, full, is_float);
      CFormula f(text, mode, names);
      try {
        const FormulaValue got = f.Evaluate(values.data());
        const bool same = is_float ? (got.f == static_cast<double>(want) ||
                                      (std::isnan(got.f) && std::isnan(static_cast<double>(want))))
                                   : got.i == static_cast<int64_t>(want);
        if (ref_throws || !same) {
          ++failures;
          ADD_FAILURE() << text << " gave " << (is_float ? got.f : got.i) << ", expected "
                        << (ref_throws ? "an error" : std::to_string(want));
        }
      } catch (const FormulaError& e) {
        if (!ref_throws) {
          ++failures;
          ADD_FAILURE() << text << " threw " << e.what() << ", expected " << want;
        }
      }
    }
  }
}

}  // namespace

TEST(FormulaRandom, IntegerMatchesTreeEvaluator) { CompareRandom<int64_t>(Mode::Integer, 12345); }
TEST(FormulaRandom, FloatMatchesTreeEvaluator) { CompareRandom<double>(Mode::Float, 777); }
