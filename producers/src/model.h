// Process-local GenTL modules of a virtual producer and their shared helpers.
#pragma once
#include <kivgentl/gentl.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "device.h"
#include "producer_support.h"
#include "shared.h"
#include "world.h"

namespace kivsim {

using kivgentl::BadPtr;
using kivgentl::PutInfo;
using kivgentl::PutString;
using kivgentl::PutValue;
using kivgentl::SetError;


enum class ObjType : uint32_t { System = 1, Interface, Device, RemotePort, Stream, Buffer, Event };

struct Obj {
  explicit Obj(ObjType t) : type(t) {}
  virtual ~Obj() = default;
  ObjType type;
};

struct Event;
struct Stream;
struct Device;
struct Interface;

// Modules that can be an event source keep their registered events here.
struct EventSource : Obj {
  using Obj::Obj;
  std::map<EVENT_TYPE, Event*> events;
};

struct Buffer : Obj {
  Buffer() : Obj(ObjType::Buffer) {}
  Stream* stream = nullptr;
  uint8_t* base = nullptr;
  size_t size = 0;
  void* user = nullptr;
  std::unique_ptr<uint8_t[]> owned;  // producer-allocated memory
  enum State { Idle, Input, Output } state = Idle;
  bool new_data = false, incomplete = false, too_small = false;
  size_t filled = 0;
  uint64_t frame_id = 0, timestamp = 0;
  uint32_t status = 0, value = 0;
  FrameGeometry geometry;
};

struct Event : Obj {
  Event() : Obj(ObjType::Event) {}
  EventSource* source = nullptr;
  EVENT_TYPE kind = 0;
  std::deque<std::vector<uint8_t>> queue;  // non-buffer events
  uint32_t kills = 0;
  uint64_t fired = 0;
  // Shared, so that the engine can wake waiters after giving up the producer
  // lock, when the event may already be unregistered and freed.
  std::shared_ptr<std::condition_variable> cv = std::make_shared<std::condition_variable>();
  // An event outlives its registration while a waiter still holds it.
  int waiters = 0;
  bool dead = false;
};

struct Stream : EventSource {
  Stream() : EventSource(ObjType::Stream) {}
  Device* device = nullptr;
  uint32_t index = 0;
  std::string id;
  std::vector<Buffer*> buffers;  // announcement order
  std::deque<Buffer*> input, output;
  bool started = false;
  bool producer_alloc = false, caller_alloc = false;
  uint64_t to_acquire = 0, delivered_since_start = 0;
  uint64_t delivered = 0, underruns = 0, starts = 0;
  std::map<uint32_t, uint32_t> regs;
  uint32_t log[6] = {0, 0, 0, 0, 0, 0};
};

struct RemotePort : Obj {
  RemotePort() : Obj(ObjType::RemotePort) {}
  Device* device = nullptr;
};

struct Device : EventSource {
  Device() : EventSource(ObjType::Device) {}
  Interface* iface = nullptr;
  uint32_t cam = 0;
  DEVICE_ACCESS_FLAGS access = DEVICE_ACCESS_READONLY;
  RemotePort port;
  std::vector<Stream*> streams;  // by index; null when not open
  std::thread engine;
  std::atomic<bool> stop{false};
  std::atomic<uint32_t> ready_buffers{0};
  uint64_t first_seen = 0;  // frames the camera had produced when this process opened it  // input buffers of started streams, for unlimited free-run
  bool writable() const { return access != DEVICE_ACCESS_READONLY; }
};

struct Interface : EventSource {
  Interface() : EventSource(ObjType::Interface) {}
  uint32_t index = 0;
  std::vector<uint32_t> listed;  // cameras of the last IFUpdateDeviceList
  bool updated = false;
  std::map<uint32_t, Device*> open;
  uint64_t event_seq = 0;  // last machine-wide interface event seen
};

struct System : EventSource {
  System() : EventSource(ObjType::System) {}
  std::vector<uint32_t> listed;
  bool updated = false;
  std::map<uint32_t, Interface*> open;
  std::thread watcher;
  std::atomic<bool> stop{false};
  uint64_t seen[kMaxInterfaces] = {};  // interface events already handed out
};

struct DeliveryOverride {
  uint32_t status = 0, value = 0, count = 0;
  bool use_value = false;
};

struct Fault {
  GC_ERROR error = GC_ERR_ERROR;
  std::string text;
  uint32_t count = 0;
};

struct Counters {
  uint32_t announces = 0, revokes = 0, queues = 0, module_writes = 0;
  uint64_t delivered = 0, underruns = 0;
};

// Everything a loaded and initialised producer holds.
struct Producer {
  Transport transport;
  World world;
  std::vector<std::unique_ptr<VirtualDevice>> devices;
  SharedMap shm;
  System* system = nullptr;
  std::unordered_set<Obj*> live;
  std::map<std::string, Fault> faults;
  std::map<uint32_t, DeliveryOverride> overrides;
  std::map<uint32_t, Counters> counters;
  uint32_t short_reads = 0;

  SharedState* st() const { return shm.get(); }
  SharedCamera& cam(uint32_t i) const { return shm.get()->cams[i]; }
};

extern std::mutex g_mu;
extern Producer* g_prod;
Transport ThisTransport();


}  // namespace kivsim
