// Register-backed nodes: IntReg, MaskedIntReg (and expanded StructEntry),
// FloatReg, StringReg and Register. They share address computation, the
// port access mode and a byte cache keyed by address and length.
#include <algorithm>
#include <cfloat>
#include <climits>
#include <cstring>

#include "factories.h"
#include "nodemap.h"
#include "port_node.h"
#include "value_nodes.h"
#include "value_source.h"

namespace KivGenApi {
namespace detail {
namespace {

uint64_t Assemble(const uint8_t* b, int64_t len, bool little) {
  uint64_t v = 0;
  if (little)
    for (int64_t i = len - 1; i >= 0; --i) v = (v << 8) | b[i];
  else
    for (int64_t i = 0; i < len; ++i) v = (v << 8) | b[i];
  return v;
}

void Disassemble(uint64_t v, uint8_t* b, int64_t len, bool little) {
  for (int64_t i = 0; i < len; ++i) {
    uint8_t byte = static_cast<uint8_t>(v >> (8 * i));
    b[little ? i : len - 1 - i] = byte;
  }
}

ECachingMode ParseCachable(const std::string& s) {
  if (s == "NoCache" || s == "No") return NoCache;
  if (s == "WriteAround") return WriteAround;
  return WriteThrough;
}

struct IndexTerm {
  NodeRef index;
  bool has_offset = false;
  int64_t offset = 0;
  NodeRef p_offset;
};

class CRegisterBase : public CNode {
 public:
  CRegisterBase(CNodeMap* map, const NodeDesc& d, ECachingMode default_cache) : CNode(map, d) {
    for (const auto& c : d.children) {
      if (c.tag == "Address") {
        int64_t a;
        if (!ParseInt64(c.text, a)) KIV_THROW(RuntimeException, name_, "Register '" + name_ + "' has a bad Address '" + c.text + "'");
        address_ += a;
      } else if (c.tag == "pAddress") {
        p_address_.push_back(NodeRef{c.text, nullptr});
      } else if (c.tag == "pIndex") {
        IndexTerm t;
        t.index.name = c.text;
        std::string off = c.Attr("Offset");
        if (!off.empty()) {
          if (!ParseInt64(off, t.offset)) KIV_THROW(RuntimeException, name_, "Register '" + name_ + "' has a bad index Offset");
          t.has_offset = true;
        }
        t.p_offset.name = c.Attr("pOffset");
        index_.push_back(t);
      }
    }
    ReadNumRef(d, "Length", "pLength", false, length_);
    if (!length_.present()) {
      length_.has_literal = true;
      length_.literal = FormulaValue::Int(4);
    }
    if (length_.has_literal && (length_.literal.i <= 0 || length_.literal.i > kMaxLength))
      KIV_THROW(RuntimeException, name_, "Register '" + name_ + "' has a bad Length");
    access_ = ParseAccessMode(d.Text("AccessMode"), RO);
    port_.name = d.Text("pPort");
    cache_mode_ = d.Has("Cachable") ? ParseCachable(d.Text("Cachable")) : default_cache;
    little_ = d.Text("Endianess") != "BigEndian";
    signed_ = d.Text("Sign") == "Signed";
    unit_ = d.Text("Unit");
    repr_ = ParseRepresentation(d.Text("Representation"), PureNumber);
  }
  void Link() override {
    CNode::Link();
    for (auto& r : p_address_) Resolve(r, kReadValue);
    for (auto& t : index_) {
      Resolve(t.index, kReadValue);
      Resolve(t.p_offset, kReadValue);
    }
    Resolve(length_, kReadValue);
    Resolve(port_, kData);
    port_node_ = dynamic_cast<CPortNode*>(port_.node);
  }
  EAccessMode NaturalAccessMode() const override {
    if (!port_node_) return NA;
    EAccessMode m = Combine(access_, port_node_->GetAccessMode());
    // Address terms that cannot be read leave the register unreachable.
    for (const auto& r : p_address_)
      if (!r.node || !IsReadable(r.node->GetAccessMode())) return NA;
    for (const auto& t : index_)
      if (!t.index.node || !IsReadable(t.index.node->GetAccessMode())) return NA;
    return m;
  }
  ECachingMode OwnCachingMode() const override { return cache_mode_; }
  void ValueInputs(std::vector<CNode*>& out) const override {
    for (const auto& r : p_address_)
      if (r.node) out.push_back(r.node);
    for (const auto& t : index_) {
      if (t.index.node) out.push_back(t.index.node);
      if (t.p_offset.node) out.push_back(t.p_offset.node);
    }
    if (length_.ref.node) out.push_back(length_.ref.node);
  }
  void DropCache() override { cache_valid_ = false; }
  bool HasValueCache() const override { return true; }

