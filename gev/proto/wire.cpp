#include "wire.h"

#include <cstring>

namespace kivgev {

namespace {
void PutText(uint8_t* p, size_t field, const char* s) {
  std::memset(p, 0, field);
  size_t n = strnlen(s, field);
  std::memcpy(p, s, n);
}
void GetText(char* out, const uint8_t* p, size_t field) {
  size_t n = strnlen(reinterpret_cast<const char*>(p), field);
  std::memcpy(out, p, n);
  out[n] = 0;
}
}  // namespace

const char* StatusName(uint16_t s) {
  switch (s) {
    case kStatusSuccess: return "SUCCESS";
    case kStatusPacketResend: return "PACKET_RESEND";
    case kStatusNotImplemented: return "NOT_IMPLEMENTED";
    case kStatusInvalidParameter: return "INVALID_PARAMETER";
    case kStatusInvalidAddress: return "INVALID_ADDRESS";
    case kStatusWriteProtect: return "WRITE_PROTECT";
    case kStatusBadAlignment: return "BAD_ALIGNMENT";
    case kStatusAccessDenied: return "ACCESS_DENIED";
    case kStatusBusy: return "BUSY";
    case kStatusPacketUnavailable: return "PACKET_UNAVAILABLE";
    case kStatusInvalidHeader: return "INVALID_HEADER";
    case kStatusPacketNotYetAvailable: return "PACKET_NOT_YET_AVAILABLE";
    case kStatusPacketRemoved: return "PACKET_REMOVED_FROM_MEMORY";
    case kStatusError: return "ERROR";
    default: return "UNKNOWN_STATUS";
  }
}

bool ParseCommand(const uint8_t* p, size_t n, GvcpCommand* out) {
  if (!p || n < kGvcpHeader || p[0] != kGvcpKey) return false;
  const size_t length = Get16(p + 4);
  if (length > n - kGvcpHeader) return false;
  out->flags = p[1];
  out->code = Get16(p + 2);
  out->req_id = Get16(p + 6);
  out->payload = p + kGvcpHeader;
  out->length = length;
  return true;
}

bool ParseAck(const uint8_t* p, size_t n, GvcpAck* out) {
  if (!p || n < kGvcpHeader) return false;
  const size_t length = Get16(p + 4);
  if (length > n - kGvcpHeader) return false;
  out->status = Get16(p);
  out->code = Get16(p + 2);
  out->ack_id = Get16(p + 6);
  out->payload = p + kGvcpHeader;
  out->length = length;
  return true;
}

size_t PutCommand(uint8_t* p, uint8_t flags, uint16_t code, uint16_t length, uint16_t req_id) {
  p[0] = kGvcpKey;
  p[1] = flags;
  Put16(p + 2, code);
  Put16(p + 4, length);
  Put16(p + 6, req_id);
  return kGvcpHeader;
}

size_t PutAck(uint8_t* p, uint16_t status, uint16_t code, uint16_t length, uint16_t ack_id) {
  Put16(p, status);
  Put16(p + 2, code);
  Put16(p + 4, length);
  Put16(p + 6, ack_id);
  return kGvcpHeader;
}

bool ParseDiscovery(const uint8_t* q, size_t n, DiscoveryInfo* d) {
  if (!q || n < kDiscoveryAckSize) return false;
  d->version_major = Get16(q);
  d->version_minor = Get16(q + 2);
  d->device_mode = Get32(q + 4);
  d->mac = uint64_t(Get16(q + 0x0A)) << 32 | Get32(q + 0x0C);
  d->ip_options = Get32(q + 0x10);
  d->ip_current = Get32(q + 0x14);
  d->ip = Get32(q + 0x24);
  d->subnet = Get32(q + 0x34);
  d->gateway = Get32(q + 0x44);
  GetText(d->vendor, q + 0x48, 32);
  GetText(d->model, q + 0x68, 32);
  GetText(d->version, q + 0x88, 32);
  GetText(d->info, q + 0xA8, 48);
  GetText(d->serial, q + 0xD8, 16);
  GetText(d->user_name, q + 0xE8, 16);
  return true;
}

void PutDiscovery(uint8_t* q, const DiscoveryInfo& d) {
  std::memset(q, 0, kDiscoveryAckSize);
  Put16(q, d.version_major);
  Put16(q + 2, d.version_minor);
  Put32(q + 4, d.device_mode);
  Put16(q + 0x0A, uint16_t(d.mac >> 32));
  Put32(q + 0x0C, uint32_t(d.mac));
  Put32(q + 0x10, d.ip_options);
  Put32(q + 0x14, d.ip_current);
  Put32(q + 0x24, d.ip);
  Put32(q + 0x34, d.subnet);
  Put32(q + 0x44, d.gateway);
  PutText(q + 0x48, 32, d.vendor);
  PutText(q + 0x68, 32, d.model);
  PutText(q + 0x88, 32, d.version);
  PutText(q + 0xA8, 48, d.info);
  PutText(q + 0xD8, 16, d.serial);
  PutText(q + 0xE8, 16, d.user_name);
}

bool ParseResend(const GvcpCommand& c, ResendRequest* r) {
  if (c.code != kPacketResendCmd) return false;
  r->extended = (c.flags & kFlagExtendedIds) != 0;
  if (c.length < (r->extended ? 20u : 12u)) return false;
  const uint8_t* q = c.payload;
  r->channel = Get16(q);
  if (r->extended) {
    r->first = Get32(q + 4);
    r->last = Get32(q + 8);
    r->block_id = Get64(q + 12);
  } else {
    r->block_id = Get16(q + 2);
    r->first = Get32(q + 4) & 0xFFFFFF;
    r->last = Get32(q + 8) & 0xFFFFFF;
  }
  return true;
}

size_t PutResend(uint8_t* p, uint16_t req_id, const ResendRequest& r) {
  const uint16_t length = r.extended ? 20 : 12;
  PutCommand(p, r.extended ? kFlagExtendedIds : 0, kPacketResendCmd, length, req_id);
  uint8_t* q = p + kGvcpHeader;
  std::memset(q, 0, length);
  Put16(q, r.channel);
  if (r.extended) {
    Put32(q + 4, r.first);
    Put32(q + 8, r.last);
    Put64(q + 12, r.block_id);
  } else {
    Put16(q + 2, uint16_t(r.block_id));
    Put32(q + 4, r.first & 0xFFFFFF);
    Put32(q + 8, r.last & 0xFFFFFF);
  }
  return kGvcpHeader + length;
}

bool ParseGvsp(const uint8_t* p, size_t n, GvspPacket* out) {
  if (!p || n < kGvspHeader) return false;
  out->status = Get16(p);
  out->extended = (p[4] & 0x80) != 0;
  out->format = p[4] & 0x0F;
  if (out->extended) {
    if (n < kGvspHeaderExt) return false;
    out->flags = Get16(p + 2);
    out->block_id = Get64(p + 8);
    out->packet_id = Get32(p + 16);
  } else {
    out->flags = 0;
    out->block_id = Get16(p + 2);
    out->packet_id = Get32(p + 4) & 0xFFFFFF;
  }
  const size_t h = GvspHeaderSize(out->extended);
  out->data = p + h;
  out->size = n - h;
  return true;
}

namespace {
uint16_t HeaderSum(const uint8_t* p, size_t n) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < n; i += 2) sum += Get16(p + i);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(sum);
}
}  // namespace

