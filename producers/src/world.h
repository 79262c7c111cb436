// The simulated world of one producer: its interfaces and cameras, from the
// built-in default or from the file named by KIVSIM_CONFIG.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace kivsim {

enum class Transport { GigE, USB };

struct CameraConfig {
  uint32_t interface_index = 0;
  uint64_t uid = 0;
  std::string vendor = "KivCam";
  std::string model;
  std::string family = "KivSim";
  std::string version = "1.2.0";
  std::string info = "KivCam virtual camera";
  std::string serial;
  std::string user_name;
  uint32_t sensor_width = 1920, sensor_height = 1200;
  uint32_t width = 640, height = 480;
  std::vector<uint32_t> formats;  // pixel-format codes offered
  uint32_t format = 0;            // initial pixel format
  double frame_rate = 30.0;       // free-run rate
  bool zip_first = true;          // URL 0 is the ZIP description, URL 1 the plain one
  bool legacy_values = false;     // PixelFormat entries carry small integers
  uint32_t streams = 2;
  uint32_t packet_size_limit = 9000;  // largest packet the stream test lets through
  uint32_t packet_size_max = 9000;    // upper bound of the packet-size feature
  uint32_t link = 0;                  // information 1001; 0 = transport default
  uint32_t ip = 0;                    // GigE camera address; 0 = derived
  bool extended_ids = false;          // GigE: 64-bit block IDs enabled (longer headers)
  uint32_t usb_alignment_exp = 3;     // USB: SI info alignment field
  bool plugged = true;
};

struct InterfaceConfig {
  std::string id;
  std::string display_name;
  uint32_t host_ip = 0;  // GigE: the adapter's address, the cameras' stream destination
};

struct World {
  Transport transport = Transport::GigE;
  std::vector<InterfaceConfig> interfaces;
  std::vector<CameraConfig> cameras;
  std::string error;  // non-empty when the configuration file could not be used
};

// Built-in world when KIVSIM_CONFIG is unset, else the file's world.
World LoadWorld(Transport t);
World DefaultWorld(Transport t);
// Parses configuration text; on error returns a world with `error` set.
World ParseWorld(Transport t, const std::string& text);

std::string DevicePrefix(Transport t);
std::string DeviceIdOf(Transport t, const CameraConfig& c);

}  // namespace kivsim