  int64_t Length() const {
    if (length_.has_literal) return length_.literal.i;
    int64_t len = ToInt(Eval(length_));
    if (len <= 0 || len > kMaxLength)
      KIV_THROW(OutOfRangeException, name_, "Register '" + name_ + "' has a length of " + std::to_string(len) + " bytes");
    return len;
  }
  static constexpr int64_t kMaxLength = int64_t(1) << 24;
  int64_t Address() const {
    int64_t a = address_;
    for (const auto& r : p_address_) a += ToInt(Need(r, "pAddress")->GetNum(false, false));
    for (const auto& t : index_) {
      int64_t idx = ToInt(Need(t.index, "pIndex")->GetNum(false, false));
      int64_t off = t.has_offset ? t.offset
                    : t.p_offset.set() ? ToInt(Need(t.p_offset, "pOffset")->GetNum(false, false))
                                       : Length();
      a += idx * off;
    }
    return a;
  }

  // Reads the register's bytes into `out` (len bytes), through the cache.
  void ReadBytes(uint8_t* out, int64_t len, bool ignore_cache) {
    EvalGuard g(this);
    int64_t addr = Address();
    ECachingMode mode = GetCachingMode();
    if (!ignore_cache && cache_valid_ && cache_addr_ == addr && static_cast<int64_t>(cache_.size()) == len) {
      std::memcpy(out, cache_.data(), static_cast<size_t>(len));
      return;
    }
    if (!port_node_) Need(port_, "pPort");
    port_node_->Read(out, addr, len);
    if (mode != NoCache) Store(out, len, addr);
  }
  void WriteBytes(const uint8_t* in, int64_t len) {
    {
      EvalGuard g(this);
      int64_t addr = Address();
      if (!port_node_) Need(port_, "pPort");
      cache_valid_ = false;
      port_node_->Write(in, addr, len);
      if (GetCachingMode() == WriteThrough) Store(in, len, addr);
    }
    NotifyWritten();
  }
  void Store(const uint8_t* p, int64_t len, int64_t addr) {
    cache_.assign(p, p + len);
    cache_addr_ = addr;
    cache_valid_ = true;
  }
  bool CacheValid() const { return cache_valid_; }
  // The register image to merge a field into: the cache when it is valid,
  // else the device; a write-only register starts from zero.
  void CurrentImage(uint8_t* out, int64_t len) {
    if (cache_valid_ && static_cast<int64_t>(cache_.size()) == len && cache_addr_ == Address()) {
      std::memcpy(out, cache_.data(), static_cast<size_t>(len));
    } else if (IsReadable(GetAccessMode())) {
      ReadBytes(out, len, false);
    } else {
      std::memset(out, 0, static_cast<size_t>(len));
    }
  }

