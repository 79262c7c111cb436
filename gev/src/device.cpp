// Devices: opening with the control channel privilege, the heartbeat that
// keeps it, loss of the camera, and the stream test.
#include <algorithm>

#include "producer.h"

namespace kivgev {

namespace {
constexpr uint32_t kBusReset = 1;
constexpr uint32_t kStreamTestFailed = 13;  // the test packet did not come through
constexpr uint32_t kMinHeartbeatPeriodMs = 20;
const char kAlreadyOpen[] = "Device already open";
}  // namespace

Device::~Device() = default;

void Device::StartHeartbeat() {
  heartbeat = std::thread([this] {
    std::unique_lock<std::mutex> l(mu);
    for (;;) {
      // A third of the camera's time-out leaves room for two lost heartbeats.
      const uint32_t period = heartbeat_ms ? std::max(heartbeat_ms / 3, kMinHeartbeatPeriodMs) : 1000;
      const uint32_t seen = heartbeat_changes;
      // A new time-out takes effect at once, not after the old period.
      if (cv.wait_for(l, std::chrono::milliseconds(period), [&] { return stop || heartbeat_changes != seen; }) && !stop)
        continue;
      if (stop || lost) return;
      if (heartbeat_ms == 0) continue;  // switched off through device register 0x103
      l.unlock();
      uint32_t ccp = 0;
      GvcpResult r = gvcp.ReadReg(kRegCcp, &ccp);
      if (!r.ok() && r.kind != GvcpResult::kRefused) MarkLost("the camera does not answer");
      else if (writable() && r.ok() && !(ccp & (kCcpControl | kCcpExclusive))) MarkLost("the camera dropped our control");
      l.lock();
    }
  });
}

void Device::MarkLost(const std::string& why) {
  {
    std::lock_guard<std::mutex> l(mu);
    if (lost) return;
    lost_why = why;
    lost = true;
  }
  // Waiters on the streams' events must see it, and the interface's listeners learn the list changed.
  for (auto& w : streams)
    if (auto s = w.lock()) {
      std::lock_guard<std::mutex> l(s->mu);
      s->cv.notify_all();
    }
  std::lock_guard<std::mutex> l(iface->mu);
  iface->Push(EVENT_CUSTOM_ID, &kBusReset, sizeof kBusReset);
}

GC_ERROR Device::LostError() {
  std::lock_guard<std::mutex> l(mu);
  return SetError(GC_ERR_IO, "Device does not answer: the camera was lost (" + lost_why + ")");
}

void Device::Close() {
  {
    std::lock_guard<std::mutex> l(mu);
    if (stop) return;
    stop = true;
    DropEvents();
  }
  cv.notify_all();
  if (heartbeat.joinable()) heartbeat.join();
  for (auto& w : streams)
    if (auto s = w.lock()) s->Close();
  if (writable() && !lost) {
    // Close the stream channel, then give the camera up.
    gvcp.WriteReg(kRegScp0, 0);
    gvcp.WriteReg(kRegCcp, 0);
  }
  {
    std::lock_guard<std::mutex> l(iface->mu);
    auto it = iface->open.find(rec.id);
    if (it != iface->open.end() && it->second.lock().get() == this) iface->open.erase(it);
  }
  prod->Remove(port.get());
  prod->Remove(this);
}

GC_ERROR Device::StreamTest(uint32_t timeout_ms) {
  if (!writable()) return SetError(GC_ERR_ACCESS_DENIED, "Device opened read-only");
  UdpSocket probe;
  std::string err;
  if (!probe.Open(iface->net.ip, 0, &err)) return SetError(GC_ERR_IO, err);
  uint32_t saved[3] = {};
  const uint32_t regs[3] = {kRegScp0, kRegScda0, kRegScps0};
  GvcpResult r = gvcp.ReadRegs(regs, saved, 3);
  if (!r.ok()) return FromGvcp(r);
  const uint32_t size = saved[2] & 0xFFFF;
  // Point the channel at the probe socket and ask for one test packet that may not be fragmented.
  const uint32_t dest = destination ? destination : iface->net.ip;
  const uint32_t set_regs[3] = {kRegScda0, kRegScp0, kRegScps0};
  const uint32_t set_values[3] = {dest, probe.port(), size | kScpsFireTest | kScpsDontFragment};
  r = gvcp.WriteRegs(set_regs, set_values, 3);
  bool passed = false;
  if (r.ok()) {
    std::vector<uint8_t> in(65536);
    const uint64_t deadline = NowNs() + uint64_t(timeout_ms ? timeout_ms : 100) * 1000000ULL;
    for (uint64_t now = NowNs(); !passed && now < deadline; now = NowNs()) {
      uint32_t from = 0;
      long n = probe.Receive(in.data(), in.size(), static_cast<int>((deadline - now + 999999) / 1000000), &from);
      passed = n >= 0 && from == rec.ip && size_t(n) + kIpUdpOverhead == size;
    }
  }
  const uint32_t restore_regs[3] = {kRegScps0, kRegScda0, kRegScp0};
  const uint32_t restore_values[3] = {saved[2] & ~kScpsFireTest, saved[1], saved[0]};
  GvcpResult back = gvcp.WriteRegs(restore_regs, restore_values, 3);
  if (!r.ok()) return FromGvcp(r);
  if (!back.ok()) return FromGvcp(back);
  test_result = passed ? 0 : kStreamTestFailed;
  return GC_ERR_SUCCESS;
}

}  // namespace kivgev

