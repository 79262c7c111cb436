// Formula compiler: tokenizes the text, parses it by precedence climbing and
// emits the postfix program of formula_code.h in a single pass.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <limits>
#include <string_view>
#include <unordered_map>

#include "formula_code.h"

namespace KivGenApi {
namespace detail {
namespace {

enum class Tok {
  End, Number, Ident, LParen, RParen, Comma, Question, Colon,
  Plus, Minus, Star, Slash, Percent, Power, Shl, Shr,
  Lt, Gt, Le, Ge, Eq, Ne, BitAnd, BitOr, BitXor, Tilde, And, Or,
};

struct Token {
  Tok kind = Tok::End;
  size_t pos = 0;  // byte offset in the text
  size_t len = 0;
  bool is_float = false;  // number written with '.' or an exponent
  bool fits_int = true;   // integer literal within 64 bits
  bool is_hex = false;
  uint64_t u = 0;
  double d = 0.0;
};

std::string Quote(const std::string& text) {
  constexpr size_t kMax = 60;
  if (text.size() <= kMax) return "\"" + text + "\"";
  return "\"" + text.substr(0, kMax) + "...\"";
}

// ASCII only, whatever the process locale says.
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsIdentStart(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; }
bool IsIdentChar(char c) { return IsIdentStart(c) || IsDigit(c); }

std::string Upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

struct Function {
  const char* name;
  int min_args, max_args;
  Op op;
  // A double even for an integer argument; the others keep the argument's
  // type (TRUNC, FLOOR, CEIL, ROUND and FRAC of an integer are integers).
  bool float_result;
};

const Function kFunctions[] = {
    {"SGN", 1, 1, Op::Sgn, false},     {"NEG", 1, 1, Op::Neg, false},
    {"ABS", 1, 1, Op::Abs, false},     {"SQRT", 1, 1, Op::Sqrt, true},
    {"EXP", 1, 1, Op::Exp, true},      {"LN", 1, 1, Op::Ln, true},
    {"LG", 1, 1, Op::Lg, true},        {"SIN", 1, 1, Op::Sin, true},
    {"COS", 1, 1, Op::Cos, true},      {"TAN", 1, 1, Op::Tan, true},
    {"ASIN", 1, 1, Op::Asin, true},    {"ACOS", 1, 1, Op::Acos, true},
    {"ATAN", 1, 1, Op::Atan, true},    {"TRUNC", 1, 1, Op::Trunc, false},
    {"FLOOR", 1, 1, Op::Floor, false}, {"CEIL", 1, 1, Op::Ceil, false},
    {"ROUND", 1, 2, Op::Round, false}, {"FRAC", 1, 1, Op::Frac, false},
};

const Function* FindFunction(const std::string& upper) {
  for (const Function& f : kFunctions)
    if (upper == f.name) return &f;
  return nullptr;
}

struct BinaryOp {
  int level;  // larger binds tighter
  Op op;
};

constexpr int kOrLevel = 2;
constexpr int kAndLevel = 3;

bool LookupBinary(Tok t, BinaryOp* out) {
  switch (t) {
    // && and || compile to short-circuit jumps, not to an operator.
    case Tok::Or: *out = {kOrLevel, Op::Jump}; return true;
    case Tok::And: *out = {kAndLevel, Op::Jump}; return true;
    case Tok::BitOr: *out = {4, Op::BitOr}; return true;
    case Tok::BitXor: *out = {5, Op::BitXor}; return true;
    case Tok::BitAnd: *out = {6, Op::BitAnd}; return true;
    case Tok::Eq: *out = {7, Op::Eq}; return true;
    case Tok::Ne: *out = {7, Op::Ne}; return true;
    case Tok::Lt: *out = {8, Op::Lt}; return true;
    case Tok::Gt: *out = {8, Op::Gt}; return true;
    case Tok::Le: *out = {8, Op::Le}; return true;
    case Tok::Ge: *out = {8, Op::Ge}; return true;
    case Tok::Shl: *out = {9, Op::Shl}; return true;
    case Tok::Shr: *out = {9, Op::Shr}; return true;
    case Tok::Plus: *out = {10, Op::Add}; return true;
    case Tok::Minus: *out = {10, Op::Sub}; return true;
    case Tok::Star: *out = {11, Op::Mul}; return true;
    case Tok::Slash: *out = {11, Op::Div}; return true;
    case Tok::Percent: *out = {11, Op::Mod}; return true;
    default: return false;
  }
}

// A compiled piece of code: the whole formula or one named sub-expression.
struct Unit {
  std::vector<Instr> code;
  std::vector<bool> used;
  size_t max_stack = 0;
  bool has_float = false;
};

struct Expression {
  std::string name;
  Unit unit;
};

// Names looked up by the compiler. A formula over hundreds of variables (a
// lookup table written as a formula) must not compare every identifier with
// every name; the usual handful is faster to scan. The first of equal names
// wins.
class NameIndex {
 public:
  template <typename Get>
  NameIndex(size_t n, Get name_of) {
    names_.reserve(n);
    for (size_t k = 0; k < n; ++k) names_.push_back(name_of(k));
    if (n > kScan)
      for (size_t k = n; k-- > 0;) index_[names_[k]] = static_cast<int>(k);
  }
  int Find(std::string_view name) const {
    if (names_.size() <= kScan) {
      for (size_t k = 0; k < names_.size(); ++k)
        if (names_[k] == name) return static_cast<int>(k);
      return -1;
    }
    auto it = index_.find(name);
    return it == index_.end() ? -1 : it->second;
  }