 protected:
  int64_t address_ = 0;
  std::vector<NodeRef> p_address_;
  std::vector<IndexTerm> index_;
  NumRef length_;
  EAccessMode access_;
  NodeRef port_;
  CPortNode* port_node_ = nullptr;
  ECachingMode cache_mode_;
  bool little_ = true, signed_ = false;
  std::string unit_;
  ERepresentation repr_;
  std::vector<uint8_t> cache_;
  int64_t cache_addr_ = 0;
  bool cache_valid_ = false;
};

// IntReg and MaskedIntReg: an integer field of lsb..msb (value bit numbers)
// inside a register of up to 8 bytes.
class CIntRegNode : public CRegisterBase, public IInteger, public CSelectorFace {
 public:
  CIntRegNode(CNodeMap* map, const NodeDesc& d, bool masked) : CRegisterBase(map, d, WriteThrough), masked_(masked) {
    ReadSelected(d);
    if (masked) {
      if (d.Has("Bit")) {
        ParseInt64(d.Text("Bit"), raw_lsb_);
        raw_msb_ = raw_lsb_;
      } else {
        ParseInt64(d.Text("LSB"), raw_lsb_);
        ParseInt64(d.Text("MSB"), raw_msb_);
      }
    }
    // With a pLength the layout is settled at each access instead.
    if (length_.has_literal) Layout(length_.literal.i, true);
  }
  // Field position and range for a register of `len` bytes.
  void Layout(int64_t len, bool at_load) {
    auto fail = [&](const std::string& why) {
      if (at_load) KIV_THROW(RuntimeException, name_, "Integer register '" + name_ + "' " + why);
      KIV_THROW(LogicalErrorException, name_, "Integer register '" + name_ + "' " + why);
    };
    if (len < 1 || len > 8) fail("needs a Length of 1 to 8 bytes");
    int64_t bits = 8 * len, lsb = 0, msb = bits - 1;
    if (masked_) {
      lsb = raw_lsb_;
      msb = raw_msb_;
      if (lsb < 0 || msb < 0 || lsb >= bits || msb >= bits) fail("has a bit range outside its register");
      // Big-endian descriptions number bits from the most significant end.
      if (!little_) {
        lsb = bits - 1 - lsb;
        msb = bits - 1 - msb;
      }
      if (lsb > msb) std::swap(lsb, msb);
    }
    len_ = len;
    lsb_ = static_cast<int>(lsb);
    width_ = static_cast<int>(msb - lsb + 1);
    mask_ = width_ == 64 ? ~0ull : ((1ull << width_) - 1);
    if (signed_) {
      own_min_ = width_ == 64 ? INT64_MIN : -(int64_t(1) << (width_ - 1));
      own_max_ = width_ == 64 ? INT64_MAX : (int64_t(1) << (width_ - 1)) - 1;
    } else {
      own_min_ = 0;
      own_max_ = width_ >= 63 ? INT64_MAX : static_cast<int64_t>(mask_);
    }
    min_ = std::max(own_min_, imposed_min_);
    max_ = std::min(own_max_, imposed_max_);
  }
  void Prepare() {
    if (!length_.has_literal) {
      int64_t len = Length();
      if (len != len_) Layout(len, false);
    }
  }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIInteger; }
  void Link() override {
    CRegisterBase::Link();
    LinkSelected(this);
  }

  int64_t Decode(const uint8_t* b) const {
    uint64_t field = (Assemble(b, len_, little_) >> lsb_) & mask_;
    if (signed_ && width_ < 64 && (field >> (width_ - 1)) & 1) field |= ~mask_;
    return static_cast<int64_t>(field);
  }
  int64_t Read(bool verify, bool ignore_cache) {
    CheckReadable();
    Prepare();
    uint8_t b[8];
    ReadBytes(b, len_, ignore_cache || verify);
    int64_t v = Decode(b);
    if (verify) CheckIntRange(this, v, min_, max_, 1);
    return v;
  }
  void Write(int64_t v, bool verify) {
    CheckWritable();
    Prepare();
    // Values that do not fit the field would spill into neighbouring bits.
    CheckIntRange(this, v, min_, max_, 1);
    (void)verify;
    uint8_t b[8];
    uint64_t field = static_cast<uint64_t>(v) & mask_;
    if (masked_ && width_ < 8 * len_) {
      CurrentImage(b, len_);
      uint64_t reg = Assemble(b, len_, little_);
      reg = (reg & ~(mask_ << lsb_)) | (field << lsb_);
      Disassemble(reg, b, len_, little_);
    } else {
      Disassemble(field << lsb_, b, len_, little_);
    }
    WriteBytes(b, len_);
  }

