// Library, system, interface and device entry points.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <sstream>

#include "common.h"
#include "pixfmt.h"

using namespace kivsim;

namespace kivsim {

std::mutex g_mu;
Producer* g_prod = nullptr;

namespace {

// A host that exits without GCCloseLib may still have threads inside us:
// their error records then go with the process.
__attribute__((constructor)) void RegisterUnloadCheck() {
  kivgentl::SetUnloadCheck([] { return g_prod != nullptr; });
}

std::string StateName() {
  const char* ns = std::getenv("KIVCAM_IPC_NAMESPACE");
  return std::string(ThisTransport() == Transport::GigE ? "/KivSimGigEState" : "/KivSimUSBState") + (ns ? ns : "");
}

void InitState(SharedState& s, void* ctx) {
  auto* p = static_cast<Producer*>(ctx);
  s.camera_count = static_cast<uint32_t>(p->devices.size());
  for (size_t i = 0; i < p->devices.size(); ++i) p->devices[i]->InitShared(s.cams[i]);
}

// Watches machine-wide interface events for this process's open interfaces.
void WatcherMain(System* sys) {
  SharedState* st = g_prod->st();
  uint64_t* seen = sys->seen;
  for (;;) {
    std::vector<std::pair<uint32_t, uint32_t>> todo;
    {
      SharedLock l(st);
      for (;;) {
        if (sys->stop) return;
        for (uint32_t i = 0; i < kMaxInterfaces; ++i)
          for (; seen[i] < st->iface_event_seq[i]; ++seen[i]) todo.emplace_back(i, st->iface_event_code[i][seen[i] % 16]);
        if (!todo.empty()) break;
        l.Wait(0, kWakeWatchers);
      }
    }
    std::lock_guard<std::mutex> lock(g_mu);
    for (auto [index, code] : todo) {
      auto it = sys->open.find(index);
      if (it != sys->open.end()) PushEvent(it->second, EVENT_CUSTOM_ID, &code, sizeof code);
    }
  }
}

void StopWatcher(System* sys, std::unique_lock<std::mutex>& lock) {
  g_prod->live.erase(sys);
  sys->stop = true;
  {
    SharedLock l(g_prod->st());
    l.Notify();
  }
  lock.unlock();
  if (sys->watcher.joinable()) sys->watcher.join();
  lock.lock();
}

std::vector<uint32_t> PluggedCameras(uint32_t iface) {
  std::vector<uint32_t> v;
  SharedLock l(g_prod->st());
  for (uint32_t i = 0; i < g_prod->devices.size(); ++i)
    if (g_prod->devices[i]->config().interface_index == iface && g_prod->cam(i).plugged) v.push_back(i);
  return v;
}

// The cached list of an update: only the next update changes what the getters report.
void UpdateList(std::vector<uint32_t>& listed, bool& updated, std::vector<uint32_t> now, bool8_t* pbChanged) {
  bool changed = !updated || now != listed;
  listed = std::move(now);
  updated = true;
  if (pbChanged) *pbChanged = changed;
}

GC_ERROR PutCount(const std::vector<uint32_t>& listed, uint32_t* count) {
  if (BadPtr(count)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *count = static_cast<uint32_t>(listed.size());
  return GC_ERR_SUCCESS;
}

int FindCamera(const char* id) {
  if (BadPtr(id)) return -1;
  for (size_t i = 0; i < g_prod->devices.size(); ++i)
    if (g_prod->devices[i]->id() == id) return static_cast<int>(i);
  return -1;
}

int FindInterface(const char* id) {
  if (BadPtr(id)) return -1;
  for (size_t i = 0; i < g_prod->world.interfaces.size(); ++i)
    if (g_prod->world.interfaces[i].id == id) return static_cast<int>(i);
  return -1;
}

GC_ERROR InterfaceInfo(uint32_t index, INTERFACE_INFO_CMD cmd, INFO_DATATYPE* t, void* b, size_t* n) {
  const InterfaceConfig& ic = g_prod->world.interfaces[index];
  switch (cmd) {
    case INTERFACE_INFO_ID: return PutString(ic.id, t, b, n);
    case INTERFACE_INFO_DISPLAYNAME: return PutString(ic.display_name, t, b, n);
    case INTERFACE_INFO_TLTYPE: return PutString(TLTypeName(), t, b, n);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown interface information command");
  }
}

std::string LibraryPath() {
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&LibraryPath), &info) && info.dli_fname) return info.dli_fname;
  return {};
}

