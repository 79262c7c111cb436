// Library and system module: initialisation, settings, errors, the
// interface list (one interface per IPv4 network interface).
#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "kivgev/kivgev.h"
#include "producer.h"

namespace kivgev {

namespace {

std::mutex g_mu;
// Never destroyed: a host may exit without GCCloseLib while the producer's
// threads still run, and must not tear their modules down under them.
std::shared_ptr<Producer>& g_prod = *new std::shared_ptr<Producer>();

// A host that exits without GCCloseLib may still have threads inside us:
// their error records then go with the process.
__attribute__((constructor)) void RegisterUnloadCheck() {
  kivgentl::SetUnloadCheck([] { return g_prod != nullptr; });
}

std::vector<std::string> Words(const char* text) {
  std::vector<std::string> out;
  if (!text) return out;
  std::string s = text;
  for (char& c : s)
    if (c == ',' || c == ';') c = ' ';
  std::istringstream in(s);
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

uint32_t Number(const char* name, uint32_t fallback) {
  const char* v = std::getenv(name);
  if (!v || !*v) return fallback;
  return static_cast<uint32_t>(std::strtoul(v, nullptr, 0));
}

std::string LibraryPath() {
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&LibraryPath), &info) && info.dli_fname) return info.dli_fname;
  return {};
}

GC_ERROR SystemInfo(TL_INFO_CMD cmd, INFO_DATATYPE* t, void* b, size_t* n) {
  const std::string path = LibraryPath();
  switch (cmd) {
    case TL_INFO_ID: return PutString("KivGEVNetGenTL", t, b, n);
    case TL_INFO_VENDOR: return PutString("KivCam", t, b, n);
    case TL_INFO_MODEL: return PutString("KivCam GigE Vision", t, b, n);
    case TL_INFO_VERSION: return PutString("1.1.6", t, b, n);
    case TL_INFO_TLTYPE: return PutString(TLTypeGEVName, t, b, n);
    case TL_INFO_NAME: return PutString(path.substr(path.find_last_of('/') + 1), t, b, n);
    case TL_INFO_PATHNAME: return PutString(path, t, b, n);
    case TL_INFO_DISPLAYNAME: return PutString("KivCam GigE Vision cameras on the network", t, b, n);
    case TL_INFO_CHAR_ENCODING: return PutValue<int32_t>(INFO_DATATYPE_INT32, TL_CHAR_ENCODING_ASCII, t, b, n);
    case TL_INFO_GENTL_VER_MAJOR: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, 1, t, b, n);
    case TL_INFO_GENTL_VER_MINOR: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, 6, t, b, n);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown system information command");
  }
}

std::string InterfaceIdOf(const NetInterface& n) { return "KivGEV_" + n.name; }

int PrefixLength(uint32_t mask) {
  int bits = 0;
  while (mask & 0x80000000u) ++bits, mask <<= 1;
  return bits;
}

GC_ERROR InterfaceInfo(const NetInterface& ni, INTERFACE_INFO_CMD cmd, INFO_DATATYPE* t, void* b, size_t* n) {
  switch (cmd) {
    case INTERFACE_INFO_ID: return PutString(InterfaceIdOf(ni), t, b, n);
    case INTERFACE_INFO_DISPLAYNAME:
      return PutString(ni.name + " (" + IpText(ni.ip) + "/" + std::to_string(PrefixLength(ni.mask)) + ")", t, b, n);
    case INTERFACE_INFO_TLTYPE: return PutString(TLTypeGEVName, t, b, n);
    case KIVGEV_INTERFACE_IP: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, ni.ip, t, b, n);
    case KIVGEV_INTERFACE_MASK: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, ni.mask, t, b, n);
    case KIVGEV_INTERFACE_MAC: return PutValue<uint64_t>(INFO_DATATYPE_UINT64, ni.mac, t, b, n);
    case KIVGEV_INTERFACE_LINK: return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, ni.up ? 1 : 0, t, b, n);
    case KIVGEV_INTERFACE_SPEED: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, ni.speed_mbps, t, b, n);
    case KIVGEV_INTERFACE_NAME: return PutString(ni.name, t, b, n);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown interface information command");
  }
}

// The interfaces this producer may use: those named in the settings, else all.
std::vector<NetInterface> UsableInterfaces(const Settings& s) {
  std::vector<NetInterface> out;
  for (const NetInterface& n : ListInterfaces()) {
    bool named = s.interfaces.empty();
    for (const std::string& w : s.interfaces) named |= w == n.name;
    bool seen = false;
    for (const NetInterface& o : out) seen |= o.name == n.name;  // the first address of an interface counts
    if (named && !seen) out.push_back(n);
  }
  return out;
}

const NetInterface* FindListed(const System& s, const char* id) {
  if (BadPtr(id)) return nullptr;
  for (const NetInterface& n : s.listed)
    if (InterfaceIdOf(n) == id) return &n;
  return nullptr;
}

