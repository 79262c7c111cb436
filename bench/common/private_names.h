// Machine-wide names of a benchmark run's own (KIVCAM_IPC_NAMESPACE), so a
// monitor or another run is never met; what the run left in /dev/shm under
// them goes when the object does. Create it before the library is loaded.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace kivbench {

class PrivateNames {
 public:
  explicit PrivateNames(const char* prefix) {
    char ns[64];
    std::snprintf(ns, sizeof ns, "_%s%d", prefix, static_cast<int>(getpid()));
    ns_ = ns;
    setenv("KIVCAM_IPC_NAMESPACE", ns, 1);
  }
  PrivateNames(const PrivateNames&) = delete;
  PrivateNames& operator=(const PrivateNames&) = delete;
  ~PrivateNames() {
    DIR* dir = opendir("/dev/shm");
    if (!dir) return;
    while (dirent* e = readdir(dir)) {
      const std::string name = e->d_name;
      if (name.find(ns_) != std::string::npos) unlink(("/dev/shm/" + name).c_str());
    }
    closedir(dir);
  }

 private:
  std::string ns_;
};

}  // namespace kivbench
