// Port access: the remote device's registers and description files, and the
// registers of the producer's own device and data-stream modules.
#include <unistd.h>

#include "common.h"

using namespace kivsim;

namespace {

struct PortTarget {
  Obj* obj = nullptr;
  ObjType type = ObjType::System;
};

PortTarget AsPort(void* h) {
  PortTarget t;
  for (ObjType k : {ObjType::RemotePort, ObjType::Device, ObjType::Stream, ObjType::System, ObjType::Interface,
                    ObjType::Buffer})
    if (Obj* o = Lookup<Obj>(h, k)) {
      t.obj = o;
      t.type = k;
    }
  return t;
}

GC_ERROR DeviceModuleAccess(Device* d, uint64_t addr, void* buf, size_t* size, bool write) {
  if (*size != 4) return SetError(GC_ERR_INVALID_PARAMETER, "Module registers are 4 bytes wide");
  SharedLock l(g_prod->st());
  SharedCamera& sc = g_prod->cam(d->cam);
  uint32_t v = 0;
  if (write) std::memcpy(&v, buf, 4);
  uint32_t* reg = nullptr;
  switch (addr) {
    case 0x100:
      if (write) return SetError(GC_ERR_ACCESS_DENIED, "Register is read-only");
      reg = &sc.stream_test_result;
      break;
    case 0x101:
      if (!write) return SetError(GC_ERR_ACCESS_DENIED, "Register is write-only");
      // The test packet goes through only when the configured packet size fits the path.
      sc.stream_test_result = (g_prod->devices[d->cam]->Reg32(sc, 0x0D04) & 0xFFFF) > sc.packet_size_limit ? 13 : 0;
      g_prod->counters[d->cam].module_writes++;
      return GC_ERR_SUCCESS;
    case 0x102: reg = &sc.stream_destination; break;
    case 0x103: reg = &sc.heartbeat_timeout; break;
    case 0x104: reg = &sc.command_timeout; break;
    case 0x105:
      if (!write) return SetError(GC_ERR_ACCESS_DENIED, "Register is write-only");
      sc.reset_requests++;
      g_prod->counters[d->cam].module_writes++;
      return GC_ERR_SUCCESS;
    default:
      return SetError(GC_ERR_INVALID_ADDRESS, "No such device module register");
  }
  if (write) {
    *reg = v;
    g_prod->counters[d->cam].module_writes++;
  } else {
    std::memcpy(buf, reg, 4);
  }
  return GC_ERR_SUCCESS;
}

GC_ERROR StreamModuleAccess(Stream* s, uint64_t addr, void* buf, size_t* size, bool write) {
  if (addr == 0x101) {
    if (write) return SetError(GC_ERR_ACCESS_DENIED, "Packet log is read-only");
    if (*size > sizeof s->log) return SetError(GC_ERR_INVALID_PARAMETER, "Packet log is 24 bytes");
    std::memcpy(buf, s->log, *size);
    return GC_ERR_SUCCESS;
  }
  auto it = s->regs.find(static_cast<uint32_t>(addr));
  if (addr > 0xFFFFFFFF || it == s->regs.end()) return SetError(GC_ERR_INVALID_ADDRESS, "No such stream module register");
  if (*size != 4) return SetError(GC_ERR_INVALID_PARAMETER, "Module registers are 4 bytes wide");
  if (!write) {
    std::memcpy(buf, &it->second, 4);
    return GC_ERR_SUCCESS;
  }
  uint32_t v;
  std::memcpy(&v, buf, 4);
  Device* d = s->device;
  if (addr == 0x104) {
    // The stream destination is the camera's: a watcher must see it in the bootstrap registers.
    if (!d->writable()) return SetError(GC_ERR_ACCESS_DENIED, "Device opened read-only");
    SharedLock l(g_prod->st());
    const VirtualDevice& vd = *g_prod->devices[d->cam];
    SharedCamera& sc = g_prod->cam(d->cam);
    if (vd.transport() == Transport::GigE) {
      vd.SetReg32(sc, 0x0D18, v);
      vd.SetReg32(sc, 0x0D00, v ? 0xC350 : 0);  // host port 50000 while a destination is set
    }
  }
  it->second = v;
  g_prod->counters[d->cam].module_writes++;
  if (addr == 0x102 || addr == 0x100) {
    SharedLock l(g_prod->st());
    l.Notify();
  }
  return GC_ERR_SUCCESS;
}

GC_ERROR RemoteAccess(Device* d, uint64_t addr, void* buf, size_t* size, bool write) {
  const VirtualDevice& vd = *g_prod->devices[d->cam];
  std::string why;
  SharedLock l(g_prod->st());
  SharedCamera& sc = g_prod->cam(d->cam);
  if (!sc.plugged) return SetError(GC_ERR_IO, "Device does not answer");
  if (vd.transport() == Transport::GigE && sc.owner_pid && !ProcessAlive(sc.owner_pid)) {
    // The controlling process died: as a real camera does when its control
    // channel's heartbeat expires, it forgets it and its stream channel.
    sc.owner_pid = 0;
    sc.acquiring = 0;
    vd.SetReg32(sc, 0x0D18, 0);
    vd.SetReg32(sc, 0x0D00, 0);
    l.Notify();
  }
  if (write && !d->writable()) return SetError(GC_ERR_ACCESS_DENIED, "Device opened read-only");
  GC_ERROR e = write ? vd.Write(sc, addr, buf, *size, &why) : vd.Read(sc, addr, buf, *size, &why);
  if (e != GC_ERR_SUCCESS) return SetError(e, why);
  if (write) l.Notify();
  if (!write && g_prod->short_reads > 0 && *size > 1) {
    g_prod->short_reads--;
    *size /= 2;
  }
  return GC_ERR_SUCCESS;
}

GC_ERROR Access(PORT_HANDLE hPort, uint64_t addr, void* buf, size_t* size, bool write) {
  PortTarget t = AsPort(hPort);
  if (!t.obj) return SetError(GC_ERR_INVALID_HANDLE, "Invalid port handle");
  if (BadPtr(buf) || BadPtr(size)) return SetError(GC_ERR_INVALID_PARAMETER, "NULL parameter");
  switch (t.type) {
    case ObjType::RemotePort: return RemoteAccess(static_cast<RemotePort*>(t.obj)->device, addr, buf, size, write);
    case ObjType::Device: return DeviceModuleAccess(static_cast<Device*>(t.obj), addr, buf, size, write);
    case ObjType::Stream: return StreamModuleAccess(static_cast<Stream*>(t.obj), addr, buf, size, write);
    case ObjType::Buffer: return SetError(GC_ERR_NOT_IMPLEMENTED, "Buffers have no port");
    default: return SetError(GC_ERR_INVALID_ADDRESS, "Module has no registers");
  }
}

const VirtualDevice* RemoteOf(const PortTarget& t) {
  return t.type == ObjType::RemotePort ? g_prod->devices[static_cast<RemotePort*>(t.obj)->device->cam].get() : nullptr;
}

}  // namespace

