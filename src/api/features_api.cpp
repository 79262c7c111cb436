// Features by name: the camera's node map behind a C interface, for C hosts
// and for bindings that reach the library through a foreign-function layer.
// Every access runs under the camera lock, so it serialises with the other
// exports on the camera (and with the stream thread's feature reads).
#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "api/frame.h"
#include "camera/camera.h"
#include "core/kivcam_dll.h"
#include "kivcam/kivcam.h"
#include "kivcam/kivcam_features.h"
#include "kivgenapi/KivGenApi.h"
#include "platform/platform.h"

namespace ga = KivGenApi;
using kivcam::api::CameraLock;
using kivcam::api::CameraOf;
using kivcam::api::Frame;
using kivcam::api::OnCamera;
using kivcam::api::Require;
using kivcam::api::RunBool;
using kivcam::camera::CCamera;
using kivcam::core::CKivCamDLL;

namespace {

// The code a node-map failure becomes: a bad value is the caller's
// argument, a refused access the feature's state.
uint32_t CodeOf(const ga::GenericException& e) {
  if (dynamic_cast<const ga::InvalidArgumentException*>(&e) || dynamic_cast<const ga::OutOfRangeException*>(&e)) {
    return KIVCAM_ERR_PARAM;
  }
  if (dynamic_cast<const ga::TimeoutException*>(&e)) return KIVCAM_ERR_TIMEOUT;
  return KIVCAM_ERR_ACCESS;
}

// Runs `work(node)` on the feature `name` of a present camera; the caller
// holds the camera lock. A failure of the node map carries its own text to
// the call log; a port failure passes through with its code.
template <typename Work>
void OnNode(CCamera& c, const char* name, Work&& work) {
  if (!c.visible()) throw kivcam::Error(KIVCAM_ERR_NO_CAMERA);
  ga::CNodeMapRef* map = c.node_map();
  ga::INode* node = map ? map->_GetNode(name) : nullptr;
  if (!node) throw kivcam::Error(KIVCAM_ERR_PARAM, std::string("Feature Not Found: ") + name);
  try {
    work(*node);
  } catch (const ga::GenericException& e) {
    throw kivcam::Error(CodeOf(e), e.GetDescription());
  }
}

// The frame of every feature export: the camera's frame and lock, name and
// `out` checked (code 1), then `work` on the feature.
template <typename Work>
KIVCAM_BOOL OnFeature(const char* export_name, HCAMERA handle, const char* name, const void* out, Work&& work) {
  return OnCamera(Frame::Camera(export_name, handle), handle, [&](CCamera& c) {
    Require(name);
    Require(out);
    OnNode(c, name, work);
  });
}

// What a node is, in words, for the reason of a refusal.
const char* KindOf(ga::INode& node) {
  switch (node.GetPrincipalInterfaceType()) {
    case ga::intfIInteger: return "an integer";
    case ga::intfIFloat: return "a float";
    case ga::intfIBoolean: return "a boolean";
    case ga::intfICommand: return "a command";
    case ga::intfIString: return "a string";
    case ga::intfIRegister: return "a register";
    case ga::intfICategory: return "a category";
    case ga::intfIEnumeration: return "an enumeration";
    case ga::intfIEnumEntry: return "an enumeration entry";
    case ga::intfIPort: return "a port";
    default: return "a node without a value";
  }
}

// The node as interface I, or Error (1): the feature is of another type.
template <typename I>
I& As(ga::INode& node) {
  auto* i = dynamic_cast<I*>(&node);
  if (!i) throw kivcam::Error(KIVCAM_ERR_PARAM, node.GetName() + " is " + KindOf(node) + ": not this call's type");
  return *i;
}

// A text for the caller: its size always, the bytes when they fit.
void PutText(const std::string& s, char* text, uint32_t* size) {
  if (s.size() >= UINT32_MAX) throw kivcam::Error(KIVCAM_ERR_OTHER);
  const uint32_t need = static_cast<uint32_t>(s.size() + 1);
  const uint32_t capacity = *size;
  *size = need;
  if (!text) return;
  if (capacity < need) throw kivcam::Error(KIVCAM_ERR_BUFFER_SIZE);
  std::memcpy(text, s.c_str(), need);
}

// The entry of an enumeration that may be selected now, or Error (1)
// naming what was asked for.
ga::IEnumEntry& Selectable(ga::IEnumeration& e, ga::IEnumEntry* entry, const std::string& asked) {
  if (!entry) throw kivcam::Error(KIVCAM_ERR_PARAM, e.GetNode()->GetName() + " has no entry " + asked);
  if (!ga::IsAvailable(entry->GetAccessMode())) {
    throw kivcam::Error(KIVCAM_ERR_PARAM, e.GetNode()->GetName() + " entry " + asked + " is not available now");
  }
  return *entry;
}

std::vector<ga::INode*> Children(ga::INode& node) {
  std::vector<ga::INode*> out;
  if (auto* cat = dynamic_cast<ga::ICategory*>(&node)) {
    ga::FeatureList_t features;
    cat->GetFeatures(features);
    for (ga::IValue* f : features) {
      if (ga::INode* child = f ? f->GetNode() : nullptr) out.push_back(child);
    }
  }
  return out;
}

ga::NodeList_t Entries(ga::INode& node) {
  ga::NodeList_t entries;
  if (auto* e = dynamic_cast<ga::IEnumeration*>(&node)) e->GetEntries(entries);
  return entries;
}

void Describe(ga::INode& n, KIVCAMF_INFO* info) {
  std::memset(info, 0, sizeof *info);
  info->Type = static_cast<uint32_t>(n.GetPrincipalInterfaceType());
  info->Access = static_cast<uint32_t>(n.GetAccessMode());
  info->Visibility = static_cast<uint32_t>(n.GetVisibility());
  info->Representation = KIVCAMF_REPR_NONE;
  info->IncMode = KIVCAMF_INC_NONE;
  // A range that cannot be read now (its inputs unavailable, the device
  // refusing) is left out rather than failing the description.
  const bool available = ga::IsAvailable(n.GetAccessMode());
  if (auto* i = dynamic_cast<ga::IInteger*>(&n)) {
    info->Representation = static_cast<uint32_t>(i->GetRepresentation());
    if (available) {
      try {
        info->IntMin = i->GetMin();
        info->IntMax = i->GetMax();
        info->IntInc = i->GetInc();
        info->IncMode = static_cast<uint32_t>(i->GetIncMode());
        if (info->IncMode == KIVCAMF_INC_LIST) {
          info->EntryCount = static_cast<uint32_t>(i->GetListOfValidValues().size());
        }
        info->HasRange = 1;
      } catch (const std::exception&) {
        info->IncMode = KIVCAMF_INC_NONE;
        info->EntryCount = 0;
      }
    }
  } else if (auto* f = dynamic_cast<ga::IFloat*>(&n)) {
    info->Representation = static_cast<uint32_t>(f->GetRepresentation());
    if (available) {
      try {
        info->FloatMin = f->GetMin();
        info->FloatMax = f->GetMax();
        info->IncMode = static_cast<uint32_t>(f->GetIncMode());
        info->FloatInc = f->HasInc() ? f->GetInc() : 0.0;
        info->HasRange = 1;
      } catch (const std::exception&) {
        info->IncMode = KIVCAMF_INC_NONE;
      }
    }
  } else if (auto* s = dynamic_cast<ga::IString*>(&n)) {
    if (available) {
      try {
        info->MaxLength = s->GetMaxLength();
      } catch (const std::exception&) {
      }
    }
  }
  info->EntryCount += static_cast<uint32_t>(Entries(n).size());
  info->ChildCount = static_cast<uint32_t>(Children(n).size());
}

std::string InfoText(ga::INode& n, uint32_t which) {
  switch (which) {
    case KIVCAMF_TEXT_DISPLAYNAME: return n.GetDisplayName();
    case KIVCAMF_TEXT_TOOLTIP: return n.GetToolTip();
    case KIVCAMF_TEXT_DESCRIPTION: return n.GetDescription();
    case KIVCAMF_TEXT_UNIT:
      if (auto* i = dynamic_cast<ga::IInteger*>(&n)) return i->GetUnit();
      if (auto* f = dynamic_cast<ga::IFloat*>(&n)) return f->GetUnit();
      return "";
    default: Require(nullptr);
  }
  return "";
}

}  // namespace