GC_ERROR SystemInfo(TL_INFO_CMD cmd, INFO_DATATYPE* t, void* b, size_t* n) {
  const bool gige = ThisTransport() == Transport::GigE;
  std::string path = LibraryPath();
  switch (cmd) {
    case TL_INFO_ID: return PutString(gige ? "KivGigEGenTL" : "KivUSBGenTL", t, b, n);
    case TL_INFO_VENDOR: return PutString("KivCam", t, b, n);
    case TL_INFO_MODEL: return PutString(gige ? "KivCam virtual GigE Vision" : "KivCam virtual USB3 Vision", t, b, n);
    case TL_INFO_VERSION: return PutString("1.1.6", t, b, n);
    case TL_INFO_TLTYPE: return PutString(TLTypeName(), t, b, n);
    case TL_INFO_NAME: return PutString(path.substr(path.find_last_of('/') + 1), t, b, n);
    case TL_INFO_PATHNAME: return PutString(path, t, b, n);
    case TL_INFO_DISPLAYNAME:
      return PutString(gige ? "KivCam virtual GigE cameras" : "KivCam virtual USB cameras", t, b, n);
    case TL_INFO_CHAR_ENCODING: return PutValue<int32_t>(INFO_DATATYPE_INT32, TL_CHAR_ENCODING_ASCII, t, b, n);
    case TL_INFO_GENTL_VER_MAJOR: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, 1, t, b, n);
    case TL_INFO_GENTL_VER_MINOR: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, 6, t, b, n);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown system information command");
  }
}

// Hosts may exit without GCCloseLib (the library leaves its producers to the
// system at process end); the shared state must not outlive its last user then.
__attribute__((destructor)) void DetachAtExit() {
  if (g_prod) g_prod->shm.Detach();
}

}  // namespace

Transport ThisTransport() {
#ifdef KIVSIM_USB
  return Transport::USB;
#else
  return Transport::GigE;
#endif
}

const char* TLTypeName() { return ThisTransport() == Transport::GigE ? TLTypeGEVName : TLTypeU3VName; }


// Counted outside the producer's state, so that failures during GCCloseLib
// and of GCInitLib itself are seen too.
std::atomic<uint64_t> g_injected{0};

uint64_t InjectedCount() { return g_injected.load(); }

GC_ERROR Injected(const char* name) {
  if (g_prod->faults.empty()) return GC_ERR_SUCCESS;  // the usual case, without building a key
  auto it = g_prod->faults.find(name);
  if (it == g_prod->faults.end() || it->second.count == 0) return GC_ERR_SUCCESS;
  Fault& f = it->second;
  f.count--;
  ++g_injected;
  GC_ERROR e = f.error;
  std::string text = f.text;
  if (f.count == 0) g_prod->faults.erase(it);
  return SetError(e, text);
}


