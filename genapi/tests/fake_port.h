// A register space in memory that records every access, and helpers that
// wrap node XML into a complete description.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "kivgenapi/KivGenApi.h"

namespace kivtest {

using Bytes = std::vector<uint8_t>;

class FakePort : public KivGenApi::IPort {
 public:
  struct Access {
    bool write;
    int64_t address;
    int64_t length;
    Bytes bytes;
  };
  KivGenApi::EAccessMode GetAccessMode() const override { return mode; }
  void Read(void* buf, int64_t address, int64_t length) override;
  void Write(const void* buf, int64_t address, int64_t length) override;

  void Poke(int64_t address, const Bytes& bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) memory[address + static_cast<int64_t>(i)] = bytes[i];
  }
  Bytes Peek(int64_t address, int64_t length) const;
  void PokeU32BE(int64_t a, uint32_t v) { Poke(a, {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}); }
  void PokeU32LE(int64_t a, uint32_t v) { Poke(a, {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}); }
  size_t Reads() const { return log.size() - Writes(); }
  size_t Writes() const {
    return static_cast<size_t>(std::count_if(log.begin(), log.end(), [](const Access& a) { return a.write; }));
  }
  void Clear() { log.clear(); }

  KivGenApi::EAccessMode mode = KivGenApi::RW;
  bool fail = false;  // every access throws std::runtime_error
  std::map<int64_t, uint8_t> memory;
  std::vector<Access> log;
};

// Wraps node elements into a RegisterDescription with one port "Device".
std::string Describe(const std::string& nodes, bool with_port = true);

// A loaded map connected to its own fake port.
struct Fixture {
  explicit Fixture(const std::string& nodes);
  KivGenApi::CNodeMapRef map;
  FakePort port;
  KivGenApi::INode* Node(const char* name) const { return map._GetNode(name); }
};

}  // namespace kivtest