bool ParseIpv4Udp(const uint8_t* p, size_t n, Ipv4Udp* out) {
  if (!p || n < 20 || (p[0] >> 4) != 4) return false;
  const size_t ihl = size_t(p[0] & 0x0F) * 4, total = Get16(p + 2);
  if (ihl < 20 || total < ihl + 8 || total > n) return false;
  if ((Get16(p + 6) & 0x3FFF) != 0 || p[9] != 17) return false;  // fragments (MF or offset), not UDP
  if (HeaderSum(p, ihl) != 0xFFFF) return false;
  const uint8_t* u = p + ihl;
  const size_t ulen = Get16(u + 4);
  if (ulen < 8 || ulen > total - ihl) return false;
  out->src = Get32(p + 12);
  out->dst = Get32(p + 16);
  out->src_port = Get16(u);
  out->dst_port = Get16(u + 2);
  out->data = u + 8;
  out->size = ulen - 8;
  return true;
}

bool UdpChecksumOk(const Ipv4Udp& u) {
  const uint8_t* h = u.data - 8;  // the UDP header
  if (Get16(h + 6) == 0) return true;
  const size_t n = u.size + 8;
  uint64_t sum = (u.src >> 16) + (u.src & 0xFFFF) + (u.dst >> 16) + (u.dst & 0xFFFF) + 17 + n;
  size_t i = 0;
  for (; i + 1 < n; i += 2) sum += Get16(h + i);
  if (i < n) sum += uint32_t(h[i]) << 8;
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return sum == 0xFFFF;
}

