// Library, system, interface and device entry points.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>

#include <algorithm>

#include "common.h"
#include "pixfmt.h"

using namespace kivsim;

namespace kivsim {

std::mutex g_mu;
Producer* g_prod = nullptr;

namespace {
thread_local GC_ERROR t_error = GC_ERR_SUCCESS;
thread_local std::string t_text = "No Error";
thread_local bool t_has_error = false;

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
  uint64_t seen[kMaxInterfaces];
  {
    SharedLock l(st);
    std::copy(st->iface_event_seq, st->iface_event_seq + kMaxInterfaces, seen);
  }
  for (;;) {
    std::vector<std::pair<uint32_t, uint32_t>> todo;
    {
      SharedLock l(st);
      for (;;) {
        if (sys->stop) return;
        for (uint32_t i = 0; i < kMaxInterfaces; ++i)
          for (; seen[i] < st->iface_event_seq[i]; ++seen[i]) todo.emplace_back(i, st->iface_event_code[i][seen[i] % 16]);
        if (!todo.empty()) break;
        l.Wait(0);
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

}  // namespace

Transport ThisTransport() {
#ifdef KIVSIM_USB
  return Transport::USB;
#else
  return Transport::GigE;
#endif
}

const char* TLTypeName() { return ThisTransport() == Transport::GigE ? TLTypeGEVName : TLTypeU3VName; }

GC_ERROR SetError(GC_ERROR code, const std::string& text) {
  t_error = code;
  t_text = text;
  t_has_error = true;
  return code;
}

GC_ERROR Injected(const char* name) {
  auto it = g_prod->faults.find(name);
  if (it == g_prod->faults.end() || it->second.count == 0) return GC_ERR_SUCCESS;
  Fault& f = it->second;
  f.count--;
  GC_ERROR e = f.error;
  std::string text = f.text;
  if (f.count == 0) g_prod->faults.erase(it);
  return SetError(e, text);
}

GC_ERROR PutInfo(INFO_DATATYPE type, const void* data, size_t n, INFO_DATATYPE* piType, void* pBuffer,
                 size_t* piSize) {
  if (BadPtr(piSize)) return SetError(GC_ERR_INVALID_PARAMETER, "Size pointer is NULL");
  if (!pBuffer) {
    *piSize = n;
    if (piType) *piType = type;
    return GC_ERR_SUCCESS;
  }
  if (*piSize < n) {
    *piSize = n;
    return SetError(GC_ERR_BUFFER_TOO_SMALL, "Buffer too small");
  }
  std::memcpy(pBuffer, data, n);
  *piSize = n;
  if (piType) *piType = type;
  return GC_ERR_SUCCESS;
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
    case DEVICE_INFO_USER_DEFINED_NAME: return PutString(c.user_name, t, b, n);
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
    case 1009: return PutString(c.user_name, t, b, n);
    case 1010: return PutString(c.family, t, b, n);
    case 1011: return PutValue<uint64_t>(INFO_DATATYPE_UINT64, c.uid, t, b, n);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown device information command");
  }
}

void CloseDevice(Device* d, std::unique_lock<std::mutex>& lock) {
  for (Stream* s : d->streams)
    if (s) CloseStream(s);
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
    }
    for (auto& r : sc.reader_pids)
      if (r == me) {
        r = 0;
        break;
      }
    l.Notify();
  }
  d->iface->open.erase(d->cam);
  g_prod->live.erase(&d->port);
  g_prod->live.erase(d);
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
  auto p = std::make_unique<Producer>();
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
  if (BadPtr(piErrorCode) || BadPtr(piSize)) return GC_ERR_INVALID_PARAMETER;
  const std::string& text = t_has_error ? t_text : std::string("No Error");
  if (sErrText) {
    if (*piSize < text.size() + 1) {
      *piSize = text.size() + 1;
      return GC_ERR_BUFFER_TOO_SMALL;
    }
    std::memcpy(sErrText, text.c_str(), text.size() + 1);
  }
  *piSize = text.size() + 1;
  *piErrorCode = t_has_error ? t_error : GC_ERR_SUCCESS;
  return GC_ERR_SUCCESS;
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
  s->watcher = std::thread(WatcherMain, s);
  *phTL = s;
  return GC_ERR_SUCCESS;
}

GC_API TLClose(TL_HANDLE hTL) {
  KIVSIM_ENTRY("TLClose");
  System* s = Lookup<System>(hTL, ObjType::System);
  if (!s) return SetError(GC_ERR_INVALID_HANDLE, "Invalid system handle");
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
  System* s = Lookup<System>(hTL, ObjType::System);
  if (!s) return SetError(GC_ERR_INVALID_HANDLE, "Invalid system handle");
  std::vector<uint32_t> now;
  for (uint32_t i = 0; i < g_prod->world.interfaces.size(); ++i) now.push_back(i);
  bool changed = !s->updated || now != s->listed;
  s->listed = now;
  s->updated = true;
  if (pbChanged) *pbChanged = changed;
  return GC_ERR_SUCCESS;
}

GC_API TLGetNumInterfaces(TL_HANDLE hTL, uint32_t* piNumIfaces) {
  KIVSIM_ENTRY("TLGetNumInterfaces");
  System* s = Lookup<System>(hTL, ObjType::System);
  if (!s) return SetError(GC_ERR_INVALID_HANDLE, "Invalid system handle");
  if (BadPtr(piNumIfaces)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumIfaces = static_cast<uint32_t>(s->listed.size());
  return GC_ERR_SUCCESS;
}

GC_API TLGetInterfaceID(TL_HANDLE hTL, uint32_t iIndex, char* sID, size_t* piSize) {
  KIVSIM_ENTRY("TLGetInterfaceID");
  System* s = Lookup<System>(hTL, ObjType::System);
  if (!s) return SetError(GC_ERR_INVALID_HANDLE, "Invalid system handle");
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
  System* s = Lookup<System>(hTL, ObjType::System);
  if (!s) return SetError(GC_ERR_INVALID_HANDLE, "Invalid system handle");
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
  Interface* i = Lookup<Interface>(hIface, ObjType::Interface);
  if (!i) return SetError(GC_ERR_INVALID_HANDLE, "Invalid interface handle");
  CloseInterface(i, lock);
  return GC_ERR_SUCCESS;
}

GC_API IFGetInfo(IF_HANDLE hIface, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("IFGetInfo");
  Interface* i = Lookup<Interface>(hIface, ObjType::Interface);
  if (!i) return SetError(GC_ERR_INVALID_HANDLE, "Invalid interface handle");
  return InterfaceInfo(i->index, iInfoCmd, piType, pBuffer, piSize);
}

GC_API IFUpdateDeviceList(IF_HANDLE hIface, bool8_t* pbChanged, uint64_t /*iTimeout*/) {
  KIVSIM_ENTRY("IFUpdateDeviceList");
  Interface* i = Lookup<Interface>(hIface, ObjType::Interface);
  if (!i) return SetError(GC_ERR_INVALID_HANDLE, "Invalid interface handle");
  std::vector<uint32_t> now = PluggedCameras(i->index);
  bool changed = !i->updated || now != i->listed;
  i->listed = now;
  i->updated = true;
  if (pbChanged) *pbChanged = changed;
  return GC_ERR_SUCCESS;
}

GC_API IFGetNumDevices(IF_HANDLE hIface, uint32_t* piNumDevices) {
  KIVSIM_ENTRY("IFGetNumDevices");
  Interface* i = Lookup<Interface>(hIface, ObjType::Interface);
  if (!i) return SetError(GC_ERR_INVALID_HANDLE, "Invalid interface handle");
  if (BadPtr(piNumDevices)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumDevices = static_cast<uint32_t>(i->listed.size());
  return GC_ERR_SUCCESS;
}

GC_API IFGetDeviceID(IF_HANDLE hIface, uint32_t iIndex, char* sIDeviceID, size_t* piSize) {
  KIVSIM_ENTRY("IFGetDeviceID");
  Interface* i = Lookup<Interface>(hIface, ObjType::Interface);
  if (!i) return SetError(GC_ERR_INVALID_HANDLE, "Invalid interface handle");
  if (iIndex >= i->listed.size()) return SetError(GC_ERR_INVALID_INDEX, "Device index out of range");
  return PutString(g_prod->devices[i->listed[iIndex]]->id(), nullptr, sIDeviceID, piSize);
}

GC_API IFGetDeviceInfo(IF_HANDLE hIface, const char* sDeviceID, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                       void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("IFGetDeviceInfo");
  Interface* i = Lookup<Interface>(hIface, ObjType::Interface);
  if (!i) return SetError(GC_ERR_INVALID_HANDLE, "Invalid interface handle");
  int cam = FindCamera(sDeviceID);
  if (cam < 0 || g_prod->devices[cam]->config().interface_index != i->index)
    return SetError(GC_ERR_INVALID_ID, "Unknown device ID");
  return DeviceInfo(static_cast<uint32_t>(cam), iInfoCmd, piType, pBuffer, piSize);
}

GC_API IFOpenDevice(IF_HANDLE hIface, const char* sDeviceID, DEVICE_ACCESS_FLAGS iOpenFlag, DEV_HANDLE* phDevice) {
  KIVSIM_ENTRY("IFOpenDevice");
  Interface* i = Lookup<Interface>(hIface, ObjType::Interface);
  if (!i) return SetError(GC_ERR_INVALID_HANDLE, "Invalid interface handle");
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
    l.Notify();
  }
  auto* d = new Device();
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
  Device* d = Lookup<Device>(hDevice, ObjType::Device);
  if (!d) return SetError(GC_ERR_INVALID_HANDLE, "Invalid device handle");
  if (BadPtr(phIface)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  *phIface = d->iface;
  return GC_ERR_SUCCESS;
}

GC_API DevClose(DEV_HANDLE hDevice) {
  KIVSIM_ENTRY("DevClose");
  Device* d = Lookup<Device>(hDevice, ObjType::Device);
  if (!d) return SetError(GC_ERR_INVALID_HANDLE, "Invalid device handle");
  CloseDevice(d, lock);
  return GC_ERR_SUCCESS;
}

GC_API DevGetInfo(DEV_HANDLE hDevice, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("DevGetInfo");
  Device* d = Lookup<Device>(hDevice, ObjType::Device);
  if (!d) return SetError(GC_ERR_INVALID_HANDLE, "Invalid device handle");
  return DeviceInfo(d->cam, iInfoCmd, piType, pBuffer, piSize);
}

GC_API DevGetPort(DEV_HANDLE hDevice, PORT_HANDLE* phRemoteDevice) {
  KIVSIM_ENTRY("DevGetPort");
  Device* d = Lookup<Device>(hDevice, ObjType::Device);
  if (!d) return SetError(GC_ERR_INVALID_HANDLE, "Invalid device handle");
  if (BadPtr(phRemoteDevice)) return SetError(GC_ERR_INVALID_PARAMETER, "Handle pointer is NULL");
  *phRemoteDevice = &d->port;
  return GC_ERR_SUCCESS;
}

GC_API DevGetNumDataStreams(DEV_HANDLE hDevice, uint32_t* piNumDataStreams) {
  KIVSIM_ENTRY("DevGetNumDataStreams");
  Device* d = Lookup<Device>(hDevice, ObjType::Device);
  if (!d) return SetError(GC_ERR_INVALID_HANDLE, "Invalid device handle");
  if (BadPtr(piNumDataStreams)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  *piNumDataStreams = static_cast<uint32_t>(d->streams.size());
  return GC_ERR_SUCCESS;
}

GC_API DevGetDataStreamID(DEV_HANDLE hDevice, uint32_t iIndex, char* sDataStreamID, size_t* piSize) {
  KIVSIM_ENTRY("DevGetDataStreamID");
  Device* d = Lookup<Device>(hDevice, ObjType::Device);
  if (!d) return SetError(GC_ERR_INVALID_HANDLE, "Invalid device handle");
  if (iIndex >= d->streams.size()) return SetError(GC_ERR_INVALID_INDEX, "Stream index out of range");
  return PutString("Stream" + std::to_string(iIndex), nullptr, sDataStreamID, piSize);
}

}  // extern "C"
