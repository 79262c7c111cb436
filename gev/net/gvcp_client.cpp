#include "gvcp_client.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace kivgev {

namespace {
constexpr size_t kMemPiece = 512;  // READMEM pieces stay well inside one datagram

std::string Hex(uint32_t v) {
  char b[16];
  std::snprintf(b, sizeof b, "0x%08X", v);
  return b;
}
}  // namespace

bool GvcpClient::Open(uint32_t local_ip, uint32_t device_ip, std::string* error, uint16_t device_port) {
  std::lock_guard<std::mutex> l(mu_);
  device_ip_ = device_ip;
  device_port_ = device_port;
  return sock_.Open(local_ip, 0, error);
}

void GvcpClient::SetTimeout(uint32_t ms, uint32_t attempts) {
  std::lock_guard<std::mutex> l(mu_);
  timeout_ms_ = ms ? ms : 1;
  attempts_ = attempts ? attempts : 1;
}

GvcpCounters GvcpClient::counters() const {
  std::lock_guard<std::mutex> l(mu_);
  return counters_;
}

uint16_t GvcpClient::NextId() {
  if (++req_id_ == 0) req_id_ = 1;  // 0 is no request ID
  return req_id_;
}

GvcpResult GvcpClient::Transact(uint8_t* msg, size_t n, uint16_t ack_code, std::vector<uint8_t>* answer,
                                const char* what, uint32_t address) {
  GvcpResult r;
  const uint16_t id = Get16(msg + 6);
  uint8_t in[1500];
  counters_.commands++;
  for (uint32_t attempt = 0; attempt < attempts_; ++attempt) {
    if (attempt) counters_.retries++;
    // A retry is the same datagram with the same request ID.
    if (!sock_.SendTo(device_ip_, device_port_, msg, n)) break;
    uint64_t deadline = NowNs() + uint64_t(timeout_ms_) * 1000000ULL;
    for (;;) {
      const uint64_t now = NowNs();
      if (now >= deadline) break;
      uint32_t from = 0;
      long got = sock_.Receive(in, sizeof in, static_cast<int>((deadline - now + 999999) / 1000000), &from);
      if (got < 0) continue;
      GvcpAck a;
      if (from != device_ip_ || !ParseAck(in, static_cast<size_t>(got), &a) || a.ack_id != id) {
        counters_.stray_acks++;  // late answers to earlier tries, or noise
        continue;
      }
      if (a.code == kPendingAck) {
        // The device needs longer: wait as long as it says, from now.
        counters_.pending_acks++;
        uint32_t ms = a.length >= 4 ? Get16(a.payload + 2) : timeout_ms_;
        deadline = NowNs() + uint64_t(ms ? ms : timeout_ms_) * 1000000ULL;
        continue;
      }
      if (a.code != ack_code) {
        counters_.stray_acks++;
        continue;
      }
      if (ack_code == kWriteRegAck || ack_code == kWriteMemAck) r.index = a.length >= 4 ? Get16(a.payload + 2) : 0;
      if (a.status != kStatusSuccess) {
        r.kind = GvcpResult::kRefused;
        r.status = a.status;
        r.text = std::string("device answered ") + StatusName(a.status) + " (" + Hex(a.status).substr(6) + ") to " +
                 what + " " + Hex(address);
        return r;
      }
      if (answer) answer->assign(a.payload, a.payload + a.length);
      return r;
    }
  }
  r.kind = GvcpResult::kTimeout;
  r.text = std::string("no answer from ") + IpText(device_ip_) + " to " + what + " " + Hex(address) + " after " +
           std::to_string(attempts_) + " tries";
  return r;
}

GvcpResult GvcpClient::ReadRegs(const uint32_t* addresses, uint32_t* values, size_t n) {
  std::lock_guard<std::mutex> l(mu_);
  const size_t per = concatenation_ ? kMaxReadRegs : 1;
  std::vector<uint8_t> ack;
  for (size_t done = 0; done < n;) {
    const size_t k = std::min(per, n - done);
    uint8_t msg[kGvcpHeader + kGvcpMaxPayload];
    PutCommand(msg, kFlagAckRequired, kReadRegCmd, static_cast<uint16_t>(4 * k), NextId());
    for (size_t i = 0; i < k; ++i) Put32(msg + kGvcpHeader + 4 * i, addresses[done + i]);
    GvcpResult r = Transact(msg, kGvcpHeader + 4 * k, kReadRegAck, &ack, "READREG", addresses[done]);
    if (!r.ok()) return r;
    if (ack.size() < 4 * k) {
      r.kind = GvcpResult::kBadAnswer;
      r.text = "short READREG acknowledge from " + IpText(device_ip_);
      return r;
    }
    for (size_t i = 0; i < k; ++i) values[done + i] = Get32(ack.data() + 4 * i);
    done += k;
  }
  return {};
}

