// Test main shared by every test program: before anything can load the library
// or a producer, it gives this process machine-wide names of its own, so that
// test processes never meet each other, a running monitor or a real user.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// POSIX names outlive their processes: remove what this test process (and
// its children, which share the namespace) left behind.
void RemoveNamespaceObjects(const std::string& ns) {
  if (ns.empty()) return;
  DIR* dir = opendir("/dev/shm");
  if (!dir) return;
  while (dirent* e = readdir(dir)) {
    std::string name = e->d_name;
    if (name.size() >= ns.size() && name.find(ns) != std::string::npos) {
      unlink(("/dev/shm/" + name).c_str());
    }
  }
  closedir(dir);
}

}  // namespace

int main(int argc, char** argv) {
  bool own_namespace = false;
  if (!std::getenv("KIVCAM_IPC_NAMESPACE")) {
    own_namespace = true;
    char ns[64];
    auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
    std::snprintf(ns, sizeof ns, "_t%d_%llx", static_cast<int>(getpid()),
                  static_cast<unsigned long long>(ticks) & 0xffffffULL);
    setenv("KIVCAM_IPC_NAMESPACE", ns, 1);
  }
  ::testing::InitGoogleTest(&argc, argv);
  int rc = RUN_ALL_TESTS();
  if (own_namespace) RemoveNamespaceObjects(std::getenv("KIVCAM_IPC_NAMESPACE"));
  return rc;
}
