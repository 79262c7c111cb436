// Behaviour across processes: exclusive access and watch mode. The test
// program re-runs itself as the other process, in a role selected by the
// environment; the two talk over pipes, so every step waits for the other's
// message instead of for time to pass.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "gentl_api.h"

namespace {

constexpr const char* kRoleVar = "KIVSIM_TEST_ROLE";

struct Channel {
  int in = -1, out = -1;
  void Send(char c) { ASSERT_EQ(write(out, &c, 1), 1); }
  char Receive() {
    char c = 0;
    return read(in, &c, 1) == 1 ? c : '\0';
  }
};

// Runs this test program as a child in `role`; returns the parent's end of the pipes.
struct Child {
  pid_t pid = -1;
  Channel ch;
  void Start(const char* role, const char* test, const std::string& extra_env = "") {
    int to_child[2], from_child[2];
    ASSERT_EQ(pipe(to_child), 0);
    ASSERT_EQ(pipe(from_child), 0);
    // Everything the child needs is prepared before the fork: between fork and
    // exec a threaded process may only make async-signal-safe calls.
    std::vector<std::string> env;
    const std::string key = extra_env.substr(0, extra_env.find('=') + 1);  // replaced by `extra_env`
    for (char** e = environ; *e; ++e)
      if (key.empty() || std::strncmp(*e, key.c_str(), key.size()) != 0) env.emplace_back(*e);
    if (!key.empty()) env.push_back(extra_env);
    env.push_back(std::string(kRoleVar) + "=" + role);
    env.push_back("KIVSIM_TEST_FDS=" + std::to_string(to_child[0]) + "," + std::to_string(from_child[1]));
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string filter = std::string("--gtest_filter=") + test;
    char name[] = "kivsim_child";
    char* argv[] = {name, filter.data(), nullptr};
    pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(to_child[1]);  // so that the child sees end-of-file if this process dies
      close(from_child[0]);
      execve("/proc/self/exe", argv, envp.data());
      _exit(127);
    }
    close(to_child[0]);
    close(from_child[1]);
    ch.in = from_child[0];
    ch.out = to_child[1];
  }
  int Finish() {
    close(ch.out);
    close(ch.in);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

// In a child: the pipes to the parent, or nothing when run as an ordinary test.
bool ChildChannel(const char* role, Channel* ch) {
  const char* r = std::getenv(kRoleVar);
  const char* fds = std::getenv("KIVSIM_TEST_FDS");
  if (!r || std::strcmp(r, role) != 0 || !fds) return false;
  ch->in = std::atoi(fds);
  ch->out = std::atoi(std::strchr(fds, ',') + 1);
  return true;
}

class CrossProcess : public ProducerTest {
 protected:
  // Registers the new-buffer event, queues `mem` as the only buffer and lets the stream run.
  void StartOneBuffer(DS_HANDLE ds, std::vector<uint8_t>& mem, EVENT_HANDLE* ev, BUFFER_HANDLE* b) {
    ASSERT_EQ(p.GCRegisterEvent(ds, EVENT_NEW_BUFFER, ev), GC_ERR_SUCCESS);
    ASSERT_EQ(p.DSAnnounceBuffer(ds, mem.data(), mem.size(), nullptr, b), GC_ERR_SUCCESS);
    ASSERT_EQ(p.DSQueueBuffer(ds, *b), GC_ERR_SUCCESS);
    ASSERT_EQ(p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
    ASSERT_EQ(WriteModule(ds, KIVSIM_DS_RUNNING, 1), GC_ERR_SUCCESS);
  }
  GC_ERROR NextFrame(EVENT_HANDLE ev) {
    EVENT_NEW_BUFFER_DATA e;
    size_t n = sizeof e;
    return p.EventGetData(ev, &e, &n, 10000);
  }
};

// Child role: holds camera 0 exclusively until told to let go.
TEST_F(CrossProcess, HolderRole) {
  Channel ch;
  if (!ChildChannel("holder", &ch)) GTEST_SKIP() << "runs only as the child of ExclusiveAccessAcrossProcesses";
  DEV_HANDLE d = Open(0);
  ASSERT_NE(d, nullptr);
  ch.Send('o');
  EXPECT_EQ(ch.Receive(), 'c');
  EXPECT_EQ(p.DevClose(d), GC_ERR_SUCCESS);
  ch.Send('d');
}

TEST_F(CrossProcess, ExclusiveAccessAcrossProcesses) {
  Child child;
  child.Start("holder", "CrossProcess.HolderRole");
  ASSERT_EQ(child.ch.Receive(), 'o') << "the child could not open the camera";
  auto [h, id] = Camera(0);
  DEV_HANDLE d = nullptr;
  EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_EXCLUSIVE, &d), GC_ERR_ACCESS_DENIED);
  EXPECT_EQ(p.LastError(), "Device already open");
  EXPECT_EQ(AccessStatus(h, id), DEVICE_ACCESS_STATUS_BUSY);
  // The other camera is free, and this one can still be watched.
  EXPECT_NE(Open(1), nullptr);
  ASSERT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_READONLY, &d), GC_ERR_SUCCESS);
  PORT_HANDLE port = Port(d);
  EXPECT_EQ(Read32(port, 0xA000, true), 640u);
  EXPECT_EQ(Write32(port, 0xA000, 320, true), GC_ERR_ACCESS_DENIED);
  ASSERT_EQ(p.DevClose(d), GC_ERR_SUCCESS);
  child.ch.Send('c');
  EXPECT_EQ(child.ch.Receive(), 'd');
  EXPECT_EQ(child.Finish(), 0);
  d = nullptr;
  EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_EXCLUSIVE, &d), GC_ERR_SUCCESS) << "free once released";
}