  void SetValue(int64_t v, bool verify) override {
    KIV_LOCK();
    Write(v, verify);
    CheckErrors();
  }
  int64_t GetValue(bool verify, bool ignore_cache) override {
    KIV_LOCK();
    int64_t v = Read(verify, ignore_cache);
    CheckErrorsIf(verify);
    return v;
  }
  int64_t GetMin() override { KIV_LOCK(); Prepare(); return min_; }
  int64_t GetMax() override { KIV_LOCK(); Prepare(); return max_; }
  EIncMode GetIncMode() override { return fixedIncrement; }
  int64_t GetInc() override { return 1; }
  int64_autovector_t GetListOfValidValues(bool) override { return {}; }
  ERepresentation GetRepresentation() override { return repr_; }
  gcstring GetUnit() override { return unit_; }
  // A later imposed bound replaces the earlier one, as on Integer nodes; it
  // can only narrow the register's own range.
  void ImposeMin(int64_t v) override {
    imposed_min_ = v;
    min_ = std::max(own_min_, v);
  }
  void ImposeMax(int64_t v) override {
    imposed_max_ = v;
    max_ = std::min(own_max_, v);
  }
  gcstring ToString(bool verify, bool ignore_cache) override { return FormatInt(GetValue(verify, ignore_cache), repr_); }
  void FromString(const gcstring& s, bool verify) override {
    SetValue(IntArgument(this, s), verify);
  }
  bool IsValueCacheValid() const override { return CacheValid(); }
  FormulaValue GetNum(bool verify, bool ignore_cache) override { return FormulaValue::Int(Read(verify, ignore_cache)); }
  void SetNum(const FormulaValue& v, bool verify) override { Write(ToInt(v), verify); }
  FormulaValue NumMin() override { return FormulaValue::Int(GetMin()); }
  FormulaValue NumMax() override { return FormulaValue::Int(GetMax()); }