GC_ERROR DeviceInfo(uint32_t cam, DEVICE_INFO_CMD cmd, INFO_DATATYPE* t, void* b, size_t* n) {
  const VirtualDevice& vd = *g_prod->devices[cam];
  const CameraConfig& c = vd.config();
  const bool gige = vd.transport() == Transport::GigE;
  SharedCamera& sc = g_prod->cam(cam);
  switch (cmd) {
    case DEVICE_INFO_ID: return PutString(vd.id(), t, b, n);
    case DEVICE_INFO_VENDOR: return PutString(c.vendor, t, b, n);
    case DEVICE_INFO_MODEL: return PutString(c.model, t, b, n);
    case DEVICE_INFO_TLTYPE: return PutString(TLTypeName(), t, b, n);
    case DEVICE_INFO_DISPLAYNAME: return PutString(c.vendor + " " + c.model + " (" + c.serial + ")", t, b, n);
    case DEVICE_INFO_ACCESS_STATUS: {
      int32_t status = DEVICE_ACCESS_STATUS_READWRITE;
      Device* mine = nullptr;
      if (g_prod->system)
        for (auto& kv : g_prod->system->open)
          if (kv.second->open.count(cam)) mine = kv.second->open[cam];
      if (mine) {
        status = mine->writable() ? DEVICE_ACCESS_STATUS_OPEN_READWRITE : DEVICE_ACCESS_STATUS_OPEN_READONLY;
      } else {
        SharedLock l(g_prod->st());
        if (sc.owner_pid && ProcessAlive(sc.owner_pid)) status = DEVICE_ACCESS_STATUS_BUSY;
      }
      return PutValue<int32_t>(INFO_DATATYPE_INT32, status, t, b, n);
    }
    case DEVICE_INFO_USER_DEFINED_NAME:
    case 1009: {
      std::string name;
      {
        SharedLock l(g_prod->st());
        name = vd.UserName(sc);
      }
      return PutString(name, t, b, n);
    }
    case DEVICE_INFO_SERIAL_NUMBER: return PutString(c.serial, t, b, n);
    case DEVICE_INFO_VERSION: return PutString(c.version, t, b, n);
    case DEVICE_INFO_TIMESTAMP_FREQUENCY: return PutValue<uint64_t>(INFO_DATATYPE_UINT64, 1000000000ULL, t, b, n);
    case 1000: {  // presence
      uint8_t present;
      {
        SharedLock l(g_prod->st());
        present = sc.plugged ? 1 : 0;
      }
      return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, present, t, b, n);
    }
    case 1001: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, c.link, t, b, n);
    case 1002: {
      uint32_t v = gige ? g_prod->world.interfaces[c.interface_index].host_ip : ((c.interface_index + 1) << 8) | (cam + 1);
      return PutValue<uint32_t>(INFO_DATATYPE_UINT32, v, t, b, n);
    }
    case 1003: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, gige ? 2 : 1, t, b, n);
    case 1004: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, 0, t, b, n);
    case 1005: return PutValue<uint32_t>(INFO_DATATYPE_UINT32, gige ? c.ip : 0x4B495601u, t, b, n);
    case 1006: return PutString(c.version, t, b, n);
    case 1007: return PutString(c.info, t, b, n);
    case 1008: return PutString(c.serial, t, b, n);
    case 1010: return PutString(c.family, t, b, n);
    case 1011: return PutValue<uint64_t>(INFO_DATATYPE_UINT64, c.uid, t, b, n);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown device information command");
  }
}

void CloseDevice(Device* d, std::unique_lock<std::mutex>& lock) {
  for (Stream* s : d->streams)
    if (s) CloseStream(s);
  // Unreachable for other callers before the lock is let go for the join.
  g_prod->live.erase(&d->port);
  g_prod->live.erase(d);
  d->iface->open.erase(d->cam);
  d->stop = true;
  {
    SharedLock l(g_prod->st());
    l.Notify();
  }
  lock.unlock();
  if (d->engine.joinable()) d->engine.join();
  lock.lock();
  DropEvents(d);
  {
    SharedLock l(g_prod->st());
    SharedCamera& sc = g_prod->cam(d->cam);
    const int32_t me = getpid();
    if (sc.owner_pid == me) {
      sc.owner_pid = 0;
      sc.acquiring = 0;
      // Its stream channel goes with the controller.
      const VirtualDevice& vd = *g_prod->devices[d->cam];
      if (vd.transport() == Transport::GigE) {
        vd.SetReg32(sc, 0x0D18, 0);
        vd.SetReg32(sc, 0x0D00, 0);
      }
    }
    for (auto& r : sc.reader_pids)
      if (r == me) {
        r = 0;
        break;
      }
    l.Notify();
  }
  delete d;
}

void CloseInterface(Interface* i, std::unique_lock<std::mutex>& lock) {
  while (!i->open.empty()) CloseDevice(i->open.begin()->second, lock);
  DropEvents(i);
  g_prod->system->open.erase(i->index);
  g_prod->live.erase(i);
  delete i;
}

void RaiseInterfaceEvent(uint32_t index, uint32_t code) {
  SharedState* st = g_prod->st();
  SharedLock l(st);
  st->iface_event_code[index][st->iface_event_seq[index] % 16] = code;
  st->iface_event_seq[index]++;
  l.Notify();
}

}  // namespace kivsim

