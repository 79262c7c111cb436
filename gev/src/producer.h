// The network GigE Vision producer's GenTL modules. Every module a host gets
// a handle to is owned by the producer's registry through a shared pointer;
// an entry point holds its own reference for the length of the call, so a
// module closed by another thread meanwhile is torn down but not freed under
// it. Parents outlive their children: a child keeps a reference to its parent.
#pragma once
#include <kivgentl/gentl.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gvcp_client.h"
#include "net.h"
#include "producer_support.h"
#include "wire.h"

namespace kivgev {

enum class Kind : uint32_t { System = 1, Interface, Device, Port, Stream, Buffer, Event };

struct Module : std::enable_shared_from_this<Module> {
  explicit Module(Kind k) : kind(k) {}
  virtual ~Module() = default;
  const Kind kind;
};

struct Settings {
  std::vector<std::string> interfaces;  // empty: all
  std::vector<uint32_t> devices;        // unicast discovery targets
  uint32_t discovery_ms = 300, watch_ms = 2000;
  uint32_t timeout_ms = 200, retries = 3;
  uint32_t packet_timeout_ms = 20, frame_timeout_ms = 200;
  size_t socket_buffer = 32u << 20;
  ReceivePath receive = ReceivePath::Auto;
  static Settings FromEnvironment();
};

using kivgentl::BadPtr;
using kivgentl::PutInfo;
using kivgentl::PutString;
using kivgentl::PutValue;
using kivgentl::SetError;
// A GVCP failure as a GenTL error with the device's words.
GC_ERROR FromGvcp(const GvcpResult& r);

struct Event;

// A module with events. Its lock guards its own state and its events; the
// condition wakes whoever waits on one of them.
struct EventSource : Module {
  using Module::Module;
  std::mutex mu;
  std::condition_variable cv;
  std::map<EVENT_TYPE, std::shared_ptr<Event>> events;

  virtual bool Supports(EVENT_TYPE type) const { return type == EVENT_ERROR; }
  // What waits for the event, and taking one item (lock held).
  virtual size_t Pending(Event& e);
  virtual void Take(Event& e, std::vector<uint8_t>* item);
  // Set when nothing will ever come again (the device is gone).
  virtual bool Broken() const { return false; }
  void Push(EVENT_TYPE type, const void* data, size_t n);  // lock held
  void DropEvents();                                         // lock held
};

struct Event : Module {
  Event() : Module(Kind::Event) {}
  std::shared_ptr<EventSource> source;
  EVENT_TYPE type = 0;
  std::deque<std::vector<uint8_t>> queue;
  uint32_t kills = 0;
  uint64_t fired = 0;
  bool dead = false;
};

struct DeviceRecord {
  std::string id;
  uint64_t uid = 0;
  uint32_t ip = 0;
  DiscoveryInfo info;
};

struct Producer;
struct Device;

struct Interface : EventSource {
  Interface() : EventSource(Kind::Interface) {}
  ~Interface() override;
  Producer* prod = nullptr;
  NetInterface net;
  std::string id;
  std::vector<DeviceRecord> listed;  // as of the last IFUpdateDeviceList
  bool updated = false;
  std::map<std::string, std::weak_ptr<Device>> open;
  std::thread watcher;
  bool stop = false;
  std::vector<std::string> watched;  // IDs the background discovery saw last

  bool Supports(EVENT_TYPE type) const override { return type == EVENT_ERROR || type == EVENT_CUSTOM_ID; }
  // One discovery round on this interface (no lock held).
  std::vector<DeviceRecord> Discover(uint32_t window_ms) const;
  const DeviceRecord* Find(const std::string& device_id) const;  // lock held
  void Close();
  void StartWatcher();
};

struct System : EventSource {
  System() : EventSource(Kind::System) {}
  std::vector<NetInterface> listed;
  bool updated = false;
  std::map<std::string, std::shared_ptr<Interface>> open;
};

struct Stream;

struct RemotePort : Module {
  RemotePort() : Module(Kind::Port) {}
  std::weak_ptr<Device> device;
};

struct Device : EventSource {
  Device() : EventSource(Kind::Device) {}
  ~Device() override;
  Producer* prod = nullptr;
  std::shared_ptr<Interface> iface;
  DeviceRecord rec;
  DEVICE_ACCESS_FLAGS access = DEVICE_ACCESS_READONLY;
  GvcpClient gvcp;
  std::shared_ptr<RemotePort> port;
  std::vector<std::weak_ptr<Stream>> streams;
  uint32_t version = 0, capability = 0;
  // Device-module registers.
  uint32_t test_result = 0, destination = 0, heartbeat_ms = 0, command_timeout = 0, reset_requests = 0;
  uint32_t heartbeat_changes = 0;
  std::atomic<bool> lost{false};
  std::string lost_why;  // set once, with the lock, before `lost`
  std::thread heartbeat;
  bool stop = false;