using namespace kivgev;

extern "C" {

GC_API IFOpenDevice(IF_HANDLE hIface, const char* sDeviceID, DEVICE_ACCESS_FLAGS iOpenFlag, DEV_HANDLE* phDevice) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Interface, i, hIface, "interface");
  if (BadPtr(phDevice) || BadPtr(sDeviceID)) return SetError(GC_ERR_INVALID_PARAMETER, "NULL parameter");
  if (iOpenFlag != DEVICE_ACCESS_READONLY && iOpenFlag != DEVICE_ACCESS_CONTROL && iOpenFlag != DEVICE_ACCESS_EXCLUSIVE)
    return SetError(GC_ERR_INVALID_PARAMETER, "Unsupported access flag");
  auto d = std::make_shared<Device>();
  {
    std::lock_guard<std::mutex> l(i->mu);
    const DeviceRecord* r = i->Find(sDeviceID);
    if (!r) return SetError(GC_ERR_INVALID_ID, "Unknown device ID");
    auto it = i->open.find(sDeviceID);
    if (it != i->open.end() && it->second.lock()) return SetError(GC_ERR_RESOURCE_IN_USE, kAlreadyOpen);
    d->rec = *r;
  }
  // The same camera may answer on two interfaces; this process opens it once.
  std::shared_ptr<System> sys;
  {
    std::lock_guard<std::mutex> l(prod_->mu);
    sys = prod_->system;
  }
  if (sys) {
    std::vector<std::shared_ptr<Interface>> others;
    {
      std::lock_guard<std::mutex> l(sys->mu);
      for (auto& kv : sys->open)
        if (kv.second != i) others.push_back(kv.second);
    }
    for (auto& o : others) {
      std::lock_guard<std::mutex> l(o->mu);
      for (auto& kv : o->open) {
        auto other = kv.second.lock();
        if (other && other->rec.uid == d->rec.uid && !other->lost) return SetError(GC_ERR_RESOURCE_IN_USE, kAlreadyOpen);
      }
    }
  }
  d->prod = prod_.get();
  d->iface = i;
  d->access = iOpenFlag;
  std::string err;
  if (!d->gvcp.Open(i->net.ip, d->rec.ip, &err)) return SetError(GC_ERR_IO, err);
  d->gvcp.SetTimeout(prod_->settings.timeout_ms, prod_->settings.retries);
  uint32_t ccp = 0;
  GvcpResult r = d->gvcp.ReadReg(kRegCcp, &ccp);
  if (r.kind == GvcpResult::kRefused && r.status == kStatusAccessDenied)
    return SetError(GC_ERR_ACCESS_DENIED, d->writable() ? kAlreadyOpen : "Device held exclusively by another host");
  if (!r.ok()) return FromGvcp(r);
  if (d->writable()) {
    // Control access, not exclusive: watchers on other hosts may still read the camera.
    if (ccp & (kCcpControl | kCcpExclusive)) return SetError(GC_ERR_ACCESS_DENIED, kAlreadyOpen);
    r = d->gvcp.WriteReg(kRegCcp, kCcpControl);
    if (r.kind == GvcpResult::kRefused && r.status == kStatusAccessDenied) return SetError(GC_ERR_ACCESS_DENIED, kAlreadyOpen);
    if (!r.ok()) return FromGvcp(r);
  }
  r = d->gvcp.ReadReg(kRegGvcpCapability, &d->capability);
  if (r.ok()) {
    d->gvcp.SetConcatenation((d->capability & kCapConcatenation) != 0);
    const uint32_t regs[2] = {kRegVersion, kRegHeartbeatTimeout};
    uint32_t values[2] = {};
    r = d->gvcp.ReadRegs(regs, values, 2);
    d->version = values[0];
    d->heartbeat_ms = values[1];
  }
  if (r.ok() && d->writable() && (d->capability & kCapPendingAck)) {
    // Long commands then announce themselves instead of timing out.
    uint32_t cfg = 0;
    r = d->gvcp.ReadReg(kRegGvcpConfig, &cfg);
    if (r.ok()) r = d->gvcp.WriteReg(kRegGvcpConfig, cfg | kCfgPendingAck);
  }
  if (!r.ok()) {
    GC_ERROR e = FromGvcp(r);
    if (d->writable()) d->gvcp.WriteReg(kRegCcp, 0);
    return e;
  }
  d->destination = i->net.ip;
  d->streams.resize(2);
  d->port = std::make_shared<RemotePort>();
  d->port->device = d;
  {
    std::lock_guard<std::mutex> l(i->mu);
    i->open[d->rec.id] = d;
  }
  prod_->Add(d);
  prod_->Add(d->port);
  d->StartHeartbeat();
  *phDevice = d.get();
  return GC_ERR_SUCCESS;
}

