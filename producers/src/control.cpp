// The control interface of kivsim.h.
#include <kivsim/kivsim.h>

#include "common.h"

using namespace kivsim;

namespace {

#define KIVSIM_CONTROL()                                 \
  std::lock_guard<std::mutex> lock(g_mu);                \
  if (!g_prod) return GC_ERR_NOT_INITIALIZED

bool BadCamera(uint32_t cam) { return cam >= g_prod->devices.size(); }

}  // namespace

extern "C" {

KIVSIM_API int32_t kivsim_camera_count(void) {
  KIVSIM_CONTROL();
  return static_cast<int32_t>(g_prod->devices.size());
}

KIVSIM_API int32_t kivsim_camera_index(const char* device_id) {
  KIVSIM_CONTROL();
  for (size_t i = 0; device_id && i < g_prod->devices.size(); ++i)
    if (g_prod->devices[i]->id() == device_id) return static_cast<int32_t>(i);
  return GC_ERR_INVALID_ID;
}

KIVSIM_API int32_t kivsim_plug(uint32_t camera, int32_t plugged) {
  KIVSIM_CONTROL();
  if (BadCamera(camera)) return GC_ERR_INVALID_INDEX;
  {
    SharedLock l(g_prod->st());
    SharedCamera& sc = g_prod->cam(camera);
    sc.plugged = plugged ? 1 : 0;
    if (!plugged) sc.acquiring = 0;
    l.Notify();
  }
  RaiseInterfaceEvent(g_prod->devices[camera]->config().interface_index, KIVSIM_EVENT_BUS_RESET);
  return 0;
}

KIVSIM_API int32_t kivsim_raise_interface_event(uint32_t interface_index, uint32_t code) {
  KIVSIM_CONTROL();
  if (interface_index >= g_prod->world.interfaces.size()) return GC_ERR_INVALID_INDEX;
  RaiseInterfaceEvent(interface_index, code);
  return 0;
}

KIVSIM_API int32_t kivsim_deliver(uint32_t camera, uint32_t frames) {
  KIVSIM_CONTROL();
  if (BadCamera(camera)) return GC_ERR_INVALID_INDEX;
  SharedLock l(g_prod->st());
  SharedCamera& sc = g_prod->cam(camera);
  sc.mode = kOnDemand;
  sc.credits += frames;
  l.Notify();
  return 0;
}

KIVSIM_API int32_t kivsim_free_run(uint32_t camera, double fps) {
  KIVSIM_CONTROL();
  if (BadCamera(camera) || fps < 0 || fps > 1e6) return BadCamera(camera) ? GC_ERR_INVALID_INDEX : GC_ERR_INVALID_PARAMETER;
  SharedLock l(g_prod->st());
  SharedCamera& sc = g_prod->cam(camera);
  sc.mode = kFreeRun;
  sc.credits = 0;
  g_prod->devices[camera]->SetReg32(sc, kRegFrameRate, static_cast<uint32_t>(fps * 1000.0 + 0.5));
  l.Notify();
  return 0;
}

KIVSIM_API int32_t kivsim_set_delivery_status(uint32_t camera, uint32_t status, uint32_t value, int32_t use_value,
                                              uint32_t count) {
  KIVSIM_CONTROL();
  if (BadCamera(camera)) return GC_ERR_INVALID_INDEX;
  DeliveryOverride& o = g_prod->overrides[camera];
  o.status = status;
  o.value = value;
  o.use_value = use_value != 0;
  o.count = count;
  return 0;
}

KIVSIM_API int32_t kivsim_fail_next(const char* entry_point, int32_t error, const char* text, uint32_t count) {
  KIVSIM_CONTROL();
  if (!entry_point) return GC_ERR_INVALID_PARAMETER;
  if (count == 0) {
    g_prod->faults.erase(entry_point);
    return 0;
  }
  Fault& f = g_prod->faults[entry_point];
  f.error = error;
  f.text = text ? text : "Injected failure";
  f.count = count;
  return 0;
}

KIVSIM_API uint64_t kivsim_failures_injected(void) { return InjectedCount(); }

KIVSIM_API int32_t kivsim_short_reads(uint32_t count) {
  KIVSIM_CONTROL();
  g_prod->short_reads = count;
  return 0;
}

KIVSIM_API int32_t kivsim_set_packet_size_limit(uint32_t camera, uint32_t limit) {
  KIVSIM_CONTROL();
  if (BadCamera(camera)) return GC_ERR_INVALID_INDEX;
  SharedLock l(g_prod->st());
  g_prod->cam(camera).packet_size_limit = limit;
  return 0;
}

KIVSIM_API int32_t kivsim_get_counters(uint32_t camera, kivsim_counters* out) {
  KIVSIM_CONTROL();
  if (BadCamera(camera)) return GC_ERR_INVALID_INDEX;
  if (!out) return GC_ERR_INVALID_PARAMETER;
  const Counters& c = g_prod->counters[camera];
  SharedLock l(g_prod->st());
  const SharedCamera& sc = g_prod->cam(camera);
  out->frames_produced = sc.frames;
  out->frames_delivered = c.delivered;
  out->underruns = c.underruns;
  out->announces = c.announces;
  out->revokes = c.revokes;
  out->queues = c.queues;
  out->reset_requests = sc.reset_requests;
  out->register_writes = sc.register_writes;
  out->module_writes = c.module_writes;
  // Seen under the producer lock, a waiter of an event is asleep in EventGetData.
  out->waiting = 0;
  if (g_prod->system)
    for (const auto& [index, iface] : g_prod->system->open) {
      auto d = iface->open.find(camera);
      if (d == iface->open.end()) continue;
      for (Stream* s : d->second->streams) {
        if (!s) continue;
        auto e = s->events.find(EVENT_NEW_BUFFER);
        if (e != s->events.end()) out->waiting += e->second->waiters;
      }
    }
  return 0;
}

KIVSIM_API int32_t kivsim_reset_faults(void) {
  KIVSIM_CONTROL();
  g_prod->faults.clear();
  g_prod->overrides.clear();
  g_prod->short_reads = 0;
  return 0;
}

}  // extern "C"