extern "C" {

KIVCAM_API KIVCAM_BOOL KIVCAMF_GetInt(HCAMERA camera, const char* name, int64_t* value) {
  return OnFeature("KIVCAMF_GetInt", camera, name, value,
                   [&](ga::INode& n) { *value = As<ga::IInteger>(n).GetValue(); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_SetInt(HCAMERA camera, const char* name, int64_t value) {
  return OnFeature("KIVCAMF_SetInt", camera, name, name,
                   [&](ga::INode& n) { As<ga::IInteger>(n).SetValue(value); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_GetFloat(HCAMERA camera, const char* name, double* value) {
  return OnFeature("KIVCAMF_GetFloat", camera, name, value,
                   [&](ga::INode& n) { *value = As<ga::IFloat>(n).GetValue(); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_SetFloat(HCAMERA camera, const char* name, double value) {
  return OnFeature("KIVCAMF_SetFloat", camera, name, name, [&](ga::INode& n) {
    ga::IFloat& f = As<ga::IFloat>(n);
    if (!std::isfinite(value)) Require(nullptr);
    f.SetValue(value);
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_GetBool(HCAMERA camera, const char* name, KIVCAM_BOOL* value) {
  return OnFeature("KIVCAMF_GetBool", camera, name, value, [&](ga::INode& n) {
    *value = As<ga::IBoolean>(n).GetValue() ? KIVCAM_TRUE : KIVCAM_FALSE;
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_SetBool(HCAMERA camera, const char* name, KIVCAM_BOOL value) {
  return OnFeature("KIVCAMF_SetBool", camera, name, name,
                   [&](ga::INode& n) { As<ga::IBoolean>(n).SetValue(value != 0); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_GetString(HCAMERA camera, const char* name, char* text, uint32_t* size) {
  return OnFeature("KIVCAMF_GetString", camera, name, size,
                   [&](ga::INode& n) { PutText(As<ga::IString>(n).GetValue(), text, size); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_SetString(HCAMERA camera, const char* name, const char* text) {
  return OnFeature("KIVCAMF_SetString", camera, name, text,
                   [&](ga::INode& n) { As<ga::IString>(n).SetValue(text); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_GetEnum(HCAMERA camera, const char* name, char* symbol, uint32_t* size) {
  return OnFeature("KIVCAMF_GetEnum", camera, name, size,
                   [&](ga::INode& n) { PutText(As<ga::IEnumeration>(n).ToString(), symbol, size); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_SetEnum(HCAMERA camera, const char* name, const char* symbol) {
  return OnFeature("KIVCAMF_SetEnum", camera, name, symbol, [&](ga::INode& n) {
    ga::IEnumeration& e = As<ga::IEnumeration>(n);
    e.SetIntValue(Selectable(e, e.GetEntryByName(symbol), std::string("'") + symbol + "'").GetValue());
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_GetEnumInt(HCAMERA camera, const char* name, int64_t* value) {
  return OnFeature("KIVCAMF_GetEnumInt", camera, name, value,
                   [&](ga::INode& n) { *value = As<ga::IEnumeration>(n).GetIntValue(); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_SetEnumInt(HCAMERA camera, const char* name, int64_t value) {
  return OnFeature("KIVCAMF_SetEnumInt", camera, name, name, [&](ga::INode& n) {
    ga::IEnumeration& e = As<ga::IEnumeration>(n);
    e.SetIntValue(Selectable(e, e.GetEntry(value), std::to_string(value)).GetValue());
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_ToString(HCAMERA camera, const char* name, char* text, uint32_t* size) {
  return OnFeature("KIVCAMF_ToString", camera, name, size,
                   [&](ga::INode& n) { PutText(As<ga::IValue>(n).ToString(), text, size); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_FromString(HCAMERA camera, const char* name, const char* text) {
  return OnFeature("KIVCAMF_FromString", camera, name, text,
                   [&](ga::INode& n) { As<ga::IValue>(n).FromString(text); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_Execute(HCAMERA camera, const char* name, uint32_t timeout) {
  return RunBool(Frame::Camera("KIVCAMF_Execute", camera), [&](CKivCamDLL& lib) {
    auto c = CameraOf(lib, camera);
    Require(name);
    c->PreCall();
    const uint32_t start = kivcam::platform::TickCount();
    auto on_command = [&](auto&& work) {
      CameraLock g(*c);
      OnNode(*c, name, work);
    };
    on_command([&](ga::INode& n) { As<ga::ICommand>(n).Execute(); });
    // Between looks the camera is free for other calls (an image wait, the
    // stream thread) that the command's completion may depend on.
    for (uint32_t pause = 1;; pause = pause < 16 ? pause * 2 : pause) {
      bool done = false;
      on_command([&](ga::INode& n) { done = As<ga::ICommand>(n).IsDone(); });
      if (done) return;
      const uint32_t waited = kivcam::platform::TickCount() - start;
      if (timeout != KIVCAM_INFINITE && waited >= timeout) throw kivcam::Error(KIVCAM_ERR_TIMEOUT);
      kivcam::platform::SleepMs(timeout == KIVCAM_INFINITE ? pause : std::min(pause, timeout - waited));
    }
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_IsDone(HCAMERA camera, const char* name, KIVCAM_BOOL* done) {
  return OnFeature("KIVCAMF_IsDone", camera, name, done, [&](ga::INode& n) {
    *done = As<ga::ICommand>(n).IsDone() ? KIVCAM_TRUE : KIVCAM_FALSE;
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_GetInfo(HCAMERA camera, const char* name, KIVCAMF_INFO* info) {
  return OnFeature("KIVCAMF_GetInfo", camera, name, info, [&](ga::INode& n) { Describe(n, info); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_GetInfoText(HCAMERA camera, const char* name, uint32_t which, char* text,
                                           uint32_t* size) {
  return OnFeature("KIVCAMF_GetInfoText", camera, name, size,
                   [&](ga::INode& n) { PutText(InfoText(n, which), text, size); });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_GetEntry(HCAMERA camera, const char* name, uint32_t index, int64_t* value,
                                        uint32_t* access, char* symbol, uint32_t* size) {
  return OnFeature("KIVCAMF_GetEntry", camera, name, size, [&](ga::INode& n) {
    int64_t v = 0;
    uint32_t a = KIVCAMF_ACCESS_RO;
    std::string s;
    if (auto* i = dynamic_cast<ga::IInteger*>(&n)) {
      if (i->GetIncMode() != ga::listIncrement) Require(nullptr);
      std::vector<int64_t> values = i->GetListOfValidValues();
      if (index >= values.size()) Require(nullptr);
      v = values[index];
    } else {
      ga::NodeList_t entries = Entries(n);
      if (index >= entries.size()) Require(nullptr);
      ga::IEnumEntry& e = As<ga::IEnumEntry>(*entries[index]);
      v = e.GetValue();
      a = static_cast<uint32_t>(entries[index]->GetAccessMode());
      s = e.GetSymbolic();
    }
    PutText(s, symbol, size);
    if (value) *value = v;
    if (access) *access = a;
  });
}

KIVCAM_API KIVCAM_BOOL KIVCAMF_GetChild(HCAMERA camera, const char* name, uint32_t index, char* child,
                                        uint32_t* size) {
  return OnFeature("KIVCAMF_GetChild", camera, name, size, [&](ga::INode& n) {
    std::vector<ga::INode*> children = Children(n);
    if (index >= children.size()) Require(nullptr);
    PutText(children[index]->GetName(), child, size);
  });
}

}  // extern "C"

KIVCAM_API uint32_t KIVCAMF_GetLastErrorText(char* text, uint32_t size) {
  CKivCamDLL* lib = kivcam::core::Library();
  const std::string reason = lib ? lib->GetErrorText() : std::string();
  const size_t need = std::min<size_t>(reason.size(), UINT32_MAX - 1) + 1;
  if (text && size) {
    const size_t n = std::min<size_t>(need, size) - 1;
    std::memcpy(text, reason.data(), n);
    text[n] = '\0';
  }
  return static_cast<uint32_t>(need);
}