 private:
  static constexpr size_t kScan = 16;
  std::vector<std::string_view> names_;
  std::unordered_map<std::string_view, int> index_;
};

class Compiler {
 public:
  // `expression` names the expression being compiled (null: the formula).
  Compiler(const std::string& text, const std::string* expression, CFormula::Mode mode,
           const std::vector<std::string>& variables, const NameIndex& variable_index,
           const std::vector<Expression>& expressions, const NameIndex& expression_index)
      : text_(text), expression_(expression), mode_(mode), variables_(variables), variable_index_(variable_index),
        expressions_(expressions), expression_index_(expression_index) {
    unit_.used.assign(variables.size(), false);
  }

  Unit Compile() {
    Tokenize();
    if (tokens_.size() == 1) Fail(0, "the formula is empty");
    ParseConditional();
    if (Peek().kind != Tok::End) Fail(Peek().pos, "unexpected " + Describe(Peek()) + " after a complete expression");
    return std::move(unit_);
  }

 private:
  [[noreturn]] void Fail(size_t pos, const std::string& what) const {
    const std::string where = expression_ ? "expression '" + *expression_ + "' " + Quote(text_) : "formula " + Quote(text_);
    throw FormulaError(what + " at column " + std::to_string(pos + 1) + " of " + where);
  }

  std::string Describe(const Token& t) const {
    if (t.kind == Tok::End) return "end of text";
    std::string s = text_.substr(t.pos, t.len);
    if (t.kind == Tok::Number) return "number " + s;
    if (t.kind == Tok::Ident) return "name '" + s + "'";
    return "'" + s + "'";
  }

  // ---- tokenizer ----

  void Tokenize() {
    const size_t n = text_.size();
    size_t p = 0;
    while (p < n) {
      char c = text_[p];
      if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
        ++p;
        continue;
      }
      Token t;
      t.pos = p;
      if (IsDigit(c) || (c == '.' && p + 1 < n && IsDigit(text_[p + 1]))) {
        p = LexNumber(p, &t);
      } else if (IsIdentStart(c)) {
        t.kind = Tok::Ident;
        while (p < n && IsIdentChar(text_[p])) ++p;
        // Dotted variable names: "V.Max", "SRC.Entry.Off".
        while (p + 1 < n && text_[p] == '.' && IsIdentStart(text_[p + 1])) {
          ++p;
          while (p < n && IsIdentChar(text_[p])) ++p;
        }
      } else {
        p = LexOperator(p, &t);
      }
      t.len = p - t.pos;
      tokens_.push_back(t);
    }
    Token end;
    end.pos = n;
    tokens_.push_back(end);
  }