 private:
  bool masked_;
  int64_t raw_lsb_ = -1, raw_msb_ = -1;  // as the description numbers them
  int64_t len_ = 0;
  int lsb_ = 0, width_ = 0;
  uint64_t mask_ = 0;
  int64_t min_ = 0, max_ = 0;
  int64_t imposed_min_ = INT64_MIN, imposed_max_ = INT64_MAX;
  int64_t own_min_ = INT64_MIN, own_max_ = INT64_MAX;  // from width and sign
};

class CFloatRegNode : public CRegisterBase, public IFloat {
 public:
  CFloatRegNode(CNodeMap* map, const NodeDesc& d) : CRegisterBase(map, d, WriteAround) {
    if (length_.has_literal && length_.literal.i != 4 && length_.literal.i != 8)
      KIV_THROW(RuntimeException, name_, "FloatReg '" + name_ + "' needs a Length of 4 or 8 bytes");
    if (d.Text("DisplayNotation") == "Fixed") notation_ = fnFixed;
    if (d.Text("DisplayNotation") == "Scientific") notation_ = fnScientific;
    if (d.Has("DisplayPrecision")) ParseInt64(d.Text("DisplayPrecision"), precision_);
  }
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIFloat; }
  int64_t FloatLength() const {
    int64_t len = Length();
    if (len != 4 && len != 8)
      KIV_THROW(LogicalErrorException, name_, "FloatReg '" + name_ + "' needs a Length of 4 or 8 bytes");
    return len;
  }
  double Read(bool verify, bool ignore_cache) {
    CheckReadable();
    uint8_t b[8];
    int64_t len = FloatLength();
    ReadBytes(b, len, ignore_cache || verify);
    uint64_t raw = Assemble(b, len, little_);
    if (len == 4) {
      uint32_t r32 = static_cast<uint32_t>(raw);
      float f;
      std::memcpy(&f, &r32, 4);
      return f;
    }
    double v;
    std::memcpy(&v, &raw, 8);
    return v;
  }
  void Write(double v, bool verify) {
    CheckWritable();
    if (verify) CheckFloatRange(this, v, GetMin(), GetMax());
    int64_t len = FloatLength();
    uint64_t raw;
    if (len == 4) {
      float f = static_cast<float>(v);
      uint32_t r32;
      std::memcpy(&r32, &f, 4);
      raw = r32;
    } else {
      std::memcpy(&raw, &v, 8);
    }
    uint8_t b[8];
    Disassemble(raw, b, len, little_);
    WriteBytes(b, len);
  }
  void SetValue(double v, bool verify) override {
    CheckFinite(this, v);
    KIV_LOCK();
    Write(v, verify);
    CheckErrors();
  }
  double GetValue(bool verify, bool ignore_cache) override {
    KIV_LOCK();
    double v = Read(verify, ignore_cache);
    CheckErrorsIf(verify);
    return v;
  }
  double GetMin() override { return has_min_ ? min_ : -DBL_MAX; }
  double GetMax() override { return has_max_ ? max_ : DBL_MAX; }
  bool HasInc() override { return false; }
  EIncMode GetIncMode() override { return noIncrement; }
  double GetInc() override { return 0; }
  double_autovector_t GetListOfValidValues(bool) override { return {}; }
  ERepresentation GetRepresentation() override { return repr_; }
  gcstring GetUnit() const override { return unit_; }
  EDisplayNotation GetDisplayNotation() const override { return notation_; }
  int64_t GetDisplayPrecision() const override { return precision_; }
  void ImposeMin(double v) override { has_min_ = true; min_ = v; }
  void ImposeMax(double v) override { has_max_ = true; max_ = v; }
  gcstring ToString(bool verify, bool ignore_cache) override { return FormatDouble(GetValue(verify, ignore_cache)); }
  void FromString(const gcstring& s, bool verify) override {
    SetValue(FloatArgument(this, s), verify);
  }
  bool IsValueCacheValid() const override { return CacheValid(); }
  FormulaValue GetNum(bool verify, bool ignore_cache) override { return FormulaValue::Float(Read(verify, ignore_cache)); }
  void SetNum(const FormulaValue& v, bool verify) override { Write(v.AsFloat(), verify); }
  FormulaValue NumMin() override { return FormulaValue::Float(GetMin()); }
  FormulaValue NumMax() override { return FormulaValue::Float(GetMax()); }

 private:
  EDisplayNotation notation_ = fnAutomatic;
  int64_t precision_ = 6;
  bool has_min_ = false, has_max_ = false;
  double min_ = 0, max_ = 0;
};

class CStringRegNode : public CRegisterBase, public IString {
 public:
  CStringRegNode(CNodeMap* map, const NodeDesc& d) : CRegisterBase(map, d, WriteThrough) {}
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIString; }
  void SetValue(const gcstring& v, bool) override {
    KIV_LOCK();
    CheckWritable();
    int64_t len = Length();
    if (static_cast<int64_t>(v.size()) > len)
      KIV_THROW(OutOfRangeException, name_, "String of " + std::to_string(v.size()) + " characters is too long for '" +
                                                name_ + "' (" + std::to_string(len) + " bytes)");
    std::vector<uint8_t> b(static_cast<size_t>(len), 0);
    std::memcpy(b.data(), v.data(), v.size());
    WriteBytes(b.data(), len);
    CheckErrors();
  }
  gcstring GetValue(bool verify, bool ignore_cache) override {
    KIV_LOCK();
    CheckReadable();
    int64_t len = Length();
    std::vector<uint8_t> b(static_cast<size_t>(len));
    ReadBytes(b.data(), len, ignore_cache || verify);
    size_t n = 0;
    while (n < b.size() && b[n]) ++n;
    CheckErrorsIf(verify);
    return std::string(reinterpret_cast<const char*>(b.data()), n);
  }
  int64_t GetMaxLength(bool) override { return Length(); }
  gcstring ToString(bool verify, bool ignore_cache) override { return GetValue(verify, ignore_cache); }
  void FromString(const gcstring& s, bool verify) override { SetValue(s, verify); }
  bool IsValueCacheValid() const override { return CacheValid(); }
};

