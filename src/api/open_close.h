// The steps the control and the watch-mode families share: opening (by UID,
// by key, the first free) and closing a camera of the expected mode.
#pragma once

#include <cstdint>

#include "kivcam/kivcam.h"

namespace kivcam::core {
class CKivCamDLL;
}

namespace kivcam::api {

// KIVCAM_Open / KIVCAM_WatchOpen: by UID, or the first free one (all ones).
void OpenByUid(core::CKivCamDLL& lib, uint64_t uid, HCAMERA* camera, uint8_t read_only);
// KIVCAM_OpenGigE / OpenUSB / WatchOpenGigE: by UID, else by key, else the first free one.
void OpenByParam(core::CKivCamDLL& lib, const KIVCAM_OPENPARAM* param, HCAMERA* camera, int32_t kind,
                 uint8_t read_only);
// KIVCAM_Close / KIVCAM_WatchClose: error 6 for a camera of the other mode.
void CloseCamera(core::CKivCamDLL& lib, HCAMERA camera, bool watch);

}  // namespace kivcam::api