TEST_F(CrossProcess, DeadHolderReleasesTheCamera) {
  Child child;
  child.Start("holder", "CrossProcess.HolderRole");
  ASSERT_EQ(child.ch.Receive(), 'o');
  kill(child.pid, SIGKILL);
  child.Finish();
  auto [h, id] = Camera(0);
  DEV_HANDLE d = nullptr;
  EXPECT_EQ(p.IFOpenDevice(h, id.c_str(), DEVICE_ACCESS_EXCLUSIVE, &d), GC_ERR_SUCCESS);
}

// Child role: controls camera 0 and streams to a multicast group on demand.
TEST_F(CrossProcess, ControllerRole) {
  Channel ch;
  if (!ChildChannel("controller", &ch)) GTEST_SKIP() << "runs only as the child of WatcherSeesTheControllersStream";
  ASSERT_EQ(p.kivsim_deliver(0, 0), 0);
  DEV_HANDLE d = Open(0);
  PORT_HANDLE port = Port(d);
  DS_HANDLE ds = Stream(d, 0);
  ASSERT_EQ(Write32(port, 0xA000, 64, true), GC_ERR_SUCCESS);
  ASSERT_EQ(Write32(port, 0xA004, 8, true), GC_ERR_SUCCESS);
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_GIGE_DESTINATION, 0xEF010101), GC_ERR_SUCCESS);
  EVENT_HANDLE ev;
  std::vector<uint8_t> mem(4096);
  BUFFER_HANDLE b;
  ASSERT_NO_FATAL_FAILURE(StartOneBuffer(ds, mem, &ev, &b));
  ASSERT_EQ(Write32(port, 0xA01C, 1, true), GC_ERR_SUCCESS);
  ch.Send('r');
  ASSERT_EQ(ch.Receive(), 'g');
  ASSERT_EQ(p.kivsim_deliver(0, 1), 0);
  ASSERT_EQ(NextFrame(ev), GC_ERR_SUCCESS);
  ch.Send(static_cast<char>(mem[3]));
  EXPECT_EQ(ch.Receive(), 'q');
}

TEST_F(CrossProcess, WatcherSeesTheControllersStream) {
  Child child;
  child.Start("controller", "CrossProcess.ControllerRole");
  ASSERT_EQ(child.ch.Receive(), 'r') << "the controller did not get ready";
  DEV_HANDLE d = Open(0, DEVICE_ACCESS_READONLY);
  ASSERT_NE(d, nullptr);
  PORT_HANDLE port = Port(d);
  EXPECT_NE(Read32(port, 0x0D00, true), 0u) << "stream channel open";
  EXPECT_EQ(Read32(port, 0x0D18, true), 0xEF010101u) << "the controller's multicast group";
  EXPECT_EQ(Read32(port, 0xA000, true), 64u) << "the controller's settings";
  DS_HANDLE ds = Stream(d, 0);
  EXPECT_EQ(WriteModule(ds, KIVSIM_DS_GIGE_DESTINATION, 1), GC_ERR_ACCESS_DENIED);
  EVENT_HANDLE ev;
  std::vector<uint8_t> mem(4096);
  BUFFER_HANDLE b;
  ASSERT_NO_FATAL_FAILURE(StartOneBuffer(ds, mem, &ev, &b));
  child.ch.Send('g');
  ASSERT_EQ(NextFrame(ev), GC_ERR_SUCCESS) << "no frame reached the watcher";
  EXPECT_EQ(BufferInfo<uint64_t>(ds, b, BUFFER_INFO_FRAMEID), 1u);
  for (uint32_t x = 0; x < 64; ++x) ASSERT_EQ(mem[64 + x], Pattern8(x, 1, 0, 0));
  char seen = child.ch.Receive();
  EXPECT_EQ(static_cast<uint8_t>(seen), mem[3]) << "both processes got the same frame";
  child.ch.Send('q');
  EXPECT_EQ(child.Finish(), 0);
}

// Child role: uses a camera and leaves the process without GCCloseLib, as a
// host that leaves its producers to the system at exit does.
TEST(ExitWithoutClose, LeaverRole) {
  Channel ch;
  if (!ChildChannel("leaver", &ch)) GTEST_SKIP() << "runs only as the child of SharedStateGoesWithTheLastUser";
  Producer& p = Producer::Get(false);
  ASSERT_EQ(p.GCInitLib(), GC_ERR_SUCCESS);
  TL_HANDLE tl;
  ASSERT_EQ(p.TLOpen(&tl), GC_ERR_SUCCESS);
  ch.Send('o');
  if (ch.Receive() == 'x') std::exit(0);
}

TEST(ExitWithoutClose, SharedStateGoesWithTheLastUser) {
  const std::string ns = "_leaver" + std::to_string(getpid());
  Child child;
  child.Start("leaver", "ExitWithoutClose.LeaverRole", "KIVCAM_IPC_NAMESPACE=" + ns);
  ASSERT_EQ(child.ch.Receive(), 'o');
  const std::string name = "/KivSimGigEState" + ns;
  int fd = shm_open(name.c_str(), O_RDONLY, 0);
  EXPECT_GE(fd, 0) << "the child's producer state exists while it runs";
  if (fd >= 0) close(fd);
  child.ch.Send('x');
  EXPECT_EQ(child.Finish(), 0);
  fd = shm_open(name.c_str(), O_RDONLY, 0);
  EXPECT_LT(fd, 0) << "left behind by a process that exited without GCCloseLib";
  if (fd >= 0) {
    close(fd);
    shm_unlink(name.c_str());
  }
}

}  // namespace