extern "C" {

GC_API GCReadPort(PORT_HANDLE hPort, uint64_t iAddress, void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("GCReadPort");
  return Access(hPort, iAddress, pBuffer, piSize, false);
}

GC_API GCWritePort(PORT_HANDLE hPort, uint64_t iAddress, const void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("GCWritePort");
  return Access(hPort, iAddress, const_cast<void*>(pBuffer), piSize, true);
}

GC_API GCReadPortStacked(PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY* pEntries, size_t* piNumEntries) {
  KIVSIM_ENTRY("GCReadPortStacked");
  if (BadPtr(pEntries) || BadPtr(piNumEntries)) return SetError(GC_ERR_INVALID_PARAMETER, "NULL parameter");
  size_t done = 0;
  for (; done < *piNumEntries; ++done) {
    size_t n = pEntries[done].Size;
    if (GC_ERROR e = Access(hPort, pEntries[done].Address, pEntries[done].pBuffer, &n, false)) {
      *piNumEntries = done;
      return e;
    }
  }
  return GC_ERR_SUCCESS;
}

GC_API GCWritePortStacked(PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY* pEntries, size_t* piNumEntries) {
  KIVSIM_ENTRY("GCWritePortStacked");
  if (BadPtr(pEntries) || BadPtr(piNumEntries)) return SetError(GC_ERR_INVALID_PARAMETER, "NULL parameter");
  size_t done = 0;
  for (; done < *piNumEntries; ++done) {
    size_t n = pEntries[done].Size;
    if (GC_ERROR e = Access(hPort, pEntries[done].Address, pEntries[done].pBuffer, &n, true)) {
      *piNumEntries = done;
      return e;
    }
  }
  return GC_ERR_SUCCESS;
}

GC_API GCGetNumPortURLs(PORT_HANDLE hPort, uint32_t* piNumURLs) {
  KIVSIM_ENTRY("GCGetNumPortURLs");
  PortTarget t = AsPort(hPort);
  if (!t.obj) return SetError(GC_ERR_INVALID_HANDLE, "Invalid port handle");
  if (BadPtr(piNumURLs)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  const VirtualDevice* vd = RemoteOf(t);
  *piNumURLs = vd ? static_cast<uint32_t>(vd->url_count()) : 0;
  return GC_ERR_SUCCESS;
}

GC_API GCGetPortURLInfo(PORT_HANDLE hPort, uint32_t iURLIndex, URL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                        void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("GCGetPortURLInfo");
  PortTarget t = AsPort(hPort);
  if (!t.obj) return SetError(GC_ERR_INVALID_HANDLE, "Invalid port handle");
  const VirtualDevice* vd = RemoteOf(t);
  if (!vd || iURLIndex >= vd->url_count()) return SetError(GC_ERR_INVALID_INDEX, "URL index out of range");
  auto i32 = [&](int32_t v) { return PutValue<int32_t>(INFO_DATATYPE_INT32, v, piType, pBuffer, piSize); };
  switch (iInfoCmd) {
    case URL_INFO_URL: return PutString(vd->Url(iURLIndex), piType, pBuffer, piSize);
    case URL_INFO_SCHEMA_VER_MAJOR: return i32(1);
    case URL_INFO_SCHEMA_VER_MINOR: return i32(1);
    case URL_INFO_FILE_VER_MAJOR: return i32(1);
    case URL_INFO_FILE_VER_MINOR: return i32(2);
    case URL_INFO_FILE_VER_SUBMINOR: return i32(0);
    case URL_INFO_FILE_REGISTER_ADDRESS:
      return PutValue<uint64_t>(INFO_DATATYPE_UINT64, kXmlBase[iURLIndex], piType, pBuffer, piSize);
    case URL_INFO_FILE_SIZE:
      return PutValue<uint64_t>(INFO_DATATYPE_UINT64, vd->File(iURLIndex).size(), piType, pBuffer, piSize);
    case URL_INFO_SCHEME: return i32(URL_SCHEME_LOCAL);
    case URL_INFO_FILENAME: return PutString(vd->FileName(iURLIndex), piType, pBuffer, piSize);
    case URL_INFO_FILE_SHA1_HASH: return SetError(GC_ERR_NOT_AVAILABLE, "No hash published");
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown URL information command");
  }
}

GC_API GCGetPortURL(PORT_HANDLE hPort, char* sURL, size_t* piSize) {
  KIVSIM_ENTRY("GCGetPortURL");
  PortTarget t = AsPort(hPort);
  if (!t.obj) return SetError(GC_ERR_INVALID_HANDLE, "Invalid port handle");
  std::string all;
  if (const VirtualDevice* vd = RemoteOf(t))
    for (size_t i = 0; i < vd->url_count(); ++i) all += vd->Url(i) + '\0';
  all += '\0';
  return PutInfo(INFO_DATATYPE_STRINGLIST, all.data(), all.size(), nullptr, sURL, piSize);
}

GC_API GCGetPortInfo(PORT_HANDLE hPort, PORT_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVSIM_ENTRY("GCGetPortInfo");
  PortTarget t = AsPort(hPort);
  if (!t.obj) return SetError(GC_ERR_INVALID_HANDLE, "Invalid port handle");
  const VirtualDevice* vd = RemoteOf(t);
  auto b8 = [&](bool v) { return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, v, piType, pBuffer, piSize); };
  const bool remote = vd != nullptr, buffer = t.type == ObjType::Buffer;
  bool big = remote && vd->big_endian();
  bool can_write = !buffer && !(remote && !static_cast<RemotePort*>(t.obj)->device->writable());
  std::string module, id;
  switch (t.type) {
    case ObjType::System: module = TLSystemModuleName; id = ThisTransport() == Transport::GigE ? "KivGigEGenTL" : "KivUSBGenTL"; break;
    case ObjType::Interface: module = TLInterfaceModuleName; id = g_prod->world.interfaces[static_cast<Interface*>(t.obj)->index].id; break;
    case ObjType::Device: module = TLDeviceModuleName; id = g_prod->devices[static_cast<Device*>(t.obj)->cam]->id(); break;
    case ObjType::Stream: module = TLDataStreamModuleName; id = static_cast<Stream*>(t.obj)->id; break;
    case ObjType::Buffer: {
      module = TLBufferModuleName;
      char hex[32];
      std::snprintf(hex, sizeof hex, "%llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(static_cast<Buffer*>(t.obj)->base)));
      id = hex;
      break;
    }
    default: module = TLRemoteDeviceModuleName; id = vd->id(); break;
  }
  switch (iInfoCmd) {
    case PORT_INFO_ID: return PutString(id, piType, pBuffer, piSize);
    case PORT_INFO_VENDOR: return PutString(remote ? vd->config().vendor : "KivCam", piType, pBuffer, piSize);
    case PORT_INFO_MODEL: return PutString(remote ? vd->config().model : "KivSim", piType, pBuffer, piSize);
    case PORT_INFO_TLTYPE: return PutString(TLTypeName(), piType, pBuffer, piSize);
    case PORT_INFO_MODULE: return PutString(module, piType, pBuffer, piSize);
    case PORT_INFO_LITTLE_ENDIAN: return b8(!big);
    case PORT_INFO_BIG_ENDIAN: return b8(big);
    case PORT_INFO_ACCESS_READ: return b8(!buffer);
    case PORT_INFO_ACCESS_WRITE: return b8(can_write);
    case PORT_INFO_ACCESS_NA: return b8(false);
    case PORT_INFO_ACCESS_NI: return b8(buffer);
    case PORT_INFO_VERSION: return PutString(remote ? vd->config().version : "1.1.6", piType, pBuffer, piSize);
    case PORT_INFO_PORTNAME: return PutString(remote ? "Device" : module, piType, pBuffer, piSize);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown port information command");
  }
}

}  // extern "C"
