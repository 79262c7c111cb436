#include "transport/device_info.h"

#include "transport/gentl.h"
#include "transport/ids.h"

namespace kivcam::transport {

bool DeviceInfoReader::Query(int32_t command, size_t capacity) {
  std::memset(buf_, 0, sizeof buf_);
  INFO_DATATYPE type = 0;
  got_ = capacity < kBytes ? capacity : kBytes;
  if (producer_->fn().DevGetInfo(device_, command, &type, buf_, &got_) == GC_ERR_SUCCESS) return true;
  producer_->LogLastError(op_);
  return false;
}

bool FillEntryFromDevice(CGenTL* producer, DEV_HANDLE device, const char* op, CameraListEntry* info) {
  std::memset(info, 0, sizeof *info);
  DeviceInfoReader r(producer, device, op);
  if (!r.Query(DEVICE_INFO_ID)) return false;
  info->UID = ParseUid(r.text());
  if (!r.Text(DEVICE_INFO_VENDOR, info->Vendor, sizeof info->Vendor)) return false;
  if (!r.Text(DEVICE_INFO_MODEL, info->Model, sizeof info->Model)) return false;
  if (!r.Query(1002)) return false;
  info->Info1002 = r.Word();
  if (!r.Query(1001)) return false;
  info->LinkCode = LinkCode(producer->kind(), r.Word());
  uint32_t kind;
  if (CameraKindOf(producer->kind(), &kind)) info->CameraKind = kind;
  return true;
}

}  // namespace kivcam::transport
