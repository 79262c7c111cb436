// USB3 Vision cameras: little-endian registers and the USB information record.
#include <cstring>

#include "camera/camera_usb.h"
#include "diag/error.h"
#include "transport/device_info.h"
#include "transport/gentl.h"

namespace kivcam::camera {

CCameraUSB::CCameraUSB(transport::CGenTL* producer, transport::CInterface* owner,
                       const std::string& device_id, transport::DeviceHandle device,
                       uint32_t description_index)
    : CCamera(producer, owner, device_id, std::move(device), description_index, false) {}

bool CCameraUSB::ReadRegister(uint32_t address, uint32_t* value) {
  size_t size = sizeof *value;
  return m_pGenTL->fn().GCReadPort(m_hPort, address, value, &size) >= 0;
}

bool CCameraUSB::WriteRegister(uint32_t address, uint32_t value) {
  size_t size = sizeof value;
  return m_pGenTL->fn().GCWritePort(m_hPort, address, &value, &size) >= 0;
}

void CCameraUSB::CameraInfo(USBCameraInfo* info) {
  std::memset(info, 0, sizeof *info);
  transport::DeviceInfoReader r(m_pGenTL, device(), "CCameraUSB::CameraInfo");
  bool ok = r.Query(1003, 4) && ((info->Info1003_1004 = r.Word() << 16), true);
  ok = ok && r.Query(1004, 4) && ((info->Info1003_1004 |= r.Word()), true);
  ok = ok && r.Text(DEVICE_INFO_VENDOR, info->Vendor, sizeof info->Vendor) &&
       r.Text(DEVICE_INFO_MODEL, info->Model, sizeof info->Model) &&
       r.Text(1010, info->FamilyName, sizeof info->FamilyName) &&
       r.Text(1006, info->DeviceVersion, sizeof info->DeviceVersion) &&
       r.Text(1007, info->ManufacturerInfo, sizeof info->ManufacturerInfo) &&
       r.Text(1008, info->SerialNumber, sizeof info->SerialNumber) &&
       r.Text(1009, info->UserDefinedName, sizeof info->UserDefinedName);
  ok = ok && r.Query(1002, 4) && ((info->Info1002 = r.Word()), true);
  ok = ok && r.Query(1011, 8) && ((info->Info1011 = r.Quad()), true);
  if (!ok) throw Error(KIVCAM_ERR_OTHER);
}

}  // namespace kivcam::camera