  size_t LexNumber(size_t p, Token* t) {
    const size_t n = text_.size();
    const size_t start = p;
    t->kind = Tok::Number;
    if (text_[p] == '0' && p + 1 < n && (text_[p + 1] == 'x' || text_[p + 1] == 'X')) {
      p += 2;
      t->is_hex = true;
      size_t digits = 0;
      for (; p < n && std::isxdigit(static_cast<unsigned char>(text_[p])); ++p, ++digits) {
        if (t->u >> 60) Fail(start, "hexadecimal number wider than 64 bits");
        char h = text_[p];
        unsigned v = IsDigit(h) ? h - '0' : (std::toupper(static_cast<unsigned char>(h)) - 'A' + 10);
        t->u = (t->u << 4) | v;
      }
      if (digits == 0) Fail(start, "'0x' without hexadecimal digits");
      t->d = static_cast<double>(static_cast<int64_t>(t->u));
    } else {
      while (p < n && IsDigit(text_[p])) ++p;
      if (p < n && text_[p] == '.') {
        t->is_float = true;
        ++p;
        while (p < n && IsDigit(text_[p])) ++p;
      }
      if (p < n && (text_[p] == 'e' || text_[p] == 'E')) {
        size_t q = p + 1;
        if (q < n && (text_[q] == '+' || text_[q] == '-')) ++q;
        if (q < n && IsDigit(text_[q])) {
          t->is_float = true;
          p = q;
          while (p < n && IsDigit(text_[p])) ++p;
        }
      }
      const char* first = text_.data() + start;
      const char* last = text_.data() + p;
      // Decimal only: a leading zero does not mean octal.
      if (std::from_chars(first, last, t->d).ec == std::errc::result_out_of_range) {
        // Overflow becomes infinity, underflow zero, as in any C library.
        const bool tiny = std::find(first, last, '-') != last;
        t->d = tiny ? 0.0 : std::numeric_limits<double>::infinity();
      }
      if (!t->is_float) {
        auto r = std::from_chars(first, last, t->u);
        t->fits_int = r.ec == std::errc();
      }
    }
    if (p < n && (IsIdentChar(text_[p]) || text_[p] == '.'))
      Fail(start, "malformed number '" + text_.substr(start, p + 1 - start) + "'");
    return p;
  }

  size_t LexOperator(size_t p, Token* t) {
    const char c = text_[p];
    const char next = p + 1 < text_.size() ? text_[p + 1] : '\0';
    auto two = [&](Tok k) { t->kind = k; return p + 2; };
    auto one = [&](Tok k) { t->kind = k; return p + 1; };
    switch (c) {
      case '(': return one(Tok::LParen);
      case ')': return one(Tok::RParen);
      case ',': return one(Tok::Comma);
      case '?': return one(Tok::Question);
      case ':': return one(Tok::Colon);
      case '+': return one(Tok::Plus);
      case '-': return one(Tok::Minus);
      case '/': return one(Tok::Slash);
      case '%': return one(Tok::Percent);
      case '^': return one(Tok::BitXor);
      case '~': return one(Tok::Tilde);
      case '*': return next == '*' ? two(Tok::Power) : one(Tok::Star);
      case '=': return next == '=' ? two(Tok::Eq) : one(Tok::Eq);
      case '&': return next == '&' ? two(Tok::And) : one(Tok::BitAnd);
      case '|': return next == '|' ? two(Tok::Or) : one(Tok::BitOr);
      case '<':
        if (next == '<') return two(Tok::Shl);
        if (next == '=') return two(Tok::Le);
        if (next == '>') return two(Tok::Ne);
        return one(Tok::Lt);
      case '>':
        if (next == '>') return two(Tok::Shr);
        if (next == '=') return two(Tok::Ge);
        return one(Tok::Gt);
      case '!':
        Fail(p, "'!' is not an operator (use <> for not-equal, = 0 for a logical not)");
      case '"':
      case '\'':
        Fail(p, "strings are not allowed");
      default:
        break;
    }
    unsigned char u = static_cast<unsigned char>(c);
    if (std::isprint(u)) Fail(p, std::string("unexpected character '") + c + "'");
    char hex[8];
    std::snprintf(hex, sizeof hex, "0x%02X", u);
    Fail(p, std::string("unexpected byte ") + hex);
  }

  // ---- parser and emitter ----

  const Token& Peek() const { return tokens_[next_]; }
  const Token& Next() { return tokens_[next_ < tokens_.size() - 1 ? next_++ : next_]; }

  void Emit(Op op, int stack_delta, int32_t arg = 0) {
    Instr in;
    in.op = op;
    in.arg = arg;
    in.i = 0;
    unit_.code.push_back(in);
    Grow(stack_delta);
  }

  void EmitConst(const Token& t) {
    Instr in;
    in.op = Op::Const;
    in.arg = 0;
    if (mode_ == CFormula::Mode::Float) {
      in.f = t.d;
    } else if (t.is_float) {
      // An integer formula computes in double from here on.
      in.op = Op::ConstF;
      in.f = t.d;
      unit_.has_float = true;
    } else {
      if (!t.fits_int) Fail(t.pos, "integer number wider than 64 bits");
      in.i = static_cast<int64_t>(t.u);  // two's complement: 0xFFFFFFFFFFFFFFFF is -1
    }
    unit_.code.push_back(in);
    Grow(1);
  }

  void Grow(int delta) {
    depth_ += delta;
    if (depth_ > unit_.max_stack) {
      unit_.max_stack = depth_;
      if (depth_ > kMaxStack) Fail(Peek().pos, "formula too complex (more than " + std::to_string(kMaxStack) + " pending values)");
    }
  }

