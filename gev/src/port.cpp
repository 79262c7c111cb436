// Ports: the camera's register space over GVCP, its description URLs, and
// the registers of the producer's own device and data-stream modules.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "producer.h"

namespace kivgev {

namespace {

struct Target {
  std::shared_ptr<Module> obj;
  std::shared_ptr<Device> remote;  // set for a remote-device port
};

Target AsPort(Producer& p, const void* h) {
  Target t;
  if (BadPtr(h)) return t;
  t.obj = p.FindAny(h);
  if (t.obj && t.obj->kind == Kind::Port) t.remote = static_cast<RemotePort*>(t.obj.get())->device.lock();
  if (t.obj && t.obj->kind == Kind::Port && !t.remote) t.obj.reset();
  return t;
}

GC_ERROR RemoteRead(Device& d, uint64_t addr, void* buf, size_t n) {
  if (d.lost) return d.LostError();
  if (addr + n > 0x100000000ULL) return SetError(GC_ERR_INVALID_ADDRESS, "Address beyond the camera's 32-bit space");
  GvcpResult r;
  if (n == 4 && addr % 4 == 0) {
    uint32_t v = 0;
    r = d.gvcp.ReadReg(static_cast<uint32_t>(addr), &v);
    if (r.ok()) Put32(static_cast<uint8_t*>(buf), v);
  } else {
    r = d.gvcp.ReadMem(addr, buf, n);
  }
  return r.ok() ? GC_ERR_SUCCESS : FromGvcp(r);
}

// Whole aligned words, by WRITEREG (batched) or by WRITEMEM where the camera has it.
GvcpResult WriteWords(Device& d, uint32_t addr, const uint8_t* p, size_t n) {
  if (n == 4) return d.gvcp.WriteReg(addr, Get32(p));
  if (d.capability & kCapWriteMem) return d.gvcp.WriteMem(addr, p, n);
  std::vector<uint32_t> a(n / 4), v(n / 4);
  for (size_t i = 0; i < n / 4; ++i) a[i] = addr + uint32_t(4 * i), v[i] = Get32(p + 4 * i);
  return d.gvcp.WriteRegs(a.data(), v.data(), a.size());
}

GC_ERROR RemoteWrite(Device& d, uint64_t addr, const void* buf, size_t n) {
  if (!d.writable()) return SetError(GC_ERR_ACCESS_DENIED, "Device opened read-only");
  if (d.lost) return d.LostError();
  if (addr + n > 0x100000000ULL) return SetError(GC_ERR_INVALID_ADDRESS, "Address beyond the camera's 32-bit space");
  const uint32_t first = static_cast<uint32_t>(addr & ~uint64_t(3));
  const size_t span = static_cast<size_t>(((addr + n + 3) & ~uint64_t(3)) - first);
  std::vector<uint8_t> words(span);
  if (first != addr || span != n) {
    // Part of a word: merge with what the camera holds (16-bit registers such as the packet size).
    GvcpResult r = d.gvcp.ReadMem(first, words.data(), span);
    if (!r.ok()) return FromGvcp(r);
  }
  std::memcpy(words.data() + (addr - first), buf, n);
  GvcpResult r = WriteWords(d, first, words.data(), span);
  return r.ok() ? GC_ERR_SUCCESS : FromGvcp(r);
}

GC_ERROR DeviceModule(Device& d, uint64_t addr, void* buf, size_t* size, bool write) {
  if (*size != 4) return SetError(GC_ERR_INVALID_PARAMETER, "Module registers are 4 bytes wide");
  uint32_t v = 0;
  if (write) std::memcpy(&v, buf, 4);
  uint32_t* reg = nullptr;
  std::unique_lock<std::mutex> l(d.mu);
  switch (addr) {
    case 0x100:
      if (write) return SetError(GC_ERR_ACCESS_DENIED, "Register is read-only");
      reg = &d.test_result;
      break;
    case 0x101:
      if (!write) return SetError(GC_ERR_ACCESS_DENIED, "Register is write-only");
      l.unlock();
      return d.StreamTest(v);  // the value is the wait for the test packet, in ms
    case 0x102: reg = &d.destination; break;
    case 0x103:
      reg = &d.heartbeat_ms;  // the heartbeat period is a third of it; 0 stops the heartbeat
      if (write) {
        d.heartbeat_changes++;
        d.cv.notify_all();
      }
      break;
    case 0x104:
      reg = &d.command_timeout;
      if (write) {
        // All ones means no limit: a long wait, still bounded by the attempts.
        d.gvcp.SetTimeout(v == 0 || v == 0xFFFFFFFF ? d.prod->settings.timeout_ms : v, d.prod->settings.retries);
      }
      break;
    case 0x105:
      if (!write) return SetError(GC_ERR_ACCESS_DENIED, "Register is write-only");
      d.reset_requests++;  // a USB3 Vision request; nothing to reset on a network stream
      return GC_ERR_SUCCESS;
    default:
      return SetError(GC_ERR_INVALID_ADDRESS, "No such device module register");
  }
  if (write) *reg = v;
  else std::memcpy(buf, reg, 4);
  return GC_ERR_SUCCESS;
}

GC_ERROR StreamModule(Stream& s, uint64_t addr, void* buf, size_t* size, bool write) {
  std::unique_lock<std::mutex> l(s.mu);
  if (addr == 0x101) {
    if (write) return SetError(GC_ERR_ACCESS_DENIED, "Packet log is read-only");
    if (*size > sizeof s.log) return SetError(GC_ERR_INVALID_PARAMETER, "Packet log is 24 bytes");
    std::memcpy(buf, s.log, *size);
    return GC_ERR_SUCCESS;
  }
  auto it = s.regs.find(static_cast<uint32_t>(addr));
  if (addr > 0xFFFFFFFF || it == s.regs.end()) return SetError(GC_ERR_INVALID_ADDRESS, "No such stream module register");
  if (*size != 4) return SetError(GC_ERR_INVALID_PARAMETER, "Module registers are 4 bytes wide");
  if (!write) {
    std::memcpy(buf, &it->second, 4);
    return GC_ERR_SUCCESS;
  }
  uint32_t v;
  std::memcpy(&v, buf, 4);
  if (addr == 0x104) {
    if (!s.device->writable()) return SetError(GC_ERR_ACCESS_DENIED, "Device opened read-only");
    if (s.index != 0) return SetError(GC_ERR_ACCESS_DENIED, "Only the image stream has a destination");
    l.unlock();
    return s.SetDestination(v);
  }
  it->second = v;
  return GC_ERR_SUCCESS;
}

GC_ERROR Access(const void* hPort, uint64_t addr, void* buf, size_t* size, bool write) {
  auto prod = CurrentProducer();
  Target t = AsPort(*prod, hPort);
  if (!t.obj) return SetError(GC_ERR_INVALID_HANDLE, "Invalid port handle");
  if (BadPtr(buf) || BadPtr(size)) return SetError(GC_ERR_INVALID_PARAMETER, "NULL parameter");
  switch (t.obj->kind) {
    case Kind::Port: return write ? RemoteWrite(*t.remote, addr, buf, *size) : RemoteRead(*t.remote, addr, buf, *size);
    case Kind::Device: return DeviceModule(static_cast<Device&>(*t.obj), addr, buf, size, write);
    case Kind::Stream: return StreamModule(static_cast<Stream&>(*t.obj), addr, buf, size, write);
    case Kind::Buffer: return SetError(GC_ERR_NOT_IMPLEMENTED, "Buffers have no port");
    case Kind::Event: return SetError(GC_ERR_INVALID_HANDLE, "Invalid port handle");
    default: return SetError(GC_ERR_INVALID_ADDRESS, "Module has no registers");
  }
}

// Stacked access: runs of 4-byte registers travel as one batched READREG/WRITEREG.
GC_ERROR Stacked(Producer& prod, PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY* e, size_t* count, bool write) {
  if (BadPtr(e) || BadPtr(count)) return SetError(GC_ERR_INVALID_PARAMETER, "NULL parameter");
  Target t = AsPort(prod, hPort);
  if (!t.obj) return SetError(GC_ERR_INVALID_HANDLE, "Invalid port handle");
  const bool batch = t.remote && !t.remote->lost && (!write || t.remote->writable());
  size_t done = 0;
  while (done < *count) {
    size_t run = 0;
    while (batch && done + run < *count && e[done + run].Size == 4 && e[done + run].Address % 4 == 0 &&
           e[done + run].Address < 0x100000000ULL)
      ++run;
    if (run > 1) {
      std::vector<uint32_t> a(run), v(run);
      for (size_t i = 0; i < run; ++i) {
        a[i] = static_cast<uint32_t>(e[done + i].Address);
        if (write) v[i] = Get32(static_cast<const uint8_t*>(e[done + i].pBuffer));
      }
      GvcpResult r = write ? t.remote->gvcp.WriteRegs(a.data(), v.data(), run) : t.remote->gvcp.ReadRegs(a.data(), v.data(), run);
      if (!r.ok()) {
        *count = done + (write ? r.index : 0);
        return FromGvcp(r);
      }
      if (!write)
        for (size_t i = 0; i < run; ++i) Put32(static_cast<uint8_t*>(e[done + i].pBuffer), v[i]);
      done += run;
      continue;
    }
    size_t n = e[done].Size;
    if (GC_ERROR err = Access(hPort, e[done].Address, e[done].pBuffer, &n, write)) {
      *count = done;
      return err;
    }
    ++done;
  }
  return GC_ERR_SUCCESS;
}

struct Url {
  std::string text, scheme, file;
  uint64_t address = 0, size = 0;
  int schema_major = 1, schema_minor = 1;
  bool local = false;
};

Url ParseUrl(const std::string& text) {
  Url u;
  u.text = text;
  const size_t colon = text.find(':');
  u.scheme = colon == std::string::npos ? "" : text.substr(0, colon);
  std::string lower = u.scheme;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const size_t q = text.find('?');
  const std::string body = text.substr(colon == std::string::npos ? 0 : colon + 1, q == std::string::npos ? std::string::npos : q - colon - 1);
  if (q != std::string::npos) {
    const std::string query = text.substr(q + 1);
    const size_t v = query.find("SchemaVersion=");
    if (v != std::string::npos) std::sscanf(query.c_str() + v + 14, "%d.%d", &u.schema_major, &u.schema_minor);
  }
  if (lower == "local") {
    const size_t s1 = body.find(';'), s2 = s1 == std::string::npos ? s1 : body.find(';', s1 + 1);
    if (s2 != std::string::npos) {
      u.file = body.substr(0, s1);
      u.address = std::strtoull(body.c_str() + s1 + 1, nullptr, 16);
      u.size = std::strtoull(body.c_str() + s2 + 1, nullptr, 16);
      u.local = true;
    }
  } else {
    const size_t slash = body.find_last_of('/');
    u.file = slash == std::string::npos ? body : body.substr(slash + 1);
  }
  return u;
}

// The camera's description URLs (both URL registers; empty ones left out).
GC_ERROR Urls(Device& d, std::vector<Url>* out) {
  for (uint32_t reg : {kRegFirstUrl, kRegSecondUrl}) {
    char text[513] = {};
    GC_ERROR e = RemoteRead(d, reg, text, 512);
    if (e != GC_ERR_SUCCESS) return e;
    if (text[0]) out->push_back(ParseUrl(text));
  }
  return GC_ERR_SUCCESS;
}

// The description URLs behind any port handle: a module's own port has none.
GC_ERROR PortUrls(Producer& prod, PORT_HANDLE h, std::vector<Url>* urls) {
  Target t = AsPort(prod, h);
  if (!t.obj) return SetError(GC_ERR_INVALID_HANDLE, "Invalid port handle");
  return t.remote ? Urls(*t.remote, urls) : GC_ERR_SUCCESS;
}

GC_ERROR NotLocal(const Url& u) {
  return SetError(GC_ERR_NOT_IMPLEMENTED, "Description URL '" + u.text +
                                              "' is not supported: only Local: descriptions in the camera's memory are read");
}

}  // namespace

}  // namespace kivgev

