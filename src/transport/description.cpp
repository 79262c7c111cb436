// Device descriptions: read from the device (plain or ZIP) or from the data
// folder, optionally extended by an additional file, loaded into the node map
// and bound to the features the acquisition code relies on.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unzip.h>

#include "camera/camera.h"
#include "core/failure.h"
#include "platform/platform.h"
#include "transport/ids.h"
#include "transport/gentl.h"
#include "transport/port.h"

namespace kivcam::transport {

namespace {

constexpr size_t kUrlBytes = 2048;
// Far above any real description; a larger length is a broken URL.
constexpr uint64_t kMaxDescriptionBytes = 256ull << 20;

// Bytes of a file or archive entry, terminated after `size`.
struct Text {
  std::vector<char> bytes;
  bool present = false;
  const char* c_str() const { return bytes.data(); }
};

// Room for the text, its terminator and whole 32-bit words.
std::vector<char> TextBuffer(uint64_t size) { return std::vector<char>(((size + 7) / 4) * 4, '\0'); }

// Reads a whole file; false when it does not open. Raises when it opens but
// can't be read.
bool ReadFile(const std::string& path, Text* out) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  bool ok = std::fseek(f, 0, SEEK_END) == 0;
  long size = ok ? std::ftell(f) : -1;
  ok = ok && size >= 0 && std::fseek(f, 0, SEEK_SET) == 0;
  if (ok) {
    out->bytes = TextBuffer(static_cast<uint64_t>(size));
    ok = std::fread(out->bytes.data(), 1, static_cast<size_t>(size), f) == static_cast<size_t>(size);
  }
  std::fclose(f);
  if (!ok) throw core::Failure("Memory Alloc Error");
  out->bytes[static_cast<size_t>(size)] = '\0';
  out->present = true;
  return true;
}

// A ZIP archive held in memory, read through minizip's I/O hooks.
struct MemoryZip {
  const unsigned char* data;
  uint64_t size;
  uint64_t pos = 0;
};

voidpf ZipOpen(voidpf opaque, const void*, int) { return opaque; }
uLong ZipRead(voidpf, voidpf stream, void* buf, uLong size) {
  auto* z = static_cast<MemoryZip*>(stream);
  uint64_t n = std::min<uint64_t>(size, z->size - z->pos);
  std::memcpy(buf, z->data + z->pos, n);
  z->pos += n;
  return static_cast<uLong>(n);
}
uLong ZipWrite(voidpf, voidpf, const void*, uLong) { return 0; }
ZPOS64_T ZipTell(voidpf, voidpf stream) { return static_cast<MemoryZip*>(stream)->pos; }
long ZipSeek(voidpf, voidpf stream, ZPOS64_T offset, int origin) {
  auto* z = static_cast<MemoryZip*>(stream);
  uint64_t base = origin == ZLIB_FILEFUNC_SEEK_SET ? 0 : origin == ZLIB_FILEFUNC_SEEK_CUR ? z->pos : z->size;
  if (base + offset > z->size) return -1;
  z->pos = base + offset;
  return 0;
}
int ZipClose(voidpf, voidpf) { return 0; }
int ZipError(voidpf, voidpf) { return 0; }

// Extracts the archive's first entry; raises "Memory Alloc Error" on any failure.
Text ExtractFirst(unzFile zip) {
  Text out;
  unz_file_info64 info{};
  bool ok = unzGoToFirstFile(zip) == UNZ_OK &&
            unzGetCurrentFileInfo64(zip, &info, nullptr, 0, nullptr, 0, nullptr, 0) == UNZ_OK &&
            info.uncompressed_size < (1ull << 31);
  if (ok) {
    out.bytes = TextBuffer(info.uncompressed_size);
    ok = unzOpenCurrentFile(zip) == UNZ_OK;
    if (ok) {
      uint64_t done = 0;
      while (ok && done < info.uncompressed_size) {
        int n = unzReadCurrentFile(zip, out.bytes.data() + done,
                                   static_cast<unsigned>(info.uncompressed_size - done));
        ok = n > 0;
        if (ok) done += static_cast<uint64_t>(n);
      }
      // A damaged entry fails its check at the end.
      if (unzCloseCurrentFile(zip) != UNZ_OK) ok = false;
    }
  }
  unzClose(zip);
  if (!ok) throw core::Failure("Memory Alloc Error");
  out.bytes[info.uncompressed_size] = '\0';
  out.present = true;
  return out;
}

Text UnzipMemory(const char* data, uint64_t size) {
  MemoryZip z{reinterpret_cast<const unsigned char*>(data), size};
  zlib_filefunc64_def io{};
  io.zopen64_file = &ZipOpen;
  io.zread_file = &ZipRead;
  io.zwrite_file = &ZipWrite;
  io.ztell64_file = &ZipTell;
  io.zseek64_file = &ZipSeek;
  io.zclose_file = &ZipClose;
  io.zerror_file = &ZipError;
  io.opaque = &z;
  unzFile zip = unzOpen2_64("memory", &io);
  if (!zip) throw core::Failure("Memory Alloc Error");
  return ExtractFirst(zip);
}

}  // namespace

}  // namespace kivcam::transport

