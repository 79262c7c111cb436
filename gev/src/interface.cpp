// Interfaces: discovery on one network interface, the device list, device
// information, and the background discovery that reports arrivals and
// removals as interface event 1000.
#include <algorithm>

#include "kivgev/kivgev.h"
#include "producer.h"

namespace kivgev {

namespace {
constexpr uint32_t kBusReset = 1;  // interface event data: the device list changed

std::vector<std::string> IdsOf(const std::vector<DeviceRecord>& v) {
  std::vector<std::string> ids;
  for (const DeviceRecord& r : v) ids.push_back(r.id);
  std::sort(ids.begin(), ids.end());
  return ids;
}
}  // namespace

std::string DeviceIdOf(const DiscoveryInfo& info, uint32_t ip) {
  // The MAC names a camera for good; a device without one is known by its address.
  const uint64_t uid = info.mac ? info.mac : ip;
  return "KivGEV::" + std::to_string(uid);
}

Interface::~Interface() = default;

std::vector<DeviceRecord> Interface::Discover(uint32_t window_ms) const {
  std::vector<DeviceRecord> found;
  UdpSocket s;
  std::string err;
  if (!s.Open(net.ip, 0, &err)) return found;
  s.SetBroadcast();
  static std::atomic<uint16_t> next_id{0x8000};
  uint16_t id = next_id++;
  if (id == 0) id = next_id++;
  uint8_t msg[kGvcpHeader];
  PutCommand(msg, kFlagAckRequired | kFlagBroadcastAck, kDiscoveryCmd, 0, id);
  // From a socket bound to the interface's address, a limited broadcast
  // leaves through that interface only.
  s.SendTo(0xFFFFFFFF, kGvcpPort, msg, sizeof msg);
  for (uint32_t ip : prod->settings.devices)
    if ((ip & net.mask) == (net.ip & net.mask)) s.SendTo(ip, kGvcpPort, msg, sizeof msg);
  const uint64_t deadline = NowNs() + uint64_t(window_ms) * 1000000ULL;
  uint8_t in[1024];
  for (uint64_t now = NowNs(); now < deadline; now = NowNs()) {
    uint32_t from = 0;
    long n = s.Receive(in, sizeof in, static_cast<int>((deadline - now + 999999) / 1000000), &from);
    GvcpAck a;
    DeviceRecord r;
    if (n < 0 || !ParseAck(in, size_t(n), &a) || a.code != kDiscoveryAck || a.ack_id != id || a.status != 0 ||
        !ParseDiscovery(a.payload, a.length, &r.info))
      continue;
    r.ip = from;
    r.id = DeviceIdOf(r.info, from);
    r.uid = r.info.mac ? r.info.mac : from;
    bool dup = false;
    for (const DeviceRecord& o : found) dup |= o.id == r.id;
    if (!dup) found.push_back(r);
  }
  std::sort(found.begin(), found.end(), [](const DeviceRecord& a, const DeviceRecord& b) { return a.ip < b.ip; });
  return found;
}

const DeviceRecord* Interface::Find(const std::string& device_id) const {
  for (const DeviceRecord& r : listed)
    if (r.id == device_id) return &r;
  return nullptr;
}

void Interface::StartWatcher() {
  if (watcher.joinable() || prod->settings.watch_ms == 0) return;
  watched = IdsOf(listed);
  watcher = std::thread([this] {
    std::unique_lock<std::mutex> l(mu);
    while (!stop) {
      cv.wait_for(l, std::chrono::milliseconds(prod->settings.watch_ms));
      if (stop || !events.count(EVENT_CUSTOM_ID)) continue;
      l.unlock();
      std::vector<std::string> now = IdsOf(Discover(prod->settings.discovery_ms));
      l.lock();
      if (now != watched) {
        watched = now;
        Push(EVENT_CUSTOM_ID, &kBusReset, sizeof kBusReset);
      }
    }
  });
}

void Interface::Close() {
  std::map<std::string, std::weak_ptr<Device>> devices;
  {
    std::lock_guard<std::mutex> l(mu);
    stop = true;
    devices.swap(open);
    DropEvents();
  }
  cv.notify_all();
  if (watcher.joinable()) watcher.join();
  for (auto& kv : devices)
    if (auto d = kv.second.lock()) d->Close();
  prod->Remove(this);
}

GC_ERROR DeviceInfo(const DeviceRecord& rec, const Interface& iface, const Device* dev, DEVICE_INFO_CMD cmd,
                    INFO_DATATYPE* t, void* b, size_t* n) {
  const DiscoveryInfo& d = rec.info;
  auto u32 = [&](uint32_t v) { return PutValue<uint32_t>(INFO_DATATYPE_UINT32, v, t, b, n); };
  switch (cmd) {
    case DEVICE_INFO_ID: return PutString(rec.id, t, b, n);
    case DEVICE_INFO_VENDOR: return PutString(d.vendor, t, b, n);
    case DEVICE_INFO_MODEL: return PutString(d.model, t, b, n);
    case DEVICE_INFO_TLTYPE: return PutString(TLTypeGEVName, t, b, n);
    case DEVICE_INFO_DISPLAYNAME:
      return PutString(std::string(d.vendor) + " " + d.model + " (" + d.serial + ")", t, b, n);
    case DEVICE_INFO_ACCESS_STATUS: {
      int32_t status = DEVICE_ACCESS_STATUS_UNKNOWN;
      if (dev) {
        status = dev->writable() ? DEVICE_ACCESS_STATUS_OPEN_READWRITE : DEVICE_ACCESS_STATUS_OPEN_READONLY;
      } else {
        // Ask the camera whether another host holds it.
        GvcpClient probe;
        std::string err;
        uint32_t ccp = 0;
        if (probe.Open(iface.net.ip, rec.ip, &err)) {
          probe.SetTimeout(iface.prod->settings.timeout_ms, 1);
          GvcpResult r = probe.ReadReg(kRegCcp, &ccp);
          if (r.ok()) status = (ccp & (kCcpControl | kCcpExclusive)) ? DEVICE_ACCESS_STATUS_BUSY : DEVICE_ACCESS_STATUS_READWRITE;
          else if (r.kind == GvcpResult::kRefused) status = DEVICE_ACCESS_STATUS_BUSY;
        }
      }
      return PutValue<int32_t>(INFO_DATATYPE_INT32, status, t, b, n);
    }
    case DEVICE_INFO_USER_DEFINED_NAME:
    case 1009: return PutString(d.user_name, t, b, n);
    case DEVICE_INFO_SERIAL_NUMBER:
    case 1008: return PutString(d.serial, t, b, n);
    case DEVICE_INFO_VERSION:
    case 1006: return PutString(d.version, t, b, n);
    case DEVICE_INFO_TIMESTAMP_FREQUENCY: return PutValue<uint64_t>(INFO_DATATYPE_UINT64, 1000000000ULL, t, b, n);
    case 1000: {  // presence
      const uint8_t present = dev ? !dev->lost : 1;
      return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, present, t, b, n);
    }
    case 1001: return u32(iface.net.speed_mbps ? iface.net.speed_mbps : 1000);
    case 1002: return u32(iface.net.ip);  // where the camera streams to
    case 1003: return u32(d.version_major);
    case 1004: return u32(d.version_minor);
    case 1005: return u32(rec.ip);
    case 1007: return PutString(d.info, t, b, n);
    case 1010: return PutString("", t, b, n);  // GigE Vision devices carry no family name
    case 1011: return PutValue<uint64_t>(INFO_DATATYPE_UINT64, rec.uid, t, b, n);
    case KIVGEV_DEVICE_MAC: return PutValue<uint64_t>(INFO_DATATYPE_UINT64, d.mac, t, b, n);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown device information command");
  }
}

}  // namespace kivgev