GC_API DevGetParentIF(DEV_HANDLE hDevice, IF_HANDLE* phIface) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Device, d, hDevice, "device");
  if (BadPtr(phIface)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  *phIface = d->iface.get();
  return GC_ERR_SUCCESS;
}

GC_API DevClose(DEV_HANDLE hDevice) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Device, d, hDevice, "device");
  d->Close();
  return GC_ERR_SUCCESS;
}

GC_API DevGetInfo(DEV_HANDLE hDevice, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Device, d, hDevice, "device");
  return DeviceInfo(d->rec, *d->iface, d.get(), iInfoCmd, piType, pBuffer, piSize);
}

GC_API DevGetPort(DEV_HANDLE hDevice, PORT_HANDLE* phRemoteDevice) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Device, d, hDevice, "device");
  if (BadPtr(phRemoteDevice)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  *phRemoteDevice = d->port.get();
  return GC_ERR_SUCCESS;
}

GC_API DevGetNumDataStreams(DEV_HANDLE hDevice, uint32_t* piNumDataStreams) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Device, d, hDevice, "device");
  if (BadPtr(piNumDataStreams)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumDataStreams = static_cast<uint32_t>(d->streams.size());
  return GC_ERR_SUCCESS;
}

GC_API DevGetDataStreamID(DEV_HANDLE hDevice, uint32_t iIndex, char* sDataStreamID, size_t* piSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Device, d, hDevice, "device");
  if (iIndex >= d->streams.size()) return SetError(GC_ERR_INVALID_INDEX, "Stream index out of range");
  return PutString("Stream" + std::to_string(iIndex), nullptr, sDataStreamID, piSize);
}

}  // extern "C"
