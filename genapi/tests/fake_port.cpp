#include "fake_port.h"

namespace kivtest {

void FakePort::Read(void* buf, int64_t address, int64_t length) {
  if (fail) throw std::runtime_error("Unable to Read Register");
  auto* p = static_cast<uint8_t*>(buf);
  Access a{false, address, length, {}};
  for (int64_t i = 0; i < length; ++i) {
    auto it = memory.find(address + i);
    p[i] = it == memory.end() ? 0 : it->second;
    a.bytes.push_back(p[i]);
  }
  log.push_back(std::move(a));
}

void FakePort::Write(const void* buf, int64_t address, int64_t length) {
  if (fail) throw std::runtime_error("Unable to Write Register");
  const auto* p = static_cast<const uint8_t*>(buf);
  log.push_back(Access{true, address, length, std::vector<uint8_t>(p, p + length)});
  for (int64_t i = 0; i < length; ++i) memory[address + i] = p[i];
}

void FakePort::Poke(int64_t address, std::vector<uint8_t> bytes) {
  for (size_t i = 0; i < bytes.size(); ++i) memory[address + static_cast<int64_t>(i)] = bytes[i];
}

std::vector<uint8_t> FakePort::Peek(int64_t address, int64_t length) const {
  std::vector<uint8_t> out;
  for (int64_t i = 0; i < length; ++i) {
    auto it = memory.find(address + i);
    out.push_back(it == memory.end() ? 0 : it->second);
  }
  return out;
}

void FakePort::PokeU32BE(int64_t a, uint32_t v) {
  Poke(a, {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
}
void FakePort::PokeU32LE(int64_t a, uint32_t v) {
  Poke(a, {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)});
}

size_t FakePort::Reads() const {
  size_t n = 0;
  for (const auto& a : log) n += !a.write;
  return n;
}
size_t FakePort::Writes() const {
  size_t n = 0;
  for (const auto& a : log) n += a.write;
  return n;
}

std::string Describe(const std::string& nodes, bool with_port) {
  return std::string(
             "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
             "<RegisterDescription ModelName=\"Test\" VendorName=\"Kiv\" ToolTip=\"t\" StandardNameSpace=\"None\" "
             "SchemaMajorVersion=\"1\" SchemaMinorVersion=\"1\" SchemaSubMinorVersion=\"0\" MajorVersion=\"1\" "
             "MinorVersion=\"0\" SubMinorVersion=\"0\" ProductGuid=\"00000000-0000-0000-0000-000000000000\" "
             "VersionGuid=\"00000000-0000-0000-0000-000000000000\" "
             "xmlns=\"http://www.genicam.org/GenApi/Version_1_1\">\n") +
         (with_port ? "<Port Name=\"Device\"/>\n" : "") + nodes + "\n</RegisterDescription>\n";
}

Fixture::Fixture(const std::string& nodes) {
  map._LoadXMLFromString(Describe(nodes));
  if (!map._Connect(&port, "Device")) throw std::runtime_error("no Device port");
}

}  // namespace kivtest