class CRawRegisterNode : public CRegisterBase, public IRegister {
 public:
  CRawRegisterNode(CNodeMap* map, const NodeDesc& d) : CRegisterBase(map, d, WriteThrough) {}
  EInterfaceType GetPrincipalInterfaceType() const override { return intfIRegister; }
  void CheckLength(int64_t len) {
    if (len != Length())
      KIV_THROW(OutOfRangeException, name_, "Register '" + name_ + "' is " + std::to_string(Length()) +
                                                " bytes long, not " + std::to_string(len));
  }
  void Set(const uint8_t* p, int64_t len, bool) override {
    KIV_LOCK();
    CheckWritable();
    CheckLength(len);
    WriteBytes(p, len);
    CheckErrors();
  }
  void Get(uint8_t* p, int64_t len, bool verify, bool ignore_cache) override {
    KIV_LOCK();
    CheckReadable();
    CheckLength(len);
    ReadBytes(p, len, ignore_cache || verify);
    CheckErrorsIf(verify);
  }
  int64_t GetLength(bool) override { KIV_LOCK(); return Length(); }
  int64_t GetAddress(bool) override { KIV_LOCK(); return Address(); }
  gcstring ToString(bool verify, bool ignore_cache) override {
    int64_t len = GetLength(false);
    std::vector<uint8_t> b(static_cast<size_t>(len));
    Get(b.data(), len, verify, ignore_cache);
    static const char* hex = "0123456789ABCDEF";
    std::string s = "0x";
    for (uint8_t c : b) {
      s += hex[c >> 4];
      s += hex[c & 15];
    }
    return s;
  }
  void FromString(const gcstring& s, bool verify) override {
    int64_t len = GetLength(false);
    std::string h = s;
    if (h.size() >= 2 && h[0] == '0' && (h[1] == 'x' || h[1] == 'X')) h = h.substr(2);
    if (static_cast<int64_t>(h.size()) != 2 * len)
      KIV_THROW(InvalidArgumentException, name_, "Register '" + name_ + "' needs " + std::to_string(2 * len) + " hex digits");
    std::vector<uint8_t> b(static_cast<size_t>(len));
    for (int64_t i = 0; i < len; ++i) {
      int64_t v;
      if (!ParseInt64("0x" + h.substr(static_cast<size_t>(2 * i), 2), v))
        KIV_THROW(InvalidArgumentException, name_, "Register '" + name_ + "': '" + s + "' is not hexadecimal");
      b[static_cast<size_t>(i)] = static_cast<uint8_t>(v);
    }
    Set(b.data(), len, verify);
  }
  bool IsValueCacheValid() const override { return CacheValid(); }
};

}  // namespace

std::unique_ptr<CNode> MakeRegisterNode(CNodeMap* map, const NodeDesc& d) {
  const std::string& t = d.type;
  if (t == "IntReg") return std::make_unique<CIntRegNode>(map, d, false);
  if (t == "MaskedIntReg") return std::make_unique<CIntRegNode>(map, d, true);
  if (t == "FloatReg") return std::make_unique<CFloatRegNode>(map, d);
  if (t == "StringReg") return std::make_unique<CStringRegNode>(map, d);
  if (t == "Register") return std::make_unique<CRawRegisterNode>(map, d);
  return nullptr;
}

}  // namespace detail
}  // namespace KivGenApi
