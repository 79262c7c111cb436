// A network of the test's own: the test process leaves the machine's network
// namespace for a new, empty one (as root: unshare --net), and builds veth
// pairs there. Nothing a test sends can reach a real network from it.
#pragma once
#include <cstdint>
#include <string>

namespace gevtest {

// Set in a test's child processes: they share the parent's namespace.
constexpr char kSharedNetwork[] = "GEVTEST_SHARED_NETWORK";

// Enters a new network namespace once per process, with the loopback up.
// False (and why) where the system refuses, e.g. without root.
bool EnterPrivateNetwork(std::string* why);

// Link n: a veth pair hN (10.(11+n).0.1/24, the host side) and cN
// (10.(11+n).0.2/24, where cameras live), both in this namespace.
bool AddLink(int n, std::string* why);
inline uint32_t HostIp(int n) { return (10u << 24) | uint32_t(11 + n) << 16 | 1; }
inline uint32_t CameraIp(int n, int k = 0) { return (10u << 24) | uint32_t(11 + n) << 16 | uint32_t(2 + k); }
// Adds a further address to an interface of the namespace.
bool AddAddress(const std::string& dev, const std::string& cidr, std::string* why);

// Runs a command of the namespace's own (iproute2, sysctl); false when it fails.
bool Run(const std::string& command, std::string* why);

}  // namespace gevtest
