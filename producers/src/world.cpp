#include "world.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "pixfmt.h"

namespace kivsim {

namespace {

std::vector<uint32_t> FormatsWhere(bool (*keep)(const PixelFormatInfo&)) {
  std::vector<uint32_t> v;
  for (const auto& f : AllPixelFormats())
    if (keep(f)) v.push_back(f.code);
  return v;
}

void FillDefaults(Transport t, CameraConfig& c, size_t index) {
  char buf[64];
  if (c.serial.empty()) {
    std::snprintf(buf, sizeof buf, "%s%05zu", t == Transport::GigE ? "KG" : "KU", 1001 + index);
    c.serial = buf;
  }
  if (c.user_name.empty()) c.user_name = "cam" + std::to_string(index + 1);
  if (c.model.empty()) c.model = t == Transport::GigE ? "KivSim-GigE" : "KivSim-USB";
  if (c.uid == 0) c.uid = (t == Transport::GigE ? 0x00A0B7000000ULL : 0x4B49560000000000ULL) + 1 + index;
  if (c.formats.empty()) c.formats = FormatsWhere([](const PixelFormatInfo&) { return true; });
  if (c.format == 0) c.format = c.formats.front();
  if (c.link == 0) c.link = t == Transport::GigE ? 1000 : 0x300;
  if (c.ip == 0) c.ip = 0xC0A80000u + ((c.interface_index + 1) << 8) + 100 + static_cast<uint32_t>(index);
  if (c.width > c.sensor_width) c.width = c.sensor_width;
  if (c.height > c.sensor_height) c.height = c.sensor_height;
}

void FillInterfaces(World& w, size_t n) {
  for (size_t i = w.interfaces.size(); i < n; ++i) {
    InterfaceConfig ic;
    if (w.transport == Transport::GigE) {
      ic.id = "KivGEV_eth" + std::to_string(i);
      ic.display_name = "Virtual network adapter " + std::to_string(i);
      ic.host_ip = 0xC0A80001u + (static_cast<uint32_t>(i + 1) << 8);  // 192.168.(i+1).1
    } else {
      ic.id = "KivU3V_host" + std::to_string(i);
      ic.display_name = "Virtual USB3 host controller " + std::to_string(i);
    }
    w.interfaces.push_back(ic);
  }
}

std::string Trim(const std::string& s) {
  size_t a = s.find_first_not_of(" \t\r"), b = s.find_last_not_of(" \t\r");
  return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
}

bool ParseBool(const std::string& v) { return v == "1" || v == "yes" || v == "true" || v == "on"; }

}  // namespace

std::string DevicePrefix(Transport t) { return t == Transport::GigE ? "KivGEV" : "KivU3V"; }
std::string DeviceIdOf(Transport t, const CameraConfig& c) { return DevicePrefix(t) + "::" + std::to_string(c.uid); }

World DefaultWorld(Transport t) {
  World w;
  w.transport = t;
  if (t == Transport::GigE) {
    FillInterfaces(w, 2);
    CameraConfig mono;
    mono.interface_index = 1;
    mono.model = "KivSim-GC1920M";
    mono.formats = FormatsWhere(IsMono);
    mono.format = 0x01080001;
    CameraConfig colour;
    colour.interface_index = 1;
    colour.model = "KivSim-GC1920C";
    colour.formats = FormatsWhere([](const PixelFormatInfo& f) { return !IsMono(f) || f.code == 0x01080001; });
    colour.format = 0x01080009;  // BayerRG8
    colour.zip_first = false;
    w.cameras = {mono, colour};
  } else {
    FillInterfaces(w, 1);
    CameraConfig cam;
    cam.model = "KivSim-UC1920C";
    cam.format = 0x01080009;
    w.cameras = {cam};
  }
  for (size_t i = 0; i < w.cameras.size(); ++i) FillDefaults(t, w.cameras[i], i);
  return w;
}

World ParseWorld(Transport t, const std::string& text) {
  World w;
  w.transport = t;
  const std::string mine = t == Transport::GigE ? "gige" : "usb";
  std::istringstream in(text);
  std::string line, section, cam_transport;
  size_t interfaces = 0;
  CameraConfig cur;
  bool in_camera = false;
  auto flush = [&]() {
    if (in_camera && cam_transport == mine) w.cameras.push_back(cur);
    in_camera = false;
  };
  int lineno = 0;
  while (std::getline(in, line)) {
    ++lineno;
    size_t hash = line.find('#');
    if (hash != std::string::npos) line.resize(hash);
    line = Trim(line);
    if (line.empty()) continue;
    if (line.front() == '[' && line.back() == ']') {
      flush();
      section = Trim(line.substr(1, line.size() - 2));
      if (section == "camera") {
        in_camera = true;
        cur = CameraConfig();
        cam_transport = "gige";
      }
      continue;
    }
    size_t eq = line.find('=');
    if (eq == std::string::npos) {
      w.error = "line " + std::to_string(lineno) + ": expected key = value";
      return w;
    }
    std::string key = Trim(line.substr(0, eq)), val = Trim(line.substr(eq + 1));
    auto num = [&]() { return std::strtoull(val.c_str(), nullptr, 0); };
    if (section == mine && key == "interfaces") {
      interfaces = num();
    } else if (section == "camera") {
      if (key == "transport") cam_transport = val;
      else if (key == "interface") cur.interface_index = static_cast<uint32_t>(num());
      else if (key == "uid") cur.uid = num();
      else if (key == "vendor") cur.vendor = val;
      else if (key == "model") cur.model = val;
      else if (key == "serial") cur.serial = val;
      else if (key == "user_name") cur.user_name = val;
      else if (key == "version") cur.version = val;
      else if (key == "sensor_width") cur.sensor_width = static_cast<uint32_t>(num());
      else if (key == "sensor_height") cur.sensor_height = static_cast<uint32_t>(num());
      else if (key == "width") cur.width = static_cast<uint32_t>(num());
      else if (key == "height") cur.height = static_cast<uint32_t>(num());
      else if (key == "frame_rate") cur.frame_rate = std::strtod(val.c_str(), nullptr);
      else if (key == "description") cur.zip_first = val != "plain";
      else if (key == "pixel_values") cur.legacy_values = val == "legacy";
      else if (key == "streams") cur.streams = static_cast<uint32_t>(num());
      else if (key == "packet_size_limit") cur.packet_size_limit = static_cast<uint32_t>(num());
      else if (key == "packet_size_max") cur.packet_size_max = static_cast<uint32_t>(num());
      else if (key == "link") cur.link = static_cast<uint32_t>(num());
      else if (key == "extended_ids") cur.extended_ids = ParseBool(val);
      else if (key == "usb_alignment") cur.usb_alignment_exp = static_cast<uint32_t>(num());
      else if (key == "plugged") cur.plugged = ParseBool(val);
      else if (key == "pixel_formats" || key == "pixel_format") {
        std::istringstream names(val);
        std::string n;
        std::vector<uint32_t> codes;
        while (names >> n) {
          const PixelFormatInfo* f = FindPixelFormatByName(n);
          if (!f) f = FindPixelFormat(static_cast<uint32_t>(std::strtoul(n.c_str(), nullptr, 0)));
          if (!f) {
            w.error = "line " + std::to_string(lineno) + ": unknown pixel format " + n;
            return w;
          }
          codes.push_back(f->code);
        }
        if (key == "pixel_formats") cur.formats = codes;
        else if (!codes.empty()) cur.format = codes.front();
      } else {
        w.error = "line " + std::to_string(lineno) + ": unknown key " + key;
        return w;
      }
    }
  }
  flush();
  for (const auto& c : w.cameras)
    if (c.interface_index + 1 > interfaces) interfaces = c.interface_index + 1;
  if (interfaces > 8 || w.cameras.size() > 16) {
    w.error = "at most 8 interfaces and 16 cameras per transport";
    return w;
  }
  FillInterfaces(w, interfaces);
  for (size_t i = 0; i < w.cameras.size(); ++i) {
    auto& c = w.cameras[i];
    FillDefaults(t, c, i);
    bool offered = false;
    for (uint32_t code : c.formats) offered |= code == c.format;
    if (!offered) c.formats.insert(c.formats.begin(), c.format);
    if (c.streams < 1) c.streams = 1;
    if (c.streams > 2) c.streams = 2;
  }
  return w;
}

World LoadWorld(Transport t) {
  const char* path = std::getenv("KIVSIM_CONFIG");
  if (!path || !*path) return DefaultWorld(t);
  std::ifstream f(path);
  if (!f) {
    World w;
    w.transport = t;
    w.error = std::string("cannot read ") + path;
    return w;
  }
  std::stringstream ss;
  ss << f.rdbuf();
  return ParseWorld(t, ss.str());
}

}  // namespace kivsim
