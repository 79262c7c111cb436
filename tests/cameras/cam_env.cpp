#include "cam_env.h"

#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "device.h"

namespace camtest {

namespace fs = std::filesystem;

std::string BuildDir() { return fs::read_symlink("/proc/self/exe").parent_path().parent_path().string(); }

std::string LibDir() { return BuildDir() + "/lib"; }

CamLib::CamLib(const std::string& path) {
  handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle_) return;
#define CAMTEST_BIND(name) name = reinterpret_cast<decltype(name)>(dlsym(handle_, #name));
  CAMTEST_EXPORTS(CAMTEST_BIND)
#undef CAMTEST_BIND
}

CamLib::~CamLib() {
  if (handle_) dlclose(handle_);
}

std::vector<CameraListEntry> CamLib::List() {
  CameraList head{};
  if (!KIVCAM_GetList(&head)) return {};
  uint32_t n = head.Count;
  std::vector<unsigned char> buf(KIVCAM_CAMERALIST_BYTES(n));
  auto* list = reinterpret_cast<CameraList*>(buf.data());
  list->Count = n;
  if (n == 0 || !KIVCAM_GetList(list)) return {};
  std::vector<CameraListEntry> out(list->Count);
  std::memcpy(out.data(), buf.data() + 4, sizeof(CameraListEntry) * out.size());
  return out;
}

