// What the commands of the kivcam tool share: exit codes, messages, number
// and camera parsing, the open camera and feature setting (main.cpp), and the
// commands that live in files of their own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kivcam/kivcam.h"

namespace kivcli {

using Args = std::vector<std::string>;

enum Exit : int {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,
  kLost = 3,          // grab, watch: the camera went away (unplugged, or no longer answering)
  kStreamEnded = 4,   // watch: the controlling program stopped streaming, or ended
};

// A failed library call: says which and why (from the last error, or `code`), gives kFailed.
int Fail(const char* call);
int Fail(const char* call, uint32_t code);
// A failure of the feature or camera at hand; gives kFailed.
int Problem(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// A command line that cannot be run: what is wrong, then where to look; gives kUsage.
int UsageError(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// What UsageError points at after its message (a line of its own).
extern const char* g_usage_hint;

enum class Parsed { kOk, kNotNumber, kSigned, kTooBig };
// Decimal (leading zeros too) or 0x hexadecimal, no sign, at most `max`.
Parsed ParseUnsigned(const std::string& s, uint64_t max, uint64_t* out);
// CAMERA (a UID or `first`); on failure says why and gives the exit code.
bool ParseCamera(const std::string& text, uint64_t* uid, int* rc);

// Declares the newest structure version, which loads the producers.
bool Start();
// Every camera's entry of KIVCAM_GetList; false when it fails (last error set).
bool ListCameras(std::vector<CameraListEntry>* cameras);

// An open camera, closed again whatever happens: opened for control, or
// read-only in watch mode (closed with the export of its mode).
class Camera {
 public:
  Camera() = default;
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;
  ~Camera() { Close(); }
  void Close() {
    if (h_) watch_ ? KIVCAM_WatchClose(h_) : KIVCAM_Close(h_);
    h_ = nullptr;
  }
  int Open(uint64_t uid) {
    if (!Start()) return kFailed;
    if (!KIVCAM_Open(uid, &h_)) return Fail("KIVCAM_Open");
    return kDone;
  }
  // Watch mode: `first` is the first GigE camera, a UID is searched among GigE cameras.
  int WatchOpen(uint64_t uid);
  HCAMERA handle() const { return h_; }

 private:
  HCAMERA h_ = nullptr;
  bool watch_ = false;
};

// The value of a feature as text (with its unit), why there is none, or "?"
// for a feature the camera does not have.
std::string ValueText(HCAMERA cam, const std::string& name);
// Sets FEATURE=VALUE assignments in order and prints each value read back;
// the first failure ends.
int Set(Camera& cam, const Args& assignments);

// `kivcam grab` and `kivcam watch`: args are the words after the command.
int Grab(const Args& args);
int Watch(const Args& args);

}  // namespace kivcli