void CloseSystem(Producer& p) {
  std::shared_ptr<System> sys;
  {
    std::lock_guard<std::mutex> l(p.mu);
    sys.swap(p.system);
  }
  if (!sys) return;
  std::map<std::string, std::shared_ptr<Interface>> open;
  {
    std::lock_guard<std::mutex> l(sys->mu);
    open.swap(sys->open);
    sys->DropEvents();
  }
  for (auto& kv : open) kv.second->Close();
  p.Remove(sys.get());
}

}  // namespace

Settings Settings::FromEnvironment() {
  Settings s;
  s.interfaces = Words(std::getenv("KIVGEV_INTERFACES"));
  for (const std::string& w : Words(std::getenv("KIVGEV_DEVICES"))) {
    uint32_t ip;
    if (ParseIp(w, &ip)) s.devices.push_back(ip);
  }
  s.discovery_ms = Number("KIVGEV_DISCOVERY_MS", s.discovery_ms);
  s.watch_ms = Number("KIVGEV_WATCH_MS", s.watch_ms);
  s.timeout_ms = Number("KIVGEV_TIMEOUT_MS", s.timeout_ms);
  s.retries = Number("KIVGEV_RETRIES", s.retries);
  s.packet_timeout_ms = Number("KIVGEV_PACKET_TIMEOUT_MS", s.packet_timeout_ms);
  s.frame_timeout_ms = Number("KIVGEV_FRAME_TIMEOUT_MS", s.frame_timeout_ms);
  s.socket_buffer = Number("KIVGEV_SOCKET_BUFFER", static_cast<uint32_t>(s.socket_buffer));
  if (const char* v = std::getenv("KIVGEV_RECEIVE")) {
    const std::string path = v;
    s.receive = path == "ring" ? ReceivePath::Ring : path == "socket" ? ReceivePath::Socket : ReceivePath::Auto;
  }
  return s;
}

std::shared_ptr<Producer> CurrentProducer() {
  std::lock_guard<std::mutex> l(g_mu);
  return g_prod;
}

GC_ERROR FromGvcp(const GvcpResult& r) {
  GC_ERROR e = GC_ERR_IO;
  if (r.kind == GvcpResult::kTimeout) return SetError(GC_ERR_IO, "Device does not answer: " + r.text);
  if (r.kind == GvcpResult::kRefused) {
    switch (r.status) {
      case kStatusAccessDenied:
      case kStatusWriteProtect: e = GC_ERR_ACCESS_DENIED; break;
      case kStatusInvalidAddress: e = GC_ERR_INVALID_ADDRESS; break;
      case kStatusBadAlignment:
      case kStatusInvalidParameter: e = GC_ERR_INVALID_PARAMETER; break;
      case kStatusNotImplemented: e = GC_ERR_NOT_IMPLEMENTED; break;
      case kStatusBusy: e = GC_ERR_BUSY; break;
      default: e = GC_ERR_IO; break;
    }
  }
  return SetError(e, "GigE Vision: " + r.text);
}

size_t EventSource::Pending(Event& e) { return e.queue.size(); }

void EventSource::Take(Event& e, std::vector<uint8_t>* item) {
  *item = std::move(e.queue.front());
  e.queue.pop_front();
}

void EventSource::Push(EVENT_TYPE type, const void* data, size_t n) {
  auto it = events.find(type);
  if (it == events.end()) return;  // nobody listens
  const uint8_t* p = static_cast<const uint8_t*>(data);
  it->second->queue.emplace_back(p, p + n);
  it->second->fired++;
  cv.notify_all();
}

void EventSource::DropEvents() {
  for (auto& kv : events) kv.second->dead = true;
  events.clear();
  cv.notify_all();
}

}  // namespace kivgev

using namespace kivgev;

extern "C" {

GC_API GCInitLib(void) {
  std::lock_guard<std::mutex> l(g_mu);
  if (g_prod) return SetError(GC_ERR_RESOURCE_IN_USE, "Library already initialised");
  auto p = std::make_shared<Producer>();
  p->settings = Settings::FromEnvironment();
  g_prod = p;
  return GC_ERR_SUCCESS;
}

GC_API GCCloseLib(void) {
  std::shared_ptr<Producer> p;
  {
    std::lock_guard<std::mutex> l(g_mu);
    p.swap(g_prod);
  }
  if (!p) return SetError(GC_ERR_NOT_INITIALIZED, "Library not initialised");
  CloseSystem(*p);
  std::lock_guard<std::mutex> l(p->mu);
  p->live.clear();
  return GC_ERR_SUCCESS;
}

GC_API GCGetLastError(GC_ERROR* piErrorCode, char* sErrText, size_t* piSize) {
  return kivgentl::GetLastError(piErrorCode, sErrText, piSize);
}

GC_API GCGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  return SystemInfo(iInfoCmd, piType, pBuffer, piSize);
}