size_t PutIpv4Udp(uint8_t* p, const Ipv4Udp& in) {
  const size_t total = 28 + in.size;
  if (in.size) std::memcpy(p + 28, in.data, in.size);
  p[0] = 0x45;
  p[1] = 0;
  Put16(p + 2, static_cast<uint16_t>(total));
  Put32(p + 4, 0);  // ID, flags, offset
  p[8] = 64;
  p[9] = 17;
  Put16(p + 10, 0);
  Put32(p + 12, in.src);
  Put32(p + 16, in.dst);
  Put16(p + 10, static_cast<uint16_t>(~HeaderSum(p, 20)));
  Put16(p + 20, in.src_port);
  Put16(p + 22, in.dst_port);
  Put16(p + 24, static_cast<uint16_t>(8 + in.size));
  Put16(p + 26, 0);  // no UDP checksum
  return total;
}

size_t PutGvspHeader(uint8_t* p, bool extended, uint16_t status, uint16_t flags, uint64_t block_id, uint8_t format,
                     uint32_t packet_id) {
  Put16(p, status);
  if (extended) {
    Put16(p + 2, flags);
    Put32(p + 4, 0);
    p[4] = uint8_t(0x80 | (format & 0x0F));
    Put64(p + 8, block_id);
    Put32(p + 16, packet_id);
    return kGvspHeaderExt;
  }
  Put16(p + 2, uint16_t(block_id));
  Put32(p + 4, packet_id & 0xFFFFFF);
  p[4] = format & 0x0F;
  return kGvspHeader;
}

bool ParseImageLeader(const GvspPacket& pk, ImageLeader* l) {
  if (pk.format != kFormatLeader || pk.size < kImageLeaderSize) return false;
  const uint8_t* q = pk.data;
  l->payload_type = Get16(q + 2);
  l->timestamp = Get64(q + 4);
  l->pixel_format = Get32(q + 12);
  l->width = Get32(q + 16);
  l->height = Get32(q + 20);
  l->offset_x = Get32(q + 24);
  l->offset_y = Get32(q + 28);
  l->padding_x = Get16(q + 32);
  l->padding_y = Get16(q + 34);
  return true;
}

size_t PutImageLeader(uint8_t* q, const ImageLeader& l) {
  std::memset(q, 0, kImageLeaderSize);
  Put16(q + 2, l.payload_type);
  Put64(q + 4, l.timestamp);
  Put32(q + 12, l.pixel_format);
  Put32(q + 16, l.width);
  Put32(q + 20, l.height);
  Put32(q + 24, l.offset_x);
  Put32(q + 28, l.offset_y);
  Put16(q + 32, l.padding_x);
  Put16(q + 34, l.padding_y);
  return kImageLeaderSize;
}

bool ParseImageTrailer(const GvspPacket& pk, ImageTrailer* t) {
  if (pk.format != kFormatTrailer || pk.size < kImageTrailerSize) return false;
  t->payload_type = Get16(pk.data + 2);
  t->height = Get32(pk.data + 4);
  return true;
}

size_t PutImageTrailer(uint8_t* q, const ImageTrailer& t) {
  std::memset(q, 0, kImageTrailerSize);
  Put16(q + 2, t.payload_type);
  Put32(q + 4, t.height);
  return kImageTrailerSize;
}

}  // namespace kivgev