GvcpResult GvcpClient::WriteRegs(const uint32_t* addresses, const uint32_t* values, size_t n) {
  std::lock_guard<std::mutex> l(mu_);
  const size_t per = concatenation_ ? kMaxWriteRegs : 1;
  for (size_t done = 0; done < n;) {
    const size_t k = std::min(per, n - done);
    uint8_t msg[kGvcpHeader + kGvcpMaxPayload];
    PutCommand(msg, kFlagAckRequired, kWriteRegCmd, static_cast<uint16_t>(8 * k), NextId());
    for (size_t i = 0; i < k; ++i) {
      Put32(msg + kGvcpHeader + 8 * i, addresses[done + i]);
      Put32(msg + kGvcpHeader + 8 * i + 4, values[done + i]);
    }
    GvcpResult r = Transact(msg, kGvcpHeader + 8 * k, kWriteRegAck, nullptr, "WRITEREG", addresses[done]);
    r.index += static_cast<uint32_t>(done);
    if (!r.ok()) return r;
    done += k;
  }
  GvcpResult ok;
  ok.index = static_cast<uint32_t>(n);
  return ok;
}

GvcpResult GvcpClient::ReadMem(uint64_t address, void* data, size_t n) {
  std::lock_guard<std::mutex> l(mu_);
  uint8_t* out = static_cast<uint8_t*>(data);
  std::vector<uint8_t> ack;
  // Whole words from the aligned start; the caller gets its slice.
  const uint64_t first = address & ~uint64_t(3), end = (address + n + 3) & ~uint64_t(3);
  for (uint64_t at = first; at < end;) {
    const size_t k = static_cast<size_t>(std::min<uint64_t>(kMemPiece, end - at));
    if (at + k > 0x100000000ULL) {
      GvcpResult r;
      r.kind = GvcpResult::kRefused;
      r.status = kStatusInvalidAddress;
      r.text = "address beyond 32 bits";
      return r;
    }
    uint8_t msg[kGvcpHeader + 8];
    PutCommand(msg, kFlagAckRequired, kReadMemCmd, 8, NextId());
    Put32(msg + 8, static_cast<uint32_t>(at));
    Put16(msg + 12, 0);
    Put16(msg + 14, static_cast<uint16_t>(k));
    GvcpResult r = Transact(msg, sizeof msg, kReadMemAck, &ack, "READMEM", static_cast<uint32_t>(at));
    if (!r.ok()) return r;
    if (ack.size() < 4 + k) {
      r.kind = GvcpResult::kBadAnswer;
      r.text = "short READMEM acknowledge from " + IpText(device_ip_);
      return r;
    }
    // Copy the part of this piece that the caller asked for.
    const uint64_t lo = std::max(at, address), hi = std::min<uint64_t>(at + k, address + n);
    if (hi > lo) std::memcpy(out + (lo - address), ack.data() + 4 + (lo - at), static_cast<size_t>(hi - lo));
    at += k;
  }
  return {};
}

GvcpResult GvcpClient::WriteMem(uint32_t address, const void* data, size_t n) {
  std::lock_guard<std::mutex> l(mu_);
  const uint8_t* in = static_cast<const uint8_t*>(data);
  for (size_t done = 0; done < n;) {
    const size_t k = std::min(kMemPiece, n - done);
    uint8_t msg[kGvcpHeader + 4 + kMemPiece];
    PutCommand(msg, kFlagAckRequired, kWriteMemCmd, static_cast<uint16_t>(4 + k), NextId());
    Put32(msg + 8, address + static_cast<uint32_t>(done));
    std::memcpy(msg + 12, in + done, k);
    GvcpResult r = Transact(msg, kGvcpHeader + 4 + k, kWriteMemAck, nullptr, "WRITEMEM", address + uint32_t(done));
    if (!r.ok()) return r;
    done += k;
  }
  return {};
}

}  // namespace kivgev
