// libFuzzer target: any datagram through the GVCP parsers the producer and
// the emulator use. Parsing never reads past the datagram, and what a
// builder writes parses back to the same fields.
#include <cstdint>
#include <cstring>
#include <vector>

#include "wire.h"

using namespace kivgev;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact-size copy, so that any read past the end is caught.
  std::vector<uint8_t> d(data, data + size);
  GvcpCommand c;
  if (ParseCommand(d.data(), d.size(), &c)) {
    if (c.payload + c.length > d.data() + d.size()) __builtin_trap();
    ResendRequest r;
    if (ParseResend(c, &r)) {
      uint8_t out[kGvcpHeader + 20];
      const size_t n = PutResend(out, c.req_id, r);
      GvcpCommand back;
      ResendRequest again;
      if (!ParseCommand(out, n, &back) || !ParseResend(back, &again) || again.block_id != r.block_id ||
          again.first != r.first || again.last != r.last || again.extended != r.extended)
        __builtin_trap();
    }
  }
  GvcpAck a;
  if (ParseAck(d.data(), d.size(), &a)) {
    if (a.payload + a.length > d.data() + d.size()) __builtin_trap();
    DiscoveryInfo info;
    if (ParseDiscovery(a.payload, a.length, &info)) {
      uint8_t out[kDiscoveryAckSize];
      PutDiscovery(out, info);
      DiscoveryInfo again;
      if (!ParseDiscovery(out, sizeof out, &again) || again.mac != info.mac || again.ip != info.ip ||
          std::strcmp(again.model, info.model) != 0 || std::strcmp(again.user_name, info.user_name) != 0)
        __builtin_trap();
    }
  }
  return 0;
}