namespace kivcam::camera {

using transport::Text;

bool CCamera::LoadDeviceDescription() {
  const transport::EntryPoints& fn = m_pGenTL->fn();
  const bool folder_first = m_nDescriptionIndex == kDescriptionDataFolderFirst;
  uint32_t urls = 0;
  if (fn.GCGetNumPortURLs(m_hPort, &urls) != GC_ERR_SUCCESS) m_pGenTL->RaiseLastError();
  uint32_t index = folder_first || m_nDescriptionIndex >= urls ? 0 : m_nDescriptionIndex;
  char url[transport::kUrlBytes] = {};
  size_t size = sizeof url;
  INFO_DATATYPE type = 0;
  if (fn.GCGetPortURLInfo(m_hPort, index, URL_INFO_URL, &type, url, &size) != GC_ERR_SUCCESS) {
    m_pGenTL->RaiseLastError();
  }
  url[size > 0 && size <= sizeof url ? size - 1 : sizeof url - 1] = '\0';
  transport::DescriptionUrl u = transport::ParseDescriptionUrl(url);
  if (!u.valid) throw core::Failure("URL Error");

  Text extra;
  transport::ReadFile(platform::PathAppend(platform::DataFolder(), transport::AdditionalFileName(u.location)),
                      &extra);

  Text description;
  if (u.scheme == "LOCAL:" && !folder_first) {
    if (u.length > transport::kMaxDescriptionBytes) throw core::Failure("Memory Alloc Error");
    // Whole 512-byte blocks plus a word of slack; the port reads whole words.
    std::vector<char> raw(((u.length + 511) / 512) * 512 + 4, '\0');
    size_t want = static_cast<size_t>((u.length + 3) / 4 * 4);
    if (fn.GCReadPort(m_hPort, u.address, raw.data(), &want) != GC_ERR_SUCCESS) {
      throw core::Failure("XML Data Read Error");
    }
    raw[u.length] = '\0';
    if (u.zip) {
      description = transport::UnzipMemory(raw.data(), u.length);
    } else {
      description.bytes = std::move(raw);
      description.present = true;
    }
  } else {
    if (!folder_first && u.scheme != "FILE:") throw core::Failure("URL Error");
    std::string path = platform::PathAppend(platform::DataFolder(), u.location);
    bool found;
    if (u.zip) {
      unzFile zip = unzOpen64(path.c_str());
      found = zip != nullptr;
      if (found) description = transport::ExtractFirst(zip);
    } else {
      found = transport::ReadFile(path, &description);
    }
    if (!found) {
      if (!folder_first) throw core::Failure("Local File Error");
      return false;
    }
  }

  auto map = std::make_unique<KivGenApi::CNodeMapRef>("Device");
  try {
    if (extra.present) {
      map->_LoadXMLFromStringInject(description.c_str(), extra.c_str());
    } else {
      map->_LoadXMLFromString(description.c_str());
    }
  } catch (...) {
    throw core::Failure("xml File Not Found Error");
  }
  std::unique_ptr<transport::CPort> port;
  try {
    port = std::make_unique<transport::CPort>(this, m_pGenTL, m_hPort, m_bWatch);
    if (!map->_Connect(port.get(), "Device")) throw core::Failure();
  } catch (...) {
    throw core::Failure("CPort Error");
  }

  KivGenApi::CIntegerPtr width = map->_GetNode("Width");
  KivGenApi::CIntegerPtr height = map->_GetNode("Height");
  KivGenApi::CEnumerationPtr pixel_format = map->_GetNode("PixelFormat");
  KivGenApi::CIntegerPtr payload = map->_GetNode("PayloadSize");
  KivGenApi::CIntegerPtr locked = map->_GetNode("TLParamsLocked");
  KivGenApi::CCommandPtr start = map->_GetNode("AcquisitionStart");
  KivGenApi::CCommandPtr stop = map->_GetNode("AcquisitionStop");
  if (!width.IsValid() || !height.IsValid() || !pixel_format.IsValid() || !payload.IsValid() ||
      !locked.IsValid() || !start.IsValid() || !stop.IsValid()) {
    throw core::Failure("Std Node NotFound");
  }
  m_pNodeMap = std::move(map);
  m_pPort = std::move(port);
  m_ptrWidth = width;
  m_ptrHeight = height;
  m_ptrPixelFormat = pixel_format;
  m_ptrPayloadSize = payload;
  m_ptrTLParamsLocked = locked;
  m_ptrAcquisitionStart = start;
  m_ptrAcquisitionStop = stop;

  KivGenApi::CBooleanPtr pending_ack = m_pNodeMap->_GetNode("GevGVCPPendingAck");
  if (!m_bWatch) {
    // A camera left streaming by an earlier owner is stopped.
    if (KivGenApi::IsWritable(m_ptrAcquisitionStop)) m_ptrAcquisitionStop->Execute();
    if (KivGenApi::IsWritable(pending_ack)) pending_ack->SetValue(true);
  }
  return true;
}

}  // namespace kivcam::camera