uint32_t CamLib::ReadBE(HCAMERA camera, uint32_t address) {
  unsigned char b[4] = {};
  uint32_t size = 4;
  if (!KIVCAM_ReadPort(camera, address, b, &size)) return 0xDEADBEEF;
  return (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
}

Sim::Sim(const std::string& cti_path) {
  // Only the instance the library already loaded; never a second start.
  handle_ = dlopen(cti_path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
  if (!handle_) return;
#define SIM_BIND(field) field = reinterpret_cast<decltype(field)>(dlsym(handle_, "kivsim_" #field));
  CAMTEST_SIM_CONTROLS(SIM_BIND)
#undef SIM_BIND
}

Sim::~Sim() {
  if (handle_) dlclose(handle_);
}

LogDrain::LogDrain() {
  ok_ = reader_.Open();
  if (!ok_) return;
  reader_.Take();
  reader_.SetLevel(1);
  thread_ = std::thread([this] {
    while (!stop_) {
      reader_.Wait(100);
      Pull();
    }
  });
}

LogDrain::~LogDrain() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (ok_) reader_.SetLevel(0);
}

// Taking and storing under one lock: a line the drain thread has taken but
// not yet stored would otherwise be missed by a check running meanwhile.
void LogDrain::Pull() {
  std::lock_guard<std::mutex> g(mutex_);
  std::vector<std::string> got = reader_.Take();
  seen_.insert(seen_.end(), got.begin(), got.end());
  cv_.notify_all();
}

void LogDrain::Clear() {
  Pull();
  std::lock_guard<std::mutex> g(mutex_);
  seen_.clear();
}

static bool Holds(const std::string& l, const std::string& a, const std::string& b) {
  return l.find(a) != std::string::npos && l.find(b) != std::string::npos;
}

bool LogDrain::Has(const std::string& a, const std::string& b) const {
  return std::any_of(seen_.begin(), seen_.end(), [&](const std::string& l) { return Holds(l, a, b); });
}

std::string LogDrain::LineWith(const std::string& a, const std::string& b) {
  Pull();
  std::lock_guard<std::mutex> g(mutex_);
  auto it = std::find_if(seen_.begin(), seen_.end(), [&](const std::string& l) { return Holds(l, a, b); });
  return it == seen_.end() ? "" : *it;
}

std::vector<std::string> LogDrain::Tail(const std::string& a, size_t n) {
  Pull();
  std::lock_guard<std::mutex> g(mutex_);
  std::vector<std::string> out;
  for (auto it = seen_.rbegin(); it != seen_.rend() && out.size() < n; ++it)
    if (it->find(a) != std::string::npos) out.insert(out.begin(), *it);
  return out;
}

// Log lines are never empty.
bool LogDrain::Saw(const std::string& a, const std::string& b) { return !LineWith(a, b).empty(); }

bool LogDrain::WaitFor(const std::string& a, const std::string& b, int bound_ms) {
  Pull();
  std::unique_lock<std::mutex> g(mutex_);
  if (cv_.wait_for(g, std::chrono::milliseconds(bound_ms), [&] { return Has(a, b); })) return true;
  for (const auto& l : seen_) std::fprintf(stderr, "  log: %s", l.c_str());  // what did come
  return false;
}

void MakeDirs(const std::string& path) { fs::create_directories(path); }
void CopyFile(const std::string& from, const std::string& to) {
  fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

void CopyLibrary(const std::string& dir, const std::vector<std::string>& producers) {
  MakeDirs(dir);
  CopyFile(LibDir() + "/libkivcam.so", dir + "/libkivcam.so");
  for (const auto& p : producers) CopyFile(LibDir() + "/" + p, dir + "/" + p);
}

void CameraTest::SetUp() {
  static std::string base = std::getenv("KIVCAM_IPC_NAMESPACE") ? std::getenv("KIVCAM_IPC_NAMESPACE") : "_cam";
  static int counter = 0;
  std::string ns = base + "c" + std::to_string(++counter);
  setenv("KIVCAM_IPC_NAMESPACE", ns.c_str(), 1);
  temp_ = (fs::temp_directory_path() / ("kivcam" + ns)).string();
  fs::remove_all(temp_);
  MakeDirs(temp_ + "/appdata/Valdrix/KivCam");
  setenv("KIVCAM_COMMON_APPDATA", (temp_ + "/appdata").c_str(), 1);
  unsetenv("GENICAM_ROOT_V2_4");
  unsetenv("KIVSIM_CONFIG");
  log_ = std::make_unique<LogDrain>();
  ASSERT_TRUE(log_->ok());
}

void CameraTest::TearDown() {
  Unload();
  log_.reset();
  unsetenv("KIVSIM_CONFIG");
  unsetenv("GENICAM_ROOT_V2_4");
  std::error_code ec;
  fs::remove_all(temp_, ec);
}

void CameraTest::World(const std::string& text) {
  std::string path = temp_ + "/world.ini";
  std::ofstream(path) << text;
  setenv("KIVSIM_CONFIG", path.c_str(), 1);
}

void CameraTest::Load(const std::string& dir) {
  lib_dir_ = dir.empty() ? LibDir() : dir;
  lib_ = std::make_unique<CamLib>(lib_dir_ + "/libkivcam.so");
  ASSERT_TRUE(lib_->loaded());
  ASSERT_EQ(lib_->KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION), KIVCAM_TRUE);
}

void CameraTest::Unload() {
  gige_.reset();
  usb_.reset();
  lib_.reset();
}

Sim& CameraTest::GigE() {
  if (!gige_) gige_ = std::make_unique<Sim>(lib_dir_ + "/KivGigEGenTL.cti");
  return *gige_;
}

Sim& CameraTest::USB() {
  if (!usb_) usb_ = std::make_unique<Sim>(lib_dir_ + "/KivUSBGenTL.cti");
  return *usb_;
}

uint32_t CameraTest::CameraIndex(uint64_t uid, bool usb) {
  Sim& sim = usb ? USB() : GigE();
  return static_cast<uint32_t>(sim.camera_index(((usb ? "KivU3V::" : "KivGEV::") + std::to_string(uid)).c_str()));
}

CameraTest::Cam CameraTest::OpenOnDemand(uint64_t uid, bool usb) {
  Cam c;
  c.h = OpenUid(uid);
  c.sim = usb ? &USB() : &GigE();
  c.index = CameraIndex(uid, usb);
  EXPECT_EQ(c.sim->deliver(c.index, 0), 0);
  return c;
}

void CameraTest::Ready(const Cam& c) {
  ASSERT_EQ(lib_->KIVCAM_ResourceAlloc(c.h), KIVCAM_TRUE) << lib_->KIVCAM_GetLastError();
  ASSERT_EQ(lib_->KIVCAM_ImageStart(c.h), KIVCAM_TRUE) << lib_->KIVCAM_GetLastError();
}

ImageBuffer* CameraTest::Alloc(HCAMERA h) {
  ImageBuffer* b = nullptr;
  EXPECT_EQ(lib_->KIVCAM_ImageAlloc(h, &b), KIVCAM_TRUE) << lib_->KIVCAM_GetLastError();
  return b;
}

ImageBuffer* CameraTest::Started(const Cam& c) {
  EXPECT_EQ(lib_->KIVCAM_ResourceAlloc(c.h), KIVCAM_TRUE) << lib_->KIVCAM_GetLastError();
  ImageBuffer* b = Alloc(c.h);
  EXPECT_EQ(lib_->KIVCAM_ImageStart(c.h), KIVCAM_TRUE) << lib_->KIVCAM_GetLastError();
  return b;
}

void CameraTest::RequestOne(const Cam& c, ImageBuffer* buffer) {
  ASSERT_EQ(lib_->KIVCAM_ImageReq(c.h, buffer), KIVCAM_TRUE) << lib_->KIVCAM_GetLastError();
  ASSERT_EQ(c.sim->deliver(c.index, 1), 0);
}

uint32_t CameraTest::Grab(const Cam& c, ImageBuffer* buffer, ImageInfo* info) {
  // A failed request is already a failure; its completion then ends at once (not requested).
  RequestOne(c, buffer);
  return Err(lib_->KIVCAM_ImageComplete(c.h, buffer, kWait, info));
}

// Polls `done` every millisecond for at most 5 s.
static bool Eventually(const std::function<bool()>& done) {
  for (auto t0 = std::chrono::steady_clock::now(); std::chrono::steady_clock::now() - t0 < std::chrono::seconds(5);) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

bool CameraTest::WaitCounters(const Cam& c, const std::function<bool(const kivsim_counters&)>& done) {
  return Eventually([&] { return done(Counters(c)); });
}

bool WaitAsleep(pid_t tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  return Eventually([&] {
    std::ifstream in(path);
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The state follows the parenthesised name.
    const size_t end = stat.rfind(')');
    return end != std::string::npos && end + 2 < stat.size() && stat[end + 2] == 'S';
  });
}

bool CameraTest::WaitDelivered(const Cam& c, uint64_t n) {
  return WaitCounters(c, [n](const kivsim_counters& k) { return k.frames_delivered >= n; });
}

void CameraTest::Unplug(HCAMERA h, uint64_t uid, bool usb) {
  ASSERT_EQ((usb ? USB() : GigE()).plug(CameraIndex(uid, usb), 0), 0);
  uint32_t state = 1;
  ASSERT_EQ(lib_->KIVCAM_Camera(h, &state), KIVCAM_TRUE);  // the call itself succeeds
  ASSERT_EQ(state, 0u);
}

kivsim_counters CameraTest::Counters(const Cam& c) {
  kivsim_counters k{};
  c.sim->get_counters(c.index, &k);
  return k;
}

void CameraTest::WriteDataFile(const std::string& name, const std::string& text) {
  std::ofstream(DataFolder() + "/" + name, std::ios::binary) << text;
}

std::string AdditionalDescription(const std::string& body) {
  return "<?xml version=\"1.0\"?><RegisterDescription ModelName=\"x\" VendorName=\"y\" "
         "StandardNameSpace=\"GEV\" SchemaMajorVersion=\"1\" SchemaMinorVersion=\"1\" "
         "SchemaSubMinorVersion=\"0\" MajorVersion=\"1\" MinorVersion=\"0\" SubMinorVersion=\"0\" "
         "ProductGuid=\"1\" VersionGuid=\"2\" xmlns=\"http://www.genicam.org/GenApi/Version_1_1\">" +
         body + "</RegisterDescription>";
}

std::string DefaultDescription() {
  return kivsim::BuildDescription(kivsim::Transport::GigE, kivsim::DefaultWorld(kivsim::Transport::GigE).cameras[0]);
}

}  // namespace camtest