using namespace kivgev;

extern "C" {

GC_API GCReadPort(PORT_HANDLE hPort, uint64_t iAddress, void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  return Access(hPort, iAddress, pBuffer, piSize, false);
}

GC_API GCWritePort(PORT_HANDLE hPort, uint64_t iAddress, const void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  return Access(hPort, iAddress, const_cast<void*>(pBuffer), piSize, true);
}

GC_API GCReadPortStacked(PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY* pEntries, size_t* piNumEntries) {
  KIVGEV_ENTRY();
  return Stacked(*prod_, hPort, pEntries, piNumEntries, false);
}

GC_API GCWritePortStacked(PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY* pEntries, size_t* piNumEntries) {
  KIVGEV_ENTRY();
  return Stacked(*prod_, hPort, pEntries, piNumEntries, true);
}

GC_API GCGetNumPortURLs(PORT_HANDLE hPort, uint32_t* piNumURLs) {
  KIVGEV_ENTRY();
  if (BadPtr(piNumURLs)) return SetError(GC_ERR_INVALID_PARAMETER, "Count pointer is NULL");
  std::vector<Url> urls;
  if (GC_ERROR e = PortUrls(*prod_, hPort, &urls)) return e;
  *piNumURLs = static_cast<uint32_t>(urls.size());
  return GC_ERR_SUCCESS;
}

GC_API GCGetPortURLInfo(PORT_HANDLE hPort, uint32_t iURLIndex, URL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                        void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  std::vector<Url> urls;
  if (GC_ERROR e = PortUrls(*prod_, hPort, &urls)) return e;
  if (iURLIndex >= urls.size()) return SetError(GC_ERR_INVALID_INDEX, "URL index out of range");
  const Url& u = urls[iURLIndex];
  auto i32 = [&](int32_t v) { return PutValue<int32_t>(INFO_DATATYPE_INT32, v, piType, pBuffer, piSize); };
  std::string lower = u.scheme;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  switch (iInfoCmd) {
    case URL_INFO_URL: return PutString(u.text, piType, pBuffer, piSize);
    case URL_INFO_SCHEMA_VER_MAJOR: return i32(u.schema_major);
    case URL_INFO_SCHEMA_VER_MINOR: return i32(u.schema_minor);
    case URL_INFO_FILE_VER_MAJOR:
    case URL_INFO_FILE_VER_MINOR:
    case URL_INFO_FILE_VER_SUBMINOR: return SetError(GC_ERR_NOT_AVAILABLE, "The URL carries no file version");
    case URL_INFO_FILE_REGISTER_ADDRESS:
      if (!u.local) return NotLocal(u);
      return PutValue<uint64_t>(INFO_DATATYPE_UINT64, u.address, piType, pBuffer, piSize);
    case URL_INFO_FILE_SIZE:
      if (!u.local) return NotLocal(u);
      return PutValue<uint64_t>(INFO_DATATYPE_UINT64, u.size, piType, pBuffer, piSize);
    case URL_INFO_SCHEME:
      return i32(lower == "local" ? URL_SCHEME_LOCAL : lower == "http" ? URL_SCHEME_HTTP
                 : lower == "file" ? URL_SCHEME_FILE : URL_SCHEME_CUSTOM_ID);
    case URL_INFO_FILENAME: return PutString(u.file, piType, pBuffer, piSize);
    case URL_INFO_FILE_SHA1_HASH: return SetError(GC_ERR_NOT_AVAILABLE, "No hash published");
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown URL information command");
  }
}

GC_API GCGetPortURL(PORT_HANDLE hPort, char* sURL, size_t* piSize) {
  KIVGEV_ENTRY();
  std::vector<Url> urls;
  if (GC_ERROR e = PortUrls(*prod_, hPort, &urls)) return e;
  std::string all;
  for (const Url& u : urls) all += u.text + '\0';
  all += '\0';
  return PutInfo(INFO_DATATYPE_STRINGLIST, all.data(), all.size(), nullptr, sURL, piSize);
}

GC_API GCGetPortInfo(PORT_HANDLE hPort, PORT_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) {
  KIVGEV_ENTRY();
  Target t = AsPort(*prod_, hPort);
  if (!t.obj) return SetError(GC_ERR_INVALID_HANDLE, "Invalid port handle");
  auto b8 = [&](bool v) { return PutValue<uint8_t>(INFO_DATATYPE_BOOL8, v, piType, pBuffer, piSize); };
  const bool remote = t.remote != nullptr, buffer = t.obj->kind == Kind::Buffer;
  std::string module, id;
  switch (t.obj->kind) {
    case Kind::System: module = TLSystemModuleName; id = "KivGEVNetGenTL"; break;
    case Kind::Interface: module = TLInterfaceModuleName; id = static_cast<Interface&>(*t.obj).id; break;
    case Kind::Device: module = TLDeviceModuleName; id = static_cast<Device&>(*t.obj).rec.id; break;
    case Kind::Stream: module = TLDataStreamModuleName; id = static_cast<Stream&>(*t.obj).id; break;
    case Kind::Buffer: {
      module = TLBufferModuleName;
      char hex[32];
      std::snprintf(hex, sizeof hex, "%llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(static_cast<Buffer&>(*t.obj).base)));
      id = hex;
      break;
    }
    default: module = TLRemoteDeviceModuleName; id = t.remote->rec.id; break;
  }
  switch (iInfoCmd) {
    case PORT_INFO_ID: return PutString(id, piType, pBuffer, piSize);
    case PORT_INFO_VENDOR: return PutString(remote ? t.remote->rec.info.vendor : "KivCam", piType, pBuffer, piSize);
    case PORT_INFO_MODEL: return PutString(remote ? t.remote->rec.info.model : "KivGEV", piType, pBuffer, piSize);
    case PORT_INFO_TLTYPE: return PutString(TLTypeGEVName, piType, pBuffer, piSize);
    case PORT_INFO_MODULE: return PutString(module, piType, pBuffer, piSize);
    case PORT_INFO_LITTLE_ENDIAN: return b8(!remote);
    case PORT_INFO_BIG_ENDIAN: return b8(remote);
    case PORT_INFO_ACCESS_READ: return b8(!buffer);
    case PORT_INFO_ACCESS_WRITE: return b8(!buffer && !(remote && !t.remote->writable()));
    case PORT_INFO_ACCESS_NA: return b8(false);
    case PORT_INFO_ACCESS_NI: return b8(buffer);
    case PORT_INFO_VERSION: return PutString(remote ? t.remote->rec.info.version : "1.1.6", piType, pBuffer, piSize);
    case PORT_INFO_PORTNAME: return PutString(remote ? "Device" : module, piType, pBuffer, piSize);
    default: return SetError(GC_ERR_NOT_IMPLEMENTED, "Unknown port information command");
  }
}

}  // extern "C"