GC_API TLOpen(TL_HANDLE* phTL) {
  KIVGEV_ENTRY();
  if (BadPtr(phTL)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  std::lock_guard<std::mutex> l(prod_->mu);
  if (prod_->system) return SetError(GC_ERR_RESOURCE_IN_USE, "System module already open");
  prod_->system = std::make_shared<System>();
  prod_->live[prod_->system.get()] = prod_->system;
  *phTL = prod_->system.get();
  return GC_ERR_SUCCESS;
}

GC_API TLClose(TL_HANDLE hTL) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(System, s, hTL, "system");
  CloseSystem(*prod_);
  return GC_ERR_SUCCESS;
}

GC_API TLGetInfo(TL_HANDLE hTL, TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(System, s, hTL, "system");
  return SystemInfo(iInfoCmd, piType, pBuffer, piSize);
}

GC_API TLUpdateInterfaceList(TL_HANDLE hTL, bool8_t* pbChanged, uint64_t /*iTimeout*/) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(System, s, hTL, "system");
  std::vector<NetInterface> now = UsableInterfaces(prod_->settings);
  std::lock_guard<std::mutex> l(s->mu);
  bool changed = !s->updated || now.size() != s->listed.size();
  for (size_t i = 0; !changed && i < now.size(); ++i)
    changed = now[i].name != s->listed[i].name || now[i].ip != s->listed[i].ip;
  s->listed = now;
  s->updated = true;
  if (pbChanged) *pbChanged = changed;
  return GC_ERR_SUCCESS;
}

GC_API TLGetNumInterfaces(TL_HANDLE hTL, uint32_t* piNumIfaces) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(System, s, hTL, "system");
  if (BadPtr(piNumIfaces)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  std::lock_guard<std::mutex> l(s->mu);
  *piNumIfaces = static_cast<uint32_t>(s->listed.size());
  return GC_ERR_SUCCESS;
}

GC_API TLGetInterfaceID(TL_HANDLE hTL, uint32_t iIndex, char* sID, size_t* piSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(System, s, hTL, "system");
  std::lock_guard<std::mutex> l(s->mu);
  if (iIndex >= s->listed.size()) return SetError(GC_ERR_INVALID_INDEX, "Interface index out of range");
  return PutString(InterfaceIdOf(s->listed[iIndex]), nullptr, sID, piSize);
}

GC_API TLGetInterfaceInfo(TL_HANDLE hTL, const char* sIfaceID, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                          void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(System, s, hTL, "system");
  std::lock_guard<std::mutex> l(s->mu);
  const NetInterface* n = FindListed(*s, sIfaceID);
  if (!n) return SetError(GC_ERR_INVALID_ID, "Unknown interface ID");
  return InterfaceInfo(*n, iInfoCmd, piType, pBuffer, piSize);
}

GC_API TLOpenInterface(TL_HANDLE hTL, const char* sIfaceID, IF_HANDLE* phIface) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(System, s, hTL, "system");
  if (BadPtr(phIface)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  std::lock_guard<std::mutex> l(s->mu);
  const NetInterface* n = FindListed(*s, sIfaceID);
  if (!n) return SetError(GC_ERR_INVALID_ID, "Unknown interface ID");
  if (s->open.count(sIfaceID)) return SetError(GC_ERR_RESOURCE_IN_USE, "Interface already open");
  auto i = std::make_shared<Interface>();
  i->prod = prod_.get();
  i->net = *n;
  i->id = sIfaceID;
  s->open[i->id] = i;
  prod_->Add(i);
  *phIface = i.get();
  return GC_ERR_SUCCESS;
}

GC_API IFGetInfo(IF_HANDLE hIface, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Interface, i, hIface, "interface");
  return InterfaceInfo(i->net, iInfoCmd, piType, pBuffer, piSize);
}

GC_API IFGetParentTL(IF_HANDLE hIface, TL_HANDLE* phSystem) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Interface, i, hIface, "interface");
  if (BadPtr(phSystem)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  std::lock_guard<std::mutex> l(prod_->mu);
  *phSystem = prod_->system.get();
  return GC_ERR_SUCCESS;
}

GC_API IFClose(IF_HANDLE hIface) {
  KIVGEV_ENTRY();
  KIVGEV_HANDLE(Interface, i, hIface, "interface");
  std::shared_ptr<System> sys;
  {
    std::lock_guard<std::mutex> l(prod_->mu);
    sys = prod_->system;
  }
  if (sys) {
    std::lock_guard<std::mutex> l(sys->mu);
    sys->open.erase(i->id);
  }
  i->Close();
  return GC_ERR_SUCCESS;
}

}  // extern "C"