  bool writable() const { return access != DEVICE_ACCESS_READONLY; }
  void StartHeartbeat();
  void MarkLost(const std::string& why);
  GC_ERROR LostError();  // "the camera was lost" with the reason
  void Close();
  GC_ERROR StreamTest(uint32_t timeout_ms);
};

struct Buffer : Module {
  Buffer() : Module(Kind::Buffer) {}
  Stream* stream = nullptr;
  uint8_t* base = nullptr;
  size_t size = 0;
  void* user = nullptr;
  std::unique_ptr<uint8_t[]> owned;
  enum State { Idle, Input, Filling, Output } state = Idle;
  bool new_data = false, incomplete = false, too_small = false;
  size_t filled = 0;
  uint64_t frame_id = 0, timestamp = 0;
  uint32_t status = 0, value = 0;
  uint32_t width = 0, height = 0, offset_x = 0, offset_y = 0, pixel_format = 0;
};

struct Receiver;

struct Stream : EventSource {
  Stream();
  ~Stream() override;
  std::shared_ptr<Device> device;
  uint32_t index = 0;
  std::string id;
  std::vector<std::shared_ptr<Buffer>> buffers;
  std::deque<Buffer*> input, output;
  bool started = false;
  uint64_t to_acquire = 0, delivered_since_start = 0, delivered = 0, underruns = 0, starts = 0;
  std::map<uint32_t, uint32_t> regs;  // data-stream module registers
  uint32_t log[6] = {};               // packet log
  std::atomic<uint64_t> stale{0}, malformed{0}, resend_requests{0}, zero_copy{0};
  uint32_t packet_size = 0;      // of the channel, as read at the start
  bool destination_set = false;  // register 0x104 was written (0 included)
  std::unique_ptr<Receiver> receiver;  // image streams only

  bool Supports(EVENT_TYPE type) const override { return type == EVENT_ERROR || type == EVENT_NEW_BUFFER; }
  size_t Pending(Event& e) override;
  void Take(Event& e, std::vector<uint8_t>* item) override;
  bool Broken() const override { return device->lost; }
  uint32_t Reg(uint32_t r) const {
    auto it = regs.find(r);
    return it == regs.end() ? 0 : it->second;
  }
  bool Running() const;  // lock held
  // Hands a filled buffer to the host (lock held).
  void Deliver(Buffer* b);
  // One token to every started stream that follows this one (no lock held).
  void DeliverTokens(bool running);
  void Close();
  // The stream channel: destination set by register 0x104, started and stopped with acquisition.
  GC_ERROR SetDestination(uint32_t ip);
  GC_ERROR OpenChannel(uint32_t ip);
  GC_ERROR StartReceiver();
  void StopReceiver();
};

struct Producer {
  Settings settings;
  std::mutex mu;  // the registry and the system module
  std::map<const void*, std::shared_ptr<Module>> live;
  std::shared_ptr<System> system;

  template <class T>
  std::shared_ptr<T> Find(const void* h, Kind k) {
    if (BadPtr(h)) return nullptr;
    std::lock_guard<std::mutex> l(mu);
    auto it = live.find(h);
    if (it == live.end() || it->second->kind != k) return nullptr;
    return std::static_pointer_cast<T>(it->second);
  }
  std::shared_ptr<Module> FindAny(const void* h) {
    std::lock_guard<std::mutex> l(mu);
    auto it = live.find(h);
    return it == live.end() ? nullptr : it->second;
  }
  void Add(const std::shared_ptr<Module>& m) {
    std::lock_guard<std::mutex> l(mu);
    live[m.get()] = m;
  }
  void Remove(const void* h) {
    std::lock_guard<std::mutex> l(mu);
    live.erase(h);
  }
};

std::shared_ptr<Producer> CurrentProducer();

// Device information commands shared by IFGetDeviceInfo and DevGetInfo.
GC_ERROR DeviceInfo(const DeviceRecord& rec, const Interface& iface, const Device* open, DEVICE_INFO_CMD cmd,
                    INFO_DATATYPE* t, void* b, size_t* n);
std::string DeviceIdOf(const DiscoveryInfo& info, uint32_t ip);

}  // namespace kivgev

#define KIVGEV_ENTRY()                                     \
  auto prod_ = ::kivgev::CurrentProducer();                \
  if (!prod_)                                              \
  return ::kivgev::SetError(GC_ERR_NOT_INITIALIZED, "Library not initialised")

#define KIVGEV_HANDLE(T, var, handle, what)                               \
  auto var = prod_->Find<::kivgev::T>(handle, ::kivgev::Kind::T);        \
  if (!var) return ::kivgev::SetError(GC_ERR_INVALID_HANDLE, "Invalid " what " handle")
