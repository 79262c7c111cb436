#include "fake_port.h"

namespace kivtest {

void FakePort::Read(void* buf, int64_t address, int64_t length) {
  if (fail) throw std::runtime_error("Unable to Read Register");
  Bytes bytes = Peek(address, length);
  std::copy(bytes.begin(), bytes.end(), static_cast<uint8_t*>(buf));
  log.push_back(Access{false, address, length, std::move(bytes)});
}

void FakePort::Write(const void* buf, int64_t address, int64_t length) {
  if (fail) throw std::runtime_error("Unable to Write Register");
  const auto* p = static_cast<const uint8_t*>(buf);
  log.push_back(Access{true, address, length, Bytes(p, p + length)});
  Poke(address, log.back().bytes);
}

Bytes FakePort::Peek(int64_t address, int64_t length) const {
  Bytes out;
  for (int64_t i = 0; i < length; ++i) {
    auto it = memory.find(address + i);
    out.push_back(it == memory.end() ? 0 : it->second);
  }
  return out;
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
