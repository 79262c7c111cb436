// libFuzzer target: any datagram through the GVSP parsers of the stream
// receiver, with round trips through the builders; the same bytes as a frame
// of the packet ring through the IPv4/UDP parser.
#include <cstdint>
#include <vector>

#include "wire.h"

using namespace kivgev;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> d(data, data + size);
  Ipv4Udp u;
  if (ParseIpv4Udp(d.data(), d.size(), &u)) {
    if (u.data < d.data() + 28 || u.data + u.size > d.data() + d.size()) __builtin_trap();
    std::vector<uint8_t> again(28 + u.size);
    PutIpv4Udp(again.data(), u);
    Ipv4Udp back;
    if (!ParseIpv4Udp(again.data(), again.size(), &back) || back.src != u.src || back.dst_port != u.dst_port ||
        back.size != u.size)
      __builtin_trap();
    // Reads only the datagram; a datagram written without a checksum passes.
    (void)UdpChecksumOk(u);
    if (!UdpChecksumOk(back)) __builtin_trap();
  }
  GvspPacket pk;
  if (!ParseGvsp(d.data(), d.size(), &pk)) return 0;
  if (pk.data + pk.size != d.data() + d.size()) __builtin_trap();
  uint8_t head[kGvspHeaderExt];
  const size_t h = PutGvspHeader(head, pk.extended, pk.status, pk.flags, pk.block_id, pk.format, pk.packet_id);
  GvspPacket back;
  if (!ParseGvsp(head, h, &back) || back.block_id != pk.block_id || back.packet_id != pk.packet_id ||
      back.format != pk.format || back.extended != pk.extended)
    __builtin_trap();
  ImageLeader lead;
  if (ParseImageLeader(pk, &lead)) {
    uint8_t out[kImageLeaderSize];
    PutImageLeader(out, lead);
    GvspPacket again = pk;
    again.data = out;
    again.size = sizeof out;
    ImageLeader l2;
    if (!ParseImageLeader(again, &l2) || l2.width != lead.width || l2.pixel_format != lead.pixel_format ||
        l2.timestamp != lead.timestamp)
      __builtin_trap();
  }
  ImageTrailer t;
  if (ParseImageTrailer(pk, &t) && t.payload_type != (uint16_t(pk.data[2]) << 8 | pk.data[3])) __builtin_trap();
  return 0;
}
