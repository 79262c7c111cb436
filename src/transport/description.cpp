// Device descriptions: read from the device (plain or ZIP) or from the data
// folder, optionally extended by an additional file, loaded into a node map.
#include "transport/description.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "diag/error.h"
#include "kivgenapi/Zip.h"
#include "platform/platform.h"
#include "transport/gentl.h"
#include "transport/ids.h"

namespace kivcam::transport {

namespace {

constexpr size_t kUrlBytes = 2048;
// Far above any real description; a larger length is a broken URL.
constexpr uint64_t kMaxDescriptionBytes = 256ull << 20;

// Bytes of a file or archive entry, terminated after `size`.
struct Text {
  std::vector<char> bytes;
  uint64_t size = 0;
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
  if (!ok) throw Failure("Memory Alloc Error");
  out->bytes[static_cast<size_t>(size)] = '\0';
  out->size = static_cast<uint64_t>(size);
  out->present = true;
  return true;
}

// A ZIP archive ends with its central directory's end record (signature
// PK 5 6) within the last 64 KiB and 22 bytes; a file without one is no
// archive at all.
bool IsZipArchive(const Text& t) {
  static const char kEnd[] = {'P', 'K', 5, 6};
  uint64_t from = t.size > 65557 ? t.size - 65557 : 0;
  const char* begin = t.c_str() + from;
  const char* end = t.c_str() + t.size;
  return std::search(begin, end, kEnd, kEnd + 4) != end;
}

// The first entry of an archive; any failure is "Memory Alloc Error".
Text Unzip(const char* data, uint64_t size) {
  Text out;
  try {
    std::string entry = KivGenApi::UnzipFirstEntry(data, static_cast<size_t>(size));
    out.bytes = TextBuffer(entry.size());
    std::copy(entry.begin(), entry.end(), out.bytes.begin());
    out.size = entry.size();
  } catch (...) {
    throw Failure("Memory Alloc Error");
  }
  out.present = true;
  return out;
}

}  // namespace

std::unique_ptr<KivGenApi::CNodeMapRef> LoadDeviceDescription(CGenTL* producer, PORT_HANDLE port,
                                                              uint32_t index) {
  const EntryPoints& fn = producer->fn();
  const bool folder_first = index == kDescriptionDataFolderFirst;
  uint32_t urls = 0;
  if (fn.GCGetNumPortURLs(port, &urls) != GC_ERR_SUCCESS) producer->RaiseLastError();
  uint32_t url_index = folder_first || index >= urls ? 0 : index;
  char url[kUrlBytes] = {};
  size_t size = sizeof url;
  INFO_DATATYPE type = 0;
  if (fn.GCGetPortURLInfo(port, url_index, URL_INFO_URL, &type, url, &size) != GC_ERR_SUCCESS) {
    producer->RaiseLastError();
  }
  url[size > 0 && size <= sizeof url ? size - 1 : sizeof url - 1] = '\0';
  DescriptionUrl u = ParseDescriptionUrl(url);
  if (!u.valid) throw Failure("URL Error");

  Text extra;
  ReadFile(platform::PathAppend(platform::DataFolder(), AdditionalFileName(u.location)), &extra);

  Text description;
  if (u.scheme == "LOCAL:" && !folder_first) {
    if (u.length > kMaxDescriptionBytes) throw Failure("Memory Alloc Error");
    // Whole 512-byte blocks plus a word of slack; the port reads whole words.
    std::vector<char> raw(((u.length + 511) / 512) * 512 + 4, '\0');
    size_t want = static_cast<size_t>((u.length + 3) / 4 * 4);
    if (fn.GCReadPort(port, u.address, raw.data(), &want) != GC_ERR_SUCCESS) {
      throw Failure("XML Data Read Error");
    }
    raw[u.length] = '\0';
    if (u.zip) {
      description = Unzip(raw.data(), u.length);
    } else {
      description.bytes = std::move(raw);
      description.size = u.length;
      description.present = true;
    }
  } else {
    if (!folder_first && u.scheme != "FILE:") throw Failure("URL Error");
    Text file;
    // A file that is no archive where one is expected counts as no file.
    if (!ReadFile(platform::PathAppend(platform::DataFolder(), u.location), &file) ||
        (u.zip && !IsZipArchive(file))) {
      if (!folder_first) throw Failure("Local File Error");
      return nullptr;
    }
    description = u.zip ? Unzip(file.c_str(), file.size) : std::move(file);
  }

  auto map = std::make_unique<KivGenApi::CNodeMapRef>("Device");
  try {
    if (extra.present) {
      map->_LoadXMLFromStringInject(description.c_str(), extra.c_str());
    } else {
      map->_LoadXMLFromString(description.c_str());
    }
  } catch (...) {
    throw Failure("xml File Not Found Error");
  }
  return map;
}

}  // namespace kivcam::transport
