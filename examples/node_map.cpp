// Reads and writes features of the first free camera through its node map,
// the GenApi-shaped C++ interface of KivGenApi.
#include <cstdio>

#include <kivcam/kivcam.h>
#include <kivgenapi/KivGenApi.h>

using namespace KivGenApi;

int main() {
  HCAMERA cam;
  void* map = nullptr;
  if (!KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION) || !KIVCAM_Open(KIVCAM_UID_ANY, &cam) ||
      !KIVCAM_GetNodeMap(cam, &map)) {
    std::printf("failed: error %u\n", KIVCAM_GetLastError());
    return 1;
  }
  CNodeMapRef& nodes = *static_cast<CNodeMapRef*>(map);  // the camera's; valid until it closes
  try {
    CIntegerPtr width = nodes._GetNode("Width");
    std::printf("Width = %lld in [%lld, %lld] step %lld\n", (long long)width->GetValue(),
                (long long)width->GetMin(), (long long)width->GetMax(), (long long)width->GetInc());
    width->SetValue(320);
    std::printf("Width = %lld after setting 320\n", (long long)width->GetValue());

    CEnumerationPtr format = nodes._GetNode("PixelFormat");
    std::printf("PixelFormat = %s, one of:", format->ToString().c_str());
    NodeList_t entries;
    format->GetEntries(entries);
    for (INode* n : entries) {
      CEnumEntryPtr e = n;
      if (IsAvailable(e)) std::printf(" %s", e->GetSymbolic().c_str());
    }
    std::printf("\n");

    CFloatPtr exposure = nodes._GetNode("ExposureTime");
    exposure->SetValue(2500.0);
    std::printf("ExposureTime = %g %s\n", exposure->GetValue(), exposure->GetUnit().c_str());
  } catch (const GenericException& e) {
    std::printf("feature access failed: %s\n", e.GetDescription());
    KIVCAM_Close(cam);
    return 1;
  }
  KIVCAM_Close(cam);
  return 0;
}