extern "C" {

GC_API GCInitLib(void) {
  std::lock_guard<std::mutex> lock(g_mu);
  if (g_prod) return SetError(GC_ERR_RESOURCE_IN_USE, "Library already initialised");
  // Failures a host's start-up meets before it could ask for them.
  std::vector<std::string> fail_next;
  if (const char* names = std::getenv("KIVSIM_FAIL_NEXT")) {
    std::stringstream list(names);
    for (std::string name; std::getline(list, name, ',');)
      if (!name.empty()) fail_next.push_back(name);
  }
  if (std::find(fail_next.begin(), fail_next.end(), "GCInitLib") != fail_next.end()) {
    ++g_injected;
    return SetError(GC_ERR_ERROR, "KIVSIM_FAIL_NEXT");
  }
  auto p = std::make_unique<Producer>();
  for (const std::string& name : fail_next) p->faults[name] = Fault{GC_ERR_ERROR, "KIVSIM_FAIL_NEXT", 1};
  p->transport = ThisTransport();
  p->world = LoadWorld(p->transport);
  if (!p->world.error.empty()) return SetError(GC_ERR_ERROR, "KIVSIM_CONFIG: " + p->world.error);
  for (const auto& c : p->world.cameras)
    p->devices.push_back(std::make_unique<VirtualDevice>(p->transport, c, p->world.interfaces[c.interface_index]));
  std::string err;
  if (!p->shm.Open(StateName(), InitState, p.get(), &err)) return SetError(GC_ERR_ERROR, err);
  g_prod = p.release();
  return GC_ERR_SUCCESS;
}

GC_API GCCloseLib(void) {
  std::unique_lock<std::mutex> lock(g_mu);
  if (!g_prod) return SetError(GC_ERR_NOT_INITIALIZED, "Library not initialised");
  if (System* s = g_prod->system) {
    while (!s->open.empty()) CloseInterface(s->open.begin()->second, lock);
    StopWatcher(s, lock);
    DropEvents(s);
    g_prod->live.erase(s);
    delete s;
    g_prod->system = nullptr;
  }
  g_prod->shm.Close();
  delete g_prod;
  g_prod = nullptr;
  return GC_ERR_SUCCESS;
}

GC_API GCGetLastError(GC_ERROR* piErrorCode, char* sErrText, size_t* piSize) {
  return kivgentl::GetLastError(piErrorCode, sErrText, piSize);
}

GC_API GCGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("GCGetInfo");
  return SystemInfo(iInfoCmd, piType, pBuffer, piSize);
}

