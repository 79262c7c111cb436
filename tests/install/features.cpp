// A C++ host of an installed KivCam: the C header, the node-map engine's
// headers and nothing else, linked with the library alone.
#include <cstdio>

#include <kivcam/kivcam.h>
#include <kivgenapi/KivGenApi.h>

int main() {
  HCAMERA cam = nullptr;
  if (!KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION) || !KIVCAM_Open(KIVCAM_UID_ANY, &cam)) {
    std::printf("no camera: error %u\n", KIVCAM_GetLastError());
    return 1;
  }
  void* raw = nullptr;
  KIVCAM_GetNodeMap(cam, &raw);
  auto* map = static_cast<KivGenApi::CNodeMapRef*>(raw);
  try {
    KivGenApi::CIntegerPtr width = map->_GetNode("Width");
    KivGenApi::CEnumerationPtr format = map->_GetNode("PixelFormat");
    width->SetValue(320);
    std::printf("Width %lld PixelFormat %s\n", static_cast<long long>(width->GetValue()),
                format->ToString().c_str());
  } catch (const KivGenApi::GenericException& e) {
    std::printf("node map: %s\n", e.what());
    KIVCAM_Close(cam);
    return 1;
  }
  KIVCAM_Close(cam);
  return 0;
}
