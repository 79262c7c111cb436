#include "zip_reader.h"

#include <unzip.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "kivgenapi/Exception.h"

namespace KivGenApi {
namespace detail {
namespace {

struct MemFile {
  const unsigned char* data;
  uint64_t size;
  uint64_t pos;
};

voidpf ZCALLBACK MemOpen(voidpf opaque, const void*, int) { return opaque; }
uLong ZCALLBACK MemRead(voidpf, voidpf stream, void* buf, uLong size) {
  auto* f = static_cast<MemFile*>(stream);
  uint64_t n = f->pos >= f->size ? 0 : std::min<uint64_t>(size, f->size - f->pos);
  std::memcpy(buf, f->data + f->pos, n);
  f->pos += n;
  return static_cast<uLong>(n);
}
uLong ZCALLBACK MemWrite(voidpf, voidpf, const void*, uLong) { return 0; }
ZPOS64_T ZCALLBACK MemTell(voidpf, voidpf stream) { return static_cast<MemFile*>(stream)->pos; }
long ZCALLBACK MemSeek(voidpf, voidpf stream, ZPOS64_T offset, int origin) {
  auto* f = static_cast<MemFile*>(stream);
  uint64_t base = origin == ZLIB_FILEFUNC_SEEK_SET ? 0 : origin == ZLIB_FILEFUNC_SEEK_CUR ? f->pos : f->size;
  uint64_t target = base + offset;
  if (target > f->size) return -1;
  f->pos = target;
  return 0;
}
int ZCALLBACK MemClose(voidpf, voidpf) { return 0; }
int ZCALLBACK MemError(voidpf, voidpf) { return 0; }

[[noreturn]] void Fail(const char* what) {
  throw RuntimeException(std::string("Cannot read the ZIP archive: ") + what, __FILE__, __LINE__);
}

}  // namespace
}  // namespace detail

std::string UnzipFirstEntry(const void* data, size_t size) {
  using detail::Fail;
  if (!data || size == 0) Fail("empty");
  detail::MemFile mf{static_cast<const unsigned char*>(data), size, 0};
  zlib_filefunc64_def ff{};
  ff.zopen64_file = detail::MemOpen;
  ff.zread_file = detail::MemRead;
  ff.zwrite_file = detail::MemWrite;
  ff.ztell64_file = detail::MemTell;
  ff.zseek64_file = detail::MemSeek;
  ff.zclose_file = detail::MemClose;
  ff.zerror_file = detail::MemError;
  ff.opaque = &mf;
  unzFile z = unzOpen2_64("memory", &ff);
  if (!z) Fail("not an archive");
  std::string out;
  unz_file_info64 info{};
  if (unzGoToFirstFile(z) != UNZ_OK || unzGetCurrentFileInfo64(z, &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK ||
      unzOpenCurrentFile(z) != UNZ_OK) {
    unzClose(z);
    Fail("no readable entry");
  }
  if (info.uncompressed_size > (uint64_t(1) << 30)) {
    unzCloseCurrentFile(z);
    unzClose(z);
    Fail("entry too large");
  }
  out.resize(static_cast<size_t>(info.uncompressed_size));
  int n = out.empty() ? 0 : unzReadCurrentFile(z, &out[0], static_cast<unsigned>(out.size()));
  int crc = unzCloseCurrentFile(z);
  unzClose(z);
  if (n < 0 || static_cast<size_t>(n) != out.size() || crc != UNZ_OK) Fail("entry is damaged");
  return out;
}

namespace detail {

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw RuntimeException("Cannot open file '" + path + "'", __FILE__, __LINE__);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

}  // namespace detail
}  // namespace KivGenApi