using namespace kivgev;

extern "C" {

GC_API IFUpdateDeviceList(IF_HANDLE hIface, bool8_t* pbChanged, uint64_t iTimeout) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Interface, i, hIface, "interface");
  const uint64_t window = std::min<uint64_t>(iTimeout, prod_->settings.discovery_ms);
  std::vector<DeviceRecord> found = i->Discover(static_cast<uint32_t>(window));
  std::lock_guard<std::mutex> l(i->mu);
  // Devices this process holds answer no discovery of their own for a moment
  // sometimes; they stay listed while they are open and alive.
  for (auto& kv : i->open) {
    auto d = kv.second.lock();
    if (!d || d->lost) continue;
    bool listed = false;
    for (const DeviceRecord& r : found) listed |= r.id == d->rec.id;
    if (!listed) found.push_back(d->rec);
  }
  const bool changed = !i->updated || IdsOf(found) != IdsOf(i->listed);
  i->listed = std::move(found);
  i->updated = true;
  if (pbChanged) *pbChanged = changed;
  return GC_ERR_SUCCESS;
}

GC_API IFGetNumDevices(IF_HANDLE hIface, uint32_t* piNumDevices) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Interface, i, hIface, "interface");
  if (BadPtr(piNumDevices)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  std::lock_guard<std::mutex> l(i->mu);
  *piNumDevices = static_cast<uint32_t>(i->listed.size());
  return GC_ERR_SUCCESS;
}

GC_API IFGetDeviceID(IF_HANDLE hIface, uint32_t iIndex, char* sIDeviceID, size_t* piSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Interface, i, hIface, "interface");
  std::lock_guard<std::mutex> l(i->mu);
  if (iIndex >= i->listed.size()) return SetError(GC_ERR_INVALID_INDEX, "Device index out of range");
  return PutString(i->listed[iIndex].id, nullptr, sIDeviceID, piSize);
}

GC_API IFGetDeviceInfo(IF_HANDLE hIface, const char* sDeviceID, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                       void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Interface, i, hIface, "interface");
  if (BadPtr(sDeviceID)) return SetError(GC_ERR_INVALID_PARAMETER, "Device ID is NULL");
  DeviceRecord rec;
  std::shared_ptr<Device> dev;
  {
    std::lock_guard<std::mutex> l(i->mu);
    const DeviceRecord* r = i->Find(sDeviceID);
    if (!r) return SetError(GC_ERR_INVALID_ID, "Unknown device ID");
    rec = *r;
    auto it = i->open.find(sDeviceID);
    if (it != i->open.end()) dev = it->second.lock();
  }
  return DeviceInfo(rec, *i, dev.get(), iInfoCmd, piType, pBuffer, piSize);
}

}  // extern "C"