  size_t EmitJump(Op op, int stack_delta) {
    Emit(op, stack_delta);
    return unit_.code.size() - 1;
  }
  void PatchJump(size_t at) { unit_.code[at].arg = static_cast<int32_t>(unit_.code.size() - at - 1); }

  // conditional := binary(||) [ '?' conditional ':' conditional ]  (right-assoc)
  void ParseConditional() {
    if (++nesting_ > kMaxNesting) Fail(Peek().pos, "formula nested too deeply (more than " + std::to_string(kMaxNesting) + " levels)");
    std::vector<size_t> to_end;
    for (;;) {
      ParseBinary(kOrLevel);
      if (Peek().kind != Tok::Question) break;
      const size_t question = Next().pos;
      const size_t if_false = EmitJump(Op::JumpIfFalse, -1);
      ParseConditional();
      if (Peek().kind != Tok::Colon)
        Fail(Peek().pos, "expected ':' of the '?' at column " + std::to_string(question + 1) + ", found " + Describe(Peek()));
      Next();
      to_end.push_back(EmitJump(Op::Jump, 0));
      PatchJump(if_false);
      --depth_;  // the 'then' value is not on the stack on the 'else' path
    }
    for (size_t j : to_end) PatchJump(j);
    --nesting_;
  }

  // Precedence climbing over the left-associative binary levels.
  void ParseBinary(int min_level) {
    ParsePower();
    BinaryOp bin;
    while (LookupBinary(Peek().kind, &bin) && bin.level >= min_level) {
      Next();
      if (bin.level == kAndLevel || bin.level == kOrLevel) {
        // Short-circuit: the right side is evaluated only when it decides.
        const size_t skip = EmitJump(bin.level == kAndLevel ? Op::AndJump : Op::OrJump, -1);
        ParseBinary(bin.level + 1);
        Emit(Op::ToBool, 0);
        PatchJump(skip);
      } else {
        ParseBinary(bin.level + 1);
        Emit(bin.op, -1);
      }
    }
  }

  // power := unary [ '**' power ]; unary binds tighter, so -2**2 is (-2)**2.
  // Right-associative without recursion: a b c POW POW is a**(b**c).
  void ParsePower() {
    ParseUnary();
    size_t ops = 0;
    while (Peek().kind == Tok::Power) {
      Next();
      ++ops;
      ParseUnary();
    }
    for (; ops > 0; --ops) Emit(Op::Pow, -1);
  }

  void ParseUnary() {
    // The prefix operators are the tokens just before the operand.
    const size_t first = next_;
    while (Peek().kind == Tok::Minus || Peek().kind == Tok::Plus || Peek().kind == Tok::Tilde) Next();
    const size_t end = next_;
    ParsePrimary();
    for (size_t k = end; k > first; --k) {
      if (tokens_[k - 1].kind == Tok::Minus) Emit(Op::Neg, 0);
      if (tokens_[k - 1].kind == Tok::Tilde) Emit(Op::BitNot, 0);
    }
  }

  void ParsePrimary() {
    const Token& t = Next();
    switch (t.kind) {
      case Tok::Number:
        EmitConst(t);
        return;
      case Tok::LParen:
        if (Peek().kind == Tok::RParen) Fail(t.pos, "empty parentheses");
        ParseConditional();
        ExpectClose(t);
        return;
      case Tok::Ident:
        if (Peek().kind == Tok::LParen) {
          ParseCall(t);
        } else {
          ParseName(t);
        }
        return;
      default:
        Fail(t.pos, "expected a number, a name or '(' but found " + Describe(t));
    }
  }

  void ExpectClose(const Token& open) {
    if (Peek().kind != Tok::RParen)
      Fail(Peek().pos, "expected ')' to close the '(' at column " + std::to_string(open.pos + 1) + ", found " + Describe(Peek()));
    Next();
  }

  void ParseCall(const Token& name_tok) {
    const std::string name = text_.substr(name_tok.pos, name_tok.len);
    const Function* f = FindFunction(Upper(name));
    if (!f) {
      if (FindVariable(name) >= 0 || FindExpression(name) >= 0)
        Fail(name_tok.pos, "'" + name + "' is a variable, not a function");
      Fail(name_tok.pos, "unknown function '" + name + "'");
    }
    const Token& open = Next();
    int args = 0;
    if (Peek().kind != Tok::RParen) {
      for (;;) {
        ParseConditional();
        ++args;
        if (Peek().kind != Tok::Comma) break;
        Next();
      }
    }
    ExpectClose(open);
    if (args < f->min_args || args > f->max_args) {
      std::string want = f->min_args == f->max_args
                             ? std::to_string(f->min_args)
                             : std::to_string(f->min_args) + " or " + std::to_string(f->max_args);
      Fail(name_tok.pos, std::string(f->name) + " takes " + want + " argument" + (f->max_args == 1 ? "" : "s") +
                             ", not " + std::to_string(args));
    }
    Op op = (f->op == Op::Round && args == 2) ? Op::Round2 : f->op;
    if (f->float_result || op == Op::Round2) unit_.has_float = true;
    Emit(op, 1 - args);
  }