GC_API TLOpen(TL_HANDLE* phTL) {
  KIVSIM_ENTRY("TLOpen");
  if (BadPtr(phTL)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  if (g_prod->system) return SetError(GC_ERR_RESOURCE_IN_USE, "System module already open");
  auto* s = new System();
  g_prod->system = s;
  g_prod->live.insert(s);
  {
    // Events raised from now on reach this system's interfaces.
    SharedLock l(g_prod->st());
    std::copy(g_prod->st()->iface_event_seq, g_prod->st()->iface_event_seq + kMaxInterfaces, s->seen);
  }
  s->watcher = std::thread(WatcherMain, s);
  *phTL = s;
  return GC_ERR_SUCCESS;
}

GC_API TLClose(TL_HANDLE hTL) {
  KIVSIM_ENTRY("TLClose");
  KIVSIM_HANDLE(System, s, hTL, "system");
  while (!s->open.empty()) CloseInterface(s->open.begin()->second, lock);
  StopWatcher(s, lock);
  DropEvents(s);
  g_prod->live.erase(s);
  delete s;
  g_prod->system = nullptr;
  return GC_ERR_SUCCESS;
}

GC_API TLGetInfo(TL_HANDLE hTL, TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("TLGetInfo");
  if (!Lookup<System>(hTL, ObjType::System)) return SetError(GC_ERR_INVALID_HANDLE, "Invalid system handle");
  return SystemInfo(iInfoCmd, piType, pBuffer, piSize);
}

GC_API TLUpdateInterfaceList(TL_HANDLE hTL, bool8_t* pbChanged, uint64_t /*iTimeout*/) {
  KIVSIM_ENTRY("TLUpdateInterfaceList");
  KIVSIM_HANDLE(System, s, hTL, "system");
  std::vector<uint32_t> now;
  for (uint32_t i = 0; i < g_prod->world.interfaces.size(); ++i) now.push_back(i);
  UpdateList(s->listed, s->updated, std::move(now), pbChanged);
  return GC_ERR_SUCCESS;
}

GC_API TLGetNumInterfaces(TL_HANDLE hTL, uint32_t* piNumIfaces) {
  KIVSIM_ENTRY("TLGetNumInterfaces");
  KIVSIM_HANDLE(System, s, hTL, "system");
  return PutCount(s->listed, piNumIfaces);
}

GC_API TLGetInterfaceID(TL_HANDLE hTL, uint32_t iIndex, char* sID, size_t* piSize) {
  KIVSIM_ENTRY("TLGetInterfaceID");
  KIVSIM_HANDLE(System, s, hTL, "system");
  if (iIndex >= s->listed.size()) return SetError(GC_ERR_INVALID_INDEX, "Interface index out of range");
  return PutString(g_prod->world.interfaces[s->listed[iIndex]].id, nullptr, sID, piSize);
}

GC_API TLGetInterfaceInfo(TL_HANDLE hTL, const char* sIfaceID, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                          void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("TLGetInterfaceInfo");
  if (!Lookup<System>(hTL, ObjType::System)) return SetError(GC_ERR_INVALID_HANDLE, "Invalid system handle");
  int index = FindInterface(sIfaceID);
  if (index < 0) return SetError(GC_ERR_INVALID_ID, "Unknown interface ID");
  return InterfaceInfo(static_cast<uint32_t>(index), iInfoCmd, piType, pBuffer, piSize);
}

GC_API TLOpenInterface(TL_HANDLE hTL, const char* sIfaceID, IF_HANDLE* phIface) {
  KIVSIM_ENTRY("TLOpenInterface");
  KIVSIM_HANDLE(System, s, hTL, "system");
  if (BadPtr(phIface)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  int index = FindInterface(sIfaceID);
  if (index < 0) return SetError(GC_ERR_INVALID_ID, "Unknown interface ID");
  if (s->open.count(index)) return SetError(GC_ERR_RESOURCE_IN_USE, "Interface already open");
  auto* i = new Interface();
  i->index = static_cast<uint32_t>(index);
  s->open[i->index] = i;
  g_prod->live.insert(i);
  *phIface = i;
  return GC_ERR_SUCCESS;
}

GC_API IFClose(IF_HANDLE hIface) {
  KIVSIM_ENTRY("IFClose");
  KIVSIM_HANDLE(Interface, i, hIface, "interface");
  CloseInterface(i, lock);
  return GC_ERR_SUCCESS;
}

GC_API IFGetInfo(IF_HANDLE hIface, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("IFGetInfo");
  KIVSIM_HANDLE(Interface, i, hIface, "interface");
  return InterfaceInfo(i->index, iInfoCmd, piType, pBuffer, piSize);
}

GC_API IFUpdateDeviceList(IF_HANDLE hIface, bool8_t* pbChanged, uint64_t /*iTimeout*/) {
  KIVSIM_ENTRY("IFUpdateDeviceList");
  KIVSIM_HANDLE(Interface, i, hIface, "interface");
  UpdateList(i->listed, i->updated, PluggedCameras(i->index), pbChanged);
  return GC_ERR_SUCCESS;
}

GC_API IFGetNumDevices(IF_HANDLE hIface, uint32_t* piNumDevices) {
  KIVSIM_ENTRY("IFGetNumDevices");
  KIVSIM_HANDLE(Interface, i, hIface, "interface");
  return PutCount(i->listed, piNumDevices);
}

GC_API IFGetDeviceID(IF_HANDLE hIface, uint32_t iIndex, char* sIDeviceID, size_t* piSize) {
  KIVSIM_ENTRY("IFGetDeviceID");
  KIVSIM_HANDLE(Interface, i, hIface, "interface");
  if (iIndex >= i->listed.size()) return SetError(GC_ERR_INVALID_INDEX, "Device index out of range");
  return PutString(g_prod->devices[i->listed[iIndex]]->id(), nullptr, sIDeviceID, piSize);
}

GC_API IFGetDeviceInfo(IF_HANDLE hIface, const char* sDeviceID, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                       void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("IFGetDeviceInfo");
  KIVSIM_HANDLE(Interface, i, hIface, "interface");
  int cam = FindCamera(sDeviceID);
  if (cam < 0 || g_prod->devices[cam]->config().interface_index != i->index)
    return SetError(GC_ERR_INVALID_ID, "Unknown device ID");
  return DeviceInfo(static_cast<uint32_t>(cam), iInfoCmd, piType, pBuffer, piSize);
}

GC_API IFOpenDevice(IF_HANDLE hIface, const char* sDeviceID, DEVICE_ACCESS_FLAGS iOpenFlag, DEV_HANDLE* phDevice) {
  KIVSIM_ENTRY("IFOpenDevice");
  KIVSIM_HANDLE(Interface, i, hIface, "interface");
  if (BadPtr(phDevice)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  if (iOpenFlag != DEVICE_ACCESS_READONLY && iOpenFlag != DEVICE_ACCESS_CONTROL && iOpenFlag != DEVICE_ACCESS_EXCLUSIVE)
    return SetError(GC_ERR_INVALID_PARAMETER, "Unsupported access flag");
  int cam = FindCamera(sDeviceID);
  if (cam < 0 || g_prod->devices[cam]->config().interface_index != i->index)
    return SetError(GC_ERR_INVALID_ID, "Unknown device ID");
  if (i->open.count(cam)) return SetError(GC_ERR_RESOURCE_IN_USE, "Device already open");
  for (auto& kv : g_prod->system->open)
    if (kv.second->open.count(cam)) return SetError(GC_ERR_RESOURCE_IN_USE, "Device already open");
  const int32_t me = getpid();
  uint64_t first_seen = 0;
  {
    SharedLock l(g_prod->st());
    SharedCamera& sc = g_prod->cam(cam);
    if (!sc.plugged) return SetError(GC_ERR_NOT_AVAILABLE, "Device not present");
    if (iOpenFlag == DEVICE_ACCESS_READONLY) {
      int32_t* slot = nullptr;
      for (auto& r : sc.reader_pids)
        if (r == 0 || !ProcessAlive(r)) {
          slot = &r;
          break;
        }
      if (!slot) return SetError(GC_ERR_RESOURCE_EXHAUSTED, "Too many read-only holders");
      *slot = me;
    } else {
      if (sc.owner_pid && sc.owner_pid != me && ProcessAlive(sc.owner_pid))
        return SetError(GC_ERR_ACCESS_DENIED, "Device already open");
      sc.owner_pid = me;
      sc.acquiring = 0;
    }
    first_seen = sc.frames;
    l.Notify();
  }
  auto* d = new Device();
  // Frames after this point are this process's, however late its engine thread starts.
  d->first_seen = first_seen;
  d->iface = i;
  d->cam = static_cast<uint32_t>(cam);
  d->access = iOpenFlag;
  d->port.device = d;
  d->streams.assign(g_prod->devices[cam]->config().streams, nullptr);
  i->open[d->cam] = d;
  g_prod->live.insert(d);
  g_prod->live.insert(&d->port);
  d->engine = std::thread(EngineMain, d);
  *phDevice = d;
  return GC_ERR_SUCCESS;
}

GC_API IFGetParentTL(IF_HANDLE hIface, TL_HANDLE* phSystem) {
  KIVSIM_ENTRY("IFGetParentTL");
  if (!Lookup<Interface>(hIface, ObjType::Interface)) return SetError(GC_ERR_INVALID_HANDLE, "Invalid interface handle");
  if (BadPtr(phSystem)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  *phSystem = g_prod->system;
  return GC_ERR_SUCCESS;
}

GC_API DevGetParentIF(DEV_HANDLE hDevice, IF_HANDLE* phIface) {
  KIVSIM_ENTRY("DevGetParentIF");
  KIVSIM_HANDLE(Device, d, hDevice, "device");
  if (BadPtr(phIface)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  *phIface = d->iface;
  return GC_ERR_SUCCESS;
}

GC_API DevClose(DEV_HANDLE hDevice) {
  KIVSIM_ENTRY("DevClose");
  KIVSIM_HANDLE(Device, d, hDevice, "device");
  CloseDevice(d, lock);
  return GC_ERR_SUCCESS;
}

GC_API DevGetInfo(DEV_HANDLE hDevice, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("DevGetInfo");
  KIVSIM_HANDLE(Device, d, hDevice, "device");
  return DeviceInfo(d->cam, iInfoCmd, piType, pBuffer, piSize);
}

GC_API DevGetPort(DEV_HANDLE hDevice, PORT_HANDLE* phRemoteDevice) {
  KIVSIM_ENTRY("DevGetPort");
  KIVSIM_HANDLE(Device, d, hDevice, "device");
  if (BadPtr(phRemoteDevice)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  *phRemoteDevice = &d->port;
  return GC_ERR_SUCCESS;
}

GC_API DevGetNumDataStreams(DEV_HANDLE hDevice, uint32_t* piNumDataStreams) {
  KIVSIM_ENTRY("DevGetNumDataStreams");
  KIVSIM_HANDLE(Device, d, hDevice, "device");
  if (BadPtr(piNumDataStreams)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumDataStreams = static_cast<uint32_t>(d->streams.size());
  return GC_ERR_SUCCESS;
}

GC_API DevGetDataStreamID(DEV_HANDLE hDevice, uint32_t iIndex, char* sDataStreamID, size_t* piSize) {
  KIVSIM_ENTRY("DevGetDataStreamID");
  KIVSIM_HANDLE(Device, d, hDevice, "device");
  if (iIndex >= d->streams.size()) return SetError(GC_ERR_INVALID_INDEX, "Stream index out of range");
  return PutString("Stream" + std::to_string(iIndex), nullptr, sDataStreamID, piSize);
}

}  // extern "C"
