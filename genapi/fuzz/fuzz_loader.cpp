// Feeds arbitrary bytes to the description loader, then reads every node of
// whatever loaded over a port that answers with the input's own bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "kivgenapi/KivGenApi.h"

using namespace KivGenApi;

namespace {

class EchoPort : public IPort {
 public:
  EchoPort(const uint8_t* d, size_t n) : data_(d), size_(n) {}
  EAccessMode GetAccessMode() const override { return RW; }
  void Read(void* buf, int64_t address, int64_t length) override {
    if (length < 0 || length > (1 << 20)) throw std::runtime_error("bad length");
    auto* p = static_cast<uint8_t*>(buf);
    for (int64_t i = 0; i < length; ++i)
      p[i] = size_ ? data_[static_cast<uint64_t>(address + i) % size_] : 0;
  }
  void Write(const void*, int64_t, int64_t length) override {
    if (length < 0 || length > (1 << 20)) throw std::runtime_error("bad length");
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string xml(reinterpret_cast<const char*>(data), size);
  CNodeMapRef map;
  try {
    map._LoadXMLFromString(xml);
  } catch (const GenericException&) {
    return 0;
  }
  EchoPort port(data, size);
  map._Connect(&port, "Device");
  NodeList_t nodes;
  map._GetNodes(nodes);
  for (INode* n : nodes) {
    try {
      (void)n->GetAccessMode();
      CValuePtr v(n);
      if (v && IsReadable(n)) {
        std::string s = v->ToString();
        if (IsWritable(n)) v->FromString(s, true);
      }
      if (CCommandPtr c = n) (void)c->IsDone();
    } catch (const GenericException&) {
    } catch (const std::runtime_error&) {
    }
  }
  return 0;
}