  int FindVariable(const std::string& name) const { return variable_index_.Find(name); }
  int FindExpression(const std::string& name) const { return expression_index_.Find(name); }

  void ParseName(const Token& t) {
    const std::string name = text_.substr(t.pos, t.len);
    const int var = FindVariable(name);
    if (var >= 0) {
      Emit(Op::Var, 1, var);
      unit_.used[var] = true;
      return;
    }
    const int expr = FindExpression(name);
    if (expr >= 0) {
      if (static_cast<size_t>(expr) >= expressions_.size())
        Fail(t.pos, "'" + name + "' is an expression; expressions cannot use other expressions");
      InlineExpression(expressions_[expr].unit);
      return;
    }
    const std::string upper = Upper(name);
    if (upper == "PI" || upper == "E") {
      Instr in;
      in.op = mode_ == CFormula::Mode::Integer ? Op::ConstF : Op::Const;
      in.arg = 0;
      in.f = upper == "PI" ? 3.14159265358979323846 : 2.71828182845904523536;
      if (in.op == Op::ConstF) unit_.has_float = true;
      unit_.code.push_back(in);
      Grow(1);
      return;
    }
    if (FindFunction(upper)) Fail(t.pos, "function '" + name + "' needs its arguments in parentheses");
    std::string hint;
    for (const std::string& v : variables_)
      if (Upper(v) == upper) hint = " (names are case-sensitive: did you mean '" + v + "'?)";
    Fail(t.pos, "unknown name '" + name + "'" + hint);
  }

  void InlineExpression(const Unit& sub) {
    const size_t base = depth_;
    unit_.code.insert(unit_.code.end(), sub.code.begin(), sub.code.end());
    for (size_t k = 0; k < sub.used.size(); ++k)
      if (sub.used[k]) unit_.used[k] = true;
    if (sub.has_float) unit_.has_float = true;
    depth_ = base + sub.max_stack;
    Grow(0);
    depth_ = base + 1;
  }

  const std::string& text_;
  const std::string* expression_;
  const CFormula::Mode mode_;
  const std::vector<std::string>& variables_;
  const NameIndex& variable_index_;
  // Compiled expressions visible to this text (none while compiling an expression).
  const std::vector<Expression>& expressions_;
  const NameIndex& expression_index_;
  std::vector<Token> tokens_;
  size_t next_ = 0;
  size_t depth_ = 0;
  int nesting_ = 0;
  Unit unit_;
};

}  // namespace

CFormula::CFormula(const std::string& text, Mode mode, const std::vector<std::string>& variables,
                   const std::vector<std::pair<std::string, std::string>>& expressions)
    : impl_(std::make_unique<Impl>()) {
  impl_->mode = mode;
  const NameIndex variable_index(variables.size(), [&](size_t k) { return std::string_view(variables[k]); });
  const NameIndex expression_index(expressions.size(), [&](size_t k) { return std::string_view(expressions[k].first); });
  for (const auto& e : expressions)
    if (variable_index.Find(e.first) >= 0) throw FormulaError("expression name '" + e.first + "' is also a variable name");

  std::vector<Expression> compiled;
  const std::vector<Expression> none;
  for (const auto& e : expressions) {
    Compiler c(e.second, &e.first, mode, variables, variable_index, none, expression_index);
    compiled.push_back({e.first, c.Compile()});
  }
  Compiler c(text, nullptr, mode, variables, variable_index, compiled, expression_index);
  Unit unit = c.Compile();
  impl_->code = std::move(unit.code);
  impl_->used = std::move(unit.used);
  impl_->has_float = unit.has_float;
  for (size_t k = 0; k < impl_->used.size(); ++k)
    if (impl_->used[k]) impl_->used_list.push_back(static_cast<int32_t>(k));
}

CFormula::~CFormula() = default;
CFormula::CFormula(CFormula&&) noexcept = default;
CFormula& CFormula::operator=(CFormula&&) noexcept = default;

CFormula::Mode CFormula::mode() const { return impl_->mode; }
const std::vector<bool>& CFormula::used_variables() const { return impl_->used; }

}  // namespace detail
}  // namespace KivGenApi
