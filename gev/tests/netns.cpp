#include "netns.h"

#include "net.h"

#include <net/if.h>
#include <sched.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <chrono>
#include <set>
#include <thread>

namespace gevtest {

namespace {
bool g_entered = false;
std::set<int> g_links;
}  // namespace

bool Run(const std::string& command, std::string* why) {
  const std::string quiet = command + " >/dev/null 2>&1";
  int rc = std::system(quiet.c_str());
  if (rc != 0) {
    *why = "'" + command + "' failed (" + std::to_string(WEXITSTATUS(rc)) + ")";
    return false;
  }
  return true;
}

bool EnterPrivateNetwork(std::string* why) {
  if (g_entered) return true;
  if (std::getenv(kSharedNetwork)) {
    // A child of a test: it stays in its parent's namespace, links and all.
    g_entered = true;
    for (int n = 0; n < 8; ++n) g_links.insert(n);
    return true;
  }
  if (unshare(CLONE_NEWNET) != 0) {
    *why = std::string("a network namespace of its own is refused (unshare: ") + std::strerror(errno) +
           "); run the network tests as root, as CI does";
    return false;
  }
  // A fresh namespace holds the loopback and nothing else: prove it before any packet leaves.
  struct if_nameindex* names = if_nameindex();
  int count = 0;
  bool only_lo = true;
  for (struct if_nameindex* n = names; n && n->if_index; ++n, ++count) only_lo &= std::strcmp(n->if_name, "lo") == 0;
  if_freenameindex(names);
  if (!only_lo || count != 1) {
    *why = "the new network namespace is not empty";
    std::abort();  // never go on sending in a namespace we did not make
  }
  // Cameras and hosts share this namespace: datagrams from a local address
  // arriving on a veth must be taken, and multicast needs the loopback too.
  if (!Run("ip link set lo up", why) || !Run("sysctl -w net.ipv4.conf.all.accept_local=1", why) ||
      !Run("sysctl -w net.ipv4.conf.all.rp_filter=0", why) || !Run("sysctl -w net.ipv4.conf.default.rp_filter=0", why) ||
      !Run("sysctl -w net.ipv4.conf.default.accept_local=1", why))
    return false;
  g_entered = true;
  return true;
}

bool AddLink(int n, std::string* why) {
  if (g_links.count(n)) return true;
  const std::string h = "h" + std::to_string(n), c = "c" + std::to_string(n);
  const std::string net = "10." + std::to_string(11 + n) + ".0.";
  if (!Run("ip link add " + h + " type veth peer name " + c, why)) {
    *why += ": veth pairs are needed for the network tests";
    return false;
  }
  for (const std::string& d : {h, c})
    if (!Run("sysctl -w net.ipv4.conf." + d + ".accept_local=1", why) ||
        !Run("sysctl -w net.ipv4.conf." + d + ".rp_filter=0", why))
      return false;
  if (!Run("ip addr add " + net + "1/24 dev " + h, why) || !Run("ip addr add " + net + "2/24 dev " + c, why) ||
      !Run("ip link set " + h + " up", why) || !Run("ip link set " + c + " up", why))
    return false;
  // A veth reports its carrier a moment after it is set up.
  auto running = [&] {
    int up = 0;
    for (const kivgev::NetInterface& i : kivgev::ListInterfaces()) up += (i.name == h || i.name == c) && i.up;
    return up == 2;
  };
  for (int i = 0; i < 2000 && !running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (!running()) {
    *why = h + " and " + c + " did not come up";
    return false;
  }
  g_links.insert(n);
  return true;
}

bool AddAddress(const std::string& dev, const std::string& cidr, std::string* why) {
  std::string ignored;
  Run("ip addr del " + cidr + " dev " + dev, &ignored);
  return Run("ip addr add " + cidr + " dev " + dev, why);
}

}  // namespace gevtest
